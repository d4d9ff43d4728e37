// Forward plus inverse real FFT through the vector layer against FFTW called directly on the same
// data in the same run, at 2^16, 2^20 and 2^23 points; prints the layer's cost relative to FFTW.
//
// The direct FFTW baseline is what a user would write: interleaved r2c and c2r plans of the same
// length with the same planner flags, and the 1/N scaling that makes the pair an exact inverse
// (also shown without it). The layer runs through prepared setups into caller's vectors, and
// through the convenience fft() and ifft(), which allocate their results and look plans up.
//
// Planning effort follows the layer's automatic policy (estimated plans at these lengths); set
// TAVOLAR_FFT_PLANNING=measure to measure both sides' plans (which takes minutes at 2^23).

#include "math/VELTComplexVector.h"
#include "math/VELTFFTSetup.h"
#include "math/VELTRealVector.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fftw3.h>
#include <map>
#include <random>
#include <string>

namespace {

using namespace tavolar;

bool measuring() {
    const char* planning = std::getenv("TAVOLAR_FFT_PLANNING");
    return planning && std::strcmp(planning, "measure") == 0;
}

VELTRealVector randomSignal(std::size_t n) {
    std::mt19937 generator(static_cast<unsigned>(n));
    std::uniform_real_distribution<float> distribution(-1.0f, 1.0f);
    VELTRealVector signal(n);
    for (std::size_t i = 0; i < n; ++i)
        signal[i] = distribution(generator);
    return signal;
}

void setBytes(benchmark::State& state, std::size_t n) {
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
    state.counters["points"] = static_cast<double>(n);
}

void layerWithSetup(benchmark::State& state) {
    const auto n = static_cast<std::size_t>(state.range(0));
    const VELTRealVector signal = randomSignal(n);
    const auto setup = VELTFFTSetup::FFTSetupWithLength(n);
    VELTComplexVector spectrum(n / 2 + 1);
    VELTRealVector back(n);
    for (auto _ : state) {
        signal.fftIntoComplexVector(spectrum, setup);
        spectrum.ifftIntoRealVector(back, setup);
        benchmark::DoNotOptimize(back.components());
        benchmark::ClobberMemory();
    }
    setBytes(state, n);
}

void layerConvenience(benchmark::State& state) {
    const auto n = static_cast<std::size_t>(state.range(0));
    const VELTRealVector signal = randomSignal(n);
    VELTFFTSetup::FFTSetupWithLength(n); // planned before timing, as for the others
    for (auto _ : state) {
        const VELTRealVector back = signal.fft().ifft();
        benchmark::DoNotOptimize(back.components());
    }
    setBytes(state, n);
}

template <bool scaled> void fftwDirect(benchmark::State& state) {
    const auto n = static_cast<std::size_t>(state.range(0));
    const VELTRealVector signal = randomSignal(n);
    float* in = fftwf_alloc_real(n);
    float* out = fftwf_alloc_real(n);
    fftwf_complex* spectrum = fftwf_alloc_complex(n / 2 + 1);
    const unsigned flags = measuring() ? FFTW_MEASURE : FFTW_ESTIMATE;
    fftwf_plan forward = fftwf_plan_dft_r2c_1d(static_cast<int>(n), in, spectrum, flags);
    fftwf_plan backward = fftwf_plan_dft_c2r_1d(static_cast<int>(n), spectrum, out, flags);
    std::memcpy(in, signal.components(), n * sizeof(float));
    const float scale = 1.0f / static_cast<float>(n);
    for (auto _ : state) {
        fftwf_execute_dft_r2c(forward, in, spectrum);
        fftwf_execute_dft_c2r(backward, spectrum, out);
        if constexpr (scaled)
            for (std::size_t i = 0; i < n; ++i)
                out[i] *= scale;
        benchmark::DoNotOptimize(out);
        benchmark::ClobberMemory();
    }
    setBytes(state, n);
    fftwf_destroy_plan(forward);
    fftwf_destroy_plan(backward);
    fftwf_free(in);
    fftwf_free(out);
    fftwf_free(spectrum);
}

void registerAll() {
    for (int log2Length : {16, 20, 23}) {
        const std::int64_t n = std::int64_t{1} << log2Length;
        const int repetitions = log2Length >= 23 ? 3 : 5;
        auto configure = [&](benchmark::internal::Benchmark* b) {
            b->Arg(n)->Unit(benchmark::kMillisecond)->Repetitions(repetitions)->MinTime(0.3);
        };
        configure(benchmark::RegisterBenchmark("layer/setup", layerWithSetup));
        configure(benchmark::RegisterBenchmark("layer/fft+ifft", layerConvenience));
        configure(benchmark::RegisterBenchmark("fftw/r2c+c2r+scale", fftwDirect<true>));
        configure(benchmark::RegisterBenchmark("fftw/r2c+c2r", fftwDirect<false>));
    }
}

// Keeps the fastest repetition of every benchmark, the figure least disturbed by other work on the
// machine, and prints the ratios at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred)
                continue;
            const std::string name = run.run_name.function_name;
            const std::int64_t n = std::stoll(run.run_name.args);
            keepFastest(fastestReal_[n][name], run.GetAdjustedRealTime());
            keepFastest(fastestCpu_[n][name], run.GetAdjustedCPUTime());
        }
    }

    void printRatios() const {
        printRatios("real (wall-clock) time", fastestReal_);
        printRatios("CPU time, the fairer figure on a shared machine", fastestCpu_);
    }

private:
    using Times = std::map<std::int64_t, std::map<std::string, double>>;

    static void keepFastest(double& best, double time) {
        if (best == 0 || time < best)
            best = time;
    }

    static void printRatios(const char* clock, const Times& fastest) {
        std::printf("\nForward + inverse real FFT, fastest repetition by %s; layer time / FFTW time:\n",
                    clock);
        std::printf("%10s %14s %14s %16s %12s\n", "points", "setup/scaled", "setup/raw", "fft+ifft/scaled",
                    "FFTW ms");
        for (const auto& [n, times] : fastest) {
            auto time = [&](const char* name) {
                auto found = times.find(name);
                return found == times.end() ? 0.0 : found->second;
            };
            const double scaled = time("fftw/r2c+c2r+scale"), raw = time("fftw/r2c+c2r");
            std::printf("%10lld %14.3f %14.3f %16.3f %12.3f\n", static_cast<long long>(n),
                        time("layer/setup") / scaled, time("layer/setup") / raw,
                        time("layer/fft+ifft") / scaled, scaled);
        }
    }

    Times fastestReal_;
    Times fastestCpu_;
};

} // namespace

int main(int argc, char** argv) {
    if (measuring())
        VELTFFTSetup::setPlanning(VELTFFTPlanning::measure);
    registerAll();
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios();
    benchmark::Shutdown();
    return 0;
}
