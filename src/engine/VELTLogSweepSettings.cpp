#include "engine/VELTLogSweepSettings.h"

#include "dsp/SweptSine.h"
#include "platform/Assertions.h"
#include "platform/KeyedArchiver.h"
#include "platform/TavolarLocalizedString.h"

#include <array>
#include <cmath>
#include <optional>
#include <string>
#include <utility>

namespace tavolar {

namespace {

constexpr float kFullRangeStartFrequency = 1.0f;
constexpr float kFullRangeEndFrequency = 0.0f; // stands for half the sample rate
constexpr float kDefaultBeginSilence = 500.0f;
constexpr float kDefaultEndSilence = 2000.0f;
constexpr std::uint64_t kArchiveVersion = 1;

constexpr std::array<std::string_view, 11> kKeys = {
    "startFreq", "endFreq", "fullRangeSweep", "beginSilence",   "endSilence", "amplitude",
    "duration",  "leadIn",  "leadOut",        "defaultSilence", "name"};

} // namespace

VELTLogSweepSettings::VELTLogSweepSettings()
    : name_(TavolarLocalizedString("Untitled", "Name of a sweep preset the user has not named")) {}

VELTLogSweepSettings::VELTLogSweepSettings(const VELTLogSweepSettings& other) : Observable() {
    assignEffectiveValuesOf(other);
}

VELTLogSweepSettings& VELTLogSweepSettings::operator=(const VELTLogSweepSettings& other) {
    assignEffectiveValuesOf(other);
    return *this;
}

VELTLogSweepSettings::VELTLogSweepSettings(VELTLogSweepSettings&& other) noexcept : Observable() {
    assignStoredValuesOf(other);
    name_ = std::move(other.name_);
}

VELTLogSweepSettings& VELTLogSweepSettings::operator=(VELTLogSweepSettings&& other) noexcept {
    if (this == &other)
        return *this;
    assignStoredValuesOf(other);
    name_ = std::move(other.name_);
    for (std::string_view key : kKeys)
        didChangeValueForKey(key);
    return *this;
}

// Every value is read through its getter before any is stored, so assigning an object to itself
// also stores the effective values. They are stored in the order the presets have always been copied.
void VELTLogSweepSettings::assignEffectiveValuesOf(const VELTLogSweepSettings& other) {
    const float duration = other.duration();
    const float startFrequency = other.startFreq();
    const float endFrequency = other.endFreq();
    const float beginSilence = other.beginSilence();
    const float endSilence = other.endSilence();
    const float leadIn = other.leadIn();
    const float leadOut = other.leadOut();
    std::string name = other.name();
    const bool fullRange = other.fullRangeSweep();
    const bool defaultSilence = other.defaultSilence();
    const float amplitude = other.amplitude();
    setDuration(duration);
    setStartFreq(startFrequency);
    setEndFreq(endFrequency);
    setBeginSilence(beginSilence);
    setEndSilence(endSilence);
    setLeadIn(leadIn);
    setLeadOut(leadOut);
    setName(std::move(name));
    setFullRangeSweep(fullRange);
    setDefaultSilence(defaultSilence);
    setAmplitude(amplitude);
}

void VELTLogSweepSettings::assignStoredValuesOf(const VELTLogSweepSettings& other) noexcept {
    startFreq_ = other.startFreq_;
    endFreq_ = other.endFreq_;
    fullRangeSweep_ = other.fullRangeSweep_;
    beginSilence_ = other.beginSilence_;
    endSilence_ = other.endSilence_;
    amplitude_ = other.amplitude_;
    duration_ = other.duration_;
    leadIn_ = other.leadIn_;
    leadOut_ = other.leadOut_;
    defaultSilence_ = other.defaultSilence_;
}

VELTLogSweepSettings VELTLogSweepSettings::shortLogSweepSettings() {
    VELTLogSweepSettings settings;
    settings.setName(
        TavolarLocalizedString("Short (1s) Sweep", "Name of the built-in one-second sweep preset"));
    settings.setDuration(1000.0f);
    return settings;
}

VELTLogSweepSettings VELTLogSweepSettings::longLogSweepSettings() {
    VELTLogSweepSettings settings;
    settings.setName(
        TavolarLocalizedString("Long (10s) Sweep", "Name of the built-in ten-second sweep preset"));
    settings.setDuration(10000.0f);
    return settings;
}

float VELTLogSweepSettings::startFreq() const noexcept {
    return fullRangeSweep_ ? kFullRangeStartFrequency : startFreq_;
}

void VELTLogSweepSettings::setStartFreq(float frequency) {
    startFreq_ = frequency;
    didChangeValueForKey("startFreq");
}

float VELTLogSweepSettings::endFreq() const noexcept {
    return fullRangeSweep_ ? kFullRangeEndFrequency : endFreq_;
}

void VELTLogSweepSettings::setEndFreq(float frequency) {
    endFreq_ = frequency;
    didChangeValueForKey("endFreq");
}

void VELTLogSweepSettings::setFullRangeSweep(bool fullRange) {
    fullRangeSweep_ = fullRange;
    didChangeValueForKey("fullRangeSweep");
}

float VELTLogSweepSettings::beginSilence() const noexcept {
    return defaultSilence_ ? kDefaultBeginSilence : beginSilence_;
}

void VELTLogSweepSettings::setBeginSilence(float milliseconds) {
    beginSilence_ = milliseconds;
    didChangeValueForKey("beginSilence");
}

float VELTLogSweepSettings::endSilence() const noexcept {
    return defaultSilence_ ? kDefaultEndSilence : endSilence_;
}

void VELTLogSweepSettings::setEndSilence(float milliseconds) {
    endSilence_ = milliseconds;
    didChangeValueForKey("endSilence");
}

void VELTLogSweepSettings::setAmplitude(float amplitude) {
    amplitude_ = amplitude;
    didChangeValueForKey("amplitude");
}

void VELTLogSweepSettings::setDuration(float milliseconds) {
    duration_ = milliseconds;
    didChangeValueForKey("duration");
}

void VELTLogSweepSettings::setLeadIn(float milliseconds) {
    leadIn_ = milliseconds;
    didChangeValueForKey("leadIn");
}

void VELTLogSweepSettings::setLeadOut(float milliseconds) {
    leadOut_ = milliseconds;
    didChangeValueForKey("leadOut");
}

void VELTLogSweepSettings::setDefaultSilence(bool useDefault) {
    defaultSilence_ = useDefault;
    didChangeValueForKey("defaultSilence");
}

void VELTLogSweepSettings::setName(std::string name) {
    name_ = std::move(name);
    didChangeValueForKey("name");
}

void VELTLogSweepSettings::setNilValueForKey(std::string_view key) {
    if (key == "startFreq")
        setStartFreq(0.0f);
    else if (key == "endFreq")
        setEndFreq(0.0f);
    else if (key == "fullRangeSweep")
        setFullRangeSweep(false);
    else if (key == "beginSilence")
        setBeginSilence(0.0f);
    else if (key == "endSilence")
        setEndSilence(0.0f);
    else if (key == "amplitude")
        setAmplitude(0.0f);
    else if (key == "duration")
        setDuration(0.0f);
    else if (key == "leadIn")
        setLeadIn(0.0f);
    else if (key == "leadOut")
        setLeadOut(0.0f);
    else if (key == "defaultSilence")
        setDefaultSilence(false);
    else if (key == "name")
        setName({});
    else
        throw ParameterAssertion("key is a property of VELTLogSweepSettings");
}

std::vector<std::string_view>
VELTLogSweepSettings::keyPathsForValuesAffectingValueForKey(std::string_view key) const {
    if (key == "startFreq" || key == "endFreq")
        return {"fullRangeSweep"};
    if (key == "beginSilence" || key == "endSilence")
        return {"defaultSilence"};
    return {};
}

VELTRealVector VELTLogSweepSettings::stimulusSignalWithSampleRate(std::uint64_t sampleRate) const {
    const float startFrequency = fullRangeSweep_ ? 1.0f : startFreq();
    const float endFrequency = fullRangeSweep_ ? 0.5f * static_cast<float>(sampleRate) : endFreq();
    return realVectorWithLogSweepFrom(startFrequency, endFrequency, duration_, amplitude_, beginSilence(),
                                      endSilence(), leadIn_, leadOut_, static_cast<float>(sampleRate));
}

void VELTLogSweepSettings::encodeWithCoder(KeyedArchiver& coder) const {
    coder.encodeNumber(static_cast<double>(kArchiveVersion), "version");
    coder.encodeFloat(duration_, "Duration");
    coder.encodeFloat(startFreq(), "StartFreq");
    coder.encodeFloat(endFreq(), "EndFreq");
    coder.encodeFloat(beginSilence(), "BeginSilence");
    coder.encodeFloat(endSilence(), "EndSilence");
    coder.encodeFloat(leadIn_, "LeadIn");
    coder.encodeFloat(leadOut_, "LeadOut");
    coder.encodeString(name_, "Name");
    coder.encodeBool(fullRangeSweep_, "FullRangeSweep");
    coder.encodeBool(defaultSilence_, "DefaultSilence");
    // The only lower-case key of this archive; readers and writers must keep that spelling.
    coder.encodeFloat(amplitude_, "amplitude");
}

VELTLogSweepSettings VELTLogSweepSettings::initWithCoder(KeyedUnarchiver& coder) {
    VELTLogSweepSettings settings;
    std::uint64_t version = 0;
    if (std::optional<double> number = coder.decodeNumber("version");
        number && *number >= 0.0 && *number < 0x1p64)
        version = static_cast<std::uint64_t>(*number);
    settings.setDuration(coder.decodeFloat("Duration"));
    settings.setStartFreq(coder.decodeFloat("StartFreq"));
    settings.setEndFreq(coder.decodeFloat("EndFreq"));
    settings.setBeginSilence(coder.decodeFloat("BeginSilence"));
    settings.setEndSilence(coder.decodeFloat("EndSilence"));
    settings.setLeadIn(coder.decodeFloat("LeadIn"));
    settings.setLeadOut(coder.decodeFloat("LeadOut"));
    settings.setName(coder.decodeString("Name").value_or(std::string()));
    settings.setDefaultSilence(coder.decodeBool("DefaultSilence"));
    settings.setFullRangeSweep(coder.decodeBool("FullRangeSweep"));
    // Archives of version 0 were written before the amplitude setting existed and keep 1.0.
    if (version == kArchiveVersion)
        settings.setAmplitude(coder.decodeFloat("amplitude"));
    return settings;
}

bool VELTLogSweepSettings::operator==(const VELTLogSweepSettings& other) const noexcept {
    return startFreq_ == other.startFreq_ && endFreq_ == other.endFreq_ &&
           fullRangeSweep_ == other.fullRangeSweep_ && beginSilence_ == other.beginSilence_ &&
           endSilence_ == other.endSilence_ && amplitude_ == other.amplitude_ &&
           duration_ == other.duration_ && leadIn_ == other.leadIn_ && leadOut_ == other.leadOut_ &&
           defaultSilence_ == other.defaultSilence_ && name_ == other.name_;
}

} // namespace tavolar
