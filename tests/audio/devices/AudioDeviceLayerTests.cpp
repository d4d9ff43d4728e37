// The device layer's building blocks: lock-free ring buffer, device UIDs, buffer lists, the matrix
// mixer, and the simulated device's signal path against plain references.

#include "audio/devices/AudioDeviceUID.h"
#include "audio/devices/LockFreeRingBuffer.h"
#include "audio/devices/VELTAudioBufferList.h"
#include "audio/devices/VELTAudioGraph.h"
#include "audio/devices/simulated/SimulatedDeviceConfiguration.h"
#include "audio/devices/simulated/SimulatedSignalPath.h"
#include "platform/UUID.h"

#include <cmath>
#include <filesystem>
#include <gtest/gtest.h>
#include <numeric>
#include <random>
#include <sndfile.h>
#include <thread>
#include <tuple>
#include <vector>

namespace tavolar {
namespace {

TEST(LockFreeRingBuffer, RegionsSplitAtTheWrapAndAConcurrentStreamArrivesIntact) {
    LockFreeRingBuffer<int> ring(6); // rounded up to 8
    EXPECT_EQ(ring.capacity(), 8u);
    std::vector<int> five{1, 2, 3, 4, 5};
    EXPECT_EQ(ring.write(five), 5u);
    std::vector<int> out(3);
    EXPECT_EQ(ring.read(out), 3u);
    EXPECT_EQ(out, (std::vector<int>{1, 2, 3}));
    // Write index 5, read index 3: six free slots, split 3 before the wrap and 3 after.
    auto regions = ring.writeRegions(100);
    EXPECT_EQ(regions.first.size(), 3u);
    EXPECT_EQ(regions.second.size(), 3u);
    std::vector<int> seven{6, 7, 8, 9, 10, 11, 12};
    EXPECT_EQ(ring.write(seven), 6u) << "only what fits is written";
    std::vector<int> all(16);
    EXPECT_EQ(ring.read(all), 8u);
    EXPECT_EQ(std::vector<int>(all.begin(), all.begin() + 8), (std::vector<int>{4, 5, 6, 7, 8, 9, 10, 11}));

    // One producer and one consumer thread pass a long numbered sequence through a small ring.
    LockFreeRingBuffer<std::uint32_t> stream(64);
    constexpr std::uint32_t total = 200000;
    std::thread producer([&] {
        std::uint32_t next = 0;
        std::vector<std::uint32_t> chunk(13);
        while (next < total) {
            std::size_t count = std::min<std::size_t>(chunk.size(), total - next);
            for (std::size_t i = 0; i < count; ++i)
                chunk[i] = next + std::uint32_t(i);
            next += std::uint32_t(stream.write(std::span<const std::uint32_t>(chunk.data(), count)));
        }
    });
    std::uint32_t expected = 0;
    bool inOrder = true;
    std::vector<std::uint32_t> received(17);
    while (expected < total) {
        std::size_t count = stream.read(received);
        for (std::size_t i = 0; i < count; ++i)
            inOrder &= received[i] == expected++;
    }
    producer.join();
    EXPECT_TRUE(inOrder);
}

TEST(AudioDeviceUID, ParsesSchemesNamesAndRoutingAndRejectsMalformedText) {
    EXPECT_EQ(AudioDeviceUID::parse("jack").value().canonicalString(), "jack:default");
    auto routed = AudioDeviceUID::parse("jack:studio?out0=jconv:In-1&in3=jconv:Out%261");
    ASSERT_TRUE(routed);
    EXPECT_EQ(routed->parameter("out0"), "jconv:In-1");
    EXPECT_EQ(routed->parameter("in3"), "jconv:Out&1");
    EXPECT_FALSE(routed->parameter("in0"));
    // The canonical text orders parameters and re-encodes, so it parses back to the same identity.
    EXPECT_EQ(routed->canonicalString(), "jack:studio?in3=jconv:Out%261&out0=jconv:In-1");
    EXPECT_EQ(AudioDeviceUID::parse(routed->canonicalString()), routed);
    // Bytes that are not UTF-8 are encoded; UTF-8 text is kept.
    const AudioDeviceUID latin1{"jack", "caf\xE9\xC3", {{"in0", "caf\xC3\xA9:\xED\xA0\x80"}}};
    EXPECT_EQ(latin1.canonicalString(), "jack:caf%E9%C3?in0=caf\xC3\xA9:%ED%A0%80");
    EXPECT_EQ(AudioDeviceUID::parse(latin1.canonicalString()), latin1);

    for (const char* malformed : {"", ":name", "sim:", "sim:a?delay", "sim:a?delay=%4", "sim:a?de lay=4"})
        EXPECT_FALSE(AudioDeviceUID::parse(malformed)) << malformed;
}

TEST(VELTMatrixMixer, OnlyExplicitlySetCrosspointsCarrySignal) {
    struct Source {
        static AudioStatus render(void*, const AudioTimeStamp&, std::uint32_t, std::uint32_t frames,
                                  VELTAudioBufferList& io) noexcept {
            for (std::uint32_t c = 0; c < io.numberBuffers(); ++c)
                for (std::uint32_t n = 0; n < frames; ++n)
                    io[c].data[n] = float(c + 1) * 0.1f;
            return kAudioStatusNoError;
        }
    };
    VELTMatrixMixer mixer;
    ASSERT_EQ(mixer.setStreamFormat(AudioUnitScope::Input, 0, floatStreamDescription(48000, 41, 2, 4)), 0);
    ASSERT_EQ(mixer.setStreamFormat(AudioUnitScope::Output, 0, floatStreamDescription(48000, 41, 4, 4)), 0);
    ASSERT_EQ(mixer.setRenderCallback(0, &Source::render, nullptr), 0);
    ASSERT_EQ(mixer.initialize(64), 0);
    VELTAudioBufferList out(4, 64, 4);
    AudioTimeStamp stamp;
    ASSERT_EQ(mixer.render(stamp, 16, out), 0);
    for (std::uint32_t c = 0; c < 4; ++c)
        EXPECT_EQ(out[c].data[5], 0.0f) << "every gain starts at zero";

    // Both inputs and outputs 1 and 3 at unity, input 0 and output 0 enabled (which alone passes
    // nothing), crosspoints 0 to 1, 1 to 3 at half and 0 to 3, and the master volume.
    const std::tuple<std::uint32_t, AudioUnitScope, std::uint32_t, float> parameters[] = {
        {kMatrixMixerParameterVolume, AudioUnitScope::Input, 0, 1.0f},
        {kMatrixMixerParameterVolume, AudioUnitScope::Input, 1, 1.0f},
        {kMatrixMixerParameterEnable, AudioUnitScope::Input, 0, 1.0f},
        {kMatrixMixerParameterEnable, AudioUnitScope::Output, 0, 1.0f},
        {kMatrixMixerParameterVolume, AudioUnitScope::Output, 1, 1.0f},
        {kMatrixMixerParameterVolume, AudioUnitScope::Output, 3, 1.0f},
        {kMatrixMixerParameterVolume, AudioUnitScope::Global, matrixMixerCrosspoint(0, 1), 1.0f},
        {kMatrixMixerParameterVolume, AudioUnitScope::Global, matrixMixerCrosspoint(1, 3), 0.5f},
        {kMatrixMixerParameterVolume, AudioUnitScope::Global, matrixMixerCrosspoint(0, 3), 1.0f},
        {kMatrixMixerParameterVolume, AudioUnitScope::Global, kMatrixMixerMasterElement, 1.0f}};
    for (const auto& [parameter, scope, element, value] : parameters)
        ASSERT_EQ(mixer.setParameter(parameter, scope, element, value), 0) << element;
    ASSERT_EQ(mixer.render(stamp, 16, out), 0);
    EXPECT_FLOAT_EQ(out[0].data[3], 0.0f);
    EXPECT_FLOAT_EQ(out[1].data[3], 0.1f);
    EXPECT_FLOAT_EQ(out[2].data[3], 0.0f);
    EXPECT_FLOAT_EQ(out[3].data[3], 0.1f + 0.5f * 0.2f);
}

// Linear convolution in double precision, the reference for the partitioned convolver.
std::vector<double> convolve(const std::vector<float>& signal, const std::vector<float>& response) {
    std::vector<double> result(signal.size(), 0.0);
    for (std::size_t n = 0; n < signal.size(); ++n)
        for (std::size_t k = 0; k < response.size() && k <= n; ++k)
            result[n] += double(response[k]) * signal[n - k];
    return result;
}

TEST(PartitionedConvolver, MatchesDirectConvolutionForAwkwardLengths) {
    std::mt19937 random(7);
    std::normal_distribution<float> normal(0.0f, 0.3f);
    const std::uint32_t block = 64;
    std::vector<float> signal(block * 40);
    for (float& x : signal)
        x = normal(random);
    for (std::size_t length : {1u, 2u, 3u, 63u, 64u, 65u, 999u}) {
        std::vector<float> response(length);
        for (float& h : response)
            h = normal(random);
        PartitionedConvolver convolver;
        convolver.prepare(response, block);
        std::vector<float> output(signal.size());
        for (std::size_t start = 0; start < signal.size(); start += block)
            convolver.process(signal.data() + start, output.data() + start);
        std::vector<double> expected = convolve(signal, response);
        double error = 0, energy = 0;
        for (std::size_t n = 0; n < signal.size(); ++n) {
            error += (output[n] - expected[n]) * (output[n] - expected[n]);
            energy += expected[n] * expected[n];
        }
        EXPECT_LT(10 * std::log10(error / energy), -100.0) << "impulse response length " << length;
    }
}

TEST(SimulatedSignalPath, DeviceUnderTestLoopBackLatencyGainAndDistortionAsConfigured) {
    // Output 1 is wired back to input 1.
    const SimulatedDeviceConfiguration configuration{.bufferSize = 32,
                                                     .outputChannels = 2,
                                                     .inputChannels = 3,
                                                     .impulseResponse = {0.5f, 0.0f, -0.25f},
                                                     .delay = 5,
                                                     .secondHarmonic = 0.1,
                                                     .thirdHarmonic = 0.01,
                                                     .inputGain = 2.0,
                                                     .inputLatencies = {7, 3, 0}};
    ASSERT_TRUE(configuration.validate());
    SimulatedSignalPath path;
    path.prepare(configuration);

    const std::size_t total = 32 * 8;
    std::vector<float> speaker(total, 0.0f), reference(total, 0.0f);
    for (std::size_t n = 0; n < total; ++n) {
        speaker[n] = float(0.8 * std::sin(0.05 * double(n)));
        reference[n] = float(0.3 * std::cos(0.11 * double(n)));
    }
    std::vector<std::vector<float>> captured(3, std::vector<float>(total));
    for (std::size_t start = 0; start < total; start += 32) {
        const float* outputs[2] = {speaker.data() + start, reference.data() + start};
        float* inputs[3] = {captured[0].data() + start, captured[1].data() + start,
                            captured[2].data() + start};
        path.process(outputs, inputs);
    }
    auto at = [](const std::vector<float>& v, std::ptrdiff_t n) { return n < 0 ? 0.0 : double(v[n]); };
    for (std::ptrdiff_t n = 0; n < std::ptrdiff_t(total); ++n) {
        // Microphone: gain 2 of the distorted, delayed (5) signal through {0.5, 0, -0.25}, then 7 frames of
        // latency.
        auto distorted = [&](std::ptrdiff_t m) {
            double x = at(speaker, m);
            return m < 0 ? 0.0 : x + 0.1 * x * x + 0.01 * x * x * x;
        };
        double microphone = 2.0 * (0.5 * distorted(n - 7 - 5) - 0.25 * distorted(n - 7 - 5 - 2));
        EXPECT_NEAR(captured[0][n], microphone, 1e-5) << n;
        EXPECT_NEAR(captured[1][n], at(reference, n - 3), 1e-6) << "loop-back, latency 3, frame " << n;
        EXPECT_EQ(captured[2][n], 0.0f) << "an unconnected input without noise is silent";
    }
}

TEST(SimulatedDeviceConfiguration, BuiltInDeviceIsValidAndBadParametersAreRefused) {
    SimulatedDeviceConfiguration builtIn = SimulatedDeviceConfiguration::defaultConfiguration();
    ASSERT_TRUE(builtIn.validate());
    // What the parameters set is what the controllers' tests measure through devices named by them
    // (delay, latencies, gain, loop-back, clock offset); here what is refused.
    SimulatedDeviceConfiguration broken;
    EXPECT_FALSE(broken.applyParameters({{"buffer", "100"}})) << "not a power of two";
    EXPECT_FALSE(SimulatedDeviceConfiguration{}.applyParameters({{"colour", "red"}}));
    EXPECT_FALSE(SimulatedDeviceConfiguration{}.applyParameters({{"delay", "12x"}}));
    EXPECT_FALSE(SimulatedDeviceConfiguration{}.applyParameters({{"loopback", "0-5"}}));
    auto missing = SimulatedDeviceConfiguration{}.applyParameters({{"ir", "no-such-file.wav"}});
    ASSERT_FALSE(missing);
    EXPECT_NE(missing.error().localizedDescription.find("no-such-file.wav"), std::string::npos);
}

TEST(SimulatedDeviceConfiguration, ImpulseResponsesComeFromSoundFilesAtTheDeviceRate) {
    auto write = [](const std::filesystem::path& path, int rate, int channels,
                    const std::vector<float>& frames) {
        SF_INFO info{};
        info.samplerate = rate;
        info.channels = channels;
        info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
        SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
        ASSERT_TRUE(file);
        sf_writef_float(file, frames.data(), sf_count_t(frames.size() / channels));
        sf_close(file);
    };
    const auto stereo = std::filesystem::temp_directory_path() / (newUUIDString() + ".wav");
    const auto other = std::filesystem::temp_directory_path() / (newUUIDString() + ".wav");
    // Two channels interleaved: the first one is the response.
    write(stereo, 48000, 2, {0.5f, 9.0f, -0.25f, 9.0f, 0.125f, 9.0f});
    write(other, 44100, 1, {1.0f});
    SimulatedDeviceConfiguration configuration;
    ASSERT_TRUE(configuration.applyParameters({{"ir", stereo.string()}}));
    EXPECT_EQ(configuration.impulseResponse, (std::vector<float>{0.5f, -0.25f, 0.125f}));
    auto mismatched = configuration.loadImpulseResponseFromFile(other);
    ASSERT_FALSE(mismatched);
    EXPECT_NE(mismatched.error().localizedDescription.find("44100 Hz"), std::string::npos);
    EXPECT_EQ(configuration.impulseResponse.size(), 3u) << "a refused file leaves the response as it was";
    std::filesystem::remove(stereo);
    std::filesystem::remove(other);
}

} // namespace
} // namespace tavolar
