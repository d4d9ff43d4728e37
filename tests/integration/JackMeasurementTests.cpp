// Measurements through a real JACK server (dummy driver) with jconvolver as the device under test:
// channels carry their own latencies, averaging failures surface as errors, a long
// sweep at a small period loses no frame, a server that shuts down mid-sweep ends the measurement
// with an error at once and is no longer answered, one that freezes ends it within two seconds, the
// next measurement gives the impulse response jconvolver was loaded with, and the audio thread neither
// allocates nor locks.

#include "AudioThreadAllocationHooks.h"
#include "JackTestServer.h"
#include "audio/VELTAudioDeviceRegistry.h"
#include "audio/devices/VELTAudioDevice.h"
#include "engine/IsolatedUserDefaults.h"
#include "engine/VELTRZMeasurementController.h"
#include "platform/RunLoop.h"
#include "platform/UUID.h"

#include <atomic>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <gtest/gtest.h>
#include <numbers>
#include <optional>
#include <signal.h>

namespace tavolar {
namespace {

// Not 48 kHz, the rate a device that answers nothing might be taken to have.
constexpr unsigned kRate = 44100;

// A response with a direct part, two early reflections and a decaying 1.5 kHz resonance.
std::vector<float> knownImpulseResponse() {
    std::vector<float> response(1500, 0.0f);
    response[0] = 0.5f;
    response[5] = 0.3f;
    response[12] = -0.2f;
    for (std::size_t n = 20; n < response.size(); ++n)
        response[n] += float(0.01 * std::exp(-double(n) / 200.0) *
                             std::sin(2.0 * std::numbers::pi * 1500.0 * double(n) / kRate));
    return response;
}

double magnitudeDecibels(std::span<const float> response, double frequency) {
    std::complex<double> sum = 0.0;
    for (std::size_t n = 0; n < response.size(); ++n)
        sum += double(response[n]) * std::polar(1.0, -2.0 * std::numbers::pi * frequency * double(n) / kRate);
    return 20.0 * std::log10(std::abs(sum));
}

struct Stages : VELTRZMeasurementControllerDelegate {
    void measurementControllerDidEndConvolution(VELTRZMeasurementController&) override { ended = true; }
    void measurementControllerDidAbort(VELTRZMeasurementController&) override { aborted = true; }
    std::atomic<bool> ended{false}, aborted{false};
};

struct Measurement {
    std::shared_ptr<VELTRZMeasurementController> controller = VELTRZMeasurementController::make();
    std::shared_ptr<Stages> stages = std::make_shared<Stages>();

    Measurement(const std::string& uid, std::vector<std::int64_t> record, float durationMilliseconds) {
        auto settings = std::make_shared<VELTAudioCaptureSettings>();
        settings->setPlaybackDeviceUID(uid);
        settings->setRecordDeviceUID(uid);
        settings->setPlaybackChannels(IndexSet{0});
        settings->setRecordChannelEntries(VELTAudioCaptureSettings::recordChannelEntriesFromIndexSet(
            IndexSet(record.begin(), record.end())));
        VELTLogSweepSettings sweep;
        sweep.setFullRangeSweep(false);
        sweep.setStartFreq(20.0f);
        sweep.setEndFreq(20000.0f);
        sweep.setDuration(durationMilliseconds);
        sweep.setDefaultSilence(false);
        sweep.setBeginSilence(100.0f);
        sweep.setEndSilence(500.0f);
        // jconvolver's output is not limited; this keeps the known response below full scale.
        sweep.setAmplitude(0.3f);
        controller->setAudioCaptureSettings(settings);
        controller->setLogSweepSettings(sweep);
        controller->setDelegate(stages);
    }
    bool run(std::chrono::seconds timeout) {
        stages->ended = false;
        controller->measure();
        return RunLoop::runUntil([&] { return stages->ended.load(); }, timeout);
    }
    // The server's overloads (xruns) on a busy machine damage a sweep as they would on a studio's;
    // like a careful user, measure again, up to attempts times, until a sweep ran without one.
    bool runWithoutOverload(std::chrono::seconds timeout, int attempts = 4) {
        for (int attempt = 1; attempt <= attempts; ++attempt) {
            if (!run(timeout))
                return false;
            if (controller->audioInputController().xruns() == 0 &&
                controller->audioOutputController().xruns() == 0)
                break;
            ::testing::Test::RecordProperty("overloadedAttempts", std::to_string(attempt));
        }
        return true;
    }
};

using JackMeasurement = testing::JackTest;

// A 10 s sweep at a period of 64 frames into eight inputs: channel 0 hears jconvolver, the dummy
// driver's captures 1 to 7 are silent.
TEST_F(JackMeasurement, LongSweepAtSmallPeriodKeepsEveryFrameAndEachChannelsLatency) {
    ASSERT_TRUE(start(kRate, 64, 8, knownImpulseResponse()));
    VELTAudioDevice device(loopUID());
    EXPECT_EQ(device.channelNameForDirection(1, 3), "system:capture_4");
    EXPECT_EQ(device.recordingStreamLatencyForChannel(3), 64u) << "the dummy driver's capture latency";
    EXPECT_EQ(device.recordingStreamLatencyForChannel(0), 0u);
    {
        Measurement measurement(loopUID(), {0, 1, 2, 3, 4, 5, 6, 7}, 10000.0f);
        ASSERT_TRUE(measurement.run(std::chrono::seconds(120)));
        VELTRZMeasurementController& controller = *measurement.controller;
        EXPECT_EQ(controller.audioInputController().droppedFrames(), 0u);
        EXPECT_EQ(controller.audioOutputController().underruns(), 0u);
        ASSERT_TRUE(controller.error());
        EXPECT_EQ(controller.error()->localizedDescription, "Error while recording response.");
        auto results = controller.measurementArray();
        ASSERT_EQ(results.size(), 1u) << "the silent channels are left out";
        EXPECT_EQ(results[0]->recordChannelEntry().channel(), 0);
        // At this period a busy machine overloads the server now and then, which may move the
        // response; how often is recorded, not asserted.
        ::testing::Test::RecordProperty("inputXruns",
                                        std::to_string(controller.audioInputController().xruns()));
    }
    // Once measured, channel 0 has been heard through the loop; the physical port has not.
    EXPECT_EQ(device.recordingStreamLatencyForChannel(0), 64u);
    EXPECT_EQ(device.recordingStreamLatencyForChannel(3), 64u) << "the dummy driver's capture latency";
}

// Points the temporary directory at a fresh one of its own while alive.
class ScopedTemporaryDirectory {
public:
    ScopedTemporaryDirectory()
        : path_(std::filesystem::temp_directory_path() / ("tavolar-jack-" + newUUIDString())) {
        if (const char* previous = std::getenv("TMPDIR"))
            previous_ = previous;
        std::filesystem::create_directory(path_);
        setenv("TMPDIR", path_.c_str(), 1);
    }
    ~ScopedTemporaryDirectory() {
        if (previous_)
            setenv("TMPDIR", previous_->c_str(), 1);
        else
            unsetenv("TMPDIR");
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    // The files left in it; the test servers keep directories of their own there.
    std::vector<std::filesystem::path> files() const {
        std::vector<std::filesystem::path> found;
        for (const auto& entry : std::filesystem::directory_iterator(path_))
            if (entry.is_regular_file())
                found.push_back(entry.path());
        return found;
    }

private:
    std::filesystem::path path_;
    std::optional<std::string> previous_;
};

TEST_F(JackMeasurement, AServerThatShutsDownMidSweepEndsTheMeasurementAndTheNextMeasuresJconvolver) {
    ScopedTemporaryDirectory temporary;
    ASSERT_TRUE(start(kRate, 256, 4));
    // Capture settings answer a server that nothing in the process has opened: its name is new, so
    // nothing has registered it (listing asks no lookup).
    const std::string plainUID = deviceUID();
    for (const AudioDeviceDescription& known : VELTAudioDeviceRegistry::shared().devices())
        ASSERT_NE(known.uid, plainUID);
    VELTAudioCaptureSettings settings;
    settings.setRecordDeviceUID(plainUID);
    settings.setPlaybackDeviceUID(plainUID);
    EXPECT_EQ(settings.recordDeviceSampleRate(), kRate);
    EXPECT_EQ(settings.playbackDeviceSampleRate(), kRate);
    ASSERT_TRUE(settings.recordDevice());
    EXPECT_EQ(settings.recordDevice()->inputChannelCount, 4u);
    EXPECT_EQ(settings.recordDevice()->outputChannelCount, 2u);

    const std::string uid = deviceUID("out0=system:playback_1");
    auto measurement = std::make_unique<Measurement>(uid, std::vector<std::int64_t>{0}, 20000.0f);
    measurement->controller->measure();
    RunLoop::runUntil([] { return false; }, std::chrono::milliseconds(300));
    EXPECT_EQ(temporary.files().size(), 2u) << "the stimulus and the recording";
    stopServer();
    // Well before the 20 s sweep could have played out, and without the host aborting.
    ASSERT_TRUE(
        RunLoop::runUntil([&] { return measurement->stages->ended.load(); }, std::chrono::seconds(5)));
    ASSERT_TRUE(measurement->controller->error());
    EXPECT_EQ(measurement->controller->error()->localizedDescription,
              "The audio server stopped during the measurement.");
    EXPECT_FALSE(measurement->stages->aborted.load());
    EXPECT_TRUE(measurement->controller->measurementArray().empty());
    // The partial recording is gone; only the stimulus the controller keeps for its next sweep stays.
    EXPECT_EQ(temporary.files(), std::vector<std::filesystem::path>{
                                     measurement->controller->audioOutputController().playbackFileURL()});
    EXPECT_FALSE(VELTAudioDevice(uid).isPresent());
    // The process hears of the stop from the server's shutdown callback, a moment later; what was
    // learnt while it ran is not answered any more.
    EXPECT_TRUE(RunLoop::runUntil([&] { return !settings.recordDevice(); }, std::chrono::seconds(10)))
        << "the stopped server is still answered";
    EXPECT_EQ(settings.recordDeviceSampleRate(), 0u);
    EXPECT_EQ(settings.playbackDeviceSampleRate(), 0u);
    EXPECT_FALSE(VELTAudioDeviceRegistry::shared().deviceWithUID(plainUID));
    // Aborting afterwards is harmless.
    measurement->controller->abortMeasurement();
    EXPECT_TRUE(
        RunLoop::runUntil([&] { return measurement->stages->aborted.load(); }, std::chrono::seconds(10)));

    // The same controller on a new server, through jconvolver.
    const std::vector<float> known = knownImpulseResponse();
    ASSERT_TRUE(start(kRate, 256, 2, known));
    VELTAudioDevice device(loopUID());
    ASSERT_TRUE(device.isPresent());
    EXPECT_EQ(device.sampleRateForDirection(1), double(kRate));
    auto again = std::make_shared<VELTAudioCaptureSettings>(*measurement->controller->audioCaptureSettings());
    again->setPlaybackDeviceUID(loopUID());
    again->setRecordDeviceUID(loopUID());
    measurement->controller->setAudioCaptureSettings(again);
    auto sweep = measurement->controller->logSweepSettings();
    sweep.setDuration(2000.0f);
    measurement->controller->setLogSweepSettings(sweep);
    const std::uint64_t allocationsBefore = testing::audioThreadAllocations();
    const std::uint64_t locksBefore = testing::audioThreadLocks();
    ASSERT_TRUE(measurement->runWithoutOverload(std::chrono::seconds(60)));
    EXPECT_EQ(testing::audioThreadAllocations() - allocationsBefore, 0u) << "allocations on the JACK thread";
    EXPECT_EQ(testing::audioThreadLocks() - locksBefore, 0u) << "locks on the JACK thread";
    ASSERT_FALSE(measurement->controller->error()) << measurement->controller->error()->localizedDescription;
    auto results = measurement->controller->measurementArray();
    ASSERT_EQ(results.size(), 1u);

    // The measured response is the one jconvolver was loaded with. jconvolver adds no delay; the
    // loop through the device's own client adds a period, which the device reports as capture
    // latency, so the response starts at once.
    const VELTRealVector& measured = results[0]->impulseResponse();
    float peak = 0;
    std::size_t peakIndex = 0;
    measured.getMaximumMagnitude(peak, &peakIndex);
    EXPECT_EQ(peakIndex, 0u);
    EXPECT_EQ(device.recordingStreamLatencyForChannel(0), 256u);
    std::span<const float> head = measured.span().subspan(0, 4096);
    for (int index = 0; index <= 40; ++index) {
        double frequency = 40.0 * std::pow(400.0, index / 40.0); // 40 Hz to 16 kHz, inside the sweep
        EXPECT_NEAR(magnitudeDecibels(head, frequency), magnitudeDecibels(known, frequency), 0.1)
            << frequency << " Hz";
    }
    results.clear();
    measurement.reset();
    EXPECT_TRUE(RunLoop::runUntil([&] { return temporary.files().empty(); }, std::chrono::seconds(5)))
        << "temporary files outlive the controller";
}

// A server frozen mid-sweep (SIGSTOP) runs no more cycles and answers no request: the measurement ends
// with an error within two seconds, and an abort returns within one.
TEST_F(JackMeasurement, AFrozenServerEndsTheMeasurementAndAnAbortStillReturns) {
    for (const bool aborting : {false, true}) {
        ASSERT_TRUE(start(kRate, 256, 2));
        Measurement measurement(deviceUID("out0=system:playback_1"), {0}, 20000.0f);
        measurement.controller->measure();
        RunLoop::runUntil([] { return false; }, std::chrono::milliseconds(300));
        signalServer(SIGSTOP);
        const auto frozen = std::chrono::steady_clock::now();
        if (aborting) {
            measurement.controller->abortMeasurement();
            EXPECT_LT(std::chrono::steady_clock::now() - frozen, std::chrono::seconds(1));
            EXPECT_TRUE(RunLoop::runUntil([&] { return measurement.stages->aborted.load(); },
                                          std::chrono::seconds(1)));
        } else {
            ASSERT_TRUE(
                RunLoop::runUntil([&] { return measurement.stages->ended.load(); }, std::chrono::seconds(2)));
            ASSERT_TRUE(measurement.controller->error());
            EXPECT_EQ(measurement.controller->error()->localizedDescription,
                      "The audio server stopped running during the measurement.");
        }
        EXPECT_TRUE(measurement.controller->measurementArray().empty());
        signalServer(SIGCONT);
    }
}

} // namespace
} // namespace tavolar
