// Devices: hardware lookup, the simulated device's time stamps, the hardware unit's configuration
// errors, audio files, the file reader and the notification worker.

#include "audio/devices/VELTAudioDevice.h"
#include "audio/devices/VELTAudioFileReader.h"
#include "audio/devices/VELTAudioHardware.h"
#include "audio/devices/VELTAudioIOUnit.h"
#include "audio/devices/VELTAudioNotificationQueueWorker.h"
#include "audio/devices/VELTExtendedAudioFile.h"
#include "platform/UUID.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <gtest/gtest.h>
#include <sndfile.h>
#include <thread>
#include <vector>

namespace tavolar {
namespace {

std::filesystem::path temporaryPath(const char* extension) {
    return std::filesystem::temp_directory_path() / (newUUIDString() + extension);
}

TEST(VELTAudioHardware, SimulatedDevicesArePresentAndUnknownOnesAreNot) {
    // What parameters in a UID configure, the controllers' tests measure.
    EXPECT_TRUE(VELTAudioDevice("sim:default?latency=5,12&rate=96000").isPresent());
    EXPECT_NE(VELTAudioHardware::deviceIDForDeviceUID("sim:default"), kAudioDeviceUnknown);
    for (const char* uid : {"nothing:here", "sim:default?bogus=1", "", "jack:no-such-server-for-tavolar"}) {
        VELTAudioDevice missing(uid);
        EXPECT_FALSE(missing.isPresent()) << uid;
        EXPECT_EQ(missing.sampleRateForDirection(0), 0.0);
        EXPECT_EQ(missing.channelCountForDirection(0), 0u);
        EXPECT_EQ(VELTAudioHardware::deviceIDForDeviceUID(uid), kAudioDeviceUnknown);
    }
    // Names JACK would overflow or misread are refused, with the reason, before JACK sees them.
    EXPECT_FALSE(VELTAudioHardware::deviceUIDProblem("jack:no-such-server-for-tavolar?in0=a:b&client=c"));
    for (const std::string& uid : std::vector<std::string>{
             "jack:" + std::string(300, 'x'), "jack:a/b", "jack:x?in0=capture_1",
             "jack:x?out1=" + std::string(400, 'p') + ":q", "jack:x?client=a:b",
             "jack:x?client=" + std::string(65, 'c'), "jack:x?connect=maybe", "jack:x?y=z"}) {
        EXPECT_TRUE(VELTAudioHardware::deviceUIDProblem(uid)) << uid;
        EXPECT_FALSE(VELTAudioDevice(uid).isPresent()) << uid;
    }
}

TEST(VELTAudioIOUnit, ConfigurationStepsReportWhatIsWrong) {
    VELTAudioIOUnit unit;
    EXPECT_EQ(unit.setCurrentDevice(kAudioDeviceUnknown), kAudioStatusDeviceNotFound);
    AudioDeviceID device = VELTAudioHardware::deviceIDForDeviceUID("sim:default");
    ASSERT_EQ(unit.setCurrentDevice(device), 0);
    EXPECT_EQ(unit.setStreamFormat(AudioUnitScope::Output, 1, floatStreamDescription(44100, 41, 1, 4)),
              kAudioStatusFormatNotSupported)
        << "no rate conversion";
    std::int32_t beyond[] = {0, 2};
    EXPECT_EQ(unit.setChannelMap(AudioUnitScope::Input, 1, beyond), kAudioStatusInvalidChannel);
    std::int32_t negative[] = {-1};
    EXPECT_EQ(unit.setChannelMap(AudioUnitScope::Input, 1, negative), kAudioStatusInvalidChannel);
}

// A three-channel file written partly at once and partly through the asynchronous queue (whose wrap
// falls inside a frame), then streamed back by the file reader, whose queue wraps inside frames too.
TEST(VELTExtendedAudioFile, WritesCafFloatFilesThatTheReaderStreamsBack) {
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
    SF_INFO info{};
    SNDFILE* check = sf_open(path.c_str(), SFM_READ, &info);
    ASSERT_TRUE(check);
    EXPECT_EQ(info.format, SF_FORMAT_CAF | SF_FORMAT_FLOAT);
    EXPECT_EQ(info.samplerate, 44100);
    sf_close(check);

    auto opened = VELTExtendedAudioFile::initForPlaybackWithFileURL(path);
    ASSERT_TRUE(opened);
    // Two cycles of 256 frames: a queue of 2048 samples, 682 frames and a third.
    VELTAudioFileReader reader(2, 256, (*opened)->fileDataFormat());
    reader.setFile(std::move(*opened));
    reader.start();
    EXPECT_TRUE(reader.canSupply(512)) << "start fills the queue before it returns";
    VELTAudioBufferList out(3, 200, 4);
    std::vector<std::vector<float>> played(3);
    for (int calls = 0; !reader.endOfStream() && calls < 1000; ++calls) {
        while (!reader.canSupply(200))
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        const std::uint32_t supplied = reader.copyFrames(200, out);
        for (std::uint32_t c = 0; c < 3; ++c)
            played[c].insert(played[c].end(), out[c].data, out[c].data + supplied);
    }
    reader.stop();
    for (std::uint32_t c = 0; c < 3; ++c) {
        ASSERT_EQ(played[c].size(), 2000u);
        for (std::uint32_t n = 0; n < 2000; ++n) // the asynchronous part repeats frames 0 to 99
            ASSERT_EQ(played[c][n], float(c) + float(n < 1000 ? n : n % 100) * 1e-4f) << c << " " << n;
    }
    EXPECT_EQ(reader.copyFrames(200, out), 0u);
    EXPECT_EQ(reader.underruns(), 0u);
    std::filesystem::remove(path);

    std::unique_ptr<VELTExtendedAudioFile> none;
    auto failed = VELTExtendedAudioFile::initForPlaybackWithFileURL(path);
    ASSERT_FALSE(failed);
    EXPECT_NE(failed.error().localizedDescription.find(path.filename().string()), std::string::npos);
    EXPECT_NE(VELTExtendedAudioFile::createWithURL(std::filesystem::path("/nonexistent-dir") / "x.caf",
                                                   floatStreamDescription(44100, 9, 1, 4), true, none),
              0);
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
