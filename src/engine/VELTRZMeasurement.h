#pragma once
// The finished result of a measurement for one input channel: its averaged impulse response with
// the sweep, device, channel and averaging it was made with. The host builds its records from it.

#include "audio/RecordChannelEntry.h"
#include "audio/VELTAudioDeviceRegistry.h"
#include "engine/VELTLogSweepSettings.h"
#include "math/VELTRealVector.h"
#include "platform/KeyedArchiver.h"

#include <cstdint>
#include <optional>

namespace tavolar {

class VELTRZMeasurement {
public:
    // The record device as the capture settings describe it (nullopt when none was chosen).
    using RecordDevice = std::optional<AudioDeviceDescription>;

    // Stores its arguments unchanged.
    VELTRZMeasurement(ArchivedDate date, VELTRealVector impulseResponse, std::int64_t sampleRate,
                      RecordDevice recordDevice, RecordChannelEntry recordChannelEntry,
                      std::int64_t synchronousAverages, VELTLogSweepSettings logSweepSettings);

    // Made only from its parts; shared by reference (the controller's results), never copied.
    VELTRZMeasurement() = delete;
    VELTRZMeasurement(const VELTRZMeasurement&) = delete;
    VELTRZMeasurement& operator=(const VELTRZMeasurement&) = delete;
    VELTRZMeasurement(VELTRZMeasurement&&) noexcept = default;
    VELTRZMeasurement& operator=(VELTRZMeasurement&&) noexcept = default;

    // When the result was made.
    ArchivedDate date() const noexcept { return date_; }
    void setDate(ArchivedDate date) noexcept { date_ = date; }
    // The channel's averaged impulse response.
    const VELTRealVector& impulseResponse() const noexcept { return impulseResponse_; }
    void setImpulseResponse(VELTRealVector impulseResponse) { impulseResponse_ = std::move(impulseResponse); }
    // The sweep that was played.
    const VELTLogSweepSettings& logSweepSettings() const noexcept { return logSweepSettings_; }
    void setLogSweepSettings(VELTLogSweepSettings settings) { logSweepSettings_ = std::move(settings); }
    // The record device's sample rate in Hz.
    std::int64_t sampleRate() const noexcept { return sampleRate_; }
    void setSampleRate(std::int64_t sampleRate) noexcept { sampleRate_ = sampleRate; }
    // How many sweeps were averaged.
    std::int64_t synchronousAverages() const noexcept { return synchronousAverages_; }
    void setSynchronousAverages(std::int64_t averages) noexcept { synchronousAverages_ = averages; }
    // The device recorded from.
    const RecordDevice& recordDevice() const noexcept { return recordDevice_; }
    void setRecordDevice(RecordDevice device) { recordDevice_ = std::move(device); }
    // The channel's configuration, with its calibration and sensitivity.
    const RecordChannelEntry& recordChannelEntry() const noexcept { return recordChannelEntry_; }
    void setRecordChannelEntry(RecordChannelEntry entry) { recordChannelEntry_ = std::move(entry); }

private:
    ArchivedDate date_;
    VELTRealVector impulseResponse_;
    VELTLogSweepSettings logSweepSettings_;
    std::int64_t sampleRate_;
    std::int64_t synchronousAverages_;
    RecordDevice recordDevice_;
    RecordChannelEntry recordChannelEntry_;
};

} // namespace tavolar
