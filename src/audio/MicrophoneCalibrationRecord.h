#pragma once
// One measurement microphone: name, serial number, sensitivity with its unit, and its correction
// curve as magnitude and phase splines over frequency. Identity is the UUID string alone. Shared
// between record channels and measurement records as std::shared_ptr<const MicrophoneCalibrationRecord>.

#include "core/VELTSpline.h"
#include "platform/KeyedArchiver.h"
#include "platform/TavolarError.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tavolar {

enum class MicrophoneSensitivityUnit : std::int64_t {
    millivoltsPerPascal = 0, // "mV/Pa"
    dBVPerMicrobar = 1,      // "dBV/µBar"
    dBFS = 2,                // "dBFS": the value itself is the offset from dBFS to dB SPL
};

// "mV/Pa", "dBV/µBar" or "dBFS"; an empty text for a raw value outside the three.
std::string_view labelForMicrophoneSensitivityUnit(MicrophoneSensitivityUnit unit) noexcept;

class MicrophoneCalibrationRecord {
public:
    static constexpr std::string_view className = "MicrophoneCalibrationRecord";

    // A record made from a file knows nothing of the microphone's sensitivity: 0 dBFS leaves
    // levels as they are until the user enters the real figure.
    static constexpr double kDefaultSensitivity = 0.0;
    static constexpr MicrophoneSensitivityUnit kDefaultSensitivityUnits = MicrophoneSensitivityUnit::dBFS;

    MicrophoneCalibrationRecord() = delete;
    // A new record with a fresh UUID; either spline may be null.
    MicrophoneCalibrationRecord(std::string name, std::optional<std::string> serialNumber,
                                std::shared_ptr<const VELTSpline> magnitudeSpline,
                                std::shared_ptr<const VELTSpline> phaseSpline);

    // Parses a calibration file's bytes and checks its points (see CalibrationFileCheck.h). A file
    // that cannot be parsed, or whose points make no curve, gives the error of domain
    // "TavolarCalibrationParsing", code -1, "Failed to parse calibration file".
    static Expected<MicrophoneCalibrationRecord> initWithCalibrationFileData(std::span<const std::byte> data,
                                                                             std::string name);
    // Reads the whole file, names the record after the file without its extension, and parses it.
    // A file that cannot be read gives the reading error.
    static Expected<MicrophoneCalibrationRecord>
    initWithContentsOfCalibrationFileAtURL(const std::filesystem::path& url);

    const std::string& name() const noexcept { return name_; }
    void setName(std::string name) { name_ = std::move(name); }
    const std::optional<std::string>& serialNumber() const noexcept { return serialNumber_; }
    void setSerialNumber(std::optional<std::string> serialNumber) { serialNumber_ = std::move(serialNumber); }
    double sensitivity() const noexcept { return sensitivity_; }
    void setSensitivity(double sensitivity) noexcept { sensitivity_ = sensitivity; }
    MicrophoneSensitivityUnit sensitivityUnits() const noexcept { return sensitivityUnits_; }
    void setSensitivityUnits(MicrophoneSensitivityUnit units) noexcept { sensitivityUnits_ = units; }
    const std::shared_ptr<const VELTSpline>& magnitudeSpline() const noexcept { return magnitudeSpline_; }
    void setMagnitudeSpline(std::shared_ptr<const VELTSpline> spline) {
        magnitudeSpline_ = std::move(spline);
    }
    const std::shared_ptr<const VELTSpline>& phaseSpline() const noexcept { return phaseSpline_; }
    void setPhaseSpline(std::shared_ptr<const VELTSpline> spline) { phaseSpline_ = std::move(spline); }
    const std::string& uuidString() const noexcept { return uuidString_; }
    void setUUIDString(std::string uuid) { uuidString_ = std::move(uuid); }

    // The sensitivity with up to two fraction digits and its unit label: "12.5 mV/Pa".
    std::string sensitivityLabel() const;
    // "Microphone Record: <name>, S/N: <serial number or (n/a)>".
    std::string description() const;

    // Equal exactly when the UUID strings are equal; nothing else takes part.
    bool isEqualToMicrophoneCalibrationRecord(const MicrophoneCalibrationRecord& other) const noexcept {
        return uuidString_ == other.uuidString_;
    }
    bool operator==(const MicrophoneCalibrationRecord& other) const noexcept {
        return isEqualToMicrophoneCalibrationRecord(other);
    }
    std::size_t hash() const noexcept { return std::hash<std::string>{}(uuidString_); }

    // A copy keeps the identity and shares the splines.
    void encodeWithCoder(KeyedArchiver& coder) const;
    // Absent keys give an empty name, no serial number, no splines and the default sensitivity; an
    // absent or unknown unit gives the default unit. An archive without "UUID" gets a fresh one.
    static MicrophoneCalibrationRecord initWithCoder(KeyedUnarchiver& coder);

private:
    struct Undecoded {};
    explicit MicrophoneCalibrationRecord(Undecoded) {}

    std::string name_;
    std::optional<std::string> serialNumber_;
    double sensitivity_ = kDefaultSensitivity;
    MicrophoneSensitivityUnit sensitivityUnits_ = kDefaultSensitivityUnits;
    std::shared_ptr<const VELTSpline> magnitudeSpline_;
    std::shared_ptr<const VELTSpline> phaseSpline_;
    std::string uuidString_;
};

} // namespace tavolar

template <> struct std::hash<tavolar::MicrophoneCalibrationRecord> {
    std::size_t operator()(const tavolar::MicrophoneCalibrationRecord& record) const noexcept {
        return record.hash();
    }
};
