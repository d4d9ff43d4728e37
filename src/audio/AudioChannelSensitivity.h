#pragma once
// The electrical sensitivity of an input channel: the level that a full-scale digital signal
// corresponds to at the converter's input, with its unit.

#include "audio/DecimalNumberFormatter.h"
#include "platform/KeyedArchiver.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace tavolar {

enum class AudioChannelSensitivityUnit : std::int64_t {
    dBu = 0,  // 0 dBu = 0.774596669 V rms
    dBV = 1,  // 0 dBV = 1 V
    dBFS = 2, // a level in digital full-scale terms, without a voltage reference
};

// The label of a unit: "dBu", "dBV" or "dBFS".
std::string_view labelForSensitivityUnit(AudioChannelSensitivityUnit unit) noexcept;

// The unit stored as a raw number: 0 and 2 as they are; 1, a missing key or any other number read
// as dBV, so that no archive yields a unit outside the three.
AudioChannelSensitivityUnit decodeSensitivityUnitForKey(KeyedUnarchiver& coder, std::string_view key);
void encodeSensitivityUnit(KeyedArchiver& coder, AudioChannelSensitivityUnit unit, std::string_view key);

class AudioChannelSensitivity {
public:
    static constexpr std::string_view className = "AudioChannelSensitivity";

    AudioChannelSensitivity() = delete;
    // A sensitivity in dBV.
    explicit AudioChannelSensitivity(double dBV) : sensitivityValue_(dBV) {}
    static AudioChannelSensitivity initWithDBV(double dBV) { return AudioChannelSensitivity(dBV); }
    AudioChannelSensitivity(double value, AudioChannelSensitivityUnit unit);

    double sensitivityValue() const noexcept { return sensitivityValue_; }
    void setSensitivityValue(double value) noexcept { sensitivityValue_ = value; }
    AudioChannelSensitivityUnit unit() const noexcept { return unit_; }
    // A raw value outside the three units is stored as dBV, as decoding does.
    void setUnit(AudioChannelSensitivityUnit unit) noexcept;

    // The full-scale level in volts: dBV 10^(value/20); dBu the same times 0.774596669 and sqrt(2)
    // (volts peak); dBFS 1.0.
    double referenceVoltage() const noexcept;

    // The value formatted with formatter(), a space and the unit's label ("-10 dBV");
    // "(invalid)" stands in for a number the formatter cannot show.
    std::string stringValue() const;
    std::string description() const { return stringValue(); }

    // Decimal style with at most two fraction digits; a new formatter on every call.
    static DecimalNumberFormatter formatter() { return DecimalNumberFormatter(2); }

    bool operator==(const AudioChannelSensitivity&) const = default;

    void encodeWithCoder(KeyedArchiver& coder) const;
    static AudioChannelSensitivity initWithCoder(KeyedUnarchiver& coder);

private:
    double sensitivityValue_ = 0.0;
    AudioChannelSensitivityUnit unit_ = AudioChannelSensitivityUnit::dBV;
};

} // namespace tavolar
