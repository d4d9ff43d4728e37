#include "audio/RecordChannelEntry.h"

#include <cmath>
#include <limits>

namespace tavolar {

namespace {
constexpr std::string_view kChannelKey = "channel";
constexpr std::string_view kCalibrationRecordKey = "calibrationRecord";
constexpr std::string_view kSensitivityKey = "sensitivity";

// The integer value of a stored number: truncated toward zero, and 0 for what no integer can hold.
std::int64_t integerValue(double number) noexcept {
    if (!(std::fabs(number) < 9.2e18))
        return 0;
    return static_cast<std::int64_t>(number);
}
} // namespace

double RecordChannelEntry::dBSPLOffsetValue() const noexcept {
    if (sensitivity_ && sensitivity_->unit() == AudioChannelSensitivityUnit::dBFS)
        return sensitivity_->sensitivityValue();
    if (!calibrationRecord_)
        return 0.0;
    switch (calibrationRecord_->sensitivityUnits()) {
    case MicrophoneSensitivityUnit::millivoltsPerPascal:
        if (!sensitivity_)
            return 0.0;
        return 20.0 *
               std::log10((calibrationRecord_->sensitivity() / 1000.0) / sensitivity_->referenceVoltage());
    case MicrophoneSensitivityUnit::dBFS:
        return calibrationRecord_->sensitivity();
    case MicrophoneSensitivityUnit::dBVPerMicrobar:
    default:
        return 0.0;
    }
}

void RecordChannelEntry::encodeWithCoder(KeyedArchiver& coder) const {
    coder.encodeInt64(channel_, kChannelKey);
    if (calibrationRecord_)
        coder.encodeObject(*calibrationRecord_, kCalibrationRecordKey);
    else
        coder.encodeNull(kCalibrationRecordKey);
    if (sensitivity_)
        coder.encodeObject(*sensitivity_, kSensitivityKey);
    else
        coder.encodeNull(kSensitivityKey);
}

RecordChannelEntry RecordChannelEntry::initWithCoder(KeyedUnarchiver& coder) {
    const std::int64_t channel = integerValue(coder.decodeNumber(kChannelKey).value_or(0.0));
    std::shared_ptr<const MicrophoneCalibrationRecord> calibrationRecord;
    if (auto record = coder.decodeObjectOfClass<MicrophoneCalibrationRecord>(kCalibrationRecordKey))
        calibrationRecord = std::make_shared<const MicrophoneCalibrationRecord>(std::move(*record));
    return RecordChannelEntry(channel, std::move(calibrationRecord),
                              coder.decodeObjectOfClass<AudioChannelSensitivity>(kSensitivityKey));
}

} // namespace tavolar
