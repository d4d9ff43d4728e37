#include "audio/VELTAudioDeviceRegistry.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

namespace tavolar {
namespace {

AudioDeviceDescription describe(std::string uid, double sampleRate, std::uint32_t inputs = 2) {
    return {std::move(uid), "Device", inputs, 2, sampleRate, sampleRate};
}

TEST(VELTAudioDeviceRegistry, AMissAsksTheLookupOnceAndAnswersWhatItRegistered) {
    VELTAudioDeviceRegistry registry;
    EXPECT_FALSE(registry.deviceWithUID("sim:a")) << "no lookup installed";

    std::atomic<int> asked{0};
    registry.setDeviceLookup([&](std::string_view uid) {
        ++asked;
        if (uid == "sim:a")
            registry.registerDevice(describe("sim:a", 96000.0, 6));
    });
    const auto found = registry.deviceWithUID("sim:a");
    ASSERT_TRUE(found);
    EXPECT_EQ(*found, describe("sim:a", 96000.0, 6));
    EXPECT_EQ(asked.load(), 1);
    // Known now: answered from the table.
    EXPECT_TRUE(registry.deviceWithUID("sim:a"));
    EXPECT_EQ(asked.load(), 1);

    // A UID the lookup does not know: one question per lookup, and nothing answered.
    EXPECT_FALSE(registry.deviceWithUID("sim:missing"));
    EXPECT_FALSE(registry.deviceWithUID("sim:missing"));
    EXPECT_EQ(asked.load(), 3);

    // Emptying the registry keeps the lookup, which fills it again on demand.
    registry.removeAllDevices();
    EXPECT_TRUE(registry.devices().empty());
    EXPECT_TRUE(registry.deviceWithUID("sim:a"));
    EXPECT_EQ(asked.load(), 4);
}

TEST(VELTAudioDeviceRegistry, ALookupThatAsksTheRegistryItselfIsNotAskedAgain) {
    VELTAudioDeviceRegistry registry;
    int asked = 0;
    std::optional<AudioDeviceDescription> seenInside = describe("x", 1.0);
    registry.setDeviceLookup([&](std::string_view uid) {
        if (++asked > 10)
            return; // would recurse without end otherwise; the count shows it
        seenInside = registry.deviceWithUID(uid);
    });
    EXPECT_FALSE(registry.deviceWithUID("sim:loop"));
    EXPECT_EQ(asked, 1);
    EXPECT_FALSE(seenInside);

    // Another thread's lookup is not this thread's: both are asked.
    std::thread other([&] { EXPECT_FALSE(registry.deviceWithUID("sim:loop")); });
    other.join();
    EXPECT_EQ(asked, 2);
}

TEST(VELTAudioDeviceRegistry, ADeviceThatIsGoneIsNotAnsweredAndIsLookedUpAfresh) {
    VELTAudioDeviceRegistry registry;
    std::atomic<bool> serverRunning{true};
    std::atomic<int> asked{0};
    // As a back end does: register what is present, with a check that notices it stopping.
    registry.setDeviceLookup([&](std::string_view uid) {
        ++asked;
        if (serverRunning.load())
            registry.registerDevice(describe(std::string(uid), 44100.0),
                                    [&serverRunning] { return serverRunning.load(); });
    });
    ASSERT_TRUE(registry.deviceWithUID("jack:studio"));

    serverRunning = false;
    EXPECT_FALSE(registry.deviceWithUID("jack:studio"));
    EXPECT_EQ(asked.load(), 2) << "the stale entry leads to one new question";
    EXPECT_TRUE(registry.devices().empty());

    serverRunning = true;
    EXPECT_TRUE(registry.deviceWithUID("jack:studio"));

    // A device registered without a check stays until it is unregistered.
    registry.registerDevice(describe("test:fixed", 48000.0));
    serverRunning = false;
    EXPECT_TRUE(registry.deviceWithUID("test:fixed"));
    EXPECT_EQ(registry.devices(), std::vector<AudioDeviceDescription>{describe("test:fixed", 48000.0)});
}

// The back end registers devices while holding its own lock, and its lookup takes that lock. Were
// the lookup or a presence check called under the registry's lock, the two threads below would
// deadlock; the test program then ends after a while instead of hanging.
TEST(VELTAudioDeviceRegistry, LookupsAndRegistrationsUnderTheBackEndsLockDoNotDeadlock) {
    VELTAudioDeviceRegistry registry;
    std::mutex backEndMutex;
    const auto present = [&] {
        std::lock_guard presence(backEndMutex);
        return true;
    };
    registry.setDeviceLookup([&](std::string_view uid) {
        std::lock_guard lock(backEndMutex);
        registry.registerDevice(describe(std::string(uid), 48000.0), present);
        // A device nobody else registers is never found: every lookup of it misses again. The
        // back end's own device is left alone, or a lookup that ran after the back end's last
        // registration would take it away.
        if (uid != "sim:present")
            registry.unregisterDevice(uid);
    });

    auto backEnd = std::async(std::launch::async, [&] {
        for (int index = 0; index < 2000; ++index) {
            std::lock_guard lock(backEndMutex);
            registry.registerDevice(describe("sim:present", 48000.0), present);
        }
    });
    auto reader = std::async(std::launch::async, [&] {
        for (int index = 0; index < 2000; ++index) {
            registry.deviceWithUID("sim:elsewhere");
            registry.deviceWithUID("sim:present");
        }
    });
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    if (backEnd.wait_until(limit) != std::future_status::ready ||
        reader.wait_until(limit) != std::future_status::ready) {
        std::fprintf(stderr, "Deadlock between the registry's lock and the back end's lock\n");
        std::_Exit(1);
    }
    EXPECT_TRUE(registry.deviceWithUID("sim:present"));
}

} // namespace
} // namespace tavolar
