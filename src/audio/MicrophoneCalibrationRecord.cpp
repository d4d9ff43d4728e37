#include "audio/MicrophoneCalibrationRecord.h"

#include "audio/CalibrationFileCheck.h"
#include "audio/DecimalNumberFormatter.h"
#include "platform/TavolarLocalizedString.h"
#include "platform/UUID.h"

#include <cerrno>
#include <cstdio>
#include <fmt/format.h>
#include <system_error>
#include <vector>

namespace tavolar {

namespace {
constexpr std::string_view kNameKey = "Name";
constexpr std::string_view kSerialNumberKey = "SerialNumber";
constexpr std::string_view kMagnitudeSplineKey = "MagnitudeSpline";
constexpr std::string_view kPhaseSplineKey = "PhaseSpline";
constexpr std::string_view kSensitivityKey = "Sensitivity";
constexpr std::string_view kSensitivityUnitsKey = "SensitivityUnits";
constexpr std::string_view kUUIDKey = "UUID";

TavolarError fileReadingError(const std::filesystem::path& url, int code) {
    return TavolarError{
        std::string(kTavolarErrorDomain), code,
        fmt::format(fmt::runtime(TavolarLocalizedString("The file “{}” couldn’t be opened: {}.",
                                                        "Displayed when a calibration file cannot be read.")),
                    url.filename().string(), std::error_code(code, std::generic_category()).message()),
        TavolarLocalizedString("Check that the file exists and that you may read it.",
                               "Recovery suggestion when a calibration file cannot be read.")};
}

Expected<std::vector<std::byte>> contentsOfFile(const std::filesystem::path& url) {
    std::FILE* file = std::fopen(url.c_str(), "rb");
    if (!file)
        return std::unexpected(fileReadingError(url, errno));
    std::vector<std::byte> contents;
    std::byte buffer[65536];
    std::size_t count;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0)
        contents.insert(contents.end(), buffer, buffer + count);
    const bool failed = std::ferror(file) != 0;
    const int code = errno;
    std::fclose(file);
    if (failed)
        return std::unexpected(fileReadingError(url, code != 0 ? code : EIO));
    return contents;
}
} // namespace

std::string_view labelForMicrophoneSensitivityUnit(MicrophoneSensitivityUnit unit) noexcept {
    switch (unit) {
    case MicrophoneSensitivityUnit::millivoltsPerPascal:
        return "mV/Pa";
    case MicrophoneSensitivityUnit::dBVPerMicrobar:
        return "dBV/µBar";
    case MicrophoneSensitivityUnit::dBFS:
        return "dBFS";
    }
    return {};
}

MicrophoneCalibrationRecord::MicrophoneCalibrationRecord(std::string name,
                                                         std::optional<std::string> serialNumber,
                                                         std::shared_ptr<const VELTSpline> magnitudeSpline,
                                                         std::shared_ptr<const VELTSpline> phaseSpline)
    : name_(std::move(name)), serialNumber_(std::move(serialNumber)),
      magnitudeSpline_(std::move(magnitudeSpline)), phaseSpline_(std::move(phaseSpline)),
      uuidString_(newUUIDString()) {}

Expected<MicrophoneCalibrationRecord>
MicrophoneCalibrationRecord::initWithCalibrationFileData(std::span<const std::byte> data, std::string name) {
    auto points = checkedCalibrationFile(data);
    if (!points)
        return std::unexpected(std::move(points.error()));
    auto magnitude = std::make_shared<const VELTSpline>(points->frequency, points->magnitude);
    auto phase = std::make_shared<const VELTSpline>(points->frequency, points->phase);
    return MicrophoneCalibrationRecord(std::move(name), std::nullopt, std::move(magnitude), std::move(phase));
}

Expected<MicrophoneCalibrationRecord>
MicrophoneCalibrationRecord::initWithContentsOfCalibrationFileAtURL(const std::filesystem::path& url) {
    auto contents = contentsOfFile(url);
    if (!contents)
        return std::unexpected(contents.error());
    return initWithCalibrationFileData(*contents, url.stem().string());
}

std::string MicrophoneCalibrationRecord::sensitivityLabel() const {
    const std::string number = DecimalNumberFormatter(2).stringFromNumber(sensitivity_).value_or("(invalid)");
    return fmt::format("{} {}", number, labelForMicrophoneSensitivityUnit(sensitivityUnits_));
}

std::string MicrophoneCalibrationRecord::description() const {
    return "Microphone Record: " + name_ + ", S/N: " + serialNumber_.value_or("(n/a)");
}

void MicrophoneCalibrationRecord::encodeWithCoder(KeyedArchiver& coder) const {
    coder.encodeString(name_, kNameKey);
    if (serialNumber_)
        coder.encodeString(*serialNumber_, kSerialNumberKey);
    else
        coder.encodeNull(kSerialNumberKey);
    encodeSpline(coder, magnitudeSpline_, kMagnitudeSplineKey);
    encodeSpline(coder, phaseSpline_, kPhaseSplineKey);
    coder.encodeDouble(sensitivity_, kSensitivityKey);
    coder.encodeInt64(static_cast<std::int64_t>(sensitivityUnits_), kSensitivityUnitsKey);
    coder.encodeString(uuidString_, kUUIDKey);
}

MicrophoneCalibrationRecord MicrophoneCalibrationRecord::initWithCoder(KeyedUnarchiver& coder) {
    MicrophoneCalibrationRecord record{Undecoded{}};
    record.name_ = coder.decodeString(kNameKey).value_or(std::string());
    record.serialNumber_ = coder.decodeString(kSerialNumberKey);
    record.magnitudeSpline_ = decodeSpline(coder, kMagnitudeSplineKey);
    record.phaseSpline_ = decodeSpline(coder, kPhaseSplineKey);
    if (coder.containsValueForKey(kSensitivityKey))
        record.sensitivity_ = coder.decodeDouble(kSensitivityKey);
    if (coder.containsValueForKey(kSensitivityUnitsKey)) {
        const std::int64_t raw = coder.decodeInt64(kSensitivityUnitsKey);
        if (raw >= 0 && raw <= 2)
            record.sensitivityUnits_ = static_cast<MicrophoneSensitivityUnit>(raw);
    }
    // Identity must never be empty: two records without one would compare equal.
    record.uuidString_ = coder.decodeString(kUUIDKey).value_or(std::string());
    if (record.uuidString_.empty())
        record.uuidString_ = newUUIDString();
    return record;
}

} // namespace tavolar
