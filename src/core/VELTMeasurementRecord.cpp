#include "core/VELTMeasurementRecord.h"

#include "core/ArchivedRealVector.h"
#include "dsp/Cepstrum.h"
#include "dsp/Hilbert.h"
#include "dsp/Windowing.h"
#include "platform/Assertions.h"
#include "platform/UUID.h"

#include <cmath>
#include <utility>

namespace tavolar {

struct VELTMeasurementRecord::State {
    std::string impulseUUID;
    VELTWindow impulseResponseWindow;
    // The record's own vector, used only while no impulse cache is set.
    std::shared_ptr<const VELTRealVector> impulseResponse;
    std::optional<ArchivedDate> date;
    std::optional<std::string> comment;
    std::optional<std::string> notes;
    std::optional<ArchivedColor> plotColor = ArchivedColor{0.0, 0.0, 0.0, 1.0};
    std::optional<std::vector<std::byte>> thumbnail;
    bool thumbnailDirty = true;
    std::int64_t sampleRate = 0;
    std::optional<VELTLogSweepSettings> logSweepSettings;
    std::int64_t synchronousAverages = 1;
    GraphAdjustments graphAdjustments = emptyGraphAdjustmentDict();
    nlohmann::json plugInDictionary = nlohmann::json::object();
    bool compatibilityMode = false;
    bool normalized = false;
    bool dontSaveImpulse = false;
    float startFrequency = 0.0f;
    float endFrequency = 0.0f;
    double speedOfSound = kDefaultSpeedOfSound;
    bool useSPLReferenceLevel = false;
    float SPLReferenceLevel = 0.0f;
    bool useMicrophoneCalibrationRecord = false;
    std::shared_ptr<const MicrophoneCalibrationRecord> microphoneCalibrationRecord;
    std::optional<RecordChannelEntry> recordChannelEntry;
    std::optional<std::string> audioDeviceName;
    std::optional<std::string> audioDeviceUID;
    std::weak_ptr<void> document;
    std::weak_ptr<ImpulseCache> impulseCache;
};

template <typename Function> decltype(auto) VELTMeasurementRecord::withState(Function&& function) const {
    std::lock_guard lock(mutex_);
    return std::forward<Function>(function)(*state_);
}

template <typename Value, typename Field>
void VELTMeasurementRecord::setField(Field State::*field, Value value, std::string_view key) {
    {
        std::lock_guard lock(mutex_);
        (*state_).*field = std::move(value);
    }
    // Observers run outside the lock, so that they may read the record.
    didChangeValueForKey(key);
}

// ---- Creation

VELTMeasurementRecord::VELTMeasurementRecord() : VELTMeasurementRecord(newUUIDString()) {}

VELTMeasurementRecord::VELTMeasurementRecord(std::string impulseUUID) : state_(std::make_unique<State>()) {
    state_->impulseUUID = std::move(impulseUUID);
}

VELTMeasurementRecord::VELTMeasurementRecord(VELTMeasurementRecord&& other)
    : Observable(), state_(std::make_unique<State>()) {
    std::lock_guard lock(other.mutex_);
    std::swap(state_, other.state_);
    cachedPeak_.store(other.cachedPeak_.load(std::memory_order_relaxed), std::memory_order_relaxed);
}

VELTMeasurementRecord& VELTMeasurementRecord::operator=(VELTMeasurementRecord&& other) {
    if (this == &other)
        return *this;
    std::scoped_lock lock(mutex_, other.mutex_);
    std::swap(state_, other.state_);
    cachedPeak_.store(other.cachedPeak_.load(std::memory_order_relaxed), std::memory_order_relaxed);
    return *this;
}

VELTMeasurementRecord::~VELTMeasurementRecord() = default;

std::shared_ptr<VELTMeasurementRecord> VELTMeasurementRecord::record() {
    return std::make_shared<VELTMeasurementRecord>();
}

std::shared_ptr<VELTMeasurementRecord> VELTMeasurementRecord::recordWithUUID(std::string impulseUUID) {
    return std::make_shared<VELTMeasurementRecord>(std::move(impulseUUID));
}

GraphAdjustments VELTMeasurementRecord::emptyGraphAdjustmentDict() {
    return GraphAdjustments{{std::string(kGraphAdjustmentFrequencyYOffsetKey), 0.0},
                            {std::string(kGraphAdjustmentImpulseYOffsetKey), 0.0},
                            {std::string(kGraphAdjustmentImpulseXOffsetKey), 0.0}};
}

std::vector<std::string_view>
VELTMeasurementRecord::keyPathsForValuesAffectingValueForKey(std::string_view key) const {
    if (key == "windowBegin" || key == "windowEnd" || key == "windowDuration" || key == "windowType")
        return {"impulseResponseWindow"};
    // Times in milliseconds also follow the sample rate and, through the midpoint, the response.
    if (key == "windowBeginInMilliseconds" || key == "windowEndInMilliseconds" ||
        key == "windowDurationInMilliseconds" || key == "trueResolution")
        return {"impulseResponseWindow", "sampleRate", "impulseResponse"};
    if (key == "impulseResponse")
        return {"impulseCache", "normalized"};
    if (key == "hasMicrophoneCalibrationRecord")
        return {"microphoneCalibrationRecord"};
    if (key == "hasSPLReference")
        return {"SPLReferenceLevel"};
    return {};
}

// ---- Properties

#define TAVOLAR_RECORD_PROPERTY(Type, getter, setter, field, key)                                            \
    Type VELTMeasurementRecord::getter() const {                                                             \
        return withState([](const State& state) -> Type { return state.field; });                            \
    }                                                                                                        \
    void VELTMeasurementRecord::setter(Type value) {                                                         \
        setField(&State::field, std::move(value), key);                                                      \
    }

TAVOLAR_RECORD_PROPERTY(std::string, impulseUUID, setImpulseUUID, impulseUUID, "impulseUUID")
TAVOLAR_RECORD_PROPERTY(std::optional<ArchivedDate>, date, setDate, date, "date")
TAVOLAR_RECORD_PROPERTY(std::optional<std::string>, comment, setComment, comment, "comment")
TAVOLAR_RECORD_PROPERTY(std::optional<std::string>, notes, setNotes, notes, "notes")
TAVOLAR_RECORD_PROPERTY(std::optional<ArchivedColor>, plotColor, setPlotColor, plotColor, "plotColor")
TAVOLAR_RECORD_PROPERTY(std::optional<std::vector<std::byte>>, thumbnail, setThumbnail, thumbnail,
                        "thumbnail")
TAVOLAR_RECORD_PROPERTY(bool, isThumbnailDirty, setThumbnailDirty, thumbnailDirty, "thumbnailDirty")
TAVOLAR_RECORD_PROPERTY(std::int64_t, sampleRate, setSampleRate, sampleRate, "sampleRate")
TAVOLAR_RECORD_PROPERTY(std::optional<VELTLogSweepSettings>, logSweepSettings, setLogSweepSettings,
                        logSweepSettings, "logSweepSettings")
TAVOLAR_RECORD_PROPERTY(std::int64_t, synchronousAverages, setSynchronousAverages, synchronousAverages,
                        "synchronousAverages")
TAVOLAR_RECORD_PROPERTY(GraphAdjustments, graphAdjustments, setGraphAdjustments, graphAdjustments,
                        "graphAdjustments")
TAVOLAR_RECORD_PROPERTY(bool, compatibilityMode, setCompatibilityMode, compatibilityMode, "compatibilityMode")
TAVOLAR_RECORD_PROPERTY(bool, normalized, setNormalized, normalized, "normalized")
TAVOLAR_RECORD_PROPERTY(bool, dontSaveImpulse, setDontSaveImpulse, dontSaveImpulse, "dontSaveImpulse")
TAVOLAR_RECORD_PROPERTY(float, startFrequency, setStartFrequency, startFrequency, "startFrequency")
TAVOLAR_RECORD_PROPERTY(float, endFrequency, setEndFrequency, endFrequency, "endFrequency")
TAVOLAR_RECORD_PROPERTY(double, speedOfSound, setSpeedOfSound, speedOfSound, "speedOfSound")
TAVOLAR_RECORD_PROPERTY(bool, useSPLReferenceLevel, setUseSPLReferenceLevel, useSPLReferenceLevel,
                        "useSPLReferenceLevel")
TAVOLAR_RECORD_PROPERTY(float, SPLReferenceLevel, setSPLReferenceLevel, SPLReferenceLevel,
                        "SPLReferenceLevel")
TAVOLAR_RECORD_PROPERTY(bool, useMicrophoneCalibrationRecord, setUseMicrophoneCalibrationRecord,
                        useMicrophoneCalibrationRecord, "useMicrophoneCalibrationRecord")
TAVOLAR_RECORD_PROPERTY(std::shared_ptr<const MicrophoneCalibrationRecord>, microphoneCalibrationRecord,
                        setMicrophoneCalibrationRecord, microphoneCalibrationRecord,
                        "microphoneCalibrationRecord")
TAVOLAR_RECORD_PROPERTY(std::optional<RecordChannelEntry>, recordChannelEntry, setRecordChannelEntry,
                        recordChannelEntry, "recordChannelEntry")
TAVOLAR_RECORD_PROPERTY(std::optional<std::string>, audioDeviceName, setAudioDeviceName, audioDeviceName,
                        "audioDeviceName")
TAVOLAR_RECORD_PROPERTY(std::optional<std::string>, audioDeviceUID, setAudioDeviceUID, audioDeviceUID,
                        "audioDeviceUID")

#undef TAVOLAR_RECORD_PROPERTY

VELTWindow VELTMeasurementRecord::impulseResponseWindow() const {
    return withState([](const State& state) { return state.impulseResponseWindow; });
}

void VELTMeasurementRecord::setImpulseResponseWindow(const VELTWindow& window) {
    setField(&State::impulseResponseWindow, window, "impulseResponseWindow");
}

nlohmann::json VELTMeasurementRecord::plugInDictionary() const {
    return withState([](const State& state) { return state.plugInDictionary; });
}

void VELTMeasurementRecord::setPlugInDictionary(nlohmann::json dictionary) {
    TAVOLAR_PARAMETER_ASSERT(dictionary.is_object());
    setField(&State::plugInDictionary, std::move(dictionary), "plugInDictionary");
}

std::shared_ptr<void> VELTMeasurementRecord::document() const {
    return withState([](const State& state) { return state.document.lock(); });
}

void VELTMeasurementRecord::setDocument(const std::shared_ptr<void>& document) {
    setField(&State::document, std::weak_ptr<void>(document), "document");
}

// ---- Impulse storage

std::shared_ptr<ImpulseCache> VELTMeasurementRecord::impulseCache() const {
    return withState([](const State& state) { return state.impulseCache.lock(); });
}

void VELTMeasurementRecord::setImpulseCache(const std::shared_ptr<ImpulseCache>& cache) {
    {
        std::lock_guard lock(mutex_);
        if (state_->impulseCache.lock() == cache)
            return;
        state_->impulseCache = cache;
        // The hand-over happens under the lock, so that no reader sees the vector in neither place.
        if (cache && state_->impulseResponse) {
            cache->setImpulse(std::move(state_->impulseResponse), state_->impulseUUID, state_->sampleRate);
            state_->impulseResponse.reset();
        }
    }
    didChangeValueForKey("impulseCache");
}

std::shared_ptr<const VELTRealVector> VELTMeasurementRecord::impulseResponse() const {
    auto [cache, uuid, own, normalized] = withState([](const State& state) {
        return std::tuple(state.impulseCache.lock(), state.impulseUUID, state.impulseResponse,
                          state.normalized);
    });
    if (!cache)
        return own;
    auto cached = cache->impulseWithUUID(uuid);
    if (!cached || !normalized)
        return cached;
    VELTRealVector normalizedCopy = *cached;
    normalizedCopy.normalize();
    return std::make_shared<const VELTRealVector>(std::move(normalizedCopy));
}

std::shared_ptr<const VELTRealVector> VELTMeasurementRecord::cachedImpulseResponse() const {
    auto [cache, uuid] =
        withState([](const State& state) { return std::pair(state.impulseCache.lock(), state.impulseUUID); });
    return cache ? cache->impulseWithUUID(uuid) : nullptr;
}

void VELTMeasurementRecord::setImpulseResponse(std::shared_ptr<const VELTRealVector> impulseResponse) {
    {
        std::lock_guard lock(mutex_);
        if (state_->sampleRate == 0)
            throw ParameterAssertion("self.sampleRate != 0");
        if (auto cache = state_->impulseCache.lock())
            cache->setImpulse(std::move(impulseResponse), state_->impulseUUID, state_->sampleRate);
        else
            state_->impulseResponse = std::move(impulseResponse);
    }
    didChangeValueForKey("impulseResponse");
}

void VELTMeasurementRecord::setImpulseResponse(VELTRealVector impulseResponse) {
    setImpulseResponse(std::make_shared<const VELTRealVector>(std::move(impulseResponse)));
}

std::int64_t VELTMeasurementRecord::impulseLength() const {
    // Normalising keeps the length, so the stored vector answers without making a normalised copy.
    auto [cache, uuid, own] = withState([](const State& state) {
        return std::tuple(state.impulseCache.lock(), state.impulseUUID, state.impulseResponse);
    });
    std::shared_ptr<const VELTRealVector> impulse = cache ? cache->impulseWithUUID(uuid) : own;
    return impulse ? static_cast<std::int64_t>(impulse->length()) : 0;
}

// ---- Annotations

void VELTMeasurementRecord::appendToComment(std::string_view text) {
    {
        std::lock_guard lock(mutex_);
        std::optional<std::string>& comment = state_->comment;
        if (comment && comment->ends_with(text))
            return;
        comment = comment ? *comment + " " + std::string(text) : std::string(text);
    }
    didChangeValueForKey("comment");
}

// ---- Window

namespace {
template <typename Set>
void changeWindow(VELTWindow& window, std::int64_t current, std::int64_t value, Set set) {
    if (current != value)
        set(window, value);
}
} // namespace

std::int64_t VELTMeasurementRecord::windowBegin() const {
    return impulseResponseWindow().begin();
}
std::int64_t VELTMeasurementRecord::windowEnd() const {
    return impulseResponseWindow().end();
}
std::int64_t VELTMeasurementRecord::windowDuration() const {
    return impulseResponseWindow().duration();
}
std::int64_t VELTMeasurementRecord::windowType() const {
    return impulseResponseWindow().type();
}

void VELTMeasurementRecord::setWindowBegin(std::int64_t begin) {
    VELTWindow window = impulseResponseWindow();
    if (window.begin() == begin)
        return;
    window.setBegin(begin);
    setImpulseResponseWindow(window);
}

void VELTMeasurementRecord::setWindowEnd(std::int64_t end) {
    VELTWindow window = impulseResponseWindow();
    if (window.end() == end)
        return;
    window.setEnd(end);
    setImpulseResponseWindow(window);
}

void VELTMeasurementRecord::setWindowDuration(std::int64_t duration) {
    VELTWindow window = impulseResponseWindow();
    if (window.duration() == duration)
        return;
    window.setDuration(duration);
    setImpulseResponseWindow(window);
}

void VELTMeasurementRecord::setWindowType(std::int64_t type) {
    VELTWindow window = impulseResponseWindow();
    if (window.type() == type)
        return;
    window.setType(type);
    setImpulseResponseWindow(window);
}

float VELTMeasurementRecord::windowBeginInMilliseconds() const {
    return millisecondsFromSamples(windowBegin());
}
float VELTMeasurementRecord::windowEndInMilliseconds() const {
    return millisecondsFromSamples(windowEnd());
}

void VELTMeasurementRecord::setWindowBeginInMilliseconds(float milliseconds) {
    setWindowBegin(samplesFromMilliseconds(milliseconds));
}

void VELTMeasurementRecord::setWindowEndInMilliseconds(float milliseconds) {
    setWindowEnd(samplesFromMilliseconds(milliseconds));
}

float VELTMeasurementRecord::windowDurationInMilliseconds() const {
    return windowEndInMilliseconds() - windowBeginInMilliseconds();
}

void VELTMeasurementRecord::setWindowDurationInMilliseconds(float milliseconds) {
    setWindowDuration(samplesFromMilliseconds(milliseconds));
}

VELTMutableRealVector VELTMeasurementRecord::windowedImpulseResponse() const {
    auto impulse = impulseResponse();
    if (!impulse)
        return VELTMutableRealVector();
    return realVectorInWindow(*impulse, impulseResponseWindow());
}

float VELTMeasurementRecord::trueResolution() const {
    return 1000.0f / windowDurationInMilliseconds();
}

// ---- Calibration and level references

bool VELTMeasurementRecord::hasMicrophoneCalibrationRecord() const {
    return withState([](const State& state) { return state.microphoneCalibrationRecord != nullptr; });
}

bool VELTMeasurementRecord::hasSPLReference() const {
    return SPLReferenceLevel() != 0.0f;
}

double VELTMeasurementRecord::SPLAdjustmentOffset() const {
    auto [calibration, entry] = withState([](const State& state) {
        return std::pair(state.microphoneCalibrationRecord, state.recordChannelEntry);
    });
    if (!calibration || !entry || !entry->sensitivity())
        return 0.0;
    return 20.0 * std::log10(calibration->sensitivity() / entry->sensitivity()->referenceVoltage());
}

// ---- Sweep

float VELTMeasurementRecord::sweepStartFrequency() const {
    auto settings = logSweepSettings();
    return settings ? settings->startFreq() : 0.0f;
}

float VELTMeasurementRecord::sweepEndFrequency() const {
    auto [settings, rate] =
        withState([](const State& state) { return std::pair(state.logSweepSettings, state.sampleRate); });
    float end = settings ? settings->endFreq() : 0.0f;
    return end > 0.0f ? end : static_cast<float>(rate) * 0.5f;
}

float VELTMeasurementRecord::sweepDuration() const {
    auto settings = logSweepSettings();
    return settings ? settings->duration() : 0.0f;
}

// ---- Time axis

std::int64_t VELTMeasurementRecord::impulseMidpoint() const {
    return impulseLength() / 2;
}

float VELTMeasurementRecord::millisecondsFromSamples(std::int64_t index) const {
    std::int64_t length = impulseLength();
    if (index >= length / 2)
        index -= length;
    return (1000.0f / static_cast<float>(sampleRate())) * static_cast<float>(index);
}

std::int64_t VELTMeasurementRecord::samplesFromMilliseconds(float milliseconds) const {
    return static_cast<std::int64_t>(std::rintf(milliseconds / 1000.0f * static_cast<float>(sampleRate())));
}

VELTRealVector VELTMeasurementRecord::centeredImpulseResponse() const {
    auto impulse = impulseResponse();
    if (!impulse)
        return VELTRealVector();
    VELTRealVector centered = *impulse;
    // A 32-bit shift, as the stored analyses were made with.
    centered.circularShiftBy(-static_cast<std::int32_t>(centered.length() / 2));
    return centered;
}

VELTRealVector VELTMeasurementRecord::centeredTimeline() const {
    std::int64_t length = impulseLength();
    std::int64_t midpoint = length / 2;
    VELTRealVector timeline = VELTRealVector::realVectorWithIntegersRangingFrom(-midpoint, length - midpoint);
    timeline.scaleBy(1000.0f / static_cast<float>(sampleRate()));
    return timeline;
}

// ---- Peak

std::int64_t VELTMeasurementRecord::impulsePeak() const {
    std::int64_t cached = cachedPeak_.load(std::memory_order_relaxed);
    if (cached != kPeakNotComputed)
        return cached;
    VELTRealVector centered = centeredImpulseResponse();
    if (centered.length() == 0)
        return 0;
    VELTRealVector envelope = energyTimeCurve(centered);
    float value = 0.0f;
    std::size_t location = 0;
    envelope.getMaximumMagnitude(value, &location);
    std::int64_t peak =
        static_cast<std::int64_t>(location) - static_cast<std::int64_t>(centered.length() / 2);
    cachedPeak_.store(peak, std::memory_order_relaxed);
    return peak;
}

float VELTMeasurementRecord::impulsePeakInMilliseconds() const {
    return millisecondsFromSamples(impulsePeak());
}

double VELTMeasurementRecord::distanceToPeakInMeters() const {
    return static_cast<double>(delayToPeakInMilliseconds()) * (speedOfSound() / 1000.0);
}

// ---- Copies

void VELTMeasurementRecord::copyAttributesToMeasurementRecord(VELTMeasurementRecord& target) const {
    if (&target == this)
        return;
    State source = withState([](const State& state) { return state; });
    bool sourceHasCache = source.impulseCache.lock() != nullptr;
    {
        std::lock_guard lock(target.mutex_);
        State& state = *target.state_;
        state.impulseResponseWindow = source.impulseResponseWindow;
        state.logSweepSettings = source.logSweepSettings;
        state.graphAdjustments = source.graphAdjustments;
        state.plugInDictionary = source.plugInDictionary;
        state.microphoneCalibrationRecord = source.microphoneCalibrationRecord;
        state.useMicrophoneCalibrationRecord = source.useMicrophoneCalibrationRecord;
        state.synchronousAverages = source.synchronousAverages;
        state.normalized = source.normalized;
        state.date = source.date;
        state.comment = source.comment;
        state.notes = source.notes;
        state.sampleRate = source.sampleRate;
        state.plotColor = source.plotColor;
        state.compatibilityMode = source.compatibilityMode;
        // Without a cache the vector is the record's own; it is immutable, so the target shares it.
        if (!sourceHasCache)
            state.impulseResponse = source.impulseResponse;
        target.cachedPeak_.store(cachedPeak_.load(std::memory_order_relaxed), std::memory_order_relaxed);
        state.SPLReferenceLevel = source.SPLReferenceLevel;
        state.useSPLReferenceLevel = source.useSPLReferenceLevel;
        state.startFrequency = source.startFrequency;
        state.endFrequency = source.endFrequency;
        state.speedOfSound = source.speedOfSound;
        state.audioDeviceUID = source.audioDeviceUID;
        state.audioDeviceName = source.audioDeviceName;
        state.recordChannelEntry = source.recordChannelEntry;
    }
}

std::shared_ptr<VELTMeasurementRecord> VELTMeasurementRecord::copy() const {
    auto result = std::make_shared<VELTMeasurementRecord>();
    result->setImpulseCache(impulseCache());
    result->setSampleRate(sampleRate());
    // Stored again through the setter, so a cached impulse response is kept under the new UUID. A
    // record without a sample rate cannot store one; its own vector still comes with the attributes.
    if (auto impulse = impulseResponse(); impulse && result->sampleRate() != 0)
        result->setImpulseResponse(std::move(impulse));
    copyAttributesToMeasurementRecord(*result);
    return result;
}

std::shared_ptr<VELTMeasurementRecord> VELTMeasurementRecord::cachedCopy() const {
    auto [uuid, cache] =
        withState([](const State& state) { return std::pair(state.impulseUUID, state.impulseCache); });
    auto result = std::make_shared<VELTMeasurementRecord>(std::move(uuid));
    result->state_->impulseCache = std::move(cache);
    copyAttributesToMeasurementRecord(*result);
    return result;
}

std::shared_ptr<VELTMeasurementRecord> VELTMeasurementRecord::minimumPhaseCopy() const {
    auto result = copy();
    if (auto impulse = impulseResponse(); impulse && result->sampleRate() != 0)
        result->setImpulseResponse(minimumPhaseReconstruction(*impulse));
    return result;
}

// ---- Archive

namespace {

// True when the archive holds a value (not null) for key.
bool holdsValue(KeyedUnarchiver& coder, std::string_view key) {
    auto kind = coder.classNameForKey(key);
    return kind && *kind != "Null";
}

nlohmann::json dictionaryOfAdjustments(const GraphAdjustments& adjustments) {
    nlohmann::json dictionary = nlohmann::json::object();
    for (const auto& [key, value] : adjustments)
        dictionary[key] = value;
    return dictionary;
}

} // namespace

void VELTMeasurementRecord::encodeWithCoder(KeyedArchiver& coder) const {
    State state = withState([](const State& current) { return current; });
    std::shared_ptr<const VELTRealVector> impulse = state.dontSaveImpulse ? nullptr : impulseResponse();

    coder.encodeInt64(1, "version");
    coder.encodeObject(state.impulseResponseWindow, "impulseResponseWindow");
    if (impulse)
        coder.encodeObject(ArchivedRealVector(*impulse), "impulseResponse");
    coder.encodeString(state.impulseUUID, "impulseUUID");
    if (state.date)
        coder.encodeDate(*state.date, "date");
    if (state.comment)
        coder.encodeString(*state.comment, "comment");
    if (state.notes)
        coder.encodeString(*state.notes, "notes");
    coder.encodeInt64(state.sampleRate, "sampleRate");
    if (state.plotColor)
        coder.encodeColor(*state.plotColor, "plotColor");
    if (state.logSweepSettings)
        coder.encodeObject(*state.logSweepSettings, "logSweepSettings");
    coder.encodeInt64(state.synchronousAverages, "synchronousAverages");
    coder.encodeDictionary(dictionaryOfAdjustments(state.graphAdjustments), "graphAdjustments");
    coder.encodeDictionary(state.plugInDictionary, "plugInDictionary");
    coder.encodeBool(state.compatibilityMode, "compatibilityMode");
    coder.encodeBool(state.normalized, "normalized");
    coder.encodeBool(state.useMicrophoneCalibrationRecord, "correctionEnabled");
    if (state.microphoneCalibrationRecord)
        coder.encodeObject(*state.microphoneCalibrationRecord, "correctionRecord");
    coder.encodeBool(state.useSPLReferenceLevel, "useSPLReferenceLevel");
    coder.encodeFloat(state.SPLReferenceLevel, "SPLReferenceLevel");
    coder.encodeFloat(state.startFrequency, "startFrequency");
    coder.encodeFloat(state.endFrequency, "endFrequency");
    if (state.recordChannelEntry)
        coder.encodeObject(*state.recordChannelEntry, "recordChannelEntry");
    if (state.audioDeviceName)
        coder.encodeString(*state.audioDeviceName, "audioDeviceName");
    if (state.audioDeviceUID)
        coder.encodeString(*state.audioDeviceUID, "audioDeviceUID");
    coder.encodeDouble(state.speedOfSound, "speedOfSound");
}

// An impulse response is either an archived vector or, in records from the oldest systems, raw
// big-endian float data, which marks the record as being in compatibility mode. The decoded record
// has no cache, so the vector is its own; it is stored directly because the sample rate, which the
// setter requires, is read later.
void VELTMeasurementRecord::storeDecodedImpulse(KeyedUnarchiver& coder, std::string_view key) {
    auto kind = coder.classNameForKey(key);
    if (!kind || *kind == "Null")
        return;
    if (*kind == "Data") {
        auto data = coder.decodeData(key);
        if (!data)
            return;
        VELTRealVector impulse = VELTRealVector::realVectorWithData(*data);
        impulse.swapFloatsBigToHostIfRequired();
        state_->impulseResponse = std::make_shared<const VELTRealVector>(std::move(impulse));
        state_->compatibilityMode = true;
        return;
    }
    if (auto archived = coder.decodeObjectOfClass<ArchivedRealVector>(key))
        state_->impulseResponse = std::make_shared<const VELTRealVector>(archived->takeVector());
}

VELTMeasurementRecord VELTMeasurementRecord::initWithCoder(KeyedUnarchiver& coder) {
    VELTMeasurementRecord record;
    if (!coder.decodeNumber("version")) {
        decodeVersion0RecordFromCoder(coder, record);
        return record;
    }
    State& state = *record.state_;
    if (auto window = coder.decodeObjectOfClass<VELTWindow>("impulseResponseWindow"))
        state.impulseResponseWindow = *window;
    if (auto uuid = coder.decodeString("impulseUUID"))
        state.impulseUUID = std::move(*uuid);
    record.storeDecodedImpulse(coder, "impulseResponse");

    state.date = coder.decodeDate("date");
    state.comment = coder.decodeString("comment");
    state.notes = coder.decodeString("notes");
    state.plotColor = coder.decodeColor("plotColor");
    state.audioDeviceName = coder.decodeString("audioDeviceName");
    state.audioDeviceUID = coder.decodeString("audioDeviceUID");
    state.recordChannelEntry = coder.decodeObjectOfClass<RecordChannelEntry>("recordChannelEntry");

    if (holdsValue(coder, "speedOfSound"))
        state.speedOfSound = coder.decodeDouble("speedOfSound");
    if (holdsValue(coder, "sampleRate"))
        state.sampleRate = coder.decodeInt64("sampleRate");
    // Deliberately read as an unsigned 32-bit value, as archives have always been read: only the low
    // 32 bits of a larger count survive.
    if (holdsValue(coder, "synchronousAverages"))
        state.synchronousAverages = static_cast<std::uint32_t>(coder.decodeInt64("synchronousAverages"));

    if (auto calibration = coder.decodeObjectOfClass<MicrophoneCalibrationRecord>("correctionRecord"))
        state.microphoneCalibrationRecord =
            std::make_shared<const MicrophoneCalibrationRecord>(std::move(*calibration));
    // Archives from before the switch existed apply any calibration they carry.
    if (holdsValue(coder, "correctionEnabled"))
        state.useMicrophoneCalibrationRecord = coder.decodeBool("correctionEnabled");
    else
        state.useMicrophoneCalibrationRecord = state.microphoneCalibrationRecord != nullptr;

    if (holdsValue(coder, "useSPLReferenceLevel"))
        state.useSPLReferenceLevel = coder.decodeBool("useSPLReferenceLevel");
    if (holdsValue(coder, "SPLReferenceLevel"))
        state.SPLReferenceLevel = coder.decodeFloat("SPLReferenceLevel");
    if (holdsValue(coder, "normalized"))
        state.normalized = coder.decodeBool("normalized");
    if (auto settings = coder.decodeObjectOfClass<VELTLogSweepSettings>("logSweepSettings"))
        state.logSweepSettings = std::move(*settings);
    state.startFrequency = coder.decodeFloat("startFrequency");
    state.endFrequency = coder.decodeFloat("endFrequency");
    // "graphAdjustments", "plugInDictionary" and "compatibilityMode" are written but deliberately not
    // read back: a decoded record starts with the defaults (compatibility mode set only by raw data).
    return record;
}

void VELTMeasurementRecord::decodeVersion0RecordFromCoder(KeyedUnarchiver& coder,
                                                          VELTMeasurementRecord& record) {
    State& state = *record.state_;
    if (auto window = coder.decodeObjectOfClass<VELTWindow>("ImpulseResponseWindow"))
        state.impulseResponseWindow = *window;
    if (auto uuid = coder.decodeString("ImpulseUUID"))
        state.impulseUUID = std::move(*uuid);
    record.storeDecodedImpulse(coder, "ImpulseResponse");

    state.date = coder.decodeDate("Date");
    state.comment = coder.decodeString("Comment");
    state.notes = coder.decodeString("Notes");
    state.plotColor = coder.decodeColor("PlotColor");
    state.thumbnail = coder.decodeData("Thumbnail");
    if (state.thumbnail)
        state.thumbnailDirty = false;

    state.sampleRate = coder.decodeInt32("SampleRate");
    state.compatibilityMode = coder.decodeBool("CompatibilityMode");
    state.synchronousAverages = coder.decodeInt32("SynchronousAverages");
    if (state.synchronousAverages == 0)
        state.synchronousAverages = 1;

    state.useMicrophoneCalibrationRecord = coder.decodeInt32("CorrectionEnabled") != 0;
    if (auto calibration = coder.decodeObjectOfClass<MicrophoneCalibrationRecord>("CorrectionRecord"))
        state.microphoneCalibrationRecord =
            std::make_shared<const MicrophoneCalibrationRecord>(std::move(*calibration));

    // The oldest records kept the SPL reference as a linear ratio.
    float linearReference = coder.decodeFloat("SPLReferenceLevel");
    state.SPLReferenceLevel = linearReference != 0.0f ? 20.0f * std::log10(linearReference) : 0.0f;

    state.graphAdjustments = emptyGraphAdjustmentDict();
    if (auto adjustments = coder.decodeDictionary("GraphAdjustments")) {
        for (const auto& [key, value] : adjustments->items()) {
            if (value.is_number())
                state.graphAdjustments[key] = value.get<double>();
        }
    }
    state.plugInDictionary = coder.decodeDictionary("PlugInDictionary").value_or(nlohmann::json::object());

    state.normalized = coder.decodeBool("Normalized");

    if (auto settings = coder.decodeObjectOfClass<VELTLogSweepSettings>("LogSweepSettings")) {
        state.logSweepSettings = std::move(*settings);
    } else {
        VELTLogSweepSettings defaults;
        // A maximum-length-sequence measurement keeps the length of its sequence as the sweep
        // duration: 2^order samples, formed as a 32-bit shift by the order modulo 32.
        std::int32_t order = coder.decodeInt32("MLSOrder");
        if (order != 0) {
            auto length =
                static_cast<std::int32_t>(std::uint32_t{1} << (static_cast<std::uint32_t>(order) & 31u));
            defaults.setDuration(static_cast<float>(length) / static_cast<float>(state.sampleRate) * 1000.0f);
        }
        state.logSweepSettings = std::move(defaults);
    }

    if (auto start = coder.decodeNumber("startFrequency"))
        state.startFrequency = static_cast<float>(*start);
    if (auto end = coder.decodeNumber("endFrequency"))
        state.endFrequency = static_cast<float>(*end);
}

} // namespace tavolar
