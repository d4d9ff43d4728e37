#pragma once
// Changes to records that the set and calibrate commands make and the Python package makes the same
// way: every value is checked before any record changes, and the changes are applied alike.

#include "audio/AudioChannelSensitivity.h"
#include "audio/MicrophoneCalibrationRecord.h"
#include "core/VELTMeasurementRecord.h"
#include "platform/TavolarError.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tavolar::cli {

// What set changes. Mistakes in the values themselves are failures of the usage domain.
struct RecordChanges {
    std::optional<float> windowBegin; // ms from time zero
    std::optional<float> windowEnd;   // ms from time zero
    std::optional<std::string> windowType;
    std::optional<std::string> comment;
    std::optional<std::string> notes;
    std::optional<std::string> color; // #RRGGBB or a name
    std::optional<float> splReference;
    bool noSPLReference = false;
    std::optional<double> speedOfSound; // m/s

    bool changesWindow() const { return windowBegin || windowEnd || windowType; }
    bool empty() const {
        return !changesWindow() && !comment && !notes && !color && !splReference && !noSPLReference &&
               !speedOfSound;
    }
    // Checks the values that need no record.
    Expected<void> check() const;
    // Checks that the window lies within the record's response; what names the record in messages
    // ("record 3", or empty for "the record").
    Expected<void> checkWindow(const VELTMeasurementRecord& record, std::string_view what) const;
    // Changes the record; the values must have passed check().
    void apply(VELTMeasurementRecord& record) const;
};

std::optional<MicrophoneSensitivityUnit> microphoneUnitFromName(std::string_view name);
std::optional<AudioChannelSensitivityUnit> channelUnitFromName(std::string_view name);

// The microphone calibration in a file, named after it; a file that does not read gives the loader's
// message and where it went wrong.
Expected<std::shared_ptr<const MicrophoneCalibrationRecord>> readCalibrationFile(const std::string& path);

// What calibrate changes: a new calibration, its sensitivity, the input channel's sensitivity, or
// the calibration's removal.
struct CalibrationChange {
    std::shared_ptr<const MicrophoneCalibrationRecord> fromFile;
    std::optional<double> sensitivity;
    std::optional<MicrophoneSensitivityUnit> sensitivityUnit;
    std::optional<AudioChannelSensitivity> channelSensitivity;
    bool remove = false;

    // The calibration a channel or record ends up with, starting from the one it has; what names it
    // in messages ("Record 3").
    Expected<std::shared_ptr<const MicrophoneCalibrationRecord>>
    apply(const std::shared_ptr<const MicrophoneCalibrationRecord>& current, std::string_view what) const;
    // Gives the record its new calibration, and its channel entry the calibration and sensitivity.
    Expected<void> applyTo(VELTMeasurementRecord& record, std::string_view what) const;
};

} // namespace tavolar::cli
