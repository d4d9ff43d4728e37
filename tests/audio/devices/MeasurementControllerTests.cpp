// Whole measurements on simulated devices in fast mode: the delegate's stages, synchronous
// averaging, alignment through time stamps and latencies, the loop-back reference, level checks and
// aborting. Measured responses are compared with the device under test's own impulse response.

#include "SimulatedMeasurement.h"
#include "audio/devices/VELTAudioHardware.h"
#include "audio/devices/simulated/SimulatedDeviceConfiguration.h"
#include "engine/VELTRZMeasurementController.h"
#include "platform/RunLoop.h"
#include "platform/UserDefaults.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <complex>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <mutex>
#include <numbers>
#include <tuple>

namespace tavolar {
namespace {

// Records the delegate's calls in order, and whether one came off the main thread, which every stage but
// the end of playback must reach.
class RecordingDelegate : public VELTRZMeasurementControllerDelegate {
public:
    void measurementControllerDidBeginPlayback(VELTRZMeasurementController&) override {
        note("beginPlayback");
    }
    void measurementControllerDidEndPlayback(VELTRZMeasurementController&) override { note("endPlayback"); }
    void measurementControllerDidBeginConvolution(VELTRZMeasurementController&) override {
        note("beginConvolution");
    }
    void measurementController(VELTRZMeasurementController&,
                               const std::map<std::string, std::int64_t>& progress) override {
        note(fmt::format("progress {}/{}", progress.at("current"), progress.at("total")));
    }
    void measurementControllerDidEndConvolution(VELTRZMeasurementController& controller) override {
        resultsAtEnd = controller.measurementArray().size();
        note("endConvolution");
    }
    void measurementControllerDidAbort(VELTRZMeasurementController&) override { note("abort"); }

    std::vector<std::string> calls() {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    std::ptrdiff_t count(std::string_view call) { return std::ranges::count(calls(), call); }

    std::atomic<std::size_t> resultsAtEnd = 0;
    std::atomic<bool> offMainThread = false;

private:
    void note(std::string call) {
        if (!isMainThread() && call != "endPlayback")
            offMainThread = true;
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }
    std::mutex mutex_;
    std::vector<std::string> calls_;
};

VELTLogSweepSettings shortSweep() {
    VELTLogSweepSettings sweep;
    sweep.setFullRangeSweep(false);
    sweep.setStartFreq(20.0f);
    sweep.setEndFreq(20000.0f);
    sweep.setDuration(500.0f);
    sweep.setDefaultSilence(false);
    sweep.setBeginSilence(50.0f);
    sweep.setEndSilence(300.0f);
    sweep.setAmplitude(0.5f);
    return sweep;
}

// Magnitude in dB of a response at a frequency, by a direct transform in double precision.
double magnitudeDecibels(std::span<const float> response, double frequency, double rate) {
    std::complex<double> sum = 0.0;
    for (std::size_t n = 0; n < response.size(); ++n)
        sum += double(response[n]) * std::polar(1.0, -2.0 * std::numbers::pi * frequency * double(n) / rate);
    return 20.0 * std::log10(std::abs(sum));
}

struct MeasurementRun {
    std::shared_ptr<VELTRZMeasurementController> controller = VELTRZMeasurementController::make();
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();

    MeasurementRun(const std::string& uid, std::vector<std::int64_t> record, bool correction,
                   std::int64_t averages = 1) {
        controller->setDelegate(delegate);
        controller->setLogSweepSettings(shortSweep());
        controller->setAudioCaptureSettings(testing::captureSettings(
            uid, {0}, record, correction ? std::optional(testing::CorrectionChannels{}) : std::nullopt));
        controller->setSynchronousAverages(averages);
    }
    bool measureToEnd() {
        const auto ended = delegate->count("endConvolution");
        controller->measure();
        return RunLoop::runUntil([&] { return delegate->count("endConvolution") > ended; },
                                 std::chrono::seconds(60));
    }
};

TEST(VELTRZMeasurementController, AveragedMeasurementReproducesTheDeviceUnderTest) {
    SimulatedDeviceConfiguration device{.name = "controller-dut",
                                        .bufferSize = 128,
                                        .inputChannels = 3,
                                        .delay = 240,
                                        .noiseLevel = 1e-5,
                                        .microphoneInput = 0,
                                        .inputLatencies = {64, 0, 17},
                                        .realTime = false};
    // A small resonant system: direct sound, a reflection and a decaying ring.
    device.impulseResponse.assign(600, 0.0f);
    device.impulseResponse[0] = 0.6f;
    device.impulseResponse[37] = -0.25f;
    for (std::size_t n = 60; n < 600; ++n)
        device.impulseResponse[n] = float(0.1 * std::exp(-double(n - 60) / 80.0) * std::sin(0.3 * double(n)));
    VELTAudioHardware::registerSimulatedDevice(device);

    MeasurementRun run("sim:controller-dut", {0, 2}, false, 3);
    ASSERT_TRUE(run.measureToEnd());
    RunLoop::runUntil([] { return false; }, std::chrono::milliseconds(50)); // let queued progress arrive
    EXPECT_FALSE(run.controller->error()) << run.controller->error()->localizedDescription;
    const std::vector<std::string> expected{"beginPlayback", "beginPlayback",    "beginPlayback",
                                            "endPlayback",   "beginConvolution", "progress 0/2",
                                            "progress 1/2",  "progress 2/2",     "endConvolution"};
    EXPECT_EQ(run.delegate->calls(), expected);
    EXPECT_FALSE(run.delegate->offMainThread);
    EXPECT_EQ(run.delegate->resultsAtEnd, 2u) << "results are stored before the end is told";
    EXPECT_EQ(run.controller->averagingArray()->size(), 3u);

    auto results = run.controller->measurementArray();
    ASSERT_EQ(results.size(), 2u);
    const VELTRZMeasurement& measured = *results[0];
    EXPECT_EQ(measured.synchronousAverages(), 3);

    // Channel 0's latency of 64 frames is removed, so the response starts after the pure delay.
    const VELTRealVector& response = measured.impulseResponse();
    float peak = 0;
    std::size_t peakIndex = 0;
    response.getMaximumMagnitude(peak, &peakIndex);
    EXPECT_EQ(peakIndex, 240u);
    EXPECT_NEAR(peak, 0.6f, 0.01f);
    std::span<const float> measuredPart = response.span().subspan(240, 2048);
    for (double frequency : {100.0, 315.0, 1000.0, 3150.0, 10000.0})
        EXPECT_NEAR(magnitudeDecibels(measuredPart, frequency, 48000.0),
                    magnitudeDecibels(device.impulseResponse, frequency, 48000.0), 0.1)
            << frequency << " Hz";
    // Channel 2 hears only noise: its response carries no trace of the device under test.
    float noisePeak = 0;
    results[1]->impulseResponse().getMaximumMagnitude(noisePeak, nullptr);
    EXPECT_LT(noisePeak, 0.01f);
    VELTAudioHardware::removeSimulatedDevice("controller-dut");
}

TEST(VELTRZMeasurementController, LoopBackReferenceCancelsTheClockOffsetBetweenStreams) {
    // Input stamps read 100 frames behind the output's: aligned by stamps alone, 100 frames too
    // many are cut and the response arrives 100 frames early; divided by the loop-back reference it
    // arrives on time.
    const std::string uid = "sim:offset?pace=fast&clockOffset=-100&delay=200&noise=off";
    MeasurementRun plain(uid, {0}, false);
    ASSERT_TRUE(plain.measureToEnd());
    MeasurementRun referenced(uid, {0}, true);
    ASSERT_TRUE(referenced.measureToEnd());
    ASSERT_EQ(plain.controller->measurementArray().size(), 1u);
    ASSERT_EQ(referenced.controller->measurementArray().size(), 1u);
    auto peakIndex = [](const VELTRealVector& response) {
        float peak = 0;
        std::size_t index = 0;
        response.getMaximumMagnitude(peak, &index);
        return index;
    };
    const std::size_t builtIn =
        peakIndex(VELTRealVector(SimulatedDeviceConfiguration::defaultConfiguration().impulseResponse));
    EXPECT_EQ(peakIndex(plain.controller->measurementArray()[0]->impulseResponse()), 200 + builtIn - 100);
    EXPECT_EQ(peakIndex(referenced.controller->measurementArray()[0]->impulseResponse()), 200 + builtIn);
}

TEST(VELTRZMeasurementController, LevelChecksStopProcessingUnlessBypassed) {
    UserDefaults::standard().setBool(true, "ChecksRecordingLevel");
    {
        MeasurementRun quiet("sim:quiet?pace=fast&gain=-40", {0}, false);
        ASSERT_TRUE(quiet.measureToEnd());
        ASSERT_TRUE(quiet.controller->error());
        EXPECT_EQ(quiet.controller->error()->localizedDescription, "The Recording is Too Quiet");
        EXPECT_TRUE(quiet.controller->measurementArray().empty());
        EXPECT_EQ(quiet.delegate->count("beginConvolution"), 0);

        // Holding Shift skips the check.
        VELTRZMeasurementController::setModifierFlagsProvider([] { return std::uint64_t(1) << 17; });
        ASSERT_TRUE(quiet.measureToEnd());
        VELTRZMeasurementController::setModifierFlagsProvider(nullptr);
        EXPECT_TRUE(quiet.controller->bypassLevelCheck());
        EXPECT_FALSE(quiet.controller->error());
        EXPECT_EQ(quiet.controller->measurementArray().size(), 1u);
    }
    {
        // Too quiet on one channel (input 1 hears nothing) and clipped on the other: clipping wins.
        MeasurementRun loud("sim:loud?pace=fast&gain=20&loopback=none", {0, 1}, false);
        ASSERT_TRUE(loud.measureToEnd());
        ASSERT_TRUE(loud.controller->error());
        EXPECT_EQ(loud.controller->error()->localizedDescription, "The Recording Clipped!");
    }
    UserDefaults::standard().removeObjectForKey("ChecksRecordingLevel");

    // Recordings of one channel each, by their peaks: -20 dB passes, 1.0 is clipped, and an empty
    // array counts as clipped.
    auto recordings = [](std::vector<float> peaks) {
        std::vector<VELTRZSweptSineRecording> result;
        for (float peak : peaks)
            result.emplace_back(std::vector<VELTRealVector>{VELTRealVector{0.0f, peak, -0.5f * peak}},
                                std::nullopt);
        return result;
    };
    const std::tuple<std::vector<float>, bool, bool> cases[] = {{{}, false, true},
                                                                {{0.1f, -0.99f}, true, false},
                                                                {{0.5f, 0.0999f}, false, false},
                                                                {{1.0f, 0.5f}, true, true}};
    for (const auto& [peaks, sufficient, clipped] : cases) {
        EXPECT_EQ(VELTRZMeasurementController::hasSufficientRecordingLevelInMeasurements(recordings(peaks)),
                  sufficient)
            << peaks.size();
        EXPECT_EQ(VELTRZMeasurementController::measurementsDidClip(recordings(peaks)), clipped)
            << peaks.size();
    }
}

TEST(VELTRZMeasurementController, AbortStopsWithoutProcessing) {
    MeasurementRun run("sim:abort?pace=realtime", {0}, false);
    auto sweep = shortSweep();
    sweep.setDuration(5000.0f);
    run.controller->setLogSweepSettings(sweep);
    run.controller->measure();
    RunLoop::runUntil([] { return false; }, std::chrono::milliseconds(200));
    run.controller->abortMeasurement();
    EXPECT_TRUE(RunLoop::runUntil([&] { return run.delegate->count("abort") > 0; }, std::chrono::seconds(5)));
    ASSERT_TRUE(run.controller->error());
    EXPECT_EQ(run.controller->error()->localizedDescription, "Measurement Aborted");
    RunLoop::runUntil([] { return false; }, std::chrono::milliseconds(300));
    EXPECT_EQ(run.delegate->calls(), (std::vector<std::string>{"beginPlayback", "abort"}));
}

} // namespace
} // namespace tavolar
