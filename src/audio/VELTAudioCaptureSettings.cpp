#include "audio/VELTAudioCaptureSettings.h"

#include "dsp/Indexing.h"

#include <cmath>

namespace tavolar {

namespace {
// Current layout.
constexpr std::string_view kVersionKey = "VELTAudioCaptureSettingsVersion";
constexpr std::string_view kCurrentVersion = "2.0";
constexpr std::string_view kRecordDeviceUIDKey = "recordDeviceUID";
constexpr std::string_view kPlaybackDeviceUIDKey = "playbackDeviceUID";
constexpr std::string_view kCorrectionPlaybackDeviceUIDKey = "correctionPlaybackDeviceUID";
constexpr std::string_view kPlaybackChannelsKey = "playbackChannels";
constexpr std::string_view kRecordChannelsKey = "recordChannels"; // an index set, read but no longer written
constexpr std::string_view kRecordChannelEntriesKey = "recordChannelEntries";
constexpr std::string_view kCorrectionEnabledKey = "correctionEnabled";
constexpr std::string_view kCorrectionRecordChannelKey = "correctionRecordChannel";
constexpr std::string_view kCorrectionPlaybackChannelKey = "correctionPlaybackChannel";

// First-generation layout, version "1.0".
constexpr std::string_view kFirstGenerationVersion = "1.0";
constexpr std::string_view kOldRecordDeviceUIDKey = "RecordDeviceUID";
constexpr std::string_view kOldPlaybackDeviceUIDKey = "PlaybackDeviceUID";
constexpr std::string_view kOldCorrectionPlaybackDeviceUIDKey = "CorrectionPlaybackDeviceUID";
constexpr std::string_view kOldRecordChannelsKey = "RecordChannels";
constexpr std::string_view kOldPlaybackChannelKey = "PlaybackChannel";
constexpr std::string_view kOldCorrectionEnabledKey = "CorrectionEnabled";
constexpr std::string_view kOldCorrectionRecordChannelKey = "CorrectionRecordChannel";
constexpr std::string_view kOldCorrectionPlaybackChannelKey = "CorrectionPlaybackChannel";

// Observable key paths.
constexpr std::string_view kRecordDeviceUIDPath = "recordDeviceUID";
constexpr std::string_view kPlaybackDeviceUIDPath = "playbackDeviceUID";
constexpr std::string_view kCorrectionPlaybackDeviceUIDPath = "correctionPlaybackDeviceUID";
constexpr std::string_view kRecordChannelEntriesPath = "recordChannelEntries";
constexpr std::string_view kPlaybackChannelsPath = "playbackChannels";
constexpr std::string_view kCorrectionEnabledPath = "correctionEnabled";
constexpr std::string_view kCorrectionRecordChannelPath = "correctionRecordChannel";
constexpr std::string_view kCorrectionPlaybackChannelPath = "correctionPlaybackChannel";
constexpr std::string_view kReferenceLevelsPath = "referenceLevels";

void encodeOptionalString(KeyedArchiver& coder, const std::optional<std::string>& value,
                          std::string_view key) {
    if (value)
        coder.encodeString(*value, key);
    else
        coder.encodeNull(key);
}

std::int64_t integerValue(double number) noexcept {
    if (!(std::fabs(number) < 9.2e18))
        return 0;
    return static_cast<std::int64_t>(number);
}

std::uint32_t truncatedSampleRate(double rate) noexcept {
    if (!(rate >= 0.0) || rate >= 4294967296.0)
        return 0;
    return static_cast<std::uint32_t>(rate);
}
} // namespace

VELTAudioCaptureSettings::VELTAudioCaptureSettings()
    : recordChannelEntries_(recordChannelEntriesFromIndexSet({0})), playbackChannels_(IndexSet{0}),
      referenceLevels_(std::map<std::uint64_t, float>{}) {}

VELTAudioCaptureSettings::VELTAudioCaptureSettings(const VELTAudioCaptureSettings& other)
    : Observable(other), recordDeviceUID_(other.recordDeviceUID_),
      playbackDeviceUID_(other.playbackDeviceUID_),
      correctionPlaybackDeviceUID_(other.correctionPlaybackDeviceUID_),
      recordChannelEntries_(other.recordChannelEntries_), playbackChannels_(other.playbackChannels_),
      correctionEnabled_(other.correctionEnabled_), correctionRecordChannel_(other.correctionRecordChannel_),
      correctionPlaybackChannel_(other.correctionPlaybackChannel_),
      referenceLevels_(std::map<std::uint64_t, float>{}) {}

VELTAudioCaptureSettings& VELTAudioCaptureSettings::operator=(const VELTAudioCaptureSettings& other) {
    if (this == &other)
        return *this;
    setRecordDeviceUID(other.recordDeviceUID_);
    setPlaybackDeviceUID(other.playbackDeviceUID_);
    setCorrectionPlaybackDeviceUID(other.correctionPlaybackDeviceUID_);
    setPlaybackChannels(other.playbackChannels_);
    setCorrectionRecordChannel(other.correctionRecordChannel_);
    setCorrectionPlaybackChannel(other.correctionPlaybackChannel_);
    setCorrectionEnabled(other.correctionEnabled_);
    setRecordChannelEntries(other.recordChannelEntries_);
    setReferenceLevels(std::map<std::uint64_t, float>{});
    return *this;
}

VELTAudioCaptureSettings::VELTAudioCaptureSettings(VELTAudioCaptureSettings&& other) noexcept
    : Observable(other), recordDeviceUID_(std::move(other.recordDeviceUID_)),
      playbackDeviceUID_(std::move(other.playbackDeviceUID_)),
      correctionPlaybackDeviceUID_(std::move(other.correctionPlaybackDeviceUID_)),
      recordChannelEntries_(std::move(other.recordChannelEntries_)),
      playbackChannels_(std::move(other.playbackChannels_)), correctionEnabled_(other.correctionEnabled_),
      correctionRecordChannel_(other.correctionRecordChannel_),
      correctionPlaybackChannel_(other.correctionPlaybackChannel_),
      referenceLevels_(std::move(other.referenceLevels_)) {}

VELTAudioCaptureSettings& VELTAudioCaptureSettings::operator=(VELTAudioCaptureSettings&& other) noexcept {
    if (this == &other)
        return *this;
    recordDeviceUID_ = std::move(other.recordDeviceUID_);
    playbackDeviceUID_ = std::move(other.playbackDeviceUID_);
    correctionPlaybackDeviceUID_ = std::move(other.correctionPlaybackDeviceUID_);
    recordChannelEntries_ = std::move(other.recordChannelEntries_);
    playbackChannels_ = std::move(other.playbackChannels_);
    correctionEnabled_ = other.correctionEnabled_;
    correctionRecordChannel_ = other.correctionRecordChannel_;
    correctionPlaybackChannel_ = other.correctionPlaybackChannel_;
    referenceLevels_ = std::move(other.referenceLevels_);
    for (std::string_view key :
         {kRecordDeviceUIDPath, kPlaybackDeviceUIDPath, kCorrectionPlaybackDeviceUIDPath,
          kRecordChannelEntriesPath, kPlaybackChannelsPath, kCorrectionEnabledPath,
          kCorrectionRecordChannelPath, kCorrectionPlaybackChannelPath, kReferenceLevelsPath})
        didChangeValueForKey(key);
    return *this;
}

void VELTAudioCaptureSettings::setRecordDeviceUID(std::optional<std::string> uid) {
    if (uid == recordDeviceUID_)
        return;
    recordDeviceUID_ = std::move(uid);
    didChangeValueForKey(kRecordDeviceUIDPath);
    // The channels of one device mean nothing on another.
    setRecordChannelEntries(recordChannelEntriesFromIndexSet({0}));
}

void VELTAudioCaptureSettings::setPlaybackDeviceUID(std::optional<std::string> uid) {
    playbackDeviceUID_ = std::move(uid);
    didChangeValueForKey(kPlaybackDeviceUIDPath);
}

void VELTAudioCaptureSettings::setCorrectionPlaybackDeviceUID(std::optional<std::string> uid) {
    correctionPlaybackDeviceUID_ = std::move(uid);
    didChangeValueForKey(kCorrectionPlaybackDeviceUIDPath);
}

void VELTAudioCaptureSettings::setRecordChannelEntries(std::vector<RecordChannelEntry> entries) {
    recordChannelEntries_ = std::move(entries);
    didChangeValueForKey(kRecordChannelEntriesPath);
}

void VELTAudioCaptureSettings::setPlaybackChannels(std::optional<IndexSet> channels) {
    playbackChannels_ = std::move(channels);
    didChangeValueForKey(kPlaybackChannelsPath);
}

void VELTAudioCaptureSettings::setCorrectionEnabled(bool enabled) {
    correctionEnabled_ = enabled;
    didChangeValueForKey(kCorrectionEnabledPath);
}

void VELTAudioCaptureSettings::setCorrectionRecordChannel(std::int64_t channel) {
    correctionRecordChannel_ = channel;
    didChangeValueForKey(kCorrectionRecordChannelPath);
}

void VELTAudioCaptureSettings::setCorrectionPlaybackChannel(std::int64_t channel) {
    correctionPlaybackChannel_ = channel;
    didChangeValueForKey(kCorrectionPlaybackChannelPath);
}

void VELTAudioCaptureSettings::setReferenceLevels(std::optional<std::map<std::uint64_t, float>> levels) {
    referenceLevels_ = std::move(levels);
    didChangeValueForKey(kReferenceLevelsPath);
}

float VELTAudioCaptureSettings::referenceLevelForChannel(std::uint64_t channel) const {
    if (!referenceLevels_)
        return 1.0f;
    auto found = referenceLevels_->find(channel);
    return found == referenceLevels_->end() ? 1.0f : found->second;
}

void VELTAudioCaptureSettings::setReferenceLevel(float level, std::uint64_t channel) {
    if (!referenceLevels_)
        return;
    (*referenceLevels_)[channel] = level;
    didChangeValueForKey(kReferenceLevelsPath);
}

std::vector<std::int64_t> VELTAudioCaptureSettings::recordChannelArray() const {
    std::vector<std::int64_t> channels;
    channels.reserve(recordChannelEntries_.size());
    for (const RecordChannelEntry& entry : recordChannelEntries_)
        channels.push_back(entry.channel());
    return channels;
}

IndexSet VELTAudioCaptureSettings::recordChannels() const {
    IndexSet channels;
    for (const RecordChannelEntry& entry : recordChannelEntries_)
        channels.insert(static_cast<std::uint64_t>(entry.channel()));
    return channels;
}

std::vector<std::uint64_t> VELTAudioCaptureSettings::playbackChannelArray() const {
    if (!playbackChannels_)
        return {};
    return std::vector<std::uint64_t>(playbackChannels_->begin(), playbackChannels_->end());
}

std::uint64_t VELTAudioCaptureSettings::recordChannelAtIndex(std::uint64_t index) const {
    return indexAtIndex(recordChannels(), index);
}

std::shared_ptr<const MicrophoneCalibrationRecord>
VELTAudioCaptureSettings::calibrationRecordForChannel(std::uint64_t channel) const {
    for (const RecordChannelEntry& entry : recordChannelEntries_)
        if (static_cast<std::uint64_t>(entry.channel()) == channel)
            return entry.calibrationRecord();
    return nullptr;
}

std::vector<RecordChannelEntry>
VELTAudioCaptureSettings::recordChannelEntriesFromIndexSet(const IndexSet& channels) {
    std::vector<RecordChannelEntry> entries;
    entries.reserve(channels.size());
    for (std::uint64_t channel : channels)
        entries.emplace_back(static_cast<std::int64_t>(channel), nullptr, std::nullopt);
    return entries;
}

std::optional<AudioDeviceDescription> VELTAudioCaptureSettings::recordDevice() const {
    if (!recordDeviceUID_)
        return std::nullopt;
    return VELTAudioDeviceRegistry::shared().deviceWithUID(*recordDeviceUID_);
}

std::optional<AudioDeviceDescription> VELTAudioCaptureSettings::playbackDevice() const {
    if (!playbackDeviceUID_)
        return std::nullopt;
    return VELTAudioDeviceRegistry::shared().deviceWithUID(*playbackDeviceUID_);
}

std::uint32_t VELTAudioCaptureSettings::recordDeviceSampleRate() const {
    const auto device = recordDevice();
    return device ? truncatedSampleRate(device->sampleRateForDirection(AudioDeviceDirection::input)) : 0;
}

std::uint32_t VELTAudioCaptureSettings::playbackDeviceSampleRate() const {
    const auto device = playbackDevice();
    return device ? truncatedSampleRate(device->sampleRateForDirection(AudioDeviceDirection::output)) : 0;
}

// "availableSampleRates" and "measurementSampleRate" have no accessor here; their dependencies are
// declared deliberately for observers that bind those key paths on this object.
std::vector<std::string_view>
VELTAudioCaptureSettings::keyPathsForValuesAffectingValueForKey(std::string_view key) const {
    if (key == "playbackDeviceSampleRate")
        return {"playbackDeviceUID", "measurementSampleRate"};
    if (key == "recordDeviceSampleRate")
        return {"recordDeviceUID", "measurementSampleRate"};
    if (key == "recordChannelArray")
        return {"recordChannels"};
    if (key == "recordChannels")
        return {"recordChannelEntries"};
    if (key == "recordChannelEntries")
        return {"recordDevice"};
    if (key == "playbackChannelArray")
        return {"playbackDevice", "playbackChannels"};
    if (key == "playbackDevice")
        return {"playbackDeviceUID"};
    if (key == "recordDevice")
        return {"recordDeviceUID"};
    if (key == "availableSampleRates" || key == "measurementSampleRate")
        return {"recordDevice", "playbackDevice"};
    return {};
}

void VELTAudioCaptureSettings::encodeWithCoder(KeyedArchiver& coder) const {
    coder.encodeString(kCurrentVersion, kVersionKey);
    encodeOptionalString(coder, recordDeviceUID_, kRecordDeviceUIDKey);
    encodeOptionalString(coder, playbackDeviceUID_, kPlaybackDeviceUIDKey);
    encodeOptionalString(coder, correctionPlaybackDeviceUID_, kCorrectionPlaybackDeviceUIDKey);
    if (playbackChannels_)
        coder.encodeIndexSet(*playbackChannels_, kPlaybackChannelsKey);
    else
        coder.encodeNull(kPlaybackChannelsKey);
    coder.encodeObjectArray(std::span<const RecordChannelEntry>(recordChannelEntries_),
                            kRecordChannelEntriesKey);
    coder.encodeBool(correctionEnabled_, kCorrectionEnabledKey);
    coder.encodeInt64(correctionRecordChannel_, kCorrectionRecordChannelKey);
    coder.encodeInt64(correctionPlaybackChannel_, kCorrectionPlaybackChannelKey);
}

void VELTAudioCaptureSettings::decodeFirstGeneration(VELTAudioCaptureSettings& settings,
                                                     KeyedUnarchiver& coder) {
    settings.setRecordDeviceUID(coder.decodeString(kOldRecordDeviceUIDKey));
    settings.setPlaybackDeviceUID(coder.decodeString(kOldPlaybackDeviceUIDKey));
    settings.setCorrectionPlaybackDeviceUID(coder.decodeString(kOldCorrectionPlaybackDeviceUIDKey));
    // A missing channel set gives no entries at all.
    settings.setRecordChannelEntries(
        recordChannelEntriesFromIndexSet(coder.decodeIndexSet(kOldRecordChannelsKey).value_or(IndexSet{})));
    // The old single playback channel converts to an index as C converts int to an unsigned 64-bit
    // value; the two correction channels were stored zero-extended.
    settings.setPlaybackChannels(
        IndexSet{static_cast<std::uint64_t>(coder.decodeInt32(kOldPlaybackChannelKey))});
    settings.setCorrectionEnabled(coder.decodeBool(kOldCorrectionEnabledKey));
    settings.setCorrectionRecordChannel(static_cast<std::int64_t>(
        static_cast<std::uint32_t>(coder.decodeInt32(kOldCorrectionRecordChannelKey))));
    settings.setCorrectionPlaybackChannel(static_cast<std::int64_t>(
        static_cast<std::uint32_t>(coder.decodeInt32(kOldCorrectionPlaybackChannelKey))));
}

void VELTAudioCaptureSettings::decodeCurrent(VELTAudioCaptureSettings& settings, KeyedUnarchiver& coder) {
    settings.setRecordDeviceUID(coder.decodeString(kRecordDeviceUIDKey));
    settings.setPlaybackDeviceUID(coder.decodeString(kPlaybackDeviceUIDKey));
    settings.setCorrectionPlaybackDeviceUID(coder.decodeString(kCorrectionPlaybackDeviceUIDKey));
    if (auto channels = coder.decodeIndexSet(kRecordChannelsKey))
        settings.setRecordChannelEntries(recordChannelEntriesFromIndexSet(*channels));
    if (auto entries = coder.decodeObjectArrayOfClass<RecordChannelEntry>(kRecordChannelEntriesKey))
        settings.setRecordChannelEntries(std::move(*entries));
    settings.setPlaybackChannels(coder.decodeIndexSet(kPlaybackChannelsKey));
    if (auto enabled = coder.decodeNumber(kCorrectionEnabledKey))
        settings.setCorrectionEnabled(*enabled != 0.0);
    if (auto channel = coder.decodeNumber(kCorrectionRecordChannelKey))
        settings.setCorrectionRecordChannel(integerValue(*channel));
    if (auto channel = coder.decodeNumber(kCorrectionPlaybackChannelKey))
        settings.setCorrectionPlaybackChannel(integerValue(*channel));
}

VELTAudioCaptureSettings VELTAudioCaptureSettings::initWithCoder(KeyedUnarchiver& coder) {
    VELTAudioCaptureSettings settings{Undecoded{}};
    // The version is read as whatever object it is; only the string "1.0" selects the old layout.
    if (coder.classNameForKey(kVersionKey) == "String" &&
        coder.decodeString(kVersionKey) == kFirstGenerationVersion)
        decodeFirstGeneration(settings, coder);
    else
        decodeCurrent(settings, coder);
    return settings;
}

} // namespace tavolar
