// The JACK backend against a real server (dummy driver), with jconvolver loaded with a unit impulse
// as a wire: one client carries every endpoint of a device, the data of a cycle matches its time
// stamp, only a loop through the device's own client shows as one period of capture latency, stop()
// leaves no callback running, and endpoints made and destroyed on several threads at once do not
// disturb each other.

#include "JackTestServer.h"
#include "audio/devices/AudioDeviceUID.h"
#include "audio/devices/VELTAudioHardware.h"
#include "audio/devices/jack/JackAudioDevice.h"

#include <atomic>
#include <cmath>
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

std::shared_ptr<AudioDeviceDriver> openDriver(const std::string& uid) {
    return openJackDeviceDriver(*AudioDeviceUID::parse(uid), uid);
}

class JackDevice : public testing::JackTest {
protected:
    // jconvolver loaded with a unit impulse: a wire without delay.
    bool startWithWire() {
        std::vector<float> wire(64, 0.0f);
        wire[0] = 1.0f;
        return start(kRate, kPeriod, 2, wire);
    }
    // The clients that own ports on the server, by the part of the port name before the colon.
    std::set<std::string> clientsWithPorts() const {
        std::set<std::string> clients;
        for (const std::string& port : ports())
            clients.insert(port.substr(0, port.find(':')));
        return clients;
    }
};

// Starts the endpoints in order, lets them run for a second and stops them in reverse order.
void runForASecond(const std::vector<AudioEndpoint*>& endpoints) {
    for (AudioEndpoint* endpoint : endpoints)
        ASSERT_EQ(endpoint->start(), 0);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    for (auto endpoint = endpoints.rbegin(); endpoint != endpoints.rend(); ++endpoint)
        ASSERT_EQ((*endpoint)->stop(), 0);
}

// A second's worth of frames came through the wire, each delay frames after it was played.
void expectHeardThroughTheWire(const Stream& stream, const AudioEndpoint& output, const char* why) {
    EXPECT_GT(stream.heard.load(), kRate / 2);
    if (output.xrunCount() == 0)
        EXPECT_EQ(stream.misplaced.load(), 0u) << why;
    else
        ::testing::Test::RecordProperty("xruns", std::to_string(output.xrunCount()));
}

// A device that feeds the wire from its output and hears it on its input makes a loop through its
// own client, which the server closes with one period's buffer: every frame comes back one period
// late, and the channel reports that period as capture latency. A channel running while nothing of
// the device feeds the wire reports no period, nor does a device that hears the wire another feeds.
TEST_F(JackDevice, OneClientCarriesEveryEndpointAndOnlyItsOwnLoopAddsAPeriodOfLatency) {
    ASSERT_TRUE(startWithWire());
    std::shared_ptr<AudioDeviceDriver> driver = openDriver(loopUID());
    ASSERT_TRUE(driver);
    Stream played, captured, second;
    std::unique_ptr<AudioEndpoint> output, input, secondInput;
    ASSERT_EQ(driver->makeEndpoint(configuration(AudioDirection::Output, 0, played), output), 0);
    ASSERT_EQ(driver->makeEndpoint(configuration(AudioDirection::Input, 0, captured), input), 0);
    // A second endpoint of the same direction at the same time, on the dummy driver's second port.
    ASSERT_EQ(driver->makeEndpoint(configuration(AudioDirection::Input, 1, second), secondInput), 0);
    EXPECT_EQ(clientsWithPorts(), (std::set<std::string>{"system", "dut", "tavolar"}));
    ASSERT_NO_FATAL_FAILURE(runForASecond({input.get(), secondInput.get(), output.get()}));
    const std::uint64_t playedCycles = played.cycles.load(), capturedCycles = captured.cycles.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(played.cycles.load(), playedCycles) << "a callback after stop() returned";
    EXPECT_EQ(captured.cycles.load(), capturedCycles) << "a callback after stop() returned";
    EXPECT_GT(second.cycles.load(), 100u);
    expectHeardThroughTheWire(captured, *output, "the loop delays one period");
    EXPECT_EQ(driver->latencyForChannel(AudioDirection::Input, 0), kPeriod);
    EXPECT_EQ(driver->latencyForChannel(AudioDirection::Input, 1), kPeriod) << "the dummy's own latency";

    // Started again, the same endpoint flows again, with nothing fed into the wire.
    ASSERT_EQ(input->start(), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_GT(captured.cycles.load(), capturedCycles);
    EXPECT_EQ(driver->latencyForChannel(AudioDirection::Input, 0), 0u) << "nothing feeds the wire";
    output.reset();
    input.reset();
    secondInput.reset();
    EXPECT_EQ(clientsWithPorts(), (std::set<std::string>{"system", "dut"})) << "ports left behind";

    // One device feeds the wire, another hears it: two clients in a row delay nothing.
    std::shared_ptr<AudioDeviceDriver> player = openDriver(deviceUID("out0=dut:in"));
    std::shared_ptr<AudioDeviceDriver> listener = openDriver(deviceUID("in0=dut:out"));
    ASSERT_TRUE(player && listener);
    Stream fed, heard;
    heard.delay = 0;
    ASSERT_EQ(player->makeEndpoint(configuration(AudioDirection::Output, 0, fed), output), 0);
    ASSERT_EQ(listener->makeEndpoint(configuration(AudioDirection::Input, 0, heard), input), 0);
    ASSERT_NO_FATAL_FAILURE(runForASecond({input.get(), output.get()}));
    expectHeardThroughTheWire(heard, *output, "two clients in a row delay nothing");
    EXPECT_EQ(listener->latencyForChannel(AudioDirection::Input, 0), 0u);
}

TEST_F(JackDevice, EndpointsMadeAndDestroyedOnSeveralThreadsAtOnce) {
    ASSERT_TRUE(start(kRate, kPeriod, 2));
    std::shared_ptr<AudioDeviceDriver> driver = openDriver(deviceUID());
    ASSERT_TRUE(driver);
    // libjack would connect a client of another server to this one without a word.
    EXPECT_FALSE(openDriver("jack:elsewhere"));
    EXPECT_NE(VELTAudioHardware::deviceUIDProblem("jack:elsewhere").value_or("").find("one server at a time"),
              std::string::npos);
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
    EXPECT_EQ(clientsWithPorts(), (std::set<std::string>{"system"})) << "ports left behind";
}

} // namespace
} // namespace tavolar
