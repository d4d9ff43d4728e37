#pragma once
// What a backend supplies for one present device: its description, its clock, and endpoints that
// stream buffers of chosen channels to or from a callback on the backend's real-time thread.
// VELTAudioDevice and VELTAudioIOUnit are built on this; only backends implement it.

#include "audio/devices/AudioStatus.h"
#include "audio/devices/AudioTimeStamp.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tavolar {

enum class AudioDirection : std::uint32_t { Output = 0, Input = 1 };

// Called on the backend's real-time thread once per device cycle. For output the callback fills the
// channel buffers; for input it reads them. channelBuffers[i] belongs to the i-th mapped channel and
// holds frames samples. Runs on the audio thread.
using AudioEndpointCallback = void (*)(void* context, const AudioTimeStamp& timeStamp, std::uint32_t frames,
                                       float* const* channelBuffers, std::uint32_t channelCount) noexcept;

// Asked by a backend that runs faster than real time, before each cycle: answers whether the
// consumer is ready for frames more frames (its ring buffers have room or data). Backends paced by
// a real clock never ask. Runs on the audio thread.
using AudioPacingGate = bool (*)(void* context, std::uint32_t frames) noexcept;

struct AudioEndpointConfiguration {
    AudioDirection direction = AudioDirection::Output;
    std::vector<std::uint32_t> channels; // device channel of each buffer, in buffer order
    AudioEndpointCallback callback = nullptr;
    void* context = nullptr;
    AudioPacingGate pacingGate = nullptr;
    void* pacingContext = nullptr;
};

// One running or stoppable stream of one device.
class AudioEndpoint {
public:
    virtual ~AudioEndpoint() = default;
    // Begins calling the callback.
    virtual AudioStatus start() = 0;
    // Stops calling the callback; when it returns, no call is in progress.
    virtual AudioStatus stop() = 0;
    // Cycles the backend reported as late or lost since the endpoint was made.
    virtual std::uint64_t xrunCount() const noexcept { return 0; }
    // True when the backend has gone away under the endpoint (server shut down).
    virtual bool isDisconnected() const noexcept { return false; }
};

class AudioDeviceDriver {
public:
    virtual ~AudioDeviceDriver() = default;

    virtual std::string uid() const = 0;
    virtual std::string name() const = 0;
    // False once the device has gone (its server shut down); a new lookup makes a new driver.
    virtual bool isAlive() const noexcept = 0;
    // True once a present device stopped running its cycles while it streamed (a frozen server).
    virtual bool hasStalled() const noexcept { return false; }
    virtual std::uint32_t channelCount(AudioDirection direction) const = 0;
    // A name for a channel that a person can read (a port name).
    virtual std::string channelName(AudioDirection direction, std::uint32_t channel) const = 0;
    virtual double sampleRate() const = 0;
    virtual std::uint32_t bufferSizeInFrames() const = 0;
    // Frames between the signal at the connector and the buffer the callback sees.
    virtual std::uint32_t latencyForChannel(AudioDirection direction, std::uint32_t channel) const = 0;

    // Convert between the device's sample clock and host time (nanoseconds of the monotonic clock).
    // Answer a status other than kAudioStatusNoError when the device cannot.
    virtual AudioStatus sampleTimeToHostTime(double sampleTime, std::uint64_t& hostTime,
                                             double& rateScalar) const = 0;
    virtual AudioStatus hostTimeToSampleTime(std::uint64_t hostTime, double& sampleTime,
                                             double& rateScalar) const = 0;

    // Makes an endpoint for the configuration (may allocate and talk to a server; not real time).
    virtual AudioStatus makeEndpoint(const AudioEndpointConfiguration& configuration,
                                     std::unique_ptr<AudioEndpoint>& endpoint) = 0;
};

} // namespace tavolar
