// Capture settings and the device registry against a real JACK server (dummy driver): a server that
// nothing in the process has opened is answered on first asking, and a stopped one is not answered
// from what was learnt while it ran.

#include "JackTestServer.h"
#include "audio/VELTAudioCaptureSettings.h"
#include "audio/VELTAudioDeviceRegistry.h"
#include "platform/RunLoop.h"

#include <chrono>
#include <gtest/gtest.h>

namespace tavolar {
namespace {

TEST(JackDeviceRegistry, CaptureSettingsAnswerAServerNobodyOpenedAndNotOnceItHasStopped) {
    if (!testing::jackToolsAvailable())
        GTEST_SKIP() << "jackd, jack_lsp and jconvolver are needed";
    testing::JackTestServer server(44100, 256, 4, 2);
    ASSERT_TRUE(server.isReady());
    const std::string uid = server.deviceUID();
    // The server's name is new to this process: nothing has registered it (listing asks no lookup).
    for (const AudioDeviceDescription& known : VELTAudioDeviceRegistry::shared().devices())
        ASSERT_NE(known.uid, uid);

    VELTAudioCaptureSettings settings;
    settings.setRecordDeviceUID(uid);
    settings.setPlaybackDeviceUID(uid);
    EXPECT_EQ(settings.recordDeviceSampleRate(), 44100u);
    EXPECT_EQ(settings.playbackDeviceSampleRate(), 44100u);
    const auto device = settings.recordDevice();
    ASSERT_TRUE(device);
    EXPECT_EQ(device->inputChannelCount, 4u);
    EXPECT_EQ(device->outputChannelCount, 2u);

    server.shutDown();
    // The process hears of the stop from the server's shutdown callback, a moment later.
    EXPECT_TRUE(RunLoop::runUntil([&] { return !settings.recordDevice(); }, std::chrono::seconds(10)))
        << "the stopped server is still answered";
    EXPECT_EQ(settings.recordDeviceSampleRate(), 0u);
    EXPECT_EQ(settings.playbackDeviceSampleRate(), 0u);
    EXPECT_FALSE(VELTAudioDeviceRegistry::shared().deviceWithUID(uid));
}

} // namespace
} // namespace tavolar
