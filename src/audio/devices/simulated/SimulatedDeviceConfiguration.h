#pragma once
// What a simulated device ("sim:NAME") is: a clock with a sample rate and buffer size, and a
// device under test between output and input: pure delay, harmonic distortion, an impulse response,
// input gain and noise on the microphone input, a loop-back wire from one output to one input,
// per-input latencies, and an offset between the time stamps of the input and the output stream.
// It runs paced by the real clock, or as fast as its users consume (fast mode, for tests).

#include "platform/TavolarError.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tavolar {

struct SimulatedDeviceConfiguration {
    std::string name = "default";
    std::uint32_t sampleRate = 48000;
    std::uint32_t bufferSize = 256; // frames per cycle, a power of two
    std::uint32_t outputChannels = 2;
    std::uint32_t inputChannels = 2;

    // The device under test, from deviceUnderTestOutput to microphoneInput:
    // microphone = inputGain * (impulseResponse * delayed(x + secondHarmonic x^2 + thirdHarmonic x^3)) +
    // noise.
    std::vector<float> impulseResponse{1.0f}; // at the device's sample rate
    std::uint32_t delay = 0;                  // frames of pure delay before the impulse response
    double secondHarmonic = 0.0;
    double thirdHarmonic = 0.0;
    double inputGain = 1.0;
    double noiseLevel = 0.0; // RMS of white Gaussian noise added to every input, full scale = 1
    std::uint64_t noiseSeed = 1;
    std::uint32_t deviceUnderTestOutput = 0;
    std::uint32_t microphoneInput = 0;

    // The loop-back wire (electrical, no gain, no noise), when present.
    std::optional<std::uint32_t> loopbackOutput = 1;
    std::optional<std::uint32_t> loopbackInput = 1;

    // Frames by which each input channel lags (reported as its latency); missing channels have 0.
    std::vector<std::uint32_t> inputLatencies;
    // Added to the sample time of every input time stamp: the input stream's clock reads this many
    // frames ahead of the output stream's for the same moment.
    std::int64_t clockOffset = 0;

    // Every skipCycles-th cycle the device plays but its input endpoints are not called, as when an
    // overloaded server skips the clients after a late one; 0 never skips.
    std::uint32_t skipCycles = 0;

    bool realTime = true; // false: fast mode

    // The built-in "sim:default": a two-way loudspeaker in a small room, microphone on input 0,
    // loop-back from output 1 to input 1, real-time pacing.
    static SimulatedDeviceConfiguration defaultConfiguration();

    // Reads the impulse response from a sound file (first channel). The file's sample rate must be
    // the device's.
    Expected<void> loadImpulseResponseFromFile(const std::filesystem::path& path);

    // Applies device-UID parameters: ir (sound file), delay, noise (dBFS RMS or "off"), h2, h3, gain (dB),
    // clockOffset, latency (comma-separated frames per input), pace ("realtime" or "fast"), skip, rate,
    // buffer, inputs, outputs, mic, speaker, loopback ("OUT-IN" or "none").
    Expected<void> applyParameters(const std::map<std::string, std::string>& parameters);

    // Checks that the configuration can run (positive rate, power-of-two buffer, channels in range).
    Expected<void> validate() const;
};

// The impulse response of the built-in device: a sealed two-way loudspeaker (55 Hz high-pass,
// fourth-order crossover at 2.2 kHz) heard in a small room (four early reflections and a decaying
// diffuse tail, 125 ms in all), scaled so that its largest magnitude response is 0 dB.
std::vector<float> defaultLoudspeakerRoomImpulseResponse(std::uint32_t sampleRate);

} // namespace tavolar
