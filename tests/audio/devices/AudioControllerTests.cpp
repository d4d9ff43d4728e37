// The output and input controllers on simulated devices in fast mode: mixer routing, stimulus and
// recording files, time stamps, the end-of-buffer notification, channel mapping, retained files and
// the errors of set-up steps.

#include "SimulatedMeasurement.h"
#include "audio/devices/simulated/SimulatedDeviceConfiguration.h"
#include "platform/Logging.h"
#include "platform/UUID.h"
#include "platform/UserDefaults.h"

#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sndfile.h>

namespace tavolar {
namespace {

using testing::captureSettings;
using testing::playAndRecord;

VELTRealVector ramp(std::size_t length, float scale) {
    VELTRealVector vector(length);
    for (std::size_t n = 0; n < length; ++n)
        vector[n] = scale * float((n * 7919) % 1000) / 1000.0f - 0.5f * scale;
    return vector;
}

TEST(VELTAudioOutputController, MixerRoutesTheStimulusToPlaybackAndCorrectionChannelsOnly) {
    VELTAudioOutputController controller(
        captureSettings("sim:routing?outputs=4&pace=fast", {0}, {0}, testing::CorrectionChannels{1, 0}));
    EXPECT_EQ(controller.allPlaybackChannels(), (IndexSet{0, 1}));
    for (std::uint32_t output = 0; output < 4; ++output)
        EXPECT_EQ(controller.crosspointVolume(0, output), output < 2 ? 1.0f : 0.0f) << output;

    // Settings naming a missing device: the set-up step says which step failed and with what status.
    LogCapture log;
    controller.setAudioCaptureSettings(captureSettings("sim:routing?bogus=1", {0}, {0}));
    auto result = controller.configureAudioOutput();
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().localizedDescription,
              fmt::format("Could not set current device {}", kAudioStatusDeviceNotFound));
    EXPECT_EQ(result.error().code, kAudioStatusDeviceNotFound);
    EXPECT_TRUE(log.contains("(ERROR) VELTAudioOutputController.cpp : Could not configure audio output. "
                             "Could not set current device"));
    EXPECT_EQ(controller.crosspointVolume(0, 0), 0.0f) << "no graph";
    controller.teardownWorkerThread();
}

TEST(VELTAudioOutputController, StimulusFilesHoldTheVectorExactlyAndAreDeletedUnlessRetained) {
    auto settings = captureSettings("sim:files?pace=fast&rate=44100", {0}, {0});
    std::filesystem::path first, retained;
    {
        VELTAudioOutputController controller(settings);
        // What the file holds reaches the device exactly, as the clock test shows; here its rate.
        controller.setPlaybackVector(ramp(20000, 0.9f));
        first = controller.playbackFileURL();
        SF_INFO info{};
        SNDFILE* file = sf_open(first.c_str(), SFM_READ, &info);
        ASSERT_TRUE(file);
        EXPECT_EQ(info.samplerate, 44100);
        sf_close(file);

        controller.setPlaybackVector(VELTRealVector());
        EXPECT_FALSE(std::filesystem::exists(first)) << "a new vector replaces the old file";
        SF_INFO emptyInfo{};
        SNDFILE* empty = sf_open(controller.playbackFileURL().c_str(), SFM_READ, &emptyInfo);
        ASSERT_TRUE(empty) << "an empty vector gives an empty, valid file";
        EXPECT_EQ(emptyInfo.frames, 0);
        sf_close(empty);
        first = controller.playbackFileURL();
        controller.teardownWorkerThread();
    }
    EXPECT_FALSE(std::filesystem::exists(first));

    UserDefaults::standard().setBool(true, "RZRetainStimulusAfterMeasurement");
    {
        LogCapture log;
        {
            VELTAudioOutputController controller(settings);
            controller.setPlaybackVector(ramp(100, 0.5f));
            retained = controller.playbackFileURL();
            // Not torn down: the controller says so and tears the worker down itself.
        }
        EXPECT_TRUE(log.contains("Retained stimulus at path: " + retained.string()));
        EXPECT_TRUE(log.contains("(ERROR) VELTAudioOutputController.cpp : ERROR: Did not tear down "
                                 "mAudioNotificationQueueWorker thread"));
    }
    UserDefaults::standard().removeObjectForKey("RZRetainStimulusAfterMeasurement");
    EXPECT_TRUE(std::filesystem::exists(retained));
    std::filesystem::remove(retained);
}

TEST(AudioControllers, PlaybackAndRecordingMeetOnTheDeviceClock) {
    // Output 0 drives the built-in device under test (gain 0.5), delayed by 30 frames, into input 0;
    // output 1 is wired back to input 1, which lags by 5 frames. The input stream's stamps read 40
    // frames behind the output's for the same moment.
    const std::string uid = "sim:clock?pace=fast&buffer=128&latency=0,5&delay=30&clockOffset=-40&noise=off";
    auto settings = captureSettings(uid, {0, 1}, {0, 1});
    VELTAudioOutputController output(settings);
    VELTAudioInputController input(settings);
    ASSERT_TRUE(input.isConfigured());
    EXPECT_EQ(input.startTimeStamp().flags, 0u);
    const VELTRealVector stimulus = ramp(30000, 0.8f);
    output.setPlaybackVector(stimulus);

    // Play on for a while after the end: no second notification, and what renders then is silence.
    const testing::PlaybackEnd end = playAndRecord(output, input, std::chrono::milliseconds(100));
    EXPECT_EQ(end.notifications, 1);
    EXPECT_EQ(end.sender, &output);
    EXPECT_EQ(output.underruns(), 0u);
    EXPECT_EQ(input.droppedFrames(), 0u);

    AudioTimeStamp played = output.startTimeStamp(), recorded = input.startTimeStamp();
    ASSERT_TRUE(played.flags & kAudioTimeStampSampleTimeValid);
    ASSERT_TRUE(recorded.flags & kAudioTimeStampSampleTimeValid);
    ASSERT_GE(played.sampleTime, recorded.sampleTime + 40) << "recording starts first";
    // Where the first frame played was captured, by the stamps and the clock offset.
    const std::size_t offset = std::size_t(played.sampleTime - recorded.sampleTime) - 40;

    auto vectors = input.recordChannelVectors();
    ASSERT_EQ(vectors.size(), 2u);
    ASSERT_TRUE(vectors[0] && vectors[1]);
    const VELTRealVector& loopback = *vectors[1];
    ASSERT_GT(loopback.length(), offset + 5 + stimulus.length() + 1000);
    for (std::size_t n = 0; n < offset + 5; ++n)
        ASSERT_EQ(loopback[n], 0.0f) << n;
    for (std::size_t n = 0; n < stimulus.length(); ++n)
        ASSERT_EQ(loopback[offset + 5 + n], stimulus[n]) << "unity gain, aligned by the stamps, frame " << n;
    for (std::size_t n = offset + 5 + stimulus.length(); n < loopback.length(); ++n)
        ASSERT_EQ(loopback[n], 0.0f) << "silence after the end, frame " << n;
    // The microphone: half the stimulus through the built-in response, 30 frames late.
    const std::vector<float> response = SimulatedDeviceConfiguration::defaultConfiguration().impulseResponse;
    for (std::size_t n = 0; n < 400; ++n) {
        double expected = 0;
        for (std::size_t k = 0; k <= n; ++k)
            expected += 0.5 * double(response[k]) * double(stimulus[n - k]);
        ASSERT_NEAR((*vectors[0])[offset + 30 + n], expected, 1e-5) << n;
    }
    EXPECT_FALSE(input.correctionChannelVector()) << "correction off";

    std::filesystem::path recording = input.recordedFileURL();
    EXPECT_TRUE(std::filesystem::exists(recording));
    input.clearRecording();
    EXPECT_FALSE(std::filesystem::exists(recording));
    output.teardownWorkerThread();
}

TEST(AudioControllers, CyclesTheDeviceSkipsAreBridgedSoTheRecordingStaysOnTheTimeLine) {
    // The capture of every fifth cycle of 128 frames is skipped while playback goes on: those frames
    // are never captured, and everything after them must still sit exactly where the stamps say.
    const std::string uid = "sim:skipping?pace=fast&buffer=128&skip=5&noise=off";
    auto settings = captureSettings(uid, {0, 1}, {0, 1});
    VELTAudioOutputController output(settings);
    VELTAudioInputController input(settings);
    VELTRealVector stimulus(20000);
    for (std::size_t n = 0; n < stimulus.length(); ++n)
        stimulus[n] = 0.25f + 0.5f * float(n % 97) / 97.0f; // never zero
    output.setPlaybackVector(stimulus);
    // The stimulus has no silence after it: record on a little, so that the last frames played have
    // come back through the loop.
    ASSERT_GT(playAndRecord(output, input, std::chrono::milliseconds(100)).notifications, 0);
    EXPECT_GT(input.skippedFrames(), 0u);
    EXPECT_EQ(output.skippedFrames(), 0u);
    EXPECT_EQ(input.skippedFrames() % 128, 0u);

    // Where the first frame played sits in the recording. The input's first cycle may be one the
    // device skips while playback begins: then the recording starts after the stimulus, and the
    // frames played before it were never captured.
    const auto offset = std::int64_t(output.startTimeStamp().sampleTime - input.startTimeStamp().sampleTime);
    auto vectors = input.recordChannelVectors();
    ASSERT_TRUE(vectors[1]);
    const VELTRealVector& loopback = *vectors[1];
    ASSERT_GE(std::int64_t(loopback.length()), offset + std::int64_t(stimulus.length()));
    std::size_t silent = 0;
    for (std::size_t n = 0; n < stimulus.length(); ++n) {
        const std::int64_t at = offset + std::int64_t(n);
        if (at < 0 || loopback[std::size_t(at)] == 0.0f) {
            ++silent;
            continue;
        }
        ASSERT_EQ(loopback[std::size_t(at)], stimulus[n]) << "frame " << n << " moved off its time";
    }
    // One cycle in five is lost, give or take the cycles at either end.
    EXPECT_NEAR(double(silent), stimulus.length() / 5.0, 2 * 128.0);
    output.teardownWorkerThread();
}

TEST(VELTAudioInputController, ChannelsAreMappedInAscendingOrderWithTheCorrectionChannel) {
    // Input 2 hears the device under test, input 5 the loop-back of output 0, input 0 nothing.
    const std::string uid = "sim:mapping?pace=fast&inputs=6&mic=2&loopback=0-5&noise=off";
    auto settings = captureSettings(uid, {0}, {2, 0}, testing::CorrectionChannels{0, 5});
    VELTAudioInputController input(settings);
    EXPECT_EQ(input.allRecordChannels(), (IndexSet{0, 2, 5}));

    std::vector<std::uint8_t> layout = input.audioChannelLayoutData();
    ASSERT_EQ(layout.size(), 12u + 60u);
    auto word = [&](std::size_t offset) {
        std::uint32_t value;
        std::memcpy(&value, layout.data() + offset, 4);
        return value;
    };
    EXPECT_EQ(word(8), 3u);
    EXPECT_EQ(word(12), 0x10000u);
    EXPECT_EQ(word(32), 0x10002u);
    EXPECT_EQ(word(52), 0x10005u);

    VELTAudioOutputController output(settings);
    output.setPlaybackVector(ramp(5000, 0.5f));
    ASSERT_GT(playAndRecord(output, input).notifications, 0);

    SF_INFO info{};
    SNDFILE* file = sf_open(input.recordedFileURL().c_str(), SFM_READ, &info);
    ASSERT_TRUE(file);
    EXPECT_EQ(info.channels, 3);
    sf_close(file);
    auto all = input.allRecordChannelVectors();
    ASSERT_TRUE(all);
    ASSERT_EQ(all->size(), 3u);
    float silentPeak = 0, microphonePeak = 0, loopbackPeak = 0;
    all->at(0).getMaximumMagnitude(silentPeak, nullptr);
    all->at(2).getMaximumMagnitude(microphonePeak, nullptr);
    all->at(5).getMaximumMagnitude(loopbackPeak, nullptr);
    EXPECT_LT(silentPeak, 1e-6f);
    EXPECT_GT(microphonePeak, 0.01f);
    EXPECT_FLOAT_EQ(loopbackPeak, 0.25f);
    auto ordered = input.recordChannelVectors();
    ASSERT_EQ(ordered.size(), 2u);
    EXPECT_EQ(*ordered[0], all->at(2)) << "entry order: channel 2 first";
    EXPECT_EQ(*ordered[1], all->at(0));
    ASSERT_TRUE(input.correctionChannelVector());
    EXPECT_EQ(*input.correctionChannelVector(), all->at(5));

    // Retained responses survive clearing, and the path is logged.
    UserDefaults::standard().setBool(true, "RZRetainResponsesAfterMeasurement");
    {
        LogCapture log;
        input.clearRecording();
        EXPECT_TRUE(log.contains("Retained response at path: " + input.recordedFileURL().string()));
    }
    UserDefaults::standard().removeObjectForKey("RZRetainResponsesAfterMeasurement");
    EXPECT_TRUE(std::filesystem::exists(input.recordedFileURL()));
    input.clearRecording();
    EXPECT_FALSE(std::filesystem::exists(input.recordedFileURL()));
    output.teardownWorkerThread();
}

TEST(VELTAudioInputController, ReadingBackHandlesEmptyMissingAndMismatchedFiles) {
    auto settings = captureSettings("sim:readback?pace=fast", {0}, {0, 1});
    VELTAudioInputController input(settings);
    const auto path = std::filesystem::temp_directory_path() / (newUUIDString() + ".caf");
    ASSERT_TRUE(input.createAudioFileAtURL(path));
    input.stopRecording(); // closes the empty file
    auto empty = input.vectorsForAudioFile(path);
    ASSERT_TRUE(empty);
    ASSERT_EQ(empty->size(), 2u);
    EXPECT_EQ((*empty)[0].length(), 0u);

    // A file of another channel count than the settings record cannot be mapped.
    VELTAudioInputController other(captureSettings("sim:readback?pace=fast", {0}, {0}));
    EXPECT_FALSE(other.vectorsForAudioFile(path));
    std::filesystem::remove(path);

    auto missing = input.vectorsForAudioFile(path);
    ASSERT_FALSE(missing);
    EXPECT_TRUE(missing.error().localizedDescription.starts_with("Could not open audio file " +
                                                                 path.string() + ", err="));
    input.setRecordedFileURL(path);
    LogCapture log;
    EXPECT_FALSE(input.allRecordChannelVectors());
    auto vectors = input.recordChannelVectors();
    ASSERT_EQ(vectors.size(), 2u);
    EXPECT_FALSE(vectors[0]);
    EXPECT_TRUE(log.contains(
        "(ERROR) VELTAudioInputController.cpp : Could not get recorded channels. Could not open audio file"));

    // A record device that is not present fails at the device step, which is logged, and recording
    // does nothing.
    VELTAudioInputController unconfigured(captureSettings("nothing:here", {0}, {0}));
    EXPECT_TRUE(
        log.contains("(ERROR) VELTAudioInputController.cpp : Could not configure audio input Could not "
                     "set property"));
    EXPECT_FALSE(unconfigured.isConfigured());
    EXPECT_FALSE(unconfigured.configureAudioInput());
    unconfigured.startRecording();
    EXPECT_TRUE(unconfigured.recordedFileURL().empty());
}

} // namespace
} // namespace tavolar
