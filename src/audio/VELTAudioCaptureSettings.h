#pragma once
// Where a measurement plays and records: the playback device and its output channels, the record
// device and its input channels (each a RecordChannelEntry with calibration and sensitivity), and
// the optional loop-back ("correction") channel pair. Archived inside measurement documents, copied
// when a measurement starts, observed by the user interface. Not thread-safe: used on the main
// thread, and copied before other threads see it.

#include "audio/MicrophoneCalibrationRecord.h"
#include "audio/RecordChannelEntry.h"
#include "audio/VELTAudioDeviceRegistry.h"
#include "platform/KeyedArchiver.h"
#include "platform/Observing.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar {

class VELTAudioCaptureSettings : public Observable {
public:
    static constexpr std::string_view className = "VELTAudioCaptureSettings";

    // Records on channel 0 and plays on channel 0 of no device yet, correction off, no reference levels.
    VELTAudioCaptureSettings();

    // A copy has the same devices, channels and correction settings and a new entry list holding
    // the same entries; its reference levels start empty, deliberately: they belong to one session.
    VELTAudioCaptureSettings(const VELTAudioCaptureSettings& other);
    VELTAudioCaptureSettings& operator=(const VELTAudioCaptureSettings& other);
    // Moving transfers everything, reference levels included (and their absence after decoding).
    VELTAudioCaptureSettings(VELTAudioCaptureSettings&& other) noexcept;
    VELTAudioCaptureSettings& operator=(VELTAudioCaptureSettings&& other) noexcept;
    VELTAudioCaptureSettings copy() const { return *this; }

    const std::optional<std::string>& recordDeviceUID() const noexcept { return recordDeviceUID_; }
    // A different device (an unequal UID) resets the record channels to channel 0 with no
    // calibration and no sensitivity; setting the same UID again changes nothing.
    void setRecordDeviceUID(std::optional<std::string> uid);
    const std::optional<std::string>& playbackDeviceUID() const noexcept { return playbackDeviceUID_; }
    // Leaves the playback channels as they are.
    void setPlaybackDeviceUID(std::optional<std::string> uid);
    const std::optional<std::string>& correctionPlaybackDeviceUID() const noexcept {
        return correctionPlaybackDeviceUID_;
    }
    void setCorrectionPlaybackDeviceUID(std::optional<std::string> uid);

    const std::vector<RecordChannelEntry>& recordChannelEntries() const noexcept {
        return recordChannelEntries_;
    }
    void setRecordChannelEntries(std::vector<RecordChannelEntry> entries);
    // Null only after decoding an archive that holds none.
    const std::optional<IndexSet>& playbackChannels() const noexcept { return playbackChannels_; }
    void setPlaybackChannels(std::optional<IndexSet> channels);

    bool correctionEnabled() const noexcept { return correctionEnabled_; }
    void setCorrectionEnabled(bool enabled);
    std::int64_t correctionRecordChannel() const noexcept { return correctionRecordChannel_; }
    void setCorrectionRecordChannel(std::int64_t channel);
    std::int64_t correctionPlaybackChannel() const noexcept { return correctionPlaybackChannel_; }
    void setCorrectionPlaybackChannel(std::int64_t channel);

    // Reference level per record channel; not archived. Null after decoding, and then
    // setReferenceLevel has no effect, deliberately.
    const std::optional<std::map<std::uint64_t, float>>& referenceLevels() const noexcept {
        return referenceLevels_;
    }
    void setReferenceLevels(std::optional<std::map<std::uint64_t, float>> levels);
    // 1.0 for a channel without a stored level.
    float referenceLevelForChannel(std::uint64_t channel) const;
    void setReferenceLevel(float level, std::uint64_t channel);

    // The channel of every entry, in entry order.
    std::vector<std::int64_t> recordChannelArray() const;
    // The entries' channels as a set (taken as unsigned): sorted, without duplicates.
    IndexSet recordChannels() const;
    // The playback channels in ascending order (none when null).
    std::vector<std::uint64_t> playbackChannelArray() const;
    // The index-th smallest record channel, or kNotFound.
    std::uint64_t recordChannelAtIndex(std::uint64_t index) const;
    // The calibration record of the first entry on this channel; null when none matches or the
    // first match has none.
    std::shared_ptr<const MicrophoneCalibrationRecord>
    calibrationRecordForChannel(std::uint64_t channel) const;

    // One bare entry per channel of the set, ascending.
    static std::vector<RecordChannelEntry> recordChannelEntriesFromIndexSet(const IndexSet& channels);

    // The devices as the registry describes them now, looked up afresh on every call; nullopt for a
    // null UID or a device that is not present.
    std::optional<AudioDeviceDescription> recordDevice() const;
    std::optional<AudioDeviceDescription> playbackDevice() const;
    // The devices' input and output sample rates truncated toward zero; 0 for a missing device.
    std::uint32_t recordDeviceSampleRate() const;
    std::uint32_t playbackDeviceSampleRate() const;

    std::vector<std::string_view> keyPathsForValuesAffectingValueForKey(std::string_view key) const override;

    void encodeWithCoder(KeyedArchiver& coder) const;
    // Reads the current layout and the first-generation ("1.0") one. Nothing that the archive does
    // not supply is defaulted: absent values stay null, zero or false.
    static VELTAudioCaptureSettings initWithCoder(KeyedUnarchiver& coder);

private:
    struct Undecoded {};
    explicit VELTAudioCaptureSettings(Undecoded) {}
    static void decodeFirstGeneration(VELTAudioCaptureSettings& settings, KeyedUnarchiver& coder);
    static void decodeCurrent(VELTAudioCaptureSettings& settings, KeyedUnarchiver& coder);

    std::optional<std::string> recordDeviceUID_;
    std::optional<std::string> playbackDeviceUID_;
    std::optional<std::string> correctionPlaybackDeviceUID_;
    std::vector<RecordChannelEntry> recordChannelEntries_;
    std::optional<IndexSet> playbackChannels_;
    bool correctionEnabled_ = false;
    std::int64_t correctionRecordChannel_ = 0;
    std::int64_t correctionPlaybackChannel_ = 0;
    std::optional<std::map<std::uint64_t, float>> referenceLevels_;
};

} // namespace tavolar
