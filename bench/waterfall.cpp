// Waterfalls against what they cannot beat, in the same run:
//   W1  100 slices of 8192 points, W2  50 slices of 65536 points, of a 2^18-sample response at
//       48 kHz (exponentially decaying noise), behind a half Hanning window, slices spread over a
//       quarter of the FFT length as the graph's default;
//   ours on one core (one slice at a time) and on two (two at a time), the whole operation: slices
//   cut, tapered, transformed, in dB, written into the matrix, normalised;
//   bare FFTW: the interleaved real-to-complex plan of the same length and planning (estimated, as
//   the FFT layer plans such lengths), each slice copied into its input and transformed, one core;
//   numpy: bench/peers/waterfall_numpy.py computing the same slices (run from here on the same data;
//   it also prints the mean level, which should equal ours, and the time of its FFT alone: five
//   times faster than numpy cannot be had where numpy's FFT is less than five times the bare FFTW).
// Within each iteration ours on one core, ours on two and bare FFTW alternate, so all three see the
// same conditions; the ratios printed after the table compare the fastest iteration of each.
// TAVOLAR_BENCH_PEERS=0 skips numpy; TAVOLAR_PYTHON names the interpreter with numpy.

#include "dsp/Windowing.h"
#include "graphcalc/WaterfallMeasurementProcessingOperation.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fftw3.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <unistd.h>

namespace {

using namespace tavolar;

constexpr std::size_t kResponseLength = std::size_t{1} << 18;
constexpr std::int64_t kHalfHanning = 4;

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

const std::shared_ptr<VELTMeasurementRecord>& record() {
    static const std::shared_ptr<VELTMeasurementRecord> made = [] {
        std::mt19937 generator(7);
        std::normal_distribution<float> noise(0.0f, 1.0f);
        VELTRealVector response(kResponseLength);
        for (std::size_t n = 0; n < kResponseLength / 2; ++n)
            response[n] = noise(generator) * std::exp(-static_cast<float>(n) / 9600.0f);
        auto record = VELTMeasurementRecord::record();
        record->setSampleRate(48000);
        record->setImpulseResponse(std::move(response));
        return record;
    }();
    return made;
}

WaterfallSettings settingsFor(std::int64_t fftLength, std::int64_t slices) {
    return {.windowType = kHalfHanning,
            .startAtPeak = false,
            .startTime = 0.0f,
            .duration = 0.0f,
            .fftLength = fftLength,
            .sliceCount = slices};
}

// The spacing of the slices' starts, as the operation places them.
std::int64_t spacingOf(std::int64_t fftLength, std::int64_t slices) {
    return std::llround(double(fftLength / 4) / double(slices - 1));
}

struct Best {
    double one = 1e9, two = 1e9, fftw = 1e9;
    float meanLevel = 0.0f;
};
std::map<std::pair<std::int64_t, std::int64_t>, Best> best;

double ours(std::int64_t fftLength, std::int64_t slices, int cores, float* meanLevel) {
    const double start = now();
    auto operation =
        std::make_shared<WaterfallMeasurementProcessingOperation>(record(), settingsFor(fftLength, slices));
    operation->setMaxConcurrentSliceCount(cores);
    operation->start();
    const double end = now();
    GraphDataArray result = operation->graphDataArray();
    benchmark::DoNotOptimize(result.data());
    if (meanLevel && !result.empty())
        *meanLevel = result.front()->y().sumOfElements() / static_cast<float>(result.front()->y().length());
    return end - start;
}

void BM_Waterfall(benchmark::State& state) {
    const std::int64_t fftLength = state.range(0), slices = state.range(1);
    const auto n = static_cast<std::size_t>(fftLength);
    float* in = fftwf_alloc_real(n);
    fftwf_complex* spectrum = fftwf_alloc_complex(n / 2 + 1);
    fftwf_plan plan = fftwf_plan_dft_r2c_1d(static_cast<int>(n), in, spectrum, FFTW_ESTIMATE);
    const float* response = record()->impulseResponse()->components();
    const std::int64_t spacing = spacingOf(fftLength, slices);
    Best& kept = best[{fftLength, slices}];
    ours(fftLength, slices, 1, nullptr); // plans and pools made before the first timing
    for (auto _ : state) {
        const double one = ours(fftLength, slices, 1, &kept.meanLevel);
        const double two = ours(fftLength, slices, 2, nullptr);
        const double start = now();
        for (std::int64_t k = 0; k < slices; ++k) {
            std::memcpy(in, response + k * spacing, n * sizeof(float));
            fftwf_execute_dft_r2c(plan, in, spectrum);
        }
        benchmark::DoNotOptimize(spectrum);
        benchmark::ClobberMemory();
        const double fftw = now() - start;
        state.SetIterationTime(one);
        kept.one = std::min(kept.one, one);
        kept.two = std::min(kept.two, two);
        kept.fftw = std::min(kept.fftw, fftw);
    }
    state.counters["x_fftw"] = kept.one / kept.fftw;
    state.counters["two_cores_speedup"] = kept.one / kept.two;
    fftwf_destroy_plan(plan);
    fftwf_free(spectrum);
    fftwf_free(in);
}
BENCHMARK(BM_Waterfall)->Args({8192, 100})->Args({65536, 50})->UseManualTime()->Unit(benchmark::kMillisecond);

std::string pythonWithNumpy() {
    std::vector<std::string> candidates;
    if (const char* chosen = std::getenv("TAVOLAR_PYTHON"))
        candidates.emplace_back(chosen);
    candidates.emplace_back("/usr/bin/python3"); // the distribution's interpreter, where its numpy lives
    candidates.emplace_back("python3");
    for (const std::string& candidate : candidates)
        if (std::system((candidate + " -c 'import numpy' >/dev/null 2>&1").c_str()) == 0)
            return candidate;
    return {};
}

struct PeerResult {
    double seconds = 0;
    double meanLevel = 0;
    double fftSeconds = 0; // numpy's batched FFT of the tapered slices alone
};

// The numpy peer's best time and mean level for each waterfall, on the same response and taper.
std::map<std::pair<std::int64_t, std::int64_t>, PeerResult> numpyResults(const std::string& python) {
    const std::filesystem::path folder = std::filesystem::temp_directory_path();
    const std::string stem = "tavolar-waterfall-" + std::to_string(getpid());
    auto write = [](const std::filesystem::path& path, const VELTRealVector& values) {
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(values.components()),
                   static_cast<std::streamsize>(values.length() * sizeof(float)));
    };
    const std::filesystem::path responseFile = folder / (stem + ".f32");
    write(responseFile, *record()->impulseResponse());
    // __FILE__ may be relative to the build tree, whose root holds this program's folder.
    std::filesystem::path source(__FILE__);
    if (source.is_relative())
        source = std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / source;
    std::string command = python + " '" + (source.parent_path() / "peers" / "waterfall_numpy.py").string() +
                          "' '" + responseFile.string() + "'";
    std::vector<std::filesystem::path> files{responseFile};
    for (const auto& [key, _] : best) {
        VELTRealVector taper = VELTRealVector::onesWithLength(static_cast<std::size_t>(key.first));
        applyWindowWithType(taper, kHalfHanning);
        files.push_back(folder / (stem + "-taper-" + std::to_string(key.first) + ".f32"));
        write(files.back(), taper);
        command += " '" + files.back().string() + "' " + std::to_string(key.first) + " " +
                   std::to_string(key.second) + " " + std::to_string(spacingOf(key.first, key.second));
    }
    std::map<std::pair<std::int64_t, std::int64_t>, PeerResult> results;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char line[256];
        long long length = 0, count = 0;
        PeerResult result;
        while (std::fgets(line, sizeof line, pipe))
            if (std::sscanf(line, "waterfall %lld %lld seconds %lf mean %lf fft %lf", &length, &count,
                            &result.seconds, &result.meanLevel, &result.fftSeconds) == 5)
                results[{length, count}] = result;
        pclose(pipe);
    }
    for (const auto& file : files)
        std::filesystem::remove(file);
    return results;
}

void printRatios() {
    char load[128] = "unknown";
    if (FILE* file = std::fopen("/proc/loadavg", "r")) {
        if (!std::fgets(load, sizeof load, file))
            std::strcpy(load, "unknown\n");
        std::fclose(file);
    }
    std::printf("\nFastest iterations (2^18-sample response at 48 kHz, half Hanning slices; load average %s",
                load);
    const bool peers =
        !(std::getenv("TAVOLAR_BENCH_PEERS") && std::string(std::getenv("TAVOLAR_BENCH_PEERS")) == "0");
    const std::string python = peers ? pythonWithNumpy() : std::string();
    const auto numpy =
        python.empty() ? std::map<std::pair<std::int64_t, std::int64_t>, PeerResult>() : numpyResults(python);
    if (peers && python.empty())
        std::printf("numpy peer skipped: no python3 with numpy found (set TAVOLAR_PYTHON)\n");
    for (const auto& [key, times] : best) {
        std::printf(
            "%3lld slices of %6lld: one core %8.3f ms, bare FFTW %8.3f ms: %.2f x FFTW (target <= 1.3); "
            "two cores %8.3f ms: %.2f x faster (target >= 1.7)",
            static_cast<long long>(key.second), static_cast<long long>(key.first), times.one * 1e3,
            times.fftw * 1e3, times.one / times.fftw, times.two * 1e3, times.one / times.two);
        if (const auto found = numpy.find(key); found != numpy.end())
            std::printf("; numpy %8.3f ms: %.1f x faster on one core (target >= 5), mean level %.3f dB, "
                        "ours %.3f dB; numpy's FFT alone %8.3f ms (%.1f x bare FFTW)",
                        found->second.seconds * 1e3, found->second.seconds / times.one,
                        found->second.meanLevel, static_cast<double>(times.meanLevel),
                        found->second.fftSeconds * 1e3, found->second.fftSeconds / times.fftw);
        std::printf("\n");
    }
}

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printRatios();
    return 0;
}
