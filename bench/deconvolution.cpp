// Deconvolution of swept-sine recordings into impulse responses, one channel and a whole measurement
// (synchronous averaging and deconvolution of every channel), on three workloads:
//   W1  the default sweep (1 s, 500 ms + 2 s silence) at 48 kHz, 1 channel, 1 sweep
//   W2  the 10 s sweep at 48 kHz, 8 channels, 4 sweeps averaged
//   W3  the 10 s sweep at 192 kHz, 2 channels, 1 sweep
// Each is compared in the same run with
//   - the limit: the bare FFTW transforms the deconvolution cannot avoid at its length (two forward
//     and one inverse for one channel; for a measurement one forward of the stimulus and one forward
//     and one inverse per channel and sweep), planned with the same effort as ours;
//   - a plain numpy float32 implementation of the same division (bench/peers/deconvolution_numpy.py)
//     on the same data, run from here;
// the measurement is also timed as the measurement controller runs it, its channels shared among
// the cores, on the wall clock against the same single-threaded limit;
// and the working memory of a measurement is measured as the peak of live heap bytes above what the
// inputs and results hold, for 1, 2, 4 and 8 sweeps. Ratios are printed after the benchmark table.
//
// Environment: TAVOLAR_BENCH_PLANNING=estimate plans FFTs without measuring (default: measure);
// TAVOLAR_BENCH_WISDOM names a file of FFTW wisdom read at the start and written at the end, so that
// measured plans (minutes for the longest lengths) are made once; TAVOLAR_BENCH_PEERS=0 skips numpy;
// TAVOLAR_PYTHON names the interpreter with numpy. The ratios printed at the end compare fastest
// iterations (over every repetition, --benchmark_repetitions=N), as numpy's time is the best of a few
// runs; the benchmark table keeps the means (x_limit is the ratio of the means).

#include "engine/SweptSineDeconvolution.h"
#include "engine/SynchronousAveraging.h"
#include "engine/VELTLogSweepSettings.h"
#include "engine/VELTRZSweptSineRecording.h"
#include "math/AlignedBuffer.h"
#include "math/VELTFFTSetup.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <benchmark/benchmark.h>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fftw3.h>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

// ---- Live heap bytes, counted by wrapping the C allocator (operator new, the aligned vectors and
// FFTW all allocate through it). The peak is reset before the operation measured.

extern "C" {
void* __libc_malloc(std::size_t size);
void __libc_free(void* pointer);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* pointer, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

std::atomic<std::int64_t> liveBytes{0};
std::atomic<std::int64_t> peakBytes{0};

void noteAllocated(void* pointer) noexcept {
    if (!pointer)
        return;
    const std::int64_t live = liveBytes.fetch_add(static_cast<std::int64_t>(malloc_usable_size(pointer))) +
                              static_cast<std::int64_t>(malloc_usable_size(pointer));
    std::int64_t peak = peakBytes.load(std::memory_order_relaxed);
    while (live > peak && !peakBytes.compare_exchange_weak(peak, live, std::memory_order_relaxed)) {
    }
}

void noteFreed(void* pointer) noexcept {
    if (pointer)
        liveBytes.fetch_sub(static_cast<std::int64_t>(malloc_usable_size(pointer)));
}

} // namespace

extern "C" {
void* malloc(std::size_t size) {
    void* pointer = __libc_malloc(size);
    noteAllocated(pointer);
    return pointer;
}
void free(void* pointer) {
    noteFreed(pointer);
    __libc_free(pointer);
}
void* calloc(std::size_t count, std::size_t size) {
    void* pointer = __libc_calloc(count, size);
    noteAllocated(pointer);
    return pointer;
}
void* realloc(void* pointer, std::size_t size) {
    const std::int64_t before = pointer ? static_cast<std::int64_t>(malloc_usable_size(pointer)) : 0;
    void* moved = __libc_realloc(pointer, size);
    if (moved || size == 0) {
        liveBytes.fetch_sub(before);
        noteAllocated(moved);
    }
    return moved;
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    void* pointer = __libc_memalign(alignment, size);
    noteAllocated(pointer);
    return pointer;
}
void* memalign(std::size_t alignment, std::size_t size) {
    void* pointer = __libc_memalign(alignment, size);
    noteAllocated(pointer);
    return pointer;
}
int posix_memalign(void** result, std::size_t alignment, std::size_t size) {
    void* pointer = __libc_memalign(alignment, size);
    if (!pointer)
        return ENOMEM;
    noteAllocated(pointer);
    *result = pointer;
    return 0;
}
void* valloc(std::size_t size) {
    void* pointer = __libc_memalign(static_cast<std::size_t>(sysconf(_SC_PAGESIZE)), size);
    noteAllocated(pointer);
    return pointer;
}
}

namespace {

using namespace tavolar;

// Peak live heap bytes above the level at construction, while the object lives.
class HeapPeak {
public:
    HeapPeak() : start_(liveBytes.load()) { peakBytes.store(start_); }
    std::int64_t bytesAboveStart() const { return peakBytes.load() - start_; }

private:
    std::int64_t start_;
};

// ---- Workloads.

struct Workload {
    const char* name;
    std::uint32_t sampleRate;
    bool longSweep;
    std::size_t channels;
    std::size_t averages;
};

constexpr std::array<Workload, 3> kWorkloads = {
    {{"W1", 48000, false, 1, 1}, {"W2", 48000, true, 8, 4}, {"W3", 192000, true, 2, 1}}};

// The stimulus and, per sweep and channel, the stimulus through a channel-specific two-pole
// resonance, delayed by a few hundred samples (a little more on each sweep), with noise.
struct WorkloadData {
    VELTRealVector stimulus;
    std::vector<VELTRZSweptSineRecording> recordings;
    std::size_t transformLength = 0;
};

WorkloadData makeWorkloadData(const Workload& workload, std::size_t averages) {
    WorkloadData data;
    const VELTLogSweepSettings settings =
        workload.longSweep ? VELTLogSweepSettings::longLogSweepSettings() : VELTLogSweepSettings();
    data.stimulus = settings.stimulusSignalWithSampleRate(workload.sampleRate);
    const std::size_t length = data.stimulus.length();
    std::mt19937 generator(1234);
    std::normal_distribution<float> noise(0.0f, 1e-4f);
    for (std::size_t sweep = 0; sweep < averages; ++sweep) {
        std::vector<VELTRealVector> channels;
        for (std::size_t channel = 0; channel < workload.channels; ++channel) {
            const double radius = 0.95 + 0.004 * static_cast<double>(channel);
            const double angle = 0.05 + 0.1 * static_cast<double>(channel);
            const double a1 = -2.0 * radius * std::cos(angle), a2 = radius * radius;
            const std::size_t delay = 200 + 37 * channel + 3 * sweep;
            VELTRealVector response(length);
            double y1 = 0, y2 = 0;
            for (std::size_t n = 0; n + delay < length; ++n) {
                const double y = 0.3 * data.stimulus[n] - a1 * y1 - a2 * y2;
                y2 = y1;
                y1 = y;
                response[n + delay] = static_cast<float>(y);
            }
            for (float& x : response.mutableSpan())
                x += noise(generator);
            channels.push_back(std::move(response));
        }
        data.recordings.emplace_back(std::move(channels), std::nullopt);
    }
    data.transformLength = deconvolutionTransformLength(length, length);
    return data;
}

const WorkloadData& workloadData(std::size_t index) {
    static std::array<std::unique_ptr<WorkloadData>, kWorkloads.size()> cache;
    if (!cache[index])
        cache[index] =
            std::make_unique<WorkloadData>(makeWorkloadData(kWorkloads[index], kWorkloads[index].averages));
    return *cache[index];
}

bool measuringPlans() {
    const char* planning = std::getenv("TAVOLAR_BENCH_PLANNING");
    return !(planning && std::string(planning) == "estimate");
}

// ---- The limit: bare FFTW real transforms on aligned, preallocated arrays.

class BareTransforms {
public:
    explicit BareTransforms(std::size_t length) : length_(length) {
        const int n = static_cast<int>(length);
        signal_ = static_cast<float*>(fftwf_malloc(sizeof(float) * length));
        spectrum_ = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * (length / 2 + 1)));
        const unsigned flags = measuringPlans() ? FFTW_MEASURE : FFTW_ESTIMATE;
        forward_ = fftwf_plan_dft_r2c_1d(n, signal_, spectrum_, flags);
        inverse_ = fftwf_plan_dft_c2r_1d(n, spectrum_, signal_, flags);
        std::fill(signal_, signal_ + length, 0.0f);
        for (std::size_t i = 0; i < length / 3; ++i)
            signal_[i] = std::sin(0.001f * static_cast<float>(i * i % 100000));
    }
    ~BareTransforms() {
        fftwf_destroy_plan(forward_);
        fftwf_destroy_plan(inverse_);
        fftwf_free(signal_);
        fftwf_free(spectrum_);
    }
    void forward() { fftwf_execute(forward_); }
    void inverse() { fftwf_execute(inverse_); }
    const float* signal() const { return signal_; }

private:
    std::size_t length_;
    float* signal_;
    fftwf_complex* spectrum_;
    fftwf_plan forward_;
    fftwf_plan inverse_;
};

// ---- Benchmarks. Times are the thread's processor time, so that other processes on a shared
// machine count less; ours and the limit alternate within each iteration, so that both see the same
// conditions. The benchmark table's ratio is formed from their sums, the final ratios from the
// fastest iteration of each.

double threadSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

double wallSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// clock is threadSeconds, or wallSeconds for work spread over several threads.
template <typename Ours, typename Limit>
void timeAgainstLimit(benchmark::State& state, Ours ours, Limit limit, double (*clock)() = threadSeconds) {
    ours(); // plans made outside the timing
    limit();
    double oursTotal = 0, limitTotal = 0;
    double oursBest = INFINITY, limitBest = INFINITY;
    for (auto _ : state) {
        const double start = clock();
        ours();
        const double middle = clock();
        limit();
        const double end = clock();
        state.SetIterationTime(middle - start);
        oursTotal += middle - start;
        limitTotal += end - middle;
        oursBest = std::min(oursBest, middle - start);
        limitBest = std::min(limitBest, end - middle);
    }
    state.counters["limit_ms"] = limitTotal / static_cast<double>(state.iterations()) * 1e3;
    state.counters["x_limit"] = oursTotal / limitTotal;
    // The fastest iteration of each: on a shared machine the least disturbed, and the statistic the
    // numpy peer reports.
    state.counters["best_ms"] = oursBest * 1e3;
    state.counters["limit_best_ms"] = limitBest * 1e3;
}

// The public operation, user defaults read, result allocated; the limit is two forward transforms
// and one inverse.
void oneChannel(benchmark::State& state, std::size_t index) {
    const WorkloadData& data = workloadData(index);
    const VELTRealVector& response = data.recordings.front().recordChannels().front();
    BareTransforms transforms(data.transformLength);
    timeAgainstLimit(
        state,
        [&] {
            VELTRealVector impulse = realVectorByDeconvolvingResponse(response, data.stimulus, nullptr);
            benchmark::DoNotOptimize(impulse.components());
        },
        [&] {
            transforms.forward(); // the response
            transforms.forward(); // the stimulus
            transforms.inverse();
            benchmark::DoNotOptimize(transforms.signal());
        });
    state.counters["L"] = static_cast<double>(data.transformLength);
}

// Averaging and deconvolution of every channel; the limit is one forward transform of the stimulus
// and one forward and one inverse per channel and sweep. On every core, the measurement runs as the
// measurement controller runs it, channels shared among the cores, and both it and the
// (single-threaded) limit are timed on the wall clock.
void measurementAgainstLimit(benchmark::State& state, std::size_t index, bool everyCore) {
    const WorkloadData& data = workloadData(index);
    BareTransforms transforms(data.transformLength);
    const std::size_t deconvolutions = kWorkloads[index].channels * kWorkloads[index].averages;
    timeAgainstLimit(
        state,
        [&] {
            std::vector<Expected<VELTRealVector>> impulses =
                everyCore ? impulseResponsesFromAveragingArrayConcurrently(data.recordings, data.stimulus)
                          : impulseResponsesFromAveragingArray(data.recordings, data.stimulus);
            benchmark::DoNotOptimize(impulses.data());
        },
        [&] {
            transforms.forward();
            for (std::size_t i = 0; i < deconvolutions; ++i) {
                transforms.forward();
                transforms.inverse();
            }
            benchmark::DoNotOptimize(transforms.signal());
        },
        everyCore ? wallSeconds : threadSeconds);
}

void measurement(benchmark::State& state, std::size_t index) {
    measurementAgainstLimit(state, index, false);
}

void measurementOnEveryCore(benchmark::State& state, std::size_t index) {
    measurementAgainstLimit(state, index, true);
}

// The same measurement averaged one channel at a time (each call transforms the stimulus again).
void measurementChannelByChannel(benchmark::State& state, std::size_t index) {
    const WorkloadData& data = workloadData(index);
    for (auto _ : state) {
        const double start = threadSeconds();
        for (std::size_t channel = 0; channel < kWorkloads[index].channels; ++channel) {
            Expected<VELTRealVector> impulse =
                impulseResponseFromAveragingArray(data.recordings, channel, data.stimulus);
            benchmark::DoNotOptimize(impulse.has_value());
        }
        state.SetIterationTime(threadSeconds() - start);
    }
}

// Working memory of a W2 measurement (8 channels of the 10 s sweep at 48 kHz) with 1 to 8 sweeps:
// the peak of live heap bytes above inputs and results.
void workingMemory(benchmark::State& state) {
    const auto averages = static_cast<std::size_t>(state.range(0));
    const WorkloadData data = makeWorkloadData(kWorkloads[1], averages);
    impulseResponsesFromAveragingArray(data.recordings, data.stimulus); // plans made and cached beforehand
    std::int64_t working = 0;
    for (auto _ : state) {
        // Blocks kept from earlier vectors would serve this measurement without counting as its memory.
        aligned_buffer_detail::releaseKeptBlocks();
        HeapPeak peak;
        std::vector<Expected<VELTRealVector>> impulses =
            impulseResponsesFromAveragingArray(data.recordings, data.stimulus);
        std::int64_t results = 0;
        for (const Expected<VELTRealVector>& impulse : impulses)
            results +=
                static_cast<std::int64_t>(malloc_usable_size(const_cast<float*>(impulse->components())));
        working = peak.bytesAboveStart() - results;
    }
    state.counters["working_MB"] = static_cast<double>(working) / 1e6;
    state.counters["L"] = static_cast<double>(data.transformLength);
}

// ---- Collecting results, the numpy peer and the ratios.

class CollectingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.iterations == 0)
                continue;
            const double seconds = run.real_accumulated_time / static_cast<double>(run.iterations);
            const std::string name = plainName(run.benchmark_name());
            // Of several repetitions the fastest is kept, with its own counters: the best of a few
            // runs, as the numpy peer reports.
            // Best-iteration counters keep the least over every repetition.
            for (const auto& [counterName, counter] : run.counters)
                if (counterName.ends_with("best_ms")) {
                    auto [best, fresh] = counters_.emplace(name + "/" + counterName, counter.value);
                    if (!fresh)
                        best->second = std::min(best->second, counter.value);
                }
            auto [entry, inserted] = seconds_.emplace(name, seconds);
            if (!inserted && entry->second <= seconds)
                continue;
            entry->second = seconds;
            for (const auto& [counterName, counter] : run.counters)
                if (!counterName.ends_with("best_ms"))
                    counters_[name + "/" + counterName] = counter.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::optional<double> seconds(const std::string& name) const {
        const auto found = seconds_.find(name);
        return found == seconds_.end() ? std::nullopt : std::optional<double>(found->second);
    }
    std::optional<double> counter(const std::string& name) const {
        const auto found = counters_.find(name);
        return found == counters_.end() ? std::nullopt : std::optional<double>(found->second);
    }

private:
    // The name as registered plus its argument, without the run options ("/manual_time", "/iterations:1").
    static std::string plainName(const std::string& full) {
        std::string result;
        std::size_t start = 0;
        while (start <= full.size()) {
            const std::size_t end = std::min(full.find('/', start), full.size());
            const std::string part = full.substr(start, end - start);
            if (part != "real_time" && part != "manual_time" && part.find(':') == std::string::npos)
                result += (result.empty() ? "" : "/") + part;
            start = end + 1;
        }
        return result;
    }

    std::map<std::string, double> seconds_;
    std::map<std::string, double> counters_;
};

std::string pythonWithNumpy() {
    std::vector<std::string> candidates;
    if (const char* chosen = std::getenv("TAVOLAR_PYTHON"))
        candidates.emplace_back(chosen);
    candidates.emplace_back("python3");
    candidates.emplace_back("/usr/bin/python3"); // the distribution's interpreter, where its numpy lives
    for (const std::string& candidate : candidates)
        if (std::system((candidate + " -c 'import numpy' >/dev/null 2>&1").c_str()) == 0)
            return candidate;
    return {};
}

struct PeerTimes {
    double oneChannel = 0;
    double measurement = 0;
};

// Writes the workload's stimulus and recordings as float32 and runs the numpy script on them.
std::optional<PeerTimes> runNumpyPeer(const std::string& python, std::size_t index) {
    const WorkloadData& data = workloadData(index);
    const Workload& workload = kWorkloads[index];
    const std::filesystem::path file = std::filesystem::temp_directory_path() /
                                       ("tavolar-deconvolution-" + std::to_string(getpid()) + ".f32");
    {
        std::ofstream out(file, std::ios::binary);
        auto write = [&](const VELTRealVector& v) {
            out.write(reinterpret_cast<const char*>(v.components()),
                      static_cast<std::streamsize>(v.length() * 4));
        };
        write(data.stimulus);
        for (const VELTRZSweptSineRecording& recording : data.recordings)
            for (const VELTRealVector& channel : recording.recordChannels())
                write(channel);
    }
    const std::filesystem::path script =
        std::filesystem::path(__FILE__).parent_path() / "peers" / "deconvolution_numpy.py";
    const std::string command = python + " '" + script.string() + "' '" + file.string() + "' " +
                                std::to_string(data.stimulus.length()) + " " +
                                std::to_string(workload.channels) + " " + std::to_string(workload.averages);
    std::optional<PeerTimes> times;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        PeerTimes parsed;
        int found = 0;
        char line[256];
        while (std::fgets(line, sizeof line, pipe)) {
            double value = 0;
            if (std::sscanf(line, "one_channel_seconds %lf", &value) == 1) {
                parsed.oneChannel = value;
                ++found;
            } else if (std::sscanf(line, "measurement_seconds %lf", &value) == 1) {
                parsed.measurement = value;
                ++found;
            }
        }
        if (pclose(pipe) == 0 && found == 2)
            times = parsed;
    }
    std::filesystem::remove(file);
    return times;
}

void printRatios(const CollectingReporter& reporter) {
    const bool peers =
        !(std::getenv("TAVOLAR_BENCH_PEERS") && std::string(std::getenv("TAVOLAR_BENCH_PEERS")) == "0");
    const std::string python = peers ? pythonWithNumpy() : std::string();
    if (peers && python.empty())
        std::printf("numpy peer skipped: no python3 with numpy found (set TAVOLAR_PYTHON)\n");

    // Ours and the limit from their fastest iterations; without those counters, from the means.
    struct Timing {
        double ms = NAN;
        double limitMs = NAN;
        double ratio() const { return ms / limitMs; }
    };
    auto timing = [&](const std::string& name) -> std::optional<Timing> {
        const auto mean = reporter.seconds(name);
        if (!mean)
            return std::nullopt;
        const auto best = reporter.counter(name + "/best_ms");
        const auto limitBest = reporter.counter(name + "/limit_best_ms");
        if (best && limitBest)
            return Timing{*best, *limitBest};
        return Timing{*mean * 1e3, reporter.counter(name + "/limit_ms").value_or(NAN)};
    };

    std::map<std::size_t, PeerTimes> numpyTimes;
    std::printf("\nDeconvolution against the FFT limit and numpy float32 (processor time in ms, fastest "
                "iteration; FFT plans %s)\n",
                measuringPlans() ? "measured" : "estimated");
    std::printf("%-4s %9s | %9s %9s %7s | %9s %9s %7s | %9s %7s | %9s %7s\n", "", "L", "channel", "limit",
                "x limit", "measure", "limit", "x limit", "numpy ch", "faster", "numpy ms", "faster");
    for (std::size_t index = 0; index < kWorkloads.size(); ++index) {
        const std::string name = kWorkloads[index].name;
        const auto channel = timing("deconvolution/one_channel/" + name);
        const auto whole = timing("deconvolution/measurement/" + name);
        if (!channel && !whole)
            continue;
        std::optional<PeerTimes> peer;
        if (!python.empty())
            peer = runNumpyPeer(python, index);
        if (peer)
            numpyTimes[index] = *peer;
        const Timing c = channel.value_or(Timing{}), w = whole.value_or(Timing{});
        std::printf("%-4s %9zu | %9.2f %9.2f %7.3f | %9.2f %9.2f %7.3f | %9.2f %7.1f | %9.2f %7.1f\n",
                    name.c_str(), workloadData(index).transformLength, c.ms, c.limitMs, c.ratio(), w.ms,
                    w.limitMs, w.ratio(), peer ? peer->oneChannel * 1e3 : NAN,
                    peer ? peer->oneChannel * 1e3 / c.ms : NAN, peer ? peer->measurement * 1e3 : NAN,
                    peer ? peer->measurement * 1e3 / w.ms : NAN);
    }
    std::printf("\nThe measurement on every core (%u), wall clock in ms (fastest iteration), against the "
                "single-threaded limit and numpy's processor time:\n",
                std::max(1u, std::thread::hardware_concurrency()));
    for (std::size_t index = 0; index < kWorkloads.size(); ++index) {
        const auto wall =
            timing("deconvolution/measurement_every_core/" + std::string(kWorkloads[index].name));
        if (!wall)
            continue;
        const auto numpy = numpyTimes.find(index);
        std::printf("%-4s %9.2f ms | limit %9.2f ms | x limit %6.3f | faster than numpy %5.1f\n",
                    kWorkloads[index].name, wall->ms, wall->limitMs, wall->ratio(),
                    numpy != numpyTimes.end() ? numpy->second.measurement * 1e3 / wall->ms : NAN);
    }
    std::printf("\nWorking memory of a W2 measurement (peak heap above inputs and results):\n");
    for (int averages : {1, 2, 4, 8})
        if (const auto megabytes =
                reporter.counter("deconvolution/working_memory/" + std::to_string(averages) + "/working_MB"))
            std::printf("  %d sweep%s: %8.1f MB\n", averages, averages == 1 ? " " : "s", *megabytes);
}

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    VELTFFTSetup::setPlanning(measuringPlans() ? VELTFFTPlanning::measure : VELTFFTPlanning::estimate);
    const char* wisdomFile = std::getenv("TAVOLAR_BENCH_WISDOM");
    if (wisdomFile) {
        std::ifstream in(wisdomFile);
        std::stringstream wisdom;
        wisdom << in.rdbuf();
        VELTFFTSetup::importWisdom(wisdom.str());
    }

    for (std::size_t index = 0; index < kWorkloads.size(); ++index) {
        const std::string name = kWorkloads[index].name;
        benchmark::RegisterBenchmark(("deconvolution/one_channel/" + name).c_str(), oneChannel, index)
            ->Unit(benchmark::kMillisecond)
            ->UseManualTime()
            ->MinTime(1.0);
        benchmark::RegisterBenchmark(("deconvolution/measurement/" + name).c_str(), measurement, index)
            ->Unit(benchmark::kMillisecond)
            ->UseManualTime()
            ->MinTime(1.0);
        benchmark::RegisterBenchmark(("deconvolution/measurement_every_core/" + name).c_str(),
                                     measurementOnEveryCore, index)
            ->Unit(benchmark::kMillisecond)
            ->UseManualTime()
            ->MinTime(1.0);
        benchmark::RegisterBenchmark(("deconvolution/measurement_channel_by_channel/" + name).c_str(),
                                     measurementChannelByChannel, index)
            ->Unit(benchmark::kMillisecond)
            ->UseManualTime();
    }
    benchmark::RegisterBenchmark("deconvolution/working_memory", workingMemory)
        ->Arg(1)
        ->Arg(2)
        ->Arg(4)
        ->Arg(8)
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);

    CollectingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printRatios(reporter);
    if (wisdomFile)
        std::ofstream(wisdomFile) << VELTFFTSetup::exportWisdom();
    benchmark::Shutdown();
    return 0;
}
