// The latency of a whole measurement: the wall-clock time from the moment the last sample of the
// last sweep is played to the moment the delegate is told that the results are there, for
//   W2  the 10 s log sweep (long preset: 500 ms + 10 s + 2 s of silence = 12.5 s) at 48 kHz,
//       8 record channels, 4 sweeps averaged,
// through the real measurement controller on a simulated device, driven as the command-line host
// drives it (the main queue drained by the run loop on the main thread, the recording level checked).
//
// Each measurement is broken down into the stages the controller reports:
//   notify      last sample played -> end-of-buffer notification handled on the main queue
//   align       that notification -> measurementControllerDidEndPlayback (time stamps, stopping the
//               streams, reading back the recorded file, aligning the channels of the last sweep)
//   handover    -> measurementControllerDidBeginConvolution (hand-over to a worker, level checks)
//   processing  -> measurementControllerDidEndConvolution, with measurementArray already set: the
//               deconvolution and synchronous averaging of every channel and storing the results
// The benchmark's time (manual time) is the total; the stages are counters (milliseconds).
//
// The simulated device runs in fast mode by default (sweeps as fast as the machine allows), so the
// four sweeps take seconds rather than 50 s. That changes what is measured in two ways: the instant
// the last sample is "played" cannot come from the device clock, whose time stamps run ahead of the
// wall clock in fast mode, so it is taken as the end-of-buffer notification (notify is then 0); and
// the machine has just been busy streaming rather than idle. TAVOLAR_BENCH_REALTIME=1 adds one
// measurement with real-time pacing (about 50 s), where the instant comes from the device clock.
//
// Environment: TAVOLAR_BENCH_RUNS sets the number of fast measurements (default 3), after one
// measurement that is reported apart because it also plans the FFTs; TAVOLAR_BENCH_REALTIME=1 adds
// the real-time one; TAVOLAR_BENCH_WISDOM names a file of FFT wisdom (as `tavolar tune` writes) to
// load first.
//
// Nothing here looks inside the controller: it is timed through its delegate, its end-of-buffer
// notification and its audio controllers' time stamps only, so that whatever deconvolution the
// controller does is what is measured.

#include "audio/RecordChannelEntry.h"
#include "audio/VELTAudioCaptureSettings.h"
#include "audio/devices/AudioTimeStamp.h"
#include "audio/devices/VELTAudioDevice.h"
#include "audio/devices/VELTAudioHardware.h"
#include "engine/VELTLogSweepSettings.h"
#include "engine/VELTRZMeasurementController.h"
#include "math/VELTFFTSetup.h"
#include "platform/Logging.h"
#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "platform/UserDefaults.h"

#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

using namespace tavolar;

namespace {

constexpr std::uint32_t kSampleRate = 48000;
constexpr std::uint32_t kRecordChannels = 8;
constexpr std::int64_t kAverages = 4;
constexpr std::uint32_t kPlaybackChannel = 0;

// Eight inputs at 48 kHz, the built-in loudspeaker and room on input 0, no loop-back wire. Noise
// at -30 dBFS RMS on every input keeps the inputs that hear no loudspeaker above the level check's
// -20 dB peak threshold (their peak is about -16 dBFS over a 12.5 s recording), so the checks run
// and pass as they would on a real interface; the content does not change the cost of processing.
std::string deviceUID(bool realTime) {
    return std::string("sim:bench-w2?inputs=8&outputs=2&rate=48000&loopback=none&noise=-30&pace=") +
           (realTime ? "realtime" : "fast");
}

double milliseconds(std::uint64_t from, std::uint64_t to) {
    return (double(to) - double(from)) * 1e-6;
}

// Host times (nanoseconds of the monotonic clock, as currentHostTime answers) of one measurement.
struct Timeline {
    std::uint64_t measureCalled = 0;
    std::uint64_t endOfBuffer = 0; // the last sweep's end-of-buffer notification, on the main queue
    std::uint64_t endPlayback = 0;
    std::uint64_t beginConvolution = 0;
    std::uint64_t endConvolution = 0;
    AudioTimeStamp outputStart; // the playback device's time stamp of the last sweep's first sample
    std::size_t stimulusFrames = 0;
    std::size_t results = 0;
    std::optional<std::string> error;
    bool finished = false;
};

class TimingDelegate : public VELTRZMeasurementControllerDelegate {
public:
    explicit TimingDelegate(Timeline& timeline) : timeline_(timeline) {}

    void measurementControllerDidEndPlayback(VELTRZMeasurementController&) override {
        timeline_.endPlayback = currentHostTime();
    }
    void measurementControllerDidBeginConvolution(VELTRZMeasurementController&) override {
        timeline_.beginConvolution = currentHostTime();
    }
    void measurementControllerDidEndConvolution(VELTRZMeasurementController& controller) override {
        timeline_.endConvolution = currentHostTime();
        timeline_.results = controller.measurementArray().size();
        if (auto error = controller.error())
            timeline_.error = error->localizedDescription;
        finished_.store(true);
    }
    void measurementControllerDidAbort(VELTRZMeasurementController&) override {
        timeline_.error = "aborted";
        finished_.store(true);
    }
    bool finished() const { return finished_.load(); }

private:
    Timeline& timeline_;
    std::atomic<bool> finished_{false};
};

// Runs one measurement of W2 and answers its time line.
Timeline measureOnce(bool realTime) {
    const std::string uid = deviceUID(realTime);
    Timeline timeline;
    if (VELTAudioHardware::deviceIDForDeviceUID(uid) == kAudioDeviceUnknown) {
        timeline.error = "the simulated device " + uid + " is not present";
        return timeline;
    }

    auto settings = std::make_shared<VELTAudioCaptureSettings>();
    settings->setPlaybackDeviceUID(uid);
    settings->setRecordDeviceUID(uid);
    settings->setPlaybackChannels(IndexSet{kPlaybackChannel});
    std::vector<RecordChannelEntry> entries;
    for (std::uint32_t channel = 0; channel < kRecordChannels; ++channel)
        entries.emplace_back(std::int64_t(channel), nullptr, std::nullopt);
    settings->setRecordChannelEntries(entries);

    // Observed before the controller exists, so that this observer is registered ahead of the
    // controller's own and runs first when the notification is posted: the time taken is when the
    // notification reaches the main queue, not after the controller has handled it. It fires once per
    // sweep; the last sweep's values remain.
    std::atomic<VELTRZMeasurementController*> observed{nullptr};
    NotificationObserverToken token = NotificationCenter::defaultCenter().addObserver(
        std::string(VELTAudioOutputControllerEndOfBufferNotification), nullptr,
        [&](const Notification& notification) {
            VELTRZMeasurementController* controller = observed.load();
            if (!controller || notification.sender != &controller->audioOutputController())
                return;
            timeline.endOfBuffer = currentHostTime();
            timeline.outputStart = controller->audioOutputController().startTimeStamp();
            timeline.stimulusFrames = controller->stimulusSignal().length();
        });

    // A new controller configures its audio controllers for default settings that name no device
    // before the real settings arrive; what that logs is expected and kept off the console.
    setConsoleSink(nullptr);
    auto controller = VELTRZMeasurementController::make();
    setConsoleSink([](const LogLine& line) { std::fprintf(stderr, "%s\n", line.text.c_str()); });
    auto delegate = std::make_shared<TimingDelegate>(timeline);
    controller->setDelegate(delegate);
    controller->setLogSweepSettings(VELTLogSweepSettings::longLogSweepSettings());
    controller->setAudioCaptureSettings(settings);
    controller->setSynchronousAverages(kAverages);
    observed.store(controller.get());

    timeline.measureCalled = currentHostTime();
    controller->measure();
    const auto limit = std::chrono::seconds(realTime ? 180 : 120);
    if (!RunLoop::runUntil([&] { return delegate->finished(); }, limit)) {
        controller->abortMeasurement();
        RunLoop::runUntil([&] { return delegate->finished(); }, std::chrono::seconds(5));
        timeline.error = "the measurement did not finish in time";
    }
    RunLoop::runOnce();
    NotificationCenter::defaultCenter().removeObserver(token);
    timeline.finished = delegate->finished();
    controller.reset();
    RunLoop::runOnce();
    return timeline;
}

// The instant the last sample of the last sweep was played, in host time.
//
// The stimulus file holds the sweep with its silences; the controller cannot end a sweep before the
// whole file has played (the trailing 2 s of silence are recorded for the room's decay), so the
// "last sample" is the file's last frame. With real-time pacing the device's clock is the wall clock:
// the sweep's first frame went out at the output controller's start time stamp, so its last frame
// has gone out (ended at the connector) at sample time start + frames + the output latency of the
// playback channel, translated to host time by the device. The simulated device renders a cycle at
// the moment the cycle's first frame is due, so the end-of-buffer notification may come up to one
// buffer (256 frames, 5.3 ms) before this instant; notify can then be slightly negative.
//
// In fast mode the device's time stamps are ahead of the wall clock and mark no real instant; the
// closest observable instant is when the end-of-buffer notification reaches the main queue, which is
// taken instead (notify is 0 by construction).
std::optional<std::uint64_t> lastSamplePlayed(const Timeline& timeline, bool realTime) {
    if (!realTime)
        return timeline.endOfBuffer;
    if (!(timeline.outputStart.flags & kAudioTimeStampSampleTimeValid))
        return std::nullopt;
    VELTAudioDevice playback(deviceUID(true));
    AudioTimeStamp end;
    end.sampleTime = timeline.outputStart.sampleTime + double(timeline.stimulusFrames) +
                     double(playback.playbackStreamLatencyForChannel(kPlaybackChannel));
    end.flags = kAudioTimeStampSampleTimeValid;
    AudioTimeStamp host = playback.translateTimeSampleToHost(end, nullptr);
    if (!(host.flags & kAudioTimeStampHostTimeValid))
        return std::nullopt;
    return host.hostTime;
}

struct Breakdown {
    double total = 0, notify = 0, align = 0, handover = 0, processing = 0, sweeps = 0;
};

std::optional<Breakdown> breakdownOf(const Timeline& timeline, bool realTime, std::string& why) {
    if (timeline.error) {
        why = *timeline.error;
        return std::nullopt;
    }
    if (!timeline.finished || timeline.results != kRecordChannels || !timeline.endOfBuffer ||
        !timeline.endPlayback || !timeline.beginConvolution) {
        why =
            "the measurement delivered " + std::to_string(timeline.results) + " results and not every stage";
        return std::nullopt;
    }
    std::optional<std::uint64_t> played = lastSamplePlayed(timeline, realTime);
    if (!played) {
        why = "the playback device could not translate its time stamp";
        return std::nullopt;
    }
    Breakdown breakdown;
    breakdown.total = milliseconds(*played, timeline.endConvolution);
    breakdown.notify = milliseconds(*played, timeline.endOfBuffer);
    breakdown.align = milliseconds(timeline.endOfBuffer, timeline.endPlayback);
    breakdown.handover = milliseconds(timeline.endPlayback, timeline.beginConvolution);
    breakdown.processing = milliseconds(timeline.beginConvolution, timeline.endConvolution);
    breakdown.sweeps = milliseconds(timeline.measureCalled, timeline.endOfBuffer) * 1e-3;
    return breakdown;
}

void printBreakdown(const char* label, const Breakdown& breakdown) {
    std::printf("%-22s total %8.1f ms = notify %7.1f + align %7.1f + handover %6.1f + processing %8.1f"
                "  (four sweeps played in %.1f s)\n",
                label, breakdown.total, breakdown.notify, breakdown.align, breakdown.handover,
                breakdown.processing, breakdown.sweeps);
    std::fflush(stdout);
}

void BM_W2MeasurementLatency(benchmark::State& state, bool realTime) {
    Breakdown sum;
    std::int64_t runs = 0;
    for (auto _ : state) {
        Timeline timeline = measureOnce(realTime);
        std::string why;
        std::optional<Breakdown> breakdown = breakdownOf(timeline, realTime, why);
        if (!breakdown) {
            state.SkipWithError(why.c_str());
            break;
        }
        state.SetIterationTime(breakdown->total * 1e-3);
        printBreakdown(realTime ? "W2 real-time" : "W2 fast", *breakdown);
        sum.notify += breakdown->notify;
        sum.align += breakdown->align;
        sum.handover += breakdown->handover;
        sum.processing += breakdown->processing;
        sum.sweeps += breakdown->sweeps;
        ++runs;
    }
    if (runs == 0)
        return;
    state.counters["notify_ms"] = sum.notify / double(runs);
    state.counters["align_ms"] = sum.align / double(runs);
    state.counters["handover_ms"] = sum.handover / double(runs);
    state.counters["processing_ms"] = sum.processing / double(runs);
    state.counters["sweeps_s"] = sum.sweeps / double(runs);
}

std::int64_t environmentCount(const char* name, std::int64_t fallback) {
    const char* text = std::getenv(name);
    if (!text || !*text)
        return fallback;
    char* end = nullptr;
    long long value = std::strtoll(text, &end, 10);
    return end && *end == '\0' && value > 0 ? value : fallback;
}

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    setSystemLogEnabled(false);
    // FFT plans measured beforehand (the file `tavolar tune` writes), as the host loads them.
    if (const char* wisdomFile = std::getenv("TAVOLAR_BENCH_WISDOM")) {
        std::ifstream in(wisdomFile);
        std::stringstream wisdom;
        wisdom << in.rdbuf();
        if (!VELTFFTSetup::importWisdom(wisdom.str()))
            std::fprintf(stderr, "%s holds no FFT wisdom; plans are estimated\n", wisdomFile);
    }
    // As the command-line host does: the level checks are on unless a user turned them off.
    UserDefaults::standard().registerDefaults({{"ChecksRecordingLevel", true}});

    // The first measurement in a process also plans the FFTs of its lengths and faults in its
    // buffers; it is reported apart, and the benchmarks then see the steady state a host reaches
    // from its second measurement on.
    {
        Timeline timeline = measureOnce(false);
        std::string why;
        if (std::optional<Breakdown> breakdown = breakdownOf(timeline, false, why))
            printBreakdown("W2 fast, first", *breakdown);
        else
            std::printf("W2 fast, first measurement failed: %s\n", why.c_str());
    }

    benchmark::RegisterBenchmark("W2_MeasurementLatency/fast", BM_W2MeasurementLatency, false)
        ->Iterations(environmentCount("TAVOLAR_BENCH_RUNS", 3))
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    if (environmentCount("TAVOLAR_BENCH_REALTIME", 0) == 1)
        benchmark::RegisterBenchmark("W2_MeasurementLatency/realtime", BM_W2MeasurementLatency, true)
            ->Iterations(1)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
