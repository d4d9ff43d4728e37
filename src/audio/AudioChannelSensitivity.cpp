#include "audio/AudioChannelSensitivity.h"

#include <cmath>

namespace tavolar {

namespace {
constexpr std::string_view kUnitKey = "unit";
constexpr std::string_view kSensitivityValueKey = "sensitivityValue";

// 0 dBu in volts rms, at the precision the stored levels were computed with; deliberately not
// sqrt(0.6).
constexpr double kDBuReferenceVolts = 0.774596669;
constexpr double kSquareRootOfTwo = 1.4142135623730951;

AudioChannelSensitivityUnit validUnit(AudioChannelSensitivityUnit unit) noexcept {
    switch (unit) {
    case AudioChannelSensitivityUnit::dBu:
    case AudioChannelSensitivityUnit::dBFS:
        return unit;
    default:
        return AudioChannelSensitivityUnit::dBV;
    }
}
} // namespace

std::string_view labelForSensitivityUnit(AudioChannelSensitivityUnit unit) noexcept {
    switch (validUnit(unit)) {
    case AudioChannelSensitivityUnit::dBu:
        return "dBu";
    case AudioChannelSensitivityUnit::dBFS:
        return "dBFS";
    default:
        return "dBV";
    }
}

AudioChannelSensitivityUnit decodeSensitivityUnitForKey(KeyedUnarchiver& coder, std::string_view key) {
    const std::optional<double> raw = coder.decodeNumber(key);
    if (raw == 0.0)
        return AudioChannelSensitivityUnit::dBu;
    if (raw == 2.0)
        return AudioChannelSensitivityUnit::dBFS;
    return AudioChannelSensitivityUnit::dBV;
}

void encodeSensitivityUnit(KeyedArchiver& coder, AudioChannelSensitivityUnit unit, std::string_view key) {
    coder.encodeInt64(static_cast<std::int64_t>(unit), key);
}

AudioChannelSensitivity::AudioChannelSensitivity(double value, AudioChannelSensitivityUnit unit)
    : sensitivityValue_(value), unit_(validUnit(unit)) {}

void AudioChannelSensitivity::setUnit(AudioChannelSensitivityUnit unit) noexcept {
    unit_ = validUnit(unit);
}

double AudioChannelSensitivity::referenceVoltage() const noexcept {
    switch (unit_) {
    case AudioChannelSensitivityUnit::dBu:
        return std::pow(10.0, sensitivityValue_ / 20.0) * kDBuReferenceVolts * kSquareRootOfTwo;
    case AudioChannelSensitivityUnit::dBFS:
        return 1.0;
    default:
        return std::pow(10.0, sensitivityValue_ / 20.0);
    }
}

std::string AudioChannelSensitivity::stringValue() const {
    std::string text = formatter().stringFromNumber(sensitivityValue_).value_or("(invalid)");
    text += ' ';
    text += labelForSensitivityUnit(unit_);
    return text;
}

void AudioChannelSensitivity::encodeWithCoder(KeyedArchiver& coder) const {
    encodeSensitivityUnit(coder, unit_, kUnitKey);
    coder.encodeNumber(sensitivityValue_, kSensitivityValueKey);
}

AudioChannelSensitivity AudioChannelSensitivity::initWithCoder(KeyedUnarchiver& coder) {
    const AudioChannelSensitivityUnit unit = decodeSensitivityUnitForKey(coder, kUnitKey);
    return AudioChannelSensitivity(coder.decodeNumber(kSensitivityValueKey).value_or(0.0), unit);
}

} // namespace tavolar
