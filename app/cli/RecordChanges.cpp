// Checking and applying what set and calibrate change in records.

#include "RecordChanges.h"

#include "CommandLine.h"
#include "RecordDescription.h"

#include <cctype>
#include <cmath>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace tavolar::cli {

Expected<void> RecordChanges::check() const {
    for (const auto* text : {&comment, &notes})
        if (*text && !isValidUTF8(**text))
            return usageFailure(
                fmt::format("The {} given is not valid UTF-8.", text == &comment ? "comment" : "notes"),
                "Give text in UTF-8 (check the terminal's encoding and the locale).");
    if (windowType && !windowTypeFromName(*windowType))
        return usageFailure(fmt::format("{} is not a window type; the types are {}.", *windowType,
                                        fmt::join(windowTypeNames(), ", ")));
    if (color && !parseColor(*color))
        return usageFailure(fmt::format("{} is not a colour.", *color),
                            "Give #RRGGBB, such as #1F77B4, or a name such as red.");
    if (speedOfSound && !(*speedOfSound > 0.0 && *speedOfSound < 100000.0))
        return usageFailure("The speed of sound must be a positive number of m/s.");
    if (splReference && !std::isfinite(*splReference))
        return usageFailure("The SPL reference must be a number of dB.");
    for (std::optional<float> value : {windowBegin, windowEnd})
        if (value && !std::isfinite(*value))
            return usageFailure("Window times must be numbers of ms.");
    return {};
}

Expected<void> RecordChanges::checkWindow(const VELTMeasurementRecord& record, std::string_view what) const {
    if (!changesWindow())
        return {};
    const std::string of = what.empty() ? std::string() : fmt::format(" of {}", what);
    if (!record.impulseResponse() || record.sampleRate() <= 0)
        return failure(what.empty() ? std::string("The record has no impulse response to window.")
                                    : fmt::format("{}{} has no impulse response to window.",
                                                  static_cast<char>(std::toupper(what[0])), what.substr(1)));
    const std::int64_t begin =
        windowBegin ? record.samplesFromMilliseconds(*windowBegin) : record.windowBegin();
    const std::int64_t end = windowEnd ? record.samplesFromMilliseconds(*windowEnd) : record.windowEnd();
    const std::int64_t earliest = record.minimumImpulseSampleIndex();
    const std::int64_t latest = record.impulseMidpoint();
    const double msPerSample = 1000.0 / static_cast<double>(record.sampleRate());
    if (begin >= end)
        return failure(fmt::format("The window{} would end ({:.3f} ms) before it begins ({:.3f} ms).", of,
                                   end * msPerSample, begin * msPerSample),
                       "Give a window end after its begin.");
    if (begin < earliest || end > latest)
        return failure(
            fmt::format("The window {:.3f} ms to {:.3f} ms lies outside the impulse response{}, which "
                        "runs from {:.3f} ms to {:.3f} ms.",
                        begin * msPerSample, end * msPerSample, of, earliest * msPerSample,
                        latest * msPerSample),
            "Choose a window within the response.");
    return {};
}

void RecordChanges::apply(VELTMeasurementRecord& record) const {
    if (changesWindow()) {
        VELTWindow window = record.impulseResponseWindow();
        if (windowBegin)
            window.setBegin(record.samplesFromMilliseconds(*windowBegin));
        if (windowEnd)
            window.setEnd(record.samplesFromMilliseconds(*windowEnd));
        if (windowType)
            window.setType(*windowTypeFromName(*windowType));
        record.setImpulseResponseWindow(window);
    }
    if (comment)
        record.setComment(*comment);
    if (notes)
        record.setNotes(*notes);
    if (color)
        record.setPlotColor(*parseColor(*color));
    if (splReference) {
        record.setSPLReferenceLevel(*splReference);
        record.setUseSPLReferenceLevel(true);
    }
    if (noSPLReference)
        record.setUseSPLReferenceLevel(false);
    if (speedOfSound)
        record.setSpeedOfSound(*speedOfSound);
}

std::optional<MicrophoneSensitivityUnit> microphoneUnitFromName(std::string_view name) {
    if (name == "mV/Pa")
        return MicrophoneSensitivityUnit::millivoltsPerPascal;
    if (name == "dBV/uBar" || name == "dBV/µBar")
        return MicrophoneSensitivityUnit::dBVPerMicrobar;
    if (name == "dBFS")
        return MicrophoneSensitivityUnit::dBFS;
    return std::nullopt;
}

std::optional<AudioChannelSensitivityUnit> channelUnitFromName(std::string_view name) {
    if (name == "dBu")
        return AudioChannelSensitivityUnit::dBu;
    if (name == "dBV")
        return AudioChannelSensitivityUnit::dBV;
    if (name == "dBFS")
        return AudioChannelSensitivityUnit::dBFS;
    return std::nullopt;
}

Expected<std::shared_ptr<const MicrophoneCalibrationRecord>> readCalibrationFile(const std::string& path) {
    auto calibration = MicrophoneCalibrationRecord::initWithContentsOfCalibrationFileAtURL(path);
    if (!calibration) {
        // The loader's suggestion names the line at fault; the general shape of a file is the fallback
        // when it has none.
        const std::string& suggestion = calibration.error().localizedRecoverySuggestion;
        return failure(fmt::format("{}: {}", path, calibration.error().localizedDescription),
                       suggestion.empty()
                           ? "A calibration file holds lines of frequency (Hz), magnitude (dB) "
                             "and optionally phase (degrees)."
                           : suggestion);
    }
    // The microphone is named after the file, whose name may be in any encoding.
    calibration->setName(validUTF8(calibration->name()));
    return std::make_shared<const MicrophoneCalibrationRecord>(std::move(*calibration));
}

Expected<std::shared_ptr<const MicrophoneCalibrationRecord>>
CalibrationChange::apply(const std::shared_ptr<const MicrophoneCalibrationRecord>& current,
                         std::string_view what) const {
    if (remove)
        return std::shared_ptr<const MicrophoneCalibrationRecord>();
    std::shared_ptr<const MicrophoneCalibrationRecord> base = fromFile ? fromFile : current;
    if (!sensitivity && !sensitivityUnit)
        return base;
    if (!base)
        return usageFailure(fmt::format("{} has no microphone calibration to give a sensitivity to.", what),
                            "Give the calibration file too.");
    auto changed = std::make_shared<MicrophoneCalibrationRecord>(*base);
    if (sensitivity)
        changed->setSensitivity(*sensitivity);
    if (sensitivityUnit)
        changed->setSensitivityUnits(*sensitivityUnit);
    return std::shared_ptr<const MicrophoneCalibrationRecord>(std::move(changed));
}

Expected<void> CalibrationChange::applyTo(VELTMeasurementRecord& record, std::string_view what) const {
    auto calibration = apply(record.microphoneCalibrationRecord(), what);
    if (!calibration)
        return std::unexpected(calibration.error());
    record.setMicrophoneCalibrationRecord(*calibration);
    record.setUseMicrophoneCalibrationRecord(*calibration != nullptr);
    std::optional<RecordChannelEntry> entry = record.recordChannelEntry();
    if (!entry && (channelSensitivity || *calibration))
        entry = RecordChannelEntry(0, nullptr, std::nullopt);
    if (entry) {
        entry->setCalibrationRecord(*calibration);
        if (channelSensitivity)
            entry->setSensitivity(channelSensitivity);
        record.setRecordChannelEntry(entry);
    }
    return {};
}

} // namespace tavolar::cli
