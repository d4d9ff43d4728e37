// Fractional-octave smoothing and A weighting against what they cannot beat, in the same run:
//   smoothing  a 2^19-bin spectrum in dB smoothed over 1/N octave and reduced to the logarithmic grid
//              at 48 kHz, against copying the vector once (the memory traffic of reading and writing
//              it) and against a numpy implementation of the same algorithm with cumulative sums
//              (bench/peers/smoothing_numpy.py, run from here on the same data);
//   weighting  A weighting of 10 s at 192 kHz against one pass of a plain sixth-order IIR filter in
//              double precision (direct form II transposed, order fixed at compile time) over it.
// Within each iteration ours and the comparison alternate, so both see the same conditions; the
// ratios printed after the table compare the fastest iteration of each (numpy's time is the best of
// several runs too). Pass --benchmark_repetitions=N for more. TAVOLAR_BENCH_PEERS=0 skips numpy;
// TAVOLAR_PYTHON names the interpreter with numpy.

#include "dsp/Smoothing.h"

#include "dsp/WeightingFilters.h"

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <unistd.h>

namespace {

using namespace tavolar;

constexpr std::size_t kBins = std::size_t{1} << 19;
constexpr std::uint32_t kSpectrumRate = 48000;
constexpr std::uint32_t kWeightingRate = 192000;

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// A measured-looking magnitude in dB: a smooth curve with bin-to-bin scatter.
const VELTRealVector& spectrum() {
    static const VELTRealVector values = [] {
        std::mt19937 generator(3);
        std::normal_distribution<float> scatter(0.0f, 3.0f);
        VELTRealVector v(kBins);
        for (std::size_t i = 0; i < kBins; ++i)
            v[i] = -50.0f + 6.0f * std::sin(static_cast<float>(i) * 1e-4f) + scatter(generator);
        return v;
    }();
    return values;
}

const VELTRealVector& tenSeconds() {
    static const VELTRealVector signal = [] {
        std::mt19937 generator(5);
        std::uniform_real_distribution<float> noise(-0.5f, 0.5f);
        VELTRealVector v(10 * kWeightingRate);
        for (float& x : v.mutableSpan())
            x = noise(generator);
        return v;
    }();
    return signal;
}

std::map<std::string, std::pair<double, double>> best; // name: fastest ours, fastest comparison (s)

void keepBest(const std::string& name, double ours, double comparison) {
    auto [entry, fresh] = best.emplace(name, std::pair(ours, comparison));
    if (!fresh)
        entry->second = {std::min(entry->second.first, ours), std::min(entry->second.second, comparison)};
}

void BM_SmoothingAndGrid(benchmark::State& state) {
    const int denominator = static_cast<int>(state.range(0));
    const float fraction = 1.0f / static_cast<float>(denominator);
    const VELTRealVector& source = spectrum();
    VELTRealVector work = source;
    double oursTotal = 0, copyTotal = 0;
    for (auto _ : state) {
        std::memcpy(work.mutableComponents(), source.components(), kBins * sizeof(float));
        const double start = now();
        smoothWithOctaveFraction(work, fraction);
        VELTRealVector points = smoothedPointsWithFraction(work, fraction, kSpectrumRate);
        benchmark::DoNotOptimize(points.components());
        const double middle = now();
        VELTRealVector copy = source;
        benchmark::DoNotOptimize(copy.components());
        benchmark::ClobberMemory();
        const double end = now();
        state.SetIterationTime(middle - start);
        oursTotal += middle - start;
        copyTotal += end - middle;
        keepBest("smoothing/" + std::to_string(denominator), middle - start, end - middle);
    }
    state.counters["x_copy"] = oursTotal / copyTotal;
}
BENCHMARK(BM_SmoothingAndGrid)->Arg(12)->Arg(3)->Arg(1)->UseManualTime()->Unit(benchmark::kMicrosecond);

// y = b0 x + s0; s[i] = b[i+1] x - a[i+1] y + s[i+1]: one pass, the order known to the compiler.
void plainSixthOrder(const double* b, const double* a, const float* x, float* y, std::size_t n) {
    std::array<double, 7> s{};
    for (std::size_t k = 0; k < n; ++k) {
        const double input = x[k];
        const double output = b[0] * input + s[0];
        for (std::size_t i = 0; i < 6; ++i)
            s[i] = b[i + 1] * input - a[i + 1] * output + s[i + 1];
        y[k] = static_cast<float>(output);
    }
}

void BM_AWeighting(benchmark::State& state) {
    const VELTRealVector& signal = tenSeconds();
    std::optional<VELTRealDoubleVector> a, b;
    VELTGetAWeightingFilter(kWeightingRate, &a, &b);
    VELTRealVector plain(signal.length());
    double oursTotal = 0, plainTotal = 0;
    for (auto _ : state) {
        const double start = now();
        VELTRealVector weighted = AWeightingFilteredVectorWithSampleRate(signal, kWeightingRate);
        benchmark::DoNotOptimize(weighted.components());
        const double middle = now();
        plainSixthOrder(b->components(), a->components(), signal.components(), plain.mutableComponents(),
                        signal.length());
        benchmark::DoNotOptimize(plain.components());
        benchmark::ClobberMemory();
        const double end = now();
        state.SetIterationTime(middle - start);
        oursTotal += middle - start;
        plainTotal += end - middle;
        keepBest("weighting", middle - start, end - middle);
    }
    state.counters["x_plain_iir"] = oursTotal / plainTotal;
}
BENCHMARK(BM_AWeighting)->UseManualTime()->Unit(benchmark::kMillisecond);

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

// The numpy peer's best time for 1/N octave on the same spectrum, in seconds.
std::map<int, double> numpyTimes(const std::string& python) {
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("tavolar-smoothing-" + std::to_string(getpid()) + ".f32");
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(spectrum().components()),
               static_cast<std::streamsize>(kBins * sizeof(float)));
    // __FILE__ may be relative to the build tree, whose root holds this program's folder.
    std::filesystem::path source(__FILE__);
    if (source.is_relative())
        source = std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / source;
    const std::filesystem::path script = source.parent_path() / "peers" / "smoothing_numpy.py";
    std::map<int, double> times;
    std::string denominators;
    for (const auto& [name, _] : best)
        if (name.starts_with("smoothing/"))
            denominators += " " + name.substr(10);
    const std::string command = python + " '" + script.string() + "' '" + file.string() + "' " +
                                std::to_string(kSpectrumRate) + denominators;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char line[256];
        int denominator = 0;
        double seconds = 0;
        while (std::fgets(line, sizeof line, pipe))
            if (std::sscanf(line, "smoothing %d seconds %lf", &denominator, &seconds) == 2)
                times[denominator] = seconds;
        pclose(pipe);
    }
    std::filesystem::remove(file);
    return times;
}

void printRatios() {
    std::printf("\nFastest iterations (2^19 bins at 48 kHz; 10 s at 192 kHz):\n");
    const bool peers =
        !(std::getenv("TAVOLAR_BENCH_PEERS") && std::string(std::getenv("TAVOLAR_BENCH_PEERS")) == "0");
    const std::string python = peers ? pythonWithNumpy() : std::string();
    const std::map<int, double> numpy = python.empty() ? std::map<int, double>() : numpyTimes(python);
    if (peers && python.empty())
        std::printf("numpy peer skipped: no python3 with numpy found (set TAVOLAR_PYTHON)\n");
    for (const auto& [name, times] : best) {
        const auto [ours, comparison] = times;
        if (name == "weighting") {
            std::printf("A weighting:            %8.3f ms, plain 6th-order IIR %8.3f ms: %.2f x the IIR "
                        "(target <= 1.5)\n",
                        ours * 1e3, comparison * 1e3, ours / comparison);
            continue;
        }
        const int denominator = std::stoi(name.substr(10));
        std::printf("smoothing 1/%-2d + grid: %8.3f ms, copy %8.3f ms: %.2f x the copy (target <= 4)",
                    denominator, ours * 1e3, comparison * 1e3, ours / comparison);
        if (const auto found = numpy.find(denominator); found != numpy.end())
            std::printf("; numpy %8.3f ms: %.1f x faster (target >= 5)", found->second * 1e3,
                        found->second / ours);
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
