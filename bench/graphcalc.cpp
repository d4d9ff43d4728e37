// Graph calculation against what it cannot beat, in the same run:
//   magnitude    recomputing the magnitude graph of one record after its window moved (FFT length
//                65536, 1/12-octave smoothing) against its floor: one real FFT of the windowed
//                response plus one pass over the bins (the level of each);
//   parallel     eight records on all processors against the same in a copy of this program that
//                taskset confines to one processor;
//   interactive  magnitude, phase and group delay of one record, as dragging a window edge asks for
//                them: the time of the three, against a frame of 16 ms.
// Each figure is the fastest of several runs; the ratios are printed after the table.

#include "dsp/Decibels.h"
#include "graphcalc/RecordGraphCalculationControllers.h"
#include "math/VELTFFTSetup.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <unistd.h>

namespace {

using namespace tavolar;

constexpr std::size_t kLength = 65536;

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::shared_ptr<VELTMeasurementRecord> roomRecord(unsigned seed) {
    std::mt19937 generator(seed);
    std::normal_distribution<float> noise(0.0f, 1.0f);
    VELTRealVector impulse(2 * kLength);
    for (std::size_t n = 0; n < 48000; ++n)
        impulse[n] = std::exp(-static_cast<float>(n) / 4800.0f) * noise(generator);
    impulse[0] = 1.0f;
    auto record = VELTMeasurementRecord::record();
    record->setSampleRate(48000);
    record->setImpulseResponse(std::move(impulse));
    record->setWindowBegin(-100);
    record->setWindowEnd(40000);
    return record;
}

std::map<std::string, double> best;

void keep(const std::string& name, double seconds) {
    auto [entry, added] = best.emplace(name, seconds);
    if (!added)
        entry->second = std::min(entry->second, seconds);
}

// A window edge that moves by one sample each time, so no cached spectrum is reused.
void nudge(VELTMeasurementRecord& record) {
    record.setWindowEnd(record.windowEnd() == 40000 ? 40001 : 40000);
}

void magnitude(benchmark::State& state) {
    GraphCalculationSettings settings;
    settings.smoothingFraction = 1.0f / 12.0f;
    MagnitudeResponseGraphCalculationController controller(settings);
    auto record = roomRecord(1);
    VELTFFTSetup setup = VELTFFTSetup::FFTSetupWithLength(kLength);
    VELTRealVector real(kLength / 2 + 1), imag(kLength / 2 + 1), levels(kLength / 2 + 1);
    for (auto _ : state) {
        nudge(*record);
        double start = now();
        GraphDataArray curves = controller.calculate({record});
        benchmark::DoNotOptimize(curves);
        keep("magnitude graph", now() - start);

        start = now();
        VELTRealVector windowed = record->windowedImpulseResponse();
        windowed.setLength(kLength);
        setup.forwardReal(windowed.components(), real.mutableComponents(), imag.mutableComponents());
        for (std::size_t k = 0; k < levels.length(); ++k)
            levels[k] = 10.0f * std::log10(real[k] * real[k] + imag[k] * imag[k] + 1e-30f);
        benchmark::DoNotOptimize(levels);
        keep("magnitude floor", now() - start);
    }
}
BENCHMARK(magnitude)->Unit(benchmark::kMillisecond)->Iterations(30);

// The best time of eight records, all on the calling process's processors, after a first run that
// is not timed: that run starts the controller's worker threads and fills the records' caches, which
// a graph being redrawn has already done, so both sides of the comparison time the same warm work.
double eightRecords(int runs) {
    GraphCalculationSettings settings;
    settings.smoothingFraction = 1.0f / 12.0f;
    MagnitudeResponseGraphCalculationController controller(settings);
    RecordArray records;
    for (unsigned r = 0; r < 8; ++r)
        records.push_back(roomRecord(r + 10));
    double fastest = 1e30;
    for (int run = -1; run < runs; ++run) {
        for (auto& record : records)
            nudge(*record);
        double start = now();
        benchmark::DoNotOptimize(controller.calculate(records));
        if (run >= 0)
            fastest = std::min(fastest, now() - start);
    }
    return fastest;
}

// Eight records on every processor here, and in a copy of this program confined to one processor
// (taskset), so that nothing of the calculation, post-processing included, uses a second one. The
// two alternate, so that both see the same load from elsewhere.
void parallel(benchmark::State& state) {
    const std::string command =
        "TAVOLAR_BENCH_ONE_CORE=1 taskset -c 0 /proc/" + std::to_string(getpid()) + "/exe";
    for (auto _ : state) {
        keep("eight records, all cores", eightRecords(10));
        if (FILE* child = popen(command.c_str(), "r")) {
            double seconds = 0;
            if (std::fscanf(child, "%lf", &seconds) == 1)
                keep("eight records, one core", seconds);
            pclose(child);
        }
    }
}
BENCHMARK(parallel)->Unit(benchmark::kMillisecond)->Iterations(4);

void interactive(benchmark::State& state) {
    GraphCalculationSettings settings;
    settings.smoothingFraction = 1.0f / 12.0f;
    MagnitudeResponseGraphCalculationController magnitudes(settings);
    PhaseGraphCalculationController phases(FrequencyCurveKind::Phase, settings);
    PhaseGraphCalculationController delays(FrequencyCurveKind::GroupDelay, settings);
    auto record = roomRecord(2);
    for (auto _ : state) {
        nudge(*record);
        double start = now();
        benchmark::DoNotOptimize(magnitudes.calculate({record}));
        benchmark::DoNotOptimize(phases.calculate({record}));
        benchmark::DoNotOptimize(delays.calculate({record}));
        keep("magnitude, phase and group delay", now() - start);
    }
}
BENCHMARK(interactive)->Unit(benchmark::kMillisecond)->Iterations(30);

} // namespace

int main(int argc, char** argv) {
    if (std::getenv("TAVOLAR_BENCH_ONE_CORE")) {
        std::printf("%.9f\n", eightRecords(10));
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    std::printf("\nfastest runs (ms):\n");
    for (const auto& [name, seconds] : best)
        std::printf("  %-36s %9.3f\n", name.c_str(), seconds * 1000.0);
    if (best.count("magnitude graph"))
        std::printf("magnitude graph / floor (target at most 1.5): %.2f\n",
                    best["magnitude graph"] / best["magnitude floor"]);
    if (best.count("eight records, one core"))
        std::printf("eight records, one core / all %d (target at least 1.7): %.2f\n",
                    OperationQueue::processorCount(),
                    best["eight records, one core"] / best["eight records, all cores"]);
    if (best.count("magnitude, phase and group delay"))
        std::printf("magnitude, phase and group delay: %.2f ms (a frame is 16 ms)\n",
                    best["magnitude, phase and group delay"] * 1000.0);
    benchmark::Shutdown();
}
