// Devices end to end: hardware lookup, the simulated device's clock and time stamps, the
// hardware unit's configuration errors, audio files, the file reader and the notification worker.

#include "audio/devices/VELTAudioDevice.h"
#include "audio/devices/VELTAudioFileReader.h"
#include "audio/devices/VELTAudioHardware.h"
#include "audio/devices/VELTAudioIOUnit.h"
#include "audio/devices/VELTAudioNotificationQueueWorker.h"
#include "audio/devices/VELTExtendedAudioFile.h"
#include "audio/devices/simulated/SimulatedDeviceConfiguration.h"
#include "platform/UUID.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <mutex>
#include <sndfile.h>
#include <thread>
#include <vector>

namespace tavolar {
namespace {

std::filesystem::path temporaryPath(const char* extension) {
    return std::filesystem::temp_directory_path() / (newUUIDString() + extension);
}

TEST(VELTAudioHardware, SimulatedDevicesArePresentAndUnknownOnesAreNot) {
    VELTAudioDevice builtIn("sim:default");
    ASSERT_TRUE(builtIn.isPresent());
    EXPECT_EQ(builtIn.sampleRateForDirection(0), 48000.0);
    EXPECT_EQ(builtIn.channelCountForDirection(1), 2u);
    EXPECT_NE(VELTAudioHardware::deviceIDForDeviceUID("sim:default"), kAudioDeviceUnknown);
    EXPECT_EQ(VELTAudioHardware::deviceIDForDeviceUID("sim:default"),
              VELTAudioHardware::deviceIDForDeviceUID("sim:default"))
        << "identifiers are stable";
    EXPECT_EQ(VELTAudioHardware::driverForDeviceUID("sim:default"),
              VELTAudioHardware::driverForDeviceUID("sim"))
        << "one device, one world";

    SimulatedDeviceConfiguration configuration;
    configuration.name = "registered-test";
    configuration.sampleRate = 44100;
    configuration.inputChannels = 6;
    configuration.inputLatencies = {0, 0, 0, 0, 0, 31};
    VELTAudioHardware::registerSimulatedDevice(configuration);
    VELTAudioDevice registered("sim:registered-test");
    EXPECT_EQ(registered.sampleRateForDirection(1), 44100.0);
    EXPECT_EQ(registered.channelCountForDirection(1), 6u);
    EXPECT_EQ(registered.recordingStreamLatencyForChannel(5), 31u);
    EXPECT_EQ(registered.recordingStreamLatencyForChannel(6), 0u);
    bool listed = false;
    for (const VELTAudioDevice& device : VELTAudioHardware::devices())
        listed |= device.deviceUID() == "sim:registered-test";
    EXPECT_TRUE(listed);
    VELTAudioHardware::removeSimulatedDevice("registered-test");

    // Parameters are part of the identity and configure the device.
    VELTAudioDevice parameterised("sim:default?latency=5,12&rate=96000");
    EXPECT_EQ(parameterised.sampleRateForDirection(1), 96000.0);
    EXPECT_EQ(parameterised.recordingStreamLatencyForChannel(1), 12u);

    for (const char* uid : {"nothing:here", "sim:default?bogus=1", "", "jack:no-such-server-for-tavolar"}) {
        VELTAudioDevice missing(uid);
        EXPECT_FALSE(missing.isPresent()) << uid;
        EXPECT_EQ(missing.sampleRateForDirection(0), 0.0);
        EXPECT_EQ(missing.channelCountForDirection(0), 0u);
        EXPECT_EQ(VELTAudioHardware::deviceIDForDeviceUID(uid), kAudioDeviceUnknown);
        TavolarError error;
        AudioTimeStamp stamp{100.0, 0, 1.0, kAudioTimeStampSampleTimeValid};
        EXPECT_EQ(missing.translateTimeSampleToHost(stamp, &error).flags, 0u);
        EXPECT_EQ(error.code, kAudioStatusDeviceNotFound);
    }
}

TEST(VELTAudioDevice, TimeTranslationsAreInversesAndFollowTheRate) {
    VELTAudioDevice device("sim:translation?rate=44100");
    ASSERT_TRUE(device.isPresent());
    AudioTimeStamp sample{44100.0 * 3 + 0.25, 0, 0,
                          kAudioTimeStampSampleTimeValid | kAudioTimeStampRateScalarValid};
    TavolarError error;
    AudioTimeStamp host = device.translateTimeSampleToHost(sample, &error);
    ASSERT_EQ(host.flags, 7u);
    AudioTimeStamp later = sample;
    later.sampleTime += 44100.0;
    AudioTimeStamp hostLater = device.translateTimeSampleToHost(later, &error);
    EXPECT_NEAR(double(hostLater.hostTime - host.hostTime), 1e9, 1.0)
        << "one second of samples is one second";

    host.flags = kAudioTimeStampHostTimeValid | kAudioTimeStampRateScalarValid;
    AudioTimeStamp back = device.translateTimeHostToSample(host, &error);
    ASSERT_EQ(back.flags, 7u);
    EXPECT_NEAR(back.sampleTime, sample.sampleTime, 1e-3);

    AudioTimeStamp noSampleTime{5.0, 0, 1.0, kAudioTimeStampHostTimeValid};
    EXPECT_EQ(device.translateTimeSampleToHost(noSampleTime, &error).flags, 0u);
    EXPECT_EQ(error.domain, kTavolarErrorDomain);
    EXPECT_NE(error.localizedDescription.find("sample time to host time"), std::string::npos);
}

// Collects what an input unit captures on the simulated device's clock thread.
struct Capture {
    VELTAudioIOUnit* unit = nullptr;
    VELTAudioBufferList buffers{2, 8192, 4};
    std::vector<float> channel0, channel1;
    std::vector<AudioTimeStamp> stamps;
    std::mutex mutex; // the test's own bookkeeping, not real-time code

    static AudioStatus input(void* context, const AudioTimeStamp& stamp, std::uint32_t bus,
                             std::uint32_t frames) noexcept {
        auto* self = static_cast<Capture*>(context);
        if (AudioStatus status = self->unit->render(bus, frames, self->buffers))
            return status;
        std::lock_guard lock(self->mutex);
        self->stamps.push_back(stamp);
        self->channel0.insert(self->channel0.end(), self->buffers[0].data, self->buffers[0].data + frames);
        self->channel1.insert(self->channel1.end(), self->buffers[1].data, self->buffers[1].data + frames);
        return kAudioStatusNoError;
    }
};

struct Impulses {
    std::atomic<int> cycle{0};
    std::vector<AudioTimeStamp> stamps;
    static AudioStatus render(void* context, const AudioTimeStamp& stamp, std::uint32_t, std::uint32_t frames,
                              VELTAudioBufferList& io) noexcept {
        auto* self = static_cast<Impulses*>(context);
        io.silence();
        // A unit impulse at the start of the first cycle on output 0 and 0.5 on output 1.
        if (self->cycle.fetch_add(1) == 0) {
            self->stamps.push_back(stamp);
            io[0].data[0] = 1.0f;
            io[1].data[0] = 0.5f;
        }
        return kAudioStatusNoError;
    }
};

AudioStatus configureInput(VELTAudioIOUnit& unit, AudioDeviceID device, Capture& capture, double rate,
                           std::vector<std::int32_t> map) {
    capture.unit = &unit;
    if (AudioStatus s = unit.setEnableIO(AudioUnitScope::Input, 1, true))
        return s;
    if (AudioStatus s = unit.setEnableIO(AudioUnitScope::Output, 0, false))
        return s;
    unit.setStartTimeStampsAtZero(1, false);
    if (AudioStatus s = unit.setCurrentDevice(device))
        return s;
    if (AudioStatus s =
            unit.setStreamFormat(AudioUnitScope::Output, 1,
                                 floatStreamDescription(rate, 41, std::uint32_t(map.size()), 4 * map.size())))
        return s;
    if (AudioStatus s = unit.setChannelMap(AudioUnitScope::Input, 1, map))
        return s;
    if (AudioStatus s = unit.setInputCallback(&Capture::input, &capture))
        return s;
    return unit.initialize();
}

TEST(SimulatedDevice, ImpulsesTravelThroughTheDeviceUnderTestWithTheReportedLatencyAndClockOffset) {
    AudioDeviceID device = VELTAudioHardware::deviceIDForDeviceUID(
        "sim:impulse?pace=fast&buffer=64&delay=10&latency=0,3&clockOffset=40&noise=off");
    ASSERT_NE(device, kAudioDeviceUnknown);
    Capture capture;
    VELTAudioIOUnit input;
    ASSERT_EQ(configureInput(input, device, capture, 48000, {0, 1}), kAudioStatusNoError);

    Impulses impulses;
    VELTAudioIOUnit output;
    ASSERT_EQ(output.setEnableIO(AudioUnitScope::Input, 1, false), 0);
    ASSERT_EQ(output.setCurrentDevice(device), 0);
    ASSERT_EQ(output.setStartTimeStampsAtZero(0, false), 0);
    ASSERT_EQ(output.setStreamFormat(AudioUnitScope::Input, 0, floatStreamDescription(48000, 41, 2, 4)), 0);
    ASSERT_EQ(output.setRenderCallback(&Impulses::render, &impulses), 0);
    ASSERT_EQ(output.initialize(), 0);

    ASSERT_EQ(input.start(), 0);
    ASSERT_EQ(output.start(), 0);
    while (true) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        std::lock_guard lock(capture.mutex);
        if (capture.channel0.size() > 48000 && impulses.cycle.load() > 0)
            break;
    }
    output.stop();
    input.stop();

    std::lock_guard lock(capture.mutex);
    ASSERT_FALSE(impulses.stamps.empty());
    ASSERT_FALSE(capture.stamps.empty());
    // Output and input run on one clock; each input stamp reads 40 frames ahead of its cycle, and
    // stamps advance by one buffer per cycle.
    for (std::size_t i = 1; i < capture.stamps.size(); ++i)
        EXPECT_EQ(capture.stamps[i].sampleTime - capture.stamps[i - 1].sampleTime, 64.0);
    const double playStart = impulses.stamps[0].sampleTime;
    const double recordStart = capture.stamps[0].sampleTime - 40.0;
    ASSERT_GE(playStart, recordStart);
    const std::size_t offset = std::size_t(playStart - recordStart);
    // Where the impulse lands: the built-in response (peak after its 1 ms flight) plus the 10 frames
    // of delay on the microphone; exactly 0.5 on the loop-back after its 3 frames of latency.
    EXPECT_FLOAT_EQ(capture.channel1[offset + 3], 0.5f);
    EXPECT_FLOAT_EQ(capture.channel1[offset + 2], 0.0f);
    std::vector<float> response = SimulatedDeviceConfiguration::defaultConfiguration().impulseResponse;
    for (std::size_t n = 0; n < 2000; ++n)
        ASSERT_NEAR(capture.channel0[offset + 10 + n], 0.5f * response[n], 1e-5) << n;
    for (std::size_t n = 0; n < 10; ++n)
        EXPECT_NEAR(capture.channel0[offset + n], 0.0f, 1e-6);
}

TEST(VELTAudioIOUnit, ConfigurationStepsReportWhatIsWrong) {
    VELTAudioIOUnit unit;
    EXPECT_EQ(unit.setCurrentDevice(kAudioDeviceUnknown), kAudioStatusDeviceNotFound);
    EXPECT_EQ(unit.setEnableIO(AudioUnitScope::Global, 0, true), kAudioStatusInvalidElement);
    EXPECT_EQ(unit.setStreamFormat(AudioUnitScope::Output, 1, floatStreamDescription(48000, 41, 1, 4)),
              kAudioStatusDeviceNotFound);
    AudioDeviceID device = VELTAudioHardware::deviceIDForDeviceUID("sim:default");
    ASSERT_EQ(unit.setCurrentDevice(device), 0);
    EXPECT_EQ(unit.setStreamFormat(AudioUnitScope::Output, 1, floatStreamDescription(44100, 41, 1, 4)),
              kAudioStatusFormatNotSupported)
        << "no rate conversion";
    EXPECT_EQ(unit.setStreamFormat(AudioUnitScope::Output, 1, floatStreamDescription(48000, 0, 1, 4)),
              kAudioStatusFormatNotSupported);
    std::int32_t beyond[] = {0, 2};
    EXPECT_EQ(unit.setChannelMap(AudioUnitScope::Input, 1, beyond), kAudioStatusInvalidChannel);
    std::int32_t negative[] = {-1};
    EXPECT_EQ(unit.setChannelMap(AudioUnitScope::Input, 1, negative), kAudioStatusInvalidChannel);
    AudioStreamDescription deviceFormat;
    ASSERT_EQ(unit.getStreamFormat(AudioUnitScope::Output, 0, deviceFormat), 0);
    EXPECT_EQ(deviceFormat.channelsPerFrame, 2u);
    std::uint32_t frames = 0;
    ASSERT_EQ(unit.bufferSizeInFrames(frames), 0);
    EXPECT_EQ(frames, 256u);
    EXPECT_EQ(unit.initialize(), kAudioStatusUninitialized) << "no render callback yet";
    EXPECT_EQ(unit.start(), kAudioStatusUninitialized);
}

TEST(VELTExtendedAudioFile, WritesCafFloatFilesAndReadsThemBackInEitherLayout) {
    const auto path = temporaryPath(".caf");
    {
        std::unique_ptr<VELTExtendedAudioFile> file;
        ASSERT_EQ(
            VELTExtendedAudioFile::createWithURL(path, floatStreamDescription(44100, 9, 3, 12), true, file),
            0);
        ASSERT_EQ(file->setClientDataFormat(floatStreamDescription(44100, 41, 3, 12)), 0);
        EXPECT_EQ(file->setClientDataFormat(floatStreamDescription(44100, 41, 2, 8)),
                  kAudioStatusFormatNotSupported);
        VELTAudioBufferList buffers(3, 1000, 4);
        for (std::uint32_t c = 0; c < 3; ++c)
            for (std::uint32_t n = 0; n < 1000; ++n)
                buffers[c].data[n] = float(c) + float(n) * 1e-4f;
        ASSERT_EQ(file->write(1000, buffers), 0);
        // Asynchronous writes from another thread follow the synchronous ones.
        ASSERT_EQ(file->prepareAsynchronousWrites(256), 0);
        std::thread audio([&] {
            for (int i = 0; i < 10; ++i) {
                buffers.setFrameCount(100);
                while (!file->canWriteAsync(100))
                    std::this_thread::yield();
                EXPECT_EQ(file->writeAsync(100, buffers), 0);
            }
        });
        audio.join();
        EXPECT_EQ(file->dispose(), 0);
        EXPECT_EQ(file->droppedFrames(), 0u);
    }
    std::ifstream raw(path, std::ios::binary);
    char magic[4] = {};
    raw.read(magic, 4);
    EXPECT_EQ(std::string(magic, 4), "caff");

    SF_INFO info{};
    SNDFILE* check = sf_open(path.c_str(), SFM_READ, &info);
    ASSERT_TRUE(check);
    EXPECT_EQ(info.format, SF_FORMAT_CAF | SF_FORMAT_FLOAT);
    EXPECT_EQ(info.channels, 3);
    EXPECT_EQ(info.samplerate, 44100);
    EXPECT_EQ(info.frames, 2000);
    sf_close(check);

    std::unique_ptr<VELTExtendedAudioFile> file;
    ASSERT_EQ(VELTExtendedAudioFile::openURL(path, file), 0);
    std::int64_t length = 0;
    ASSERT_EQ(file->lengthInFrames(length), 0);
    EXPECT_EQ(length, 2000);
    VELTAudioBufferList read(3, 1500, 4);
    std::uint32_t frames = 1500;
    ASSERT_EQ(file->read(frames, read), 0);
    EXPECT_EQ(frames, 1500u);
    EXPECT_EQ(read[2].data[999], 2.0f + 999e-4f);
    EXPECT_EQ(read[1].data[1000], 1.0f) << "the asynchronous part starts with frame 0 again";
    frames = 1500;
    ASSERT_EQ(file->read(frames, read), 0);
    EXPECT_EQ(frames, 500u);
    frames = 1500;
    ASSERT_EQ(file->read(frames, read), 0);
    EXPECT_EQ(frames, 0u);
    std::filesystem::remove(path);

    std::unique_ptr<VELTExtendedAudioFile> none;
    EXPECT_NE(VELTExtendedAudioFile::openURL(path, none), 0);
    auto failed = VELTExtendedAudioFile::initForPlaybackWithFileURL(path);
    ASSERT_FALSE(failed);
    EXPECT_NE(failed.error().localizedDescription.find(path.filename().string()), std::string::npos);
    EXPECT_NE(VELTExtendedAudioFile::createWithURL(std::filesystem::path("/nonexistent-dir") / "x.caf",
                                                   floatStreamDescription(44100, 9, 1, 4), true, none),
              0);
}

TEST(VELTAudioFileReader, SuppliesTheWholeFileThenSilenceAndReportsTheEnd) {
    const auto path = temporaryPath(".caf");
    const std::uint32_t total = 10000;
    {
        std::unique_ptr<VELTExtendedAudioFile> file;
        ASSERT_EQ(
            VELTExtendedAudioFile::createWithURL(path, floatStreamDescription(48000, 9, 1, 4), true, file),
            0);
        VELTAudioBufferList buffers(1, total, 4);
        for (std::uint32_t n = 0; n < total; ++n)
            buffers[0].data[n] = float(n);
        ASSERT_EQ(file->write(total, buffers), 0);
    }
    auto opened = VELTExtendedAudioFile::initForPlaybackWithFileURL(path);
    ASSERT_TRUE(opened);
    VELTAudioFileReader reader(3, 1024, (*opened)->fileDataFormat());
    reader.setFile(std::move(*opened));
    reader.start();
    EXPECT_TRUE(reader.canSupply(3072)) << "start fills the queue before it returns";
    VELTAudioBufferList out(1, 1000, 4);
    std::vector<float> played;
    std::uint32_t calls = 0;
    while (!reader.endOfStream() && calls < 1000) {
        while (!reader.canSupply(1000))
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        std::uint32_t supplied = reader.copyFrames(1000, out);
        played.insert(played.end(), out[0].data, out[0].data + supplied);
        ++calls;
    }
    reader.stop();
    ASSERT_EQ(played.size(), total);
    for (std::uint32_t n = 0; n < total; ++n)
        ASSERT_EQ(played[n], float(n));
    EXPECT_EQ(reader.copyFrames(1000, out), 0u);
    EXPECT_EQ(reader.underruns(), 0u);
    std::filesystem::remove(path);

    VELTAudioFileReader empty(3, 1024, floatStreamDescription(48000, 9, 1, 4));
    empty.start();
    EXPECT_TRUE(empty.endOfStream()) << "without a file the stream has ended";
    EXPECT_EQ(empty.copyFrames(10, out), 0u);
}

TEST(VELTAudioNotificationQueueWorker, RunsHandlersOffTheCallingThreadOnceAtATime) {
    std::atomic<int> handled{0};
    std::atomic<bool> release{false};
    std::thread::id handlerThread;
    VELTQueueableAudioNotification notification([&] {
        handlerThread = std::this_thread::get_id();
        while (!release.load())
            std::this_thread::yield();
        handled.fetch_add(1);
    });
    VELTAudioNotificationQueueWorker worker;
    worker.start();
    EXPECT_TRUE(worker.addNotification(&notification));
    EXPECT_FALSE(worker.addNotification(&notification)) << "already in progress";
    release.store(true);
    while (handled.load() < 1)
        std::this_thread::yield();
    while (notification.isInProgress())
        std::this_thread::yield();
    EXPECT_NE(handlerThread, std::this_thread::get_id());
    EXPECT_TRUE(worker.addNotification(&notification)) << "queued again once handled";
    while (handled.load() < 2)
        std::this_thread::yield();

    // A stopped worker drops what is queued and frees the notification for later.
    worker.stop();
    EXPECT_TRUE(worker.addNotification(&notification));
    worker.stop();
    EXPECT_FALSE(notification.isInProgress());
    EXPECT_EQ(handled.load(), 2);
    worker.teardown();
    worker.start();
    EXPECT_FALSE(worker.isRunning()) << "a torn-down worker stays down";
}

} // namespace
} // namespace tavolar
