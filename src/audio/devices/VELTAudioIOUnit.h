#pragma once
// The hardware input/output unit of one device: it is configured step by step (which direction,
// which device, the client's stream format, the channel map, the callback), then initialised,
// started and stopped. Element 1 is the input (device to client), element 0 the output (client to
// device). Every step answers a status so that the caller can say which step failed.

#include "audio/devices/AudioDeviceDriver.h"
#include "audio/devices/AudioStatus.h"
#include "audio/devices/AudioStreamDescription.h"
#include "audio/devices/VELTAudioBufferList.h"
#include "audio/devices/VELTAudioHardware.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace tavolar {

enum class AudioUnitScope : std::uint32_t { Global = 0, Input = 1, Output = 2 };

inline constexpr std::uint32_t kAudioUnitOutputElement = 0;
inline constexpr std::uint32_t kAudioUnitInputElement = 1;

class VELTAudioIOUnit {
public:
    // The unit has captured frames on element bus; the callback takes them with render().
    // Runs on the audio thread.
    using InputCallback = AudioStatus (*)(void* context, const AudioTimeStamp& timeStamp, std::uint32_t bus,
                                          std::uint32_t frames) noexcept;
    // The unit needs frames frames for the device: fill ioData (one buffer per client channel).
    // Runs on the audio thread.
    using RenderCallback = AudioStatus (*)(void* context, const AudioTimeStamp& timeStamp, std::uint32_t bus,
                                           std::uint32_t frames, VELTAudioBufferList& ioData) noexcept;

    VELTAudioIOUnit() = default;
    ~VELTAudioIOUnit();
    VELTAudioIOUnit(const VELTAudioIOUnit&) = delete;
    VELTAudioIOUnit& operator=(const VELTAudioIOUnit&) = delete;

    // Input scope element 1 switches input, output scope element 0 switches output.
    AudioStatus setEnableIO(AudioUnitScope scope, std::uint32_t element, bool enabled);
    // With false (what measurements use), time stamps are the device's own time line; with true,
    // sample times count from the first cycle after start.
    AudioStatus setStartTimeStampsAtZero(std::uint32_t element, bool atZero);
    AudioStatus setCurrentDevice(AudioDeviceID deviceID);
    // Output scope element 0: the device's output format (all its output channels). Input scope
    // element 1: the device's input format. Other places: the client formats as set.
    AudioStatus getStreamFormat(AudioUnitScope scope, std::uint32_t element,
                                AudioStreamDescription& format) const;
    // Output scope element 1: the format the client receives captured audio in. Input scope
    // element 0: the format the client renders in. 32-bit float, one buffer per channel, at the
    // device's rate.
    AudioStatus setStreamFormat(AudioUnitScope scope, std::uint32_t element,
                                const AudioStreamDescription& format);
    // Input scope element 1: the device channel of each client channel (one per client channel).
    // Output scope element 0: the device channel each rendered channel goes to.
    AudioStatus setChannelMap(AudioUnitScope scope, std::uint32_t element, std::span<const std::int32_t> map);
    AudioStatus setInputCallback(InputCallback callback, void* context);
    AudioStatus setRenderCallback(RenderCallback callback, void* context);
    // For devices that run faster than real time (see AudioPacingGate).
    AudioStatus setPacingGate(AudioPacingGate gate, void* context);
    AudioStatus bufferSizeInFrames(std::uint32_t& frames) const;

    AudioStatus initialize();
    AudioStatus uninitialize();
    AudioStatus start();
    AudioStatus stop();
    bool isInitialized() const noexcept { return endpoint_ != nullptr; }

    // Copies the frames captured in the current input cycle into ioData. Only from the input callback.
    // Runs on the audio thread.
    AudioStatus render(std::uint32_t bus, std::uint32_t frames, VELTAudioBufferList& ioData) noexcept;

    std::uint64_t xrunCount() const noexcept { return endpoint_ ? endpoint_->xrunCount() : 0; }
    bool isDisconnected() const noexcept { return endpoint_ && endpoint_->isDisconnected(); }
    // Output cycles longer than the render buffers (rendered as silence).
    std::uint64_t oversizedCycles() const noexcept {
        return oversizedCycles_.load(std::memory_order_relaxed);
    }
    // Frames of the device's time line that the backend skipped, bridged with silence (input) or by
    // moving the rendered stream on (output).
    std::uint64_t gapFrames() const noexcept { return gapFrames_.load(std::memory_order_relaxed); }

private:
    static void endpointCallback(void* context, const AudioTimeStamp& timeStamp, std::uint32_t frames,
                                 float* const* channelBuffers, std::uint32_t channelCount) noexcept;
    AudioTimeStamp adjustedTimeStamp(const AudioTimeStamp& timeStamp) noexcept;
    void bridgeGap(const AudioTimeStamp& stamp, std::uint32_t channelCount) noexcept;
    void deliverInput(const AudioTimeStamp& stamp, std::uint32_t frames, float* const* channelBuffers,
                      std::uint32_t channelCount) noexcept;

    static constexpr std::uint32_t kGapChunkFrames = 4096;

    bool inputEnabled_ = false;
    bool outputEnabled_ = true;
    bool startAtZero_[2] = {true, true};
    std::shared_ptr<AudioDeviceDriver> driver_;
    AudioStreamDescription inputClientFormat_;  // output scope, element 1
    AudioStreamDescription outputClientFormat_; // input scope, element 0
    std::vector<std::uint32_t> inputChannelMap_;
    std::vector<std::uint32_t> outputChannelMap_;
    InputCallback inputCallback_ = nullptr;
    void* inputContext_ = nullptr;
    RenderCallback renderCallback_ = nullptr;
    void* renderContext_ = nullptr;
    AudioPacingGate pacingGate_ = nullptr;
    void* pacingContext_ = nullptr;

    std::unique_ptr<AudioEndpoint> endpoint_;
    VELTAudioBufferList renderBuffers_;
    float* const* capturedBuffers_ = nullptr; // valid during an input callback only
    std::uint32_t capturedChannels_ = 0;
    std::uint32_t capturedFrames_ = 0;
    bool firstCycle_ = true;
    double firstSampleTime_ = 0.0;
    std::atomic<std::uint64_t> oversizedCycles_{0};
    std::atomic<std::uint64_t> gapFrames_{0};
    bool haveExpectedSampleTime_ = false;
    double expectedSampleTime_ = 0.0;
    std::vector<float> silence_;
    std::vector<float*> silentPointers_;
};

} // namespace tavolar
