#pragma once
// Plays the measurement stimulus: writes the stimulus vector to a temporary CAF file, streams it
// back through a matrix mixer into the playback device's output unit so that the one stimulus
// channel reaches every selected output channel at unity gain, keeps the time stamp of the first
// rendered buffer, and posts VELTAudioOutputControllerEndOfBufferNotification on the main queue
// once the whole file has been played.

#include "audio/VELTAudioCaptureSettings.h"
#include "audio/devices/AudioTimeStamp.h"
#include "audio/devices/VELTAudioFileReader.h"
#include "audio/devices/VELTAudioGraph.h"
#include "audio/devices/VELTAudioNotificationQueueWorker.h"
#include "math/VELTRealVector.h"
#include "platform/TavolarError.h"

#include <atomic>
#include <filesystem>
#include <memory>
#include <string_view>

namespace tavolar {

// Posted (sender: the controller) on the main queue when the stimulus has played out.
inline constexpr std::string_view VELTAudioOutputControllerEndOfBufferNotification =
    "VELTAudioOutputControllerEndOfBufferNotification";

class VELTAudioOutputController {
public:
    // Configures the graph for the settings at once; a failure is logged, and leaves a controller
    // whose playback is silent.
    explicit VELTAudioOutputController(std::shared_ptr<VELTAudioCaptureSettings> audioCaptureSettings);
    // The owner calls teardownWorkerThread first; the stimulus file is deleted unless retained.
    ~VELTAudioOutputController();
    VELTAudioOutputController(const VELTAudioOutputController&) = delete;
    VELTAudioOutputController& operator=(const VELTAudioOutputController&) = delete;

    const std::shared_ptr<VELTAudioCaptureSettings>& audioCaptureSettings() const noexcept {
        return settings_;
    }
    // Rebuilds the graph for the new settings.
    void setAudioCaptureSettings(std::shared_ptr<VELTAudioCaptureSettings> audioCaptureSettings);
    const VELTRealVector& playbackVector() const noexcept { return playbackVector_; }
    // Replaces the stimulus file with one holding the new vector.
    void setPlaybackVector(VELTRealVector playbackVector);
    const std::filesystem::path& playbackFileURL() const noexcept { return playbackFileURL_; }
    // The time stamp of the first buffer rendered since the last startPlayback (flags 0 before it).
    AudioTimeStamp startTimeStamp() const noexcept;

    Expected<void> configureAudioOutput();
    Expected<void> createAudioPlaybackFile();
    Expected<void> destroyAudioPlaybackFile();
    void startPlayback();
    void stopPlayback();
    void teardownWorkerThread();

    // The settings' playback channels, plus the correction playback channel when correction is on.
    IndexSet allPlaybackChannels() const;
    AudioStreamDescription baseStreamDescription() const;
    AudioStreamDescription playbackClientStreamDescription() const;
    AudioStreamDescription playbackFileStreamDescription() const;

    // What the running graph's mixer holds, for inspection: the gain from input channel to output
    // channel (0 when there is no graph).
    float crosspointVolume(std::uint32_t input, std::uint32_t output) const;
    // Renders that ran out of read-ahead data, and device cycles reported late or lost.
    std::uint64_t underruns() const noexcept { return fileReader_ ? fileReader_->underruns() : 0; }
    // Frames of the device's time line that the server skipped and that were bridged.
    std::uint64_t skippedFrames() const noexcept { return outputUnit_ ? outputUnit_->gapFrames() : 0; }
    std::uint64_t xruns() const noexcept;
    // Whether the playback device's server shut the playback down.
    bool isDisconnected() const noexcept { return outputUnit_ && outputUnit_->isDisconnected(); }

private:
    static AudioStatus render(void* context, const AudioTimeStamp& timeStamp, std::uint32_t bus,
                              std::uint32_t frames, VELTAudioBufferList& ioData) noexcept;
    static bool readyForFrames(void* context, std::uint32_t frames) noexcept;
    void disposeGraph();

    std::shared_ptr<VELTAudioCaptureSettings> settings_;
    VELTRealVector playbackVector_;
    std::filesystem::path playbackFileURL_;

    std::unique_ptr<VELTAudioGraph> audioGraph_;
    VELTAudioIOUnit* outputUnit_ = nullptr;
    VELTMatrixMixer* matrixMixer_ = nullptr;
    std::unique_ptr<VELTAudioFileReader> fileReader_;
    std::unique_ptr<VELTAudioNotificationQueueWorker> notificationWorker_;
    std::unique_ptr<VELTQueueableAudioNotification> endOfFileNotification_;

    // Written by the render thread: the first time stamp is published by the release store of
    // startTimeStampValid_, so the main thread reads it without a lock.
    std::atomic<bool> done_{false};
    std::atomic<bool> startTimeStampValid_{false};
    AudioTimeStamp startTimeStamp_;
};

} // namespace tavolar
