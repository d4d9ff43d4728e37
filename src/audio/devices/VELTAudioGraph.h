#pragma once
// A small processing graph for playback: a matrix mixer feeding the hardware output unit of a
// device. The mixer takes its input channels from a render callback and sends each to any output
// channel through a crosspoint gain; every gain (input channel, output channel, crosspoint, master)
// starts at 0 and every bus starts disabled, so only what is set explicitly is heard.

#include "audio/devices/VELTAudioIOUnit.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace tavolar {

enum MatrixMixerParameter : std::uint32_t {
    kMatrixMixerParameterVolume = 0,
    kMatrixMixerParameterEnable = 1
};
inline constexpr std::uint32_t kMatrixMixerMasterElement = 0xFFFFFFFFu;

// The element of the crosspoint from input channel input to output channel output.
constexpr std::uint32_t matrixMixerCrosspoint(std::uint32_t input, std::uint32_t output) noexcept {
    return (input << 16) | output;
}

class VELTMatrixMixer {
public:
    // Input scope element 0: the channels rendered into the mixer; output scope element 0: the
    // channels it produces. Non-interleaved 32-bit float; resets every gain of the changed side.
    AudioStatus setStreamFormat(AudioUnitScope scope, std::uint32_t element,
                                const AudioStreamDescription& format);
    AudioStatus getStreamFormat(AudioUnitScope scope, std::uint32_t element,
                                AudioStreamDescription& format) const;
    AudioStatus setParameter(std::uint32_t parameter, AudioUnitScope scope, std::uint32_t element,
                             float value);
    AudioStatus getParameter(std::uint32_t parameter, AudioUnitScope scope, std::uint32_t element,
                             float& value) const;
    AudioStatus setRenderCallback(std::uint32_t input, VELTAudioIOUnit::RenderCallback callback,
                                  void* context);

    // Allocates the input buffers for cycles of up to maximumFrames frames.
    AudioStatus initialize(std::uint32_t maximumFrames);
    // Pulls the inputs and mixes them into output (one buffer per output channel). Runs on the audio thread.
    AudioStatus render(const AudioTimeStamp& timeStamp, std::uint32_t frames,
                       VELTAudioBufferList& output) noexcept;

private:
    std::atomic<float>* parameterSlot(std::uint32_t parameter, AudioUnitScope scope, std::uint32_t element);

    AudioStreamDescription inputFormat_;
    AudioStreamDescription outputFormat_;
    std::unique_ptr<std::atomic<float>[]> inputVolumes_, outputVolumes_, crosspoints_;
    std::atomic<float> masterVolume_{0.0f};
    std::atomic<float> inputEnabled_{0.0f};
    std::atomic<float> outputEnabled_{0.0f};
    VELTAudioIOUnit::RenderCallback callback_ = nullptr;
    void* context_ = nullptr;
    VELTAudioBufferList inputBuffers_;
};

class VELTAudioGraph {
public:
    using Node = std::int32_t;
    enum class NodeType { HardwareOutput, MatrixMixer };

    VELTAudioGraph() = default;
    ~VELTAudioGraph();
    VELTAudioGraph(const VELTAudioGraph&) = delete;
    VELTAudioGraph& operator=(const VELTAudioGraph&) = delete;

    // One node of each type at most.
    AudioStatus addNode(NodeType type, Node& node);
    AudioStatus nodeOutputUnit(Node node, VELTAudioIOUnit*& unit);
    AudioStatus nodeMatrixMixer(Node node, VELTMatrixMixer*& mixer);
    // Only the mixer's output 0 into the output unit's input 0.
    AudioStatus connectNodeInput(Node source, std::uint32_t sourceOutput, Node destination,
                                 std::uint32_t destinationInput);
    AudioStatus setNodeInputCallback(Node node, std::uint32_t input, VELTAudioIOUnit::RenderCallback callback,
                                     void* context);

    AudioStatus initialize();
    AudioStatus start();
    AudioStatus stop();
    AudioStatus uninitialize();
    bool isRunning() const noexcept { return running_; }
    VELTAudioIOUnit* outputUnit() noexcept { return outputUnit_.get(); }

private:
    static AudioStatus renderMixer(void* context, const AudioTimeStamp& timeStamp, std::uint32_t bus,
                                   std::uint32_t frames, VELTAudioBufferList& ioData) noexcept;

    std::unique_ptr<VELTAudioIOUnit> outputUnit_;
    std::unique_ptr<VELTMatrixMixer> mixer_;
    Node outputNode_ = -1, mixerNode_ = -1;
    bool connected_ = false;
    bool initialized_ = false;
    bool running_ = false;
};

} // namespace tavolar
