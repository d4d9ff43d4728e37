#pragma once
// Records the response: drives the record device's input unit directly, queues every captured
// buffer for a writer thread that puts it in a temporary CAF file, keeps the time stamp of the first
// captured buffer, and after the measurement reads the file back into one vector per channel.

#include "audio/VELTAudioCaptureSettings.h"
#include "audio/devices/AudioTimeStamp.h"
#include "audio/devices/VELTAudioIOUnit.h"
#include "audio/devices/VELTExtendedAudioFile.h"
#include "math/VELTRealVector.h"
#include "platform/TavolarError.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace tavolar {

class VELTAudioInputController {
public:
    // Configures the input unit for the settings at once; a failure is logged.
    explicit VELTAudioInputController(std::shared_ptr<VELTAudioCaptureSettings> audioCaptureSettings);
    ~VELTAudioInputController();
    VELTAudioInputController(const VELTAudioInputController&) = delete;
    VELTAudioInputController& operator=(const VELTAudioInputController&) = delete;

    const std::shared_ptr<VELTAudioCaptureSettings>& audioCaptureSettings() const noexcept {
        return settings_;
    }
    // Tears the unit down and configures it for the new settings.
    void setAudioCaptureSettings(std::shared_ptr<VELTAudioCaptureSettings> audioCaptureSettings);
    const std::filesystem::path& recordedFileURL() const noexcept { return recordedFileURL_; }
    void setRecordedFileURL(std::filesystem::path url) { recordedFileURL_ = std::move(url); }
    // The time stamp of the first buffer captured since the last startRecording (flags 0 before it).
    AudioTimeStamp startTimeStamp() const noexcept;

    Expected<void> configureAudioInput();
    Expected<void> teardownAudioInput();
    void startRecording();
    void stopRecording();
    void clearRecording();
    Expected<void> createAudioFileAtURL(const std::filesystem::path& url);
    // One vector per channel of the file, in file channel order.
    Expected<std::vector<VELTRealVector>> vectorsForAudioFile(const std::filesystem::path& url) const;

    // The settings' record channels plus the correction record channel when correction is on.
    IndexSet allRecordChannels() const;
    AudioStreamDescription baseStreamDescription() const;
    AudioStreamDescription recordingClientStreamDescription() const;
    AudioStreamDescription recordingFileStreamDescription() const;
    // A channel layout of 12 + 20N bytes (tag, bitmap, count, then per channel a label, flags and
    // three coordinates), labelled as discrete channels c | 0x10000 in ascending channel order.
    std::vector<std::uint8_t> audioChannelLayoutData() const;

    // Channel number to recorded vector; nullopt (logged) when the recording cannot be read.
    std::optional<std::map<std::uint64_t, VELTRealVector>> allRecordChannelVectors() const;
    // For each entry of the settings' record channel array its vector; nullopt where there is none.
    std::vector<std::optional<VELTRealVector>> recordChannelVectors() const;
    // The correction channel's vector when correction is on.
    std::optional<VELTRealVector> correctionChannelVector() const;

    bool isConfigured() const noexcept { return inputUnit_ != nullptr; }
    // Captured frames that the writer could not take, and device cycles reported late or lost.
    std::uint64_t droppedFrames() const noexcept { return droppedFrames_; }
    // Frames of the device's time line that the server skipped and that were bridged.
    std::uint64_t skippedFrames() const noexcept { return inputUnit_ ? inputUnit_->gapFrames() : 0; }
    std::uint64_t xruns() const noexcept { return inputUnit_ ? inputUnit_->xrunCount() : 0; }
    // Whether the record device's server shut the capture down.
    bool isDisconnected() const noexcept { return inputUnit_ && inputUnit_->isDisconnected(); }

private:
    static AudioStatus capture(void* context, const AudioTimeStamp& timeStamp, std::uint32_t bus,
                               std::uint32_t frames) noexcept;
    static bool readyForFrames(void* context, std::uint32_t frames) noexcept;

    std::shared_ptr<VELTAudioCaptureSettings> settings_;
    std::filesystem::path recordedFileURL_;
    std::unique_ptr<VELTAudioIOUnit> inputUnit_;
    std::unique_ptr<VELTAudioBufferList> audioBufferList_;
    std::unique_ptr<VELTExtendedAudioFile> audioFile_;
    std::atomic<VELTExtendedAudioFile*> recordingFile_{nullptr}; // what the capture thread writes to
    std::uint64_t droppedFrames_ = 0;

    std::atomic<bool> startTimeStampValid_{false};
    AudioTimeStamp startTimeStamp_;
};

} // namespace tavolar
