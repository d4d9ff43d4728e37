#include "audio/devices/simulated/SimulatedDeviceConfiguration.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <complex>
#include <fmt/format.h>
#include <numbers>
#include <sndfile.h>

namespace tavolar {

namespace {

// A biquad section in direct form I, in double precision.
struct Biquad {
    double b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0;
    double x1 = 0, x2 = 0, y1 = 0, y2 = 0;

    static Biquad secondOrder(bool highPass, double frequency, double q, double sampleRate) {
        double w = 2.0 * std::numbers::pi * frequency / sampleRate;
        double alpha = std::sin(w) / (2.0 * q), cosine = std::cos(w), a0 = 1.0 + alpha;
        Biquad biquad;
        if (highPass) {
            biquad.b0 = (1.0 + cosine) / 2.0 / a0;
            biquad.b1 = -(1.0 + cosine) / a0;
        } else {
            biquad.b0 = (1.0 - cosine) / 2.0 / a0;
            biquad.b1 = (1.0 - cosine) / a0;
        }
        biquad.b2 = biquad.b0;
        biquad.a1 = -2.0 * cosine / a0;
        biquad.a2 = (1.0 - alpha) / a0;
        return biquad;
    }
    double process(double x) {
        double y = b0 * x + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2;
        x2 = x1, x1 = x, y2 = y1, y1 = y;
        return y;
    }
};

std::vector<double> filteredImpulse(std::size_t length, std::vector<Biquad> sections, std::size_t delay = 0) {
    std::vector<double> response(length, 0.0);
    for (std::size_t n = 0; n + delay < length; ++n) {
        double value = n == 0 ? 1.0 : 0.0;
        for (Biquad& section : sections)
            value = section.process(value);
        response[n + delay] = value;
    }
    return response;
}

template <typename T> bool parseNumber(const std::string& text, T& value) {
    if constexpr (std::is_floating_point_v<T>) {
        char* end = nullptr;
        value = static_cast<T>(std::strtod(text.c_str(), &end));
        return !text.empty() && end == text.c_str() + text.size() && std::isfinite(double(value));
    } else {
        auto [pointer, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        return error == std::errc() && pointer == text.data() + text.size();
    }
}

} // namespace

std::vector<float> defaultLoudspeakerRoomImpulseResponse(std::uint32_t sampleRate) {
    const double rate = sampleRate;
    const std::size_t length = static_cast<std::size_t>(0.125 * rate);
    const double crossover = 2200.0, butterworthQ = std::numbers::sqrt2 / 2.0;
    // Linkwitz-Riley fourth order: two Butterworth sections each way, both drivers of the same
    // polarity (the sum is in phase); the tweeter sits 0.1 ms ahead of the woofer's acoustic centre.
    std::vector<double> woofer = filteredImpulse(length,
                                                 {Biquad::secondOrder(true, 55.0, butterworthQ, rate),
                                                  Biquad::secondOrder(false, crossover, butterworthQ, rate),
                                                  Biquad::secondOrder(false, crossover, butterworthQ, rate)},
                                                 std::size_t(0.0001 * rate));
    std::vector<double> tweeter = filteredImpulse(
        length, {Biquad::secondOrder(true, crossover, butterworthQ, rate),
                 Biquad::secondOrder(true, crossover, butterworthQ, rate),
                 Biquad::secondOrder(false, std::min(20000.0, 0.45 * rate), butterworthQ, rate)});
    std::vector<double> loudspeaker(length);
    for (std::size_t n = 0; n < length; ++n)
        loudspeaker[n] = woofer[n] + 0.89 * tweeter[n];

    // Direct sound after 1 ms of flight, then floor, side wall, ceiling and back wall.
    struct Path {
        double delaySeconds, gain;
    };
    const Path paths[] = {{0.0010, 1.0}, {0.0021, 0.55}, {0.0039, 0.40}, {0.0053, 0.35}, {0.0088, 0.25}};
    std::vector<double> response(length, 0.0);
    for (const Path& path : paths) {
        std::size_t offset = static_cast<std::size_t>(std::lround(path.delaySeconds * rate));
        for (std::size_t n = 0; n + offset < length; ++n)
            response[n + offset] += path.gain * loudspeaker[n];
    }
    // Diffuse tail: low-passed noise decaying with a 0.25 s reverberation time from 12 ms on,
    // faded out over the last 20 ms.
    std::uint64_t state = 0x9E3779B97F4A7C15ull;
    double smoothed = 0.0, smoothing = std::exp(-2.0 * std::numbers::pi * 4000.0 / rate);
    const double decayPerSecond = 6.907755278982137 / 0.25; // ln(1000) / RT60
    const std::size_t tailStart = static_cast<std::size_t>(0.012 * rate),
                      fade = static_cast<std::size_t>(0.020 * rate);
    for (std::size_t n = tailStart; n < length; ++n) {
        state ^= state << 13, state ^= state >> 7, state ^= state << 17;
        double white = double(state >> 11) / double(1ull << 53) * 2.0 - 1.0;
        smoothed = smoothing * smoothed + (1.0 - smoothing) * white;
        double envelope = 0.12 * std::exp(-decayPerSecond * double(n - tailStart) / rate);
        if (n + fade > length)
            envelope *= 0.5 - 0.5 * std::cos(std::numbers::pi * double(length - n) / double(fade));
        response[n] += envelope * smoothed;
    }
    // Scale so that the largest magnitude over a logarithmic grid from 20 Hz to 20 kHz is 1.
    double largest = 0.0;
    for (int index = 0; index <= 480; ++index) {
        double frequency = 20.0 * std::pow(1000.0, index / 480.0);
        if (frequency >= 0.5 * rate)
            break;
        std::complex<double> sum = 0.0,
                             rotation = std::polar(1.0, -2.0 * std::numbers::pi * frequency / rate),
                             phasor = 1.0;
        for (double value : response) {
            sum += value * phasor;
            phasor *= rotation;
        }
        largest = std::max(largest, std::abs(sum));
    }
    std::vector<float> result(length);
    for (std::size_t n = 0; n < length; ++n)
        result[n] = static_cast<float>(response[n] / largest);
    return result;
}

SimulatedDeviceConfiguration SimulatedDeviceConfiguration::defaultConfiguration() {
    SimulatedDeviceConfiguration configuration;
    configuration.impulseResponse = defaultLoudspeakerRoomImpulseResponse(configuration.sampleRate);
    configuration.inputGain = 0.5;
    configuration.noiseLevel = std::pow(10.0, -90.0 / 20.0);
    return configuration;
}

Expected<void> SimulatedDeviceConfiguration::loadImpulseResponseFromFile(const std::filesystem::path& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file)
        return makeUnexpected(
            fmt::format("Could not open impulse response file {}: {}", path.string(), sf_strerror(nullptr)),
            "Choose a sound file that libsndfile can read (WAV, AIFF, FLAC, CAF).");
    if (info.samplerate != static_cast<int>(sampleRate) || info.channels < 1 || info.frames < 1) {
        sf_close(file);
        return makeUnexpected(
            fmt::format("Impulse response file {} has {} frames at {} Hz; the device runs at {} Hz",
                        path.string(), info.frames, info.samplerate, sampleRate),
            "Resample the impulse response to the device's sample rate.");
    }
    // The header's frame count is not trusted for the allocation: the response grows with what is
    // actually read, so a damaged header that claims billions of frames costs nothing.
    const auto channels = static_cast<std::size_t>(info.channels);
    const sf_count_t framesPerRead = std::max<sf_count_t>(1, (sf_count_t{1} << 16) / info.channels);
    std::vector<float> interleaved(static_cast<std::size_t>(framesPerRead) * channels);
    std::vector<float> response;
    for (sf_count_t remaining = info.frames; remaining > 0;) {
        const sf_count_t read =
            sf_readf_float(file, interleaved.data(), std::min(remaining, framesPerRead));
        if (read <= 0)
            break;
        for (sf_count_t frame = 0; frame < read; ++frame)
            response.push_back(interleaved[static_cast<std::size_t>(frame) * channels]);
        remaining -= read;
    }
    sf_close(file);
    if (response.empty())
        return makeUnexpected(fmt::format("Could not read impulse response file {}", path.string()),
                              "Check that the file is a complete sound file.");
    impulseResponse = std::move(response);
    return {};
}

Expected<void>
SimulatedDeviceConfiguration::applyParameters(const std::map<std::string, std::string>& parameters) {
    auto invalid = [](const std::string& key, const std::string& value) {
        return makeUnexpected(fmt::format("Invalid simulated device parameter {}={}", key, value),
                              "Correct the device's UID.");
    };
    std::optional<std::string> impulseFile;
    for (const auto& [key, value] : parameters) {
        bool ok = true;
        if (key == "ir") {
            impulseFile = value;
        } else if (key == "delay") {
            ok = parseNumber(value, delay);
        } else if (key == "noise") {
            double decibels = 0;
            ok = value == "off" || parseNumber(value, decibels);
            noiseLevel = value == "off" ? 0.0 : std::pow(10.0, decibels / 20.0);
        } else if (key == "h2") {
            ok = parseNumber(value, secondHarmonic);
        } else if (key == "h3") {
            ok = parseNumber(value, thirdHarmonic);
        } else if (key == "gain") {
            double decibels = 0;
            ok = parseNumber(value, decibels);
            inputGain = std::pow(10.0, decibels / 20.0);
        } else if (key == "clockOffset") {
            ok = parseNumber(value, clockOffset);
        } else if (key == "latency") {
            inputLatencies.clear();
            std::size_t start = 0;
            while (ok && start <= value.size()) {
                std::size_t comma = value.find(',', start);
                std::uint32_t latency = 0;
                ok = parseNumber(value.substr(start, comma - start), latency);
                inputLatencies.push_back(latency);
                if (comma == std::string::npos)
                    break;
                start = comma + 1;
            }
        } else if (key == "pace") {
            ok = value == "realtime" || value == "fast";
            realTime = value == "realtime";
        } else if (key == "skip") {
            ok = parseNumber(value, skipCycles);
        } else if (key == "rate") {
            ok = parseNumber(value, sampleRate);
        } else if (key == "buffer") {
            ok = parseNumber(value, bufferSize);
        } else if (key == "inputs") {
            ok = parseNumber(value, inputChannels);
        } else if (key == "outputs") {
            ok = parseNumber(value, outputChannels);
        } else if (key == "mic") {
            ok = parseNumber(value, microphoneInput);
        } else if (key == "speaker") {
            ok = parseNumber(value, deviceUnderTestOutput);
        } else if (key == "loopback") {
            if (value == "none") {
                loopbackOutput.reset(), loopbackInput.reset();
            } else {
                std::uint32_t output = 0, input = 0;
                auto dash = value.find('-');
                ok = dash != std::string::npos && parseNumber(value.substr(0, dash), output) &&
                     parseNumber(value.substr(dash + 1), input);
                loopbackOutput = output, loopbackInput = input;
            }
        } else {
            ok = false;
        }
        if (!ok)
            return invalid(key, value);
    }
    if (impulseFile)
        if (auto loaded = loadImpulseResponseFromFile(*impulseFile); !loaded)
            return loaded;
    return validate();
}

Expected<void> SimulatedDeviceConfiguration::validate() const {
    auto fail = [this](const std::string& what) {
        return makeUnexpected(fmt::format("Simulated device {} cannot run: {}", name, what),
                              "Correct the simulated device's settings.");
    };
    if (sampleRate < 1000 || sampleRate > 768000)
        return fail("sample rate out of range");
    if (bufferSize < 16 || bufferSize > 8192 || !std::has_single_bit(bufferSize))
        return fail("buffer size must be a power of two from 16 to 8192");
    if (inputChannels == 0 || outputChannels == 0 || inputChannels > 256 || outputChannels > 256)
        return fail("channel count out of range");
    if (deviceUnderTestOutput >= outputChannels || microphoneInput >= inputChannels)
        return fail("device under test on a channel the device does not have");
    if (loopbackOutput.has_value() != loopbackInput.has_value() ||
        (loopbackOutput && (*loopbackOutput >= outputChannels || *loopbackInput >= inputChannels)))
        return fail("loop-back on a channel the device does not have");
    if (impulseResponse.empty())
        return fail("empty impulse response");
    // Levels in decibels become factors: beyond these ranges they overflow or mean nothing, and
    // the samples would no longer be finite.
    if (!(noiseLevel >= 0.0 && noiseLevel <= 1.0))
        return fail("noise above 0 dBFS (noise is given in dBFS RMS, or off)");
    if (!(inputGain >= 1e-10 && inputGain <= 1e3))
        return fail("input gain outside -200 dB to +60 dB");
    if (!(std::fabs(secondHarmonic) <= 10.0 && std::fabs(thirdHarmonic) <= 10.0))
        return fail("harmonic coefficients h2 and h3 must lie from -10 to 10");
    if (delay > 10 * sampleRate)
        return fail("delay longer than ten seconds");
    for (std::uint32_t latency : inputLatencies)
        if (latency > sampleRate)
            return fail("input latency longer than one second");
    return {};
}

} // namespace tavolar
