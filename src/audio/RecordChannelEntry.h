#pragma once
// One input channel of a measurement: its number on the record device, the microphone calibration
// used on it and the channel's electrical sensitivity, from which the SPL offset follows.

#include "audio/AudioChannelSensitivity.h"
#include "audio/MicrophoneCalibrationRecord.h"
#include "platform/KeyedArchiver.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

namespace tavolar {

class RecordChannelEntry {
public:
    static constexpr std::string_view className = "RecordChannelEntry";

    RecordChannelEntry() = delete;
    RecordChannelEntry(std::int64_t channel,
                       std::shared_ptr<const MicrophoneCalibrationRecord> calibrationRecord,
                       std::optional<AudioChannelSensitivity> sensitivity)
        : channel_(channel), calibrationRecord_(std::move(calibrationRecord)), sensitivity_(sensitivity) {}

    // The input channel on the record device, counted from 0.
    std::int64_t channel() const noexcept { return channel_; }
    void setChannel(std::int64_t channel) noexcept { channel_ = channel; }
    // Copies of an entry share the calibration record.
    const std::shared_ptr<const MicrophoneCalibrationRecord>& calibrationRecord() const noexcept {
        return calibrationRecord_;
    }
    void setCalibrationRecord(std::shared_ptr<const MicrophoneCalibrationRecord> record) {
        calibrationRecord_ = std::move(record);
    }
    const std::optional<AudioChannelSensitivity>& sensitivity() const noexcept { return sensitivity_; }
    void setSensitivity(std::optional<AudioChannelSensitivity> sensitivity) noexcept {
        sensitivity_ = sensitivity;
    }

    // Decibels to add to a dBFS level to give dB SPL. A channel sensitivity in dBFS is the offset
    // itself. Otherwise, without a calibration record the offset is 0; a microphone in mV/Pa gives
    // 20 log10((mV/Pa / 1000) / full-scale volts) when the channel's sensitivity is known and 0 when
    // not; one in dBV/µBar gives 0; one in dBFS gives its own value.
    double dBSPLOffsetValue() const noexcept;

    // Same channel, the very same calibration record object and an equal sensitivity.
    bool operator==(const RecordChannelEntry&) const = default;

    void encodeWithCoder(KeyedArchiver& coder) const;
    // An absent "channel" gives channel 0; absent calibration and sensitivity give none.
    static RecordChannelEntry initWithCoder(KeyedUnarchiver& coder);

private:
    std::int64_t channel_;
    std::shared_ptr<const MicrophoneCalibrationRecord> calibrationRecord_;
    std::optional<AudioChannelSensitivity> sensitivity_;
};

} // namespace tavolar
