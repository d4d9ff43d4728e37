// Measurements through a real JACK server (dummy driver) with jconvolver as the device under test:
// the measured impulse response matches the one jconvolver was loaded with, channels carry their
// own latencies, level checks and averaging failures surface as errors, a server that shuts down
// mid-sweep ends the measurement with an error at once, and the audio thread neither allocates nor
// locks.

#include "JackTestServer.h"
#include "audio/devices/AudioThreadAllocationHooks.h"
#include "audio/devices/VELTAudioDevice.h"
#include "engine/VELTRZMeasurementController.h"
#include "platform/RunLoop.h"
#include "platform/UUID.h"
#include "platform/UserDefaults.h"

#include <cmath>
#include <complex>
#include <cstdlib>
#include <gtest/gtest.h>
#include <mutex>
#include <numbers>
#include <optional>
#include <thread>

namespace tavolar {
namespace {

const bool defaultsIsolated = [] {
    if (!std::getenv("TAVOLAR_DEFAULTS_FILE"))
        setenv("TAVOLAR_DEFAULTS_FILE",
               (std::filesystem::temp_directory_path() / ("tavolar-integration-" + newUUIDString() + ".json"))
                   .c_str(),
               1);
    return true;
}();

constexpr unsigned kRate = 48000;

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

class Stages : public VELTRZMeasurementControllerDelegate {
public:
    void measurementControllerDidEndConvolution(VELTRZMeasurementController&) override {
        std::lock_guard lock(mutex);
        ended = true;
    }
    void measurementControllerDidAbort(VELTRZMeasurementController&) override {
        std::lock_guard lock(mutex);
        aborted = true;
    }
    bool hasEnded() {
        std::lock_guard lock(mutex);
        return ended;
    }
    bool hasAborted() {
        std::lock_guard lock(mutex);
        return aborted;
    }
    std::mutex mutex;
    bool ended = false, aborted = false;
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
        {
            std::lock_guard lock(stages->mutex);
            stages->ended = false;
        }
        controller->measure();
        return RunLoop::runUntil([&] { return stages->hasEnded(); }, timeout);
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

#define REQUIRE_JACK()                                                                                       \
    if (!testing::jackToolsAvailable())                                                                      \
    GTEST_SKIP() << "jackd, jack_lsp and jconvolver are needed"

TEST(JackMeasurement, ImpulseResponseOfJconvolverIsMeasuredWithinATenthOfADecibel) {
    REQUIRE_JACK();
    testing::JackTestServer server(kRate, 256, 2, 2);
    ASSERT_TRUE(server.isReady());
    const std::vector<float> known = knownImpulseResponse();
    testing::JconvolverClient convolver(server, "dut", known, kRate, 256);
    ASSERT_TRUE(convolver.isReady()) << convolver.log();
    const std::string uid =
        server.deviceUID("out0=" + convolver.inputPort() + "&in0=" + convolver.outputPort());
    VELTAudioDevice device(uid);
    ASSERT_TRUE(device.isPresent());
    EXPECT_EQ(device.sampleRateForDirection(1), 48000.0);
    EXPECT_EQ(device.channelNameForDirection(1, 0), convolver.outputPort());
    EXPECT_EQ(device.channelNameForDirection(0, 0), convolver.inputPort());

    Measurement measurement(uid, {0}, 2000.0f);
    const std::uint64_t allocationsBefore = testing::audioThreadAllocations();
    const std::uint64_t locksBefore = testing::audioThreadLocks();
    ASSERT_TRUE(measurement.runWithoutOverload(std::chrono::seconds(60)));
    EXPECT_EQ(testing::audioThreadAllocations() - allocationsBefore, 0u) << "allocations on the JACK thread";
    EXPECT_EQ(testing::audioThreadLocks() - locksBefore, 0u) << "locks on the JACK thread";
    ASSERT_FALSE(measurement.controller->error()) << measurement.controller->error()->localizedDescription;
    auto results = measurement.controller->measurementArray();
    ASSERT_EQ(results.size(), 1u);
    const VELTRealVector& measured = results[0]->impulseResponse();

    // jconvolver adds no delay. The device is one client whose output feeds jconvolver and whose
    // input hears it, a loop the server closes with one period's delay; the device reports that
    // period as capture latency, so the response starts at once.
    float peak = 0;
    std::size_t peakIndex = 0;
    measured.getMaximumMagnitude(peak, &peakIndex);
    EXPECT_EQ(peakIndex, 0u);
    EXPECT_EQ(device.recordingStreamLatencyForChannel(0), 256u);
    std::span<const float> head = measured.span().subspan(0, 4096);
    double worst = 0;
    for (int index = 0; index <= 40; ++index) {
        double frequency = 40.0 * std::pow(400.0, index / 40.0); // 40 Hz to 16 kHz, inside the sweep
        double difference = magnitudeDecibels(head, frequency) - magnitudeDecibels(known, frequency);
        worst = std::max(worst, std::abs(difference));
        EXPECT_NEAR(difference, 0.0, 0.1) << frequency << " Hz";
    }
    ::testing::Test::RecordProperty("worstMagnitudeErrorDecibels", std::to_string(worst));
}

TEST(JackMeasurement, ChannelsKeepTheirLatenciesAndSilentInputsAreReported) {
    REQUIRE_JACK();
    testing::JackTestServer server(kRate, 256, 4, 2);
    ASSERT_TRUE(server.isReady());
    testing::JconvolverClient convolver(server, "dut", knownImpulseResponse(), kRate, 256);
    ASSERT_TRUE(convolver.isReady()) << convolver.log();
    // Channel 0 hears jconvolver; channel 3 is the dummy driver's fourth capture port (silent).
    const std::string uid =
        server.deviceUID("out0=" + convolver.inputPort() + "&in0=" + convolver.outputPort());
    VELTAudioDevice device(uid);
    EXPECT_EQ(device.channelCountForDirection(1), 4u);
    EXPECT_EQ(device.channelNameForDirection(1, 3), "system:capture_4");
    EXPECT_EQ(device.recordingStreamLatencyForChannel(3), 256u) << "the dummy driver's capture latency";
    EXPECT_EQ(device.recordingStreamLatencyForChannel(0), 0u);

    {
        Measurement measurement(uid, {0, 3}, 1000.0f);
        ASSERT_TRUE(measurement.runWithoutOverload(std::chrono::seconds(60)));
        ASSERT_TRUE(measurement.controller->error());
        EXPECT_EQ(measurement.controller->error()->localizedDescription, "Error while recording response.");
        auto results = measurement.controller->measurementArray();
        ASSERT_EQ(results.size(), 1u) << "the silent channel is left out";
        EXPECT_EQ(results[0]->recordChannelEntry().channel(), 0);
    }
    // Once measured, channel 0 has been heard through the loop; the physical port has not.
    EXPECT_EQ(device.recordingStreamLatencyForChannel(0), 256u);
    EXPECT_EQ(device.recordingStreamLatencyForChannel(3), 256u) << "the dummy driver's capture latency";
    UserDefaults::standard().setBool(true, "ChecksRecordingLevel");
    {
        Measurement measurement(uid, {0, 3}, 1000.0f);
        ASSERT_TRUE(measurement.run(std::chrono::seconds(60)));
        ASSERT_TRUE(measurement.controller->error());
        EXPECT_EQ(measurement.controller->error()->localizedDescription, "The Recording is Too Quiet");
        EXPECT_TRUE(measurement.controller->measurementArray().empty());
    }
    UserDefaults::standard().removeObjectForKey("ChecksRecordingLevel");
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

TEST(JackMeasurement, AServerThatShutsDownMidSweepEndsTheMeasurementWithAnError) {
    REQUIRE_JACK();
    ScopedTemporaryDirectory temporary;
    auto server = std::make_unique<testing::JackTestServer>(kRate, 256, 2, 2);
    ASSERT_TRUE(server->isReady());
    const std::string uid = server->deviceUID("out0=system:playback_1");
    auto measurement = std::make_unique<Measurement>(uid, std::vector<std::int64_t>{0}, 20000.0f);
    measurement->controller->measure();
    RunLoop::runUntil([] { return false; }, std::chrono::milliseconds(300));
    EXPECT_EQ(temporary.files().size(), 2u) << "the stimulus and the recording";
    server->shutDown();
    // Well before the 20 s sweep could have played out, and without the host aborting.
    ASSERT_TRUE(RunLoop::runUntil([&] { return measurement->stages->hasEnded(); }, std::chrono::seconds(5)));
    ASSERT_TRUE(measurement->controller->error());
    EXPECT_EQ(measurement->controller->error()->localizedDescription,
              "The audio server stopped during the measurement.");
    EXPECT_EQ(measurement->controller->error()->localizedRecoverySuggestion,
              "Start the JACK server again, then measure again.");
    EXPECT_FALSE(measurement->stages->hasAborted());
    EXPECT_TRUE(measurement->controller->measurementArray().empty());
    // The partial recording is gone; only the stimulus the controller keeps for its next sweep stays.
    EXPECT_EQ(temporary.files(), std::vector<std::filesystem::path>{
                                     measurement->controller->audioOutputController().playbackFileURL()});
    EXPECT_FALSE(VELTAudioDevice(uid).isPresent());
    // Aborting afterwards is harmless.
    measurement->controller->abortMeasurement();
    EXPECT_TRUE(
        RunLoop::runUntil([&] { return measurement->stages->hasAborted(); }, std::chrono::seconds(10)));
    server.reset();

    // The same controller measures again on a new server.
    testing::JackTestServer replacement(kRate, 256, 2, 2);
    ASSERT_TRUE(replacement.isReady());
    testing::JconvolverClient convolver(replacement, "dut", knownImpulseResponse(), kRate, 256);
    ASSERT_TRUE(convolver.isReady()) << convolver.log();
    auto settings =
        std::make_shared<VELTAudioCaptureSettings>(*measurement->controller->audioCaptureSettings());
    const std::string next =
        replacement.deviceUID("out0=" + convolver.inputPort() + "&in0=" + convolver.outputPort());
    settings->setPlaybackDeviceUID(next);
    settings->setRecordDeviceUID(next);
    measurement->controller->setAudioCaptureSettings(settings);
    auto sweep = measurement->controller->logSweepSettings();
    sweep.setDuration(500.0f);
    measurement->controller->setLogSweepSettings(sweep);
    ASSERT_TRUE(measurement->runWithoutOverload(std::chrono::seconds(60)));
    EXPECT_FALSE(measurement->controller->error());
    EXPECT_EQ(measurement->controller->measurementArray().size(), 1u);
    measurement.reset();
    EXPECT_TRUE(RunLoop::runUntil([&] { return temporary.files().empty(); }, std::chrono::seconds(5)))
        << "temporary files outlive the controller";
}

TEST(JackMeasurement, LongSweepAtSmallPeriodWithEightCaptureChannels) {
    REQUIRE_JACK();
    testing::JackTestServer server(kRate, 64, 8, 2);
    ASSERT_TRUE(server.isReady());
    testing::JconvolverClient convolver(server, "dut", knownImpulseResponse(), kRate, 64);
    ASSERT_TRUE(convolver.isReady()) << convolver.log();
    const std::string uid =
        server.deviceUID("out0=" + convolver.inputPort() + "&in0=" + convolver.outputPort());
    Measurement measurement(uid, {0, 1, 2, 3, 4, 5, 6, 7}, 10000.0f);
    ASSERT_TRUE(measurement.run(std::chrono::seconds(120)));
    VELTRZMeasurementController& controller = *measurement.controller;
    EXPECT_EQ(controller.audioInputController().droppedFrames(), 0u);
    EXPECT_EQ(controller.audioOutputController().underruns(), 0u);
    // Dummy captures 1 to 7 are silent; channel 0 is measured. At this period a busy machine
    // overloads the server now and then; how often is recorded, not asserted.
    auto results = controller.measurementArray();
    ASSERT_EQ(results.size(), 1u);
    float peak = 0;
    std::size_t peakIndex = 0;
    results[0]->impulseResponse().getMaximumMagnitude(peak, &peakIndex);
    ::testing::Test::RecordProperty("peakIndex", std::to_string(peakIndex));
    ::testing::Test::RecordProperty("peak", std::to_string(peak));
    ::testing::Test::RecordProperty("inputXruns", std::to_string(controller.audioInputController().xruns()));
    ::testing::Test::RecordProperty("outputXruns",
                                    std::to_string(controller.audioOutputController().xruns()));
    ::testing::Test::RecordProperty("inputSkippedFrames",
                                    std::to_string(controller.audioInputController().skippedFrames()));
    ::testing::Test::RecordProperty("outputSkippedFrames",
                                    std::to_string(controller.audioOutputController().skippedFrames()));
}

} // namespace
} // namespace tavolar
