// Band decomposition of an impulse response: the third-octave bands (27, from 31.5 Hz to 12.5 kHz) of
// a 2^19-sample response at 48 kHz, decaying noise like a room's, compared in the same run with a
// plain scipy filter bank of the same design (bench/peers/bands_scipy.py: sosfilt per band at the
// full rate), and the octave bands for reference.
//
// Times are the thread's processor time; the ratio printed at the end compares the fastest
// iteration of ours with scipy's best of a few runs. Environment: TAVOLAR_BENCH_PEERS=0 skips scipy;
// TAVOLAR_PYTHON names the interpreter with numpy and scipy.

#include "dsp/OctaveBands.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace tavolar;

constexpr std::int64_t kRate = 48000;
constexpr std::size_t kLength = std::size_t{1} << 19;

// Gaussian noise decaying by 60 dB in half a second.
const VELTRealVector& response() {
    static const VELTRealVector samples = [] {
        VELTRealVector x(kLength);
        std::mt19937 generator(19);
        std::normal_distribution<float> noise;
        const double decay = std::log(1000.0) / (0.5 * kRate);
        for (std::size_t n = 0; n < kLength; ++n)
            x[n] = noise(generator) * static_cast<float>(std::exp(-decay * static_cast<double>(n)));
        return x;
    }();
    return samples;
}

double threadSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

double bestThirdOctaveSeconds = INFINITY;

template <typename Decomposition>
void decomposition(benchmark::State& state, Decomposition decompose, double* best) {
    const VELTRealVector& x = response();
    benchmark::DoNotOptimize(
        decompose(x, kRate).powerValues().components()); // plans and pages outside the timing
    for (auto _ : state) {
        const double start = threadSeconds();
        BandDecomposition bands = decompose(x, kRate);
        benchmark::DoNotOptimize(bands.powerValues().components());
        const double seconds = threadSeconds() - start;
        state.SetIterationTime(seconds);
        if (best)
            *best = std::min(*best, seconds);
    }
    state.counters["bands"] = static_cast<double>(decompose(x, kRate).powerValues().length());
}

std::string pythonWithScipy() {
    std::vector<std::string> candidates;
    if (const char* chosen = std::getenv("TAVOLAR_PYTHON"))
        candidates.emplace_back(chosen);
    candidates.emplace_back("python3");
    candidates.emplace_back("/usr/bin/python3"); // the distribution's interpreter, where its scipy lives
    for (const std::string& candidate : candidates)
        if (std::system((candidate + " -c 'import scipy.signal' >/dev/null 2>&1").c_str()) == 0)
            return candidate;
    return {};
}

// Writes the response as float32 and runs the scipy bank on it.
std::optional<double> scipySeconds(const std::string& python) {
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("tavolar-bands-" + std::to_string(getpid()) + ".f32");
    {
        std::ofstream out(file, std::ios::binary);
        out.write(reinterpret_cast<const char*>(response().components()),
                  static_cast<std::streamsize>(response().length() * sizeof(float)));
    }
    // The source's path as the build gave it, relative to the build folder two levels above the program.
    std::filesystem::path source(__FILE__);
    if (source.is_relative())
        source = std::filesystem::canonical("/proc/self/exe").parent_path().parent_path() / source;
    const std::filesystem::path script = source.parent_path() / "peers" / "bands_scipy.py";
    const std::string command =
        python + " '" + script.string() + "' '" + file.string() + "' " + std::to_string(kRate);
    std::optional<double> seconds;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char line[256];
        double value = 0;
        while (std::fgets(line, sizeof line, pipe))
            if (std::sscanf(line, "bank_seconds %lf", &value) == 1)
                seconds = value;
        if (pclose(pipe) != 0)
            seconds.reset();
    }
    std::filesystem::remove(file);
    return seconds;
}

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RegisterBenchmark("bands/third_octave/48000/2^19",
                                 decomposition<decltype(&thirdOctaveBandsWithSampleRate)>,
                                 &thirdOctaveBandsWithSampleRate, &bestThirdOctaveSeconds)
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->MinTime(1.0);
    benchmark::RegisterBenchmark("bands/octave/48000/2^19",
                                 decomposition<decltype(&octaveBandsWithSampleRate)>,
                                 &octaveBandsWithSampleRate, nullptr)
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->MinTime(1.0);
    benchmark::RunSpecifiedBenchmarks();

    if (std::isfinite(bestThirdOctaveSeconds)) {
        const bool peers =
            !(std::getenv("TAVOLAR_BENCH_PEERS") && std::string(std::getenv("TAVOLAR_BENCH_PEERS")) == "0");
        const std::string python = peers ? pythonWithScipy() : std::string();
        const double scipy = python.empty() ? NAN : scipySeconds(python).value_or(NAN);
        std::printf(
            "\nThird-octave bands of a 2^19-sample response at 48 kHz (processor time, fastest run):\n");
        std::printf("  ours  %8.2f ms\n", bestThirdOctaveSeconds * 1e3);
        if (std::isfinite(scipy))
            std::printf(
                "  scipy %8.2f ms (sosfilt per band at the full rate)\n  faster than scipy: %.1f times\n",
                scipy * 1e3, scipy / bestThirdOctaveSeconds);
        else
            std::printf("  scipy peer skipped: no python3 with scipy found (set TAVOLAR_PYTHON)\n");
    }
    benchmark::Shutdown();
    return 0;
}
