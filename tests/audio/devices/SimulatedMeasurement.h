#pragma once
// The set-up the controller tests share: capture settings that play and record on one simulated
// device, and one pass of playback and recording that lasts until the stimulus has played out.

#include "audio/VELTAudioCaptureSettings.h"
#include "audio/VELTAudioInputController.h"
#include "audio/VELTAudioOutputController.h"
#include "engine/IsolatedUserDefaults.h"
#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavolar::testing {

// The loop-back wire the correction uses: output playbackChannel into input recordChannel.
struct CorrectionChannels {
    std::int64_t playbackChannel = 1, recordChannel = 1;
};

inline std::shared_ptr<VELTAudioCaptureSettings>
captureSettings(const std::string& uid, IndexSet playback, const std::vector<std::int64_t>& record,
                std::optional<CorrectionChannels> correction = std::nullopt) {
    auto settings = std::make_shared<VELTAudioCaptureSettings>();
    settings->setPlaybackDeviceUID(uid);
    settings->setRecordDeviceUID(uid);
    settings->setPlaybackChannels(std::move(playback));
    std::vector<RecordChannelEntry> entries;
    for (std::int64_t channel : record)
        entries.emplace_back(channel, nullptr, std::nullopt);
    settings->setRecordChannelEntries(entries);
    if (correction) {
        settings->setCorrectionEnabled(true);
        settings->setCorrectionPlaybackChannel(correction->playbackChannel);
        settings->setCorrectionRecordChannel(correction->recordChannel);
    }
    return settings;
}

struct PlaybackEnd {
    int notifications = 0;        // end-of-buffer notifications of the output controller
    const void* sender = nullptr; // the last one's sender
};

// Records, and plays the output's stimulus until its end-of-buffer notification arrives (no
// notification within 30 seconds: the stimulus never played out), then on for recordOn, and stops.
inline PlaybackEnd playAndRecord(VELTAudioOutputController& output, VELTAudioInputController& input,
                                 std::chrono::milliseconds recordOn = std::chrono::milliseconds(0)) {
    PlaybackEnd end;
    auto token = NotificationCenter::defaultCenter().addObserver(
        std::string(VELTAudioOutputControllerEndOfBufferNotification), &output,
        [&](const Notification& notification) {
            ++end.notifications;
            end.sender = notification.sender;
        });
    input.startRecording();
    output.startPlayback();
    RunLoop::runUntil([&] { return end.notifications > 0; }, std::chrono::seconds(30));
    if (recordOn.count() > 0)
        RunLoop::runUntil([] { return false; }, recordOn);
    output.stopPlayback();
    input.stopRecording();
    NotificationCenter::defaultCenter().removeObserver(token);
    return end;
}

} // namespace tavolar::testing
