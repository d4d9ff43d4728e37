// The JACK backend against a real server (dummy driver), with jconvolver loaded with a unit impulse
// as a wire: one client carries every endpoint of a device, the data of a cycle matches its time
// stamp, a loop through the device's own client shows as one period of capture latency, stop()
// leaves no callback running, and endpoints made and destroyed on several threads at once do not
// disturb each other.

#include "JackTestServer.h"
#include "audio/devices/AudioDeviceUID.h"
#include "audio/devices/jack/JackAudioDevice.h"

#include <atomic>
#include <cmath>
#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <thread>
#include <vector>

namespace tavolar {
namespace {

constexpr unsigned kRate = 48000;
constexpr unsigned kPeriod = 256;

// The signal carries its own sample time, so a captured sample tells which frame it was played at.
float sampleTimeSignal(std::int64_t frame) {
    return float(frame % 4096) / 4096.0f;
}

struct Stream {
    std::atomic<std::uint64_t> cycles{0};
    std::atomic<std::uint64_t> heard{0};     // captured samples that carried a played frame
    std::atomic<std::uint64_t> misplaced{0}; // ... whose frame was not delay frames before the stamp
    std::int64_t delay = kPeriod;
};

void play(void* context, const AudioTimeStamp& stamp, std::uint32_t frames, float* const* buffers,
          std::uint32_t channels) noexcept {
    static_cast<Stream*>(context)->cycles.fetch_add(1, std::memory_order_relaxed);
    for (std::uint32_t channel = 0; channel < channels; ++channel)
        for (std::uint32_t n = 0; n < frames; ++n)
            buffers[channel][n] = sampleTimeSignal(std::int64_t(stamp.sampleTime) + n);
}

void capture(void* context, const AudioTimeStamp& stamp, std::uint32_t frames, float* const* buffers,
             std::uint32_t) noexcept {
    auto* stream = static_cast<Stream*>(context);
    stream->cycles.fetch_add(1, std::memory_order_relaxed);
    for (std::uint32_t n = 0; n < frames; ++n) {
        if (std::abs(buffers[0][n]) < 1e-5f)
            continue; // before the first played frame arrived (or frame 0 of the pattern)
        stream->heard.fetch_add(1, std::memory_order_relaxed);
        // jconvolver convolves by FFT: a sample comes back within rounding, well inside a step.
        const float expected = sampleTimeSignal(std::int64_t(stamp.sampleTime) + n - stream->delay);
        if (std::abs(buffers[0][n] - expected) > 0.25f / 4096.0f)
            stream->misplaced.fetch_add(1, std::memory_order_relaxed);
    }
}

AudioEndpointConfiguration configuration(AudioDirection direction, std::uint32_t channel, Stream& stream) {
    AudioEndpointConfiguration made;
    made.direction = direction;
    made.channels = {channel};
    made.callback = direction == AudioDirection::Output ? &play : &capture;
    made.context = &stream;
    return made;
}

// The clients that own ports on the server, by the part of the port name before the colon.
std::set<std::string> clientsWithPorts(const testing::JackTestServer& server) {
    std::set<std::string> clients;
    const std::string command = "jack_lsp -s " + server.name() + " 2>/dev/null";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    char line[512];
    while (pipe && fgets(line, sizeof line, pipe.get())) {
        std::string_view port(line);
        clients.emplace(port.substr(0, port.find(':')));
    }
    return clients;
}

#define REQUIRE_JACK()                                                                                       \
    if (!testing::jackToolsAvailable())                                                                      \
    GTEST_SKIP() << "jackd, jack_lsp and jconvolver are needed"

TEST(JackDevice, OneClientCarriesEveryEndpointAndTimeStampsMatchTheData) {
    REQUIRE_JACK();
    testing::JackTestServer server(kRate, kPeriod, 2, 2);
    ASSERT_TRUE(server.isReady());
    std::vector<float> wire(64, 0.0f);
    wire[0] = 1.0f;
    testing::JconvolverClient convolver(server, "wire", wire, kRate, kPeriod);
    ASSERT_TRUE(convolver.isReady()) << convolver.log();
    const std::string uid =
        server.deviceUID("out0=" + convolver.inputPort() + "&in0=" + convolver.outputPort());
    std::shared_ptr<AudioDeviceDriver> driver = openJackDeviceDriver(*AudioDeviceUID::parse(uid), uid);
    ASSERT_TRUE(driver);

    Stream played, captured, second;
    std::unique_ptr<AudioEndpoint> output, input, secondInput;
    ASSERT_EQ(driver->makeEndpoint(configuration(AudioDirection::Output, 0, played), output), 0);
    ASSERT_EQ(driver->makeEndpoint(configuration(AudioDirection::Input, 0, captured), input), 0);
    // A second endpoint of the same direction at the same time, on the dummy driver's second port.
    ASSERT_EQ(driver->makeEndpoint(configuration(AudioDirection::Input, 1, second), secondInput), 0);
    EXPECT_EQ(clientsWithPorts(server), (std::set<std::string>{"system", "wire", "tavolar"}));
    ASSERT_EQ(input->start(), 0);
    ASSERT_EQ(secondInput->start(), 0);
    ASSERT_EQ(output->start(), 0);
    std::this_thread::sleep_for(std::chrono::seconds(1));

    for (AudioEndpoint* endpoint : {output.get(), input.get(), secondInput.get()})
        ASSERT_EQ(endpoint->stop(), 0);
    const std::uint64_t playedCycles = played.cycles.load(), capturedCycles = captured.cycles.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(played.cycles.load(), playedCycles) << "a callback after stop() returned";
    EXPECT_EQ(captured.cycles.load(), capturedCycles) << "a callback after stop() returned";
    EXPECT_GT(second.cycles.load(), 100u);

    // A second's worth of frames came back through the wire, each one period after it was played:
    // the loop through another client is closed by the server with one period's buffer, which the
    // channel reports as capture latency. The physical port heard no loop.
    EXPECT_GT(captured.heard.load(), kRate / 2);
    if (output->xrunCount() == 0)
        EXPECT_EQ(captured.misplaced.load(), 0u);
    else
        ::testing::Test::RecordProperty("xruns", std::to_string(output->xrunCount()));
    EXPECT_EQ(driver->latencyForChannel(AudioDirection::Input, 0), kPeriod);
    EXPECT_EQ(driver->latencyForChannel(AudioDirection::Input, 1), kPeriod) << "the dummy's own latency";

    // Started again, the same endpoints flow again.
    const std::uint64_t before = captured.cycles.load();
    ASSERT_EQ(input->start(), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_GT(captured.cycles.load(), before);

    output.reset();
    input.reset();
    secondInput.reset();
    EXPECT_EQ(clientsWithPorts(server), (std::set<std::string>{"system", "wire"})) << "ports left behind";
}

// The period of delay belongs to a loop through the device's own client: the same wire heard by
// one device and fed by another comes back at once, and neither reports the period; a channel
// that runs without the device feeding the wire reports no period either.
TEST(JackDevice, OnlyALoopThroughTheDevicesOwnClientAddsAPeriodOfCaptureLatency) {
    REQUIRE_JACK();
    testing::JackTestServer server(kRate, kPeriod, 2, 2);
    ASSERT_TRUE(server.isReady());
    std::vector<float> wire(64, 0.0f);
    wire[0] = 1.0f;
    testing::JconvolverClient convolver(server, "wire", wire, kRate, kPeriod);
    ASSERT_TRUE(convolver.isReady()) << convolver.log();
    const std::string playerUID = server.deviceUID("out0=" + convolver.inputPort());
    const std::string listenerUID = server.deviceUID("in0=" + convolver.outputPort());
    std::shared_ptr<AudioDeviceDriver> player =
        openJackDeviceDriver(*AudioDeviceUID::parse(playerUID), playerUID);
    std::shared_ptr<AudioDeviceDriver> listener =
        openJackDeviceDriver(*AudioDeviceUID::parse(listenerUID), listenerUID);
    ASSERT_TRUE(player && listener);

    Stream played, captured;
    captured.delay = 0;
    std::unique_ptr<AudioEndpoint> output, input;
    ASSERT_EQ(player->makeEndpoint(configuration(AudioDirection::Output, 0, played), output), 0);
    ASSERT_EQ(listener->makeEndpoint(configuration(AudioDirection::Input, 0, captured), input), 0);
    ASSERT_EQ(input->start(), 0);
    ASSERT_EQ(output->start(), 0);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    ASSERT_EQ(output->stop(), 0);
    ASSERT_EQ(input->stop(), 0);
    EXPECT_GT(captured.heard.load(), kRate / 2);
    if (output->xrunCount() == 0) {
        EXPECT_EQ(captured.misplaced.load(), 0u) << "two clients in a row delay nothing";
    }
    EXPECT_EQ(listener->latencyForChannel(AudioDirection::Input, 0), 0u);

    // The device that heard a loop once, started again with nothing fed into the wire.
    const std::string loopUID =
        server.deviceUID("out0=" + convolver.inputPort() + "&in0=" + convolver.outputPort());
    std::shared_ptr<AudioDeviceDriver> device =
        openJackDeviceDriver(*AudioDeviceUID::parse(loopUID), loopUID);
    ASSERT_TRUE(device);
    Stream loopPlayed, loopCaptured;
    std::unique_ptr<AudioEndpoint> loopOutput, loopInput;
    ASSERT_EQ(device->makeEndpoint(configuration(AudioDirection::Output, 0, loopPlayed), loopOutput), 0);
    ASSERT_EQ(device->makeEndpoint(configuration(AudioDirection::Input, 0, loopCaptured), loopInput), 0);
    ASSERT_EQ(loopOutput->start(), 0);
    ASSERT_EQ(loopInput->start(), 0);
    ASSERT_EQ(loopInput->stop(), 0);
    ASSERT_EQ(loopOutput->stop(), 0);
    EXPECT_EQ(device->latencyForChannel(AudioDirection::Input, 0), kPeriod) << "playback started first";
    ASSERT_EQ(loopInput->start(), 0);
    EXPECT_EQ(device->latencyForChannel(AudioDirection::Input, 0), 0u) << "nothing feeds the wire";
    ASSERT_EQ(loopInput->stop(), 0);
}

TEST(JackDevice, EndpointsMadeAndDestroyedOnSeveralThreadsAtOnce) {
    REQUIRE_JACK();
    testing::JackTestServer server(kRate, kPeriod, 2, 2);
    ASSERT_TRUE(server.isReady());
    const std::string uid = server.deviceUID();
    std::shared_ptr<AudioDeviceDriver> driver = openJackDeviceDriver(*AudioDeviceUID::parse(uid), uid);
    ASSERT_TRUE(driver);
    std::atomic<int> failures{0};
    auto churn = [&](AudioDirection direction, std::uint32_t channel) {
        Stream stream;
        for (int round = 0; round < 20; ++round) {
            std::unique_ptr<AudioEndpoint> endpoint;
            if (driver->makeEndpoint(configuration(direction, channel, stream), endpoint) != 0 ||
                endpoint->start() != 0 || endpoint->stop() != 0)
                failures.fetch_add(1);
        }
    };
    std::vector<std::thread> threads;
    threads.emplace_back(churn, AudioDirection::Output, 0);
    threads.emplace_back(churn, AudioDirection::Output, 1);
    threads.emplace_back(churn, AudioDirection::Input, 0);
    threads.emplace_back(churn, AudioDirection::Input, 1);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(clientsWithPorts(server), (std::set<std::string>{"system"})) << "ports left behind";
}

} // namespace
} // namespace tavolar
