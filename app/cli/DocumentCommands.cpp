// list, info, set and calibrate: reading and changing the records of a document.

#include "CommandLine.h"
#include "RecordDescription.h"
#include "RecordStore.h"
#include "audio/AudioChannelSensitivity.h"
#include "audio/MicrophoneCalibrationRecord.h"

#include <cmath>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavolar::cli {

namespace {

Expected<std::vector<std::shared_ptr<VELTMeasurementRecord>>>
loadRecords(const RecordStore& store, const std::vector<std::size_t>& indices) {
    std::vector<std::shared_ptr<VELTMeasurementRecord>> records;
    for (std::size_t index : indices) {
        auto record = store.load(index);
        if (!record)
            return std::unexpected(record.error());
        records.push_back(std::move(*record));
    }
    return records;
}

std::string plural(std::size_t count, std::string_view word) {
    return fmt::format("{} {}{}", count, word, count == 1 ? "" : "s");
}

} // namespace

void addListCommand(CLI::App& app, CommandList& commands) {
    struct Options {
        std::string document;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("list", "List the records of a document");
    command->add_option("document", options->document, "The document (*.tavolar)")->required();
    command->add_flag("--json", options->json, "Print JSON for scripts");
    commands.push_back({command, [options]() -> Expected<void> {
                            auto store = RecordStore::open(options->document, RecordStore::Mode::ReadOnly);
                            if (!store)
                                return std::unexpected(store.error());
                            nlohmann::json entries = nlohmann::json::array();
                            for (std::size_t index = 0; index < store->summaries().size(); ++index)
                                entries.push_back(describeSummary(store->summaries()[index], index + 1));
                            if (options->json) {
                                printLine(jsonText(entries));
                            } else if (entries.empty()) {
                                printLine(fmt::format("{} holds no records.", options->document));
                            } else {
                                std::string table = formatSummaryTable(entries);
                                table.pop_back();
                                printLine(table);
                            }
                            return {};
                        }});
}

void addInfoCommand(CLI::App& app, CommandList& commands) {
    struct Options {
        std::string document;
        std::vector<std::string> records;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("info", "Show everything about records: peak, delay, window, sweep, "
                                   "calibration, comments");
    command->add_option("document", options->document, "The document (*.tavolar)")->required();
    command->add_option("records", options->records,
                        "Records by number (as list shows), UUID or UUID prefix; default: all");
    command->add_flag("--json", options->json, "Print JSON for scripts");
    commands.push_back({command, [options]() -> Expected<void> {
                            auto store = RecordStore::open(options->document, RecordStore::Mode::ReadOnly);
                            if (!store)
                                return std::unexpected(store.error());
                            auto indices = store->select(options->records, true);
                            if (!indices)
                                return std::unexpected(indices.error());
                            nlohmann::json descriptions = nlohmann::json::array();
                            for (std::size_t index : *indices) {
                                auto record = store->load(index);
                                if (!record)
                                    return std::unexpected(record.error());
                                descriptions.push_back(describeRecord(**record, index + 1));
                            }
                            if (options->json) {
                                printLine(jsonText(descriptions));
                                return {};
                            }
                            if (descriptions.empty())
                                printLine(fmt::format("{} holds no records.", options->document));
                            for (std::size_t at = 0; at < descriptions.size(); ++at) {
                                std::string text = formatRecordDescription(descriptions[at]);
                                if (at + 1 == descriptions.size())
                                    text.pop_back();
                                printLine(text);
                            }
                            return {};
                        }});
}

void addSetCommand(CLI::App& app, CommandList& commands) {
    struct Options {
        std::string document;
        std::vector<std::string> records;
        std::optional<float> windowBegin;
        std::optional<float> windowEnd;
        std::optional<std::string> windowType;
        std::optional<std::string> comment;
        std::optional<std::string> notes;
        std::optional<std::string> color;
        std::optional<float> splReference;
        bool noSPLReference = false;
        std::optional<double> speedOfSound;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("set", "Change records: window, comment, notes, colour, SPL reference, "
                                  "speed of sound");
    command->add_option("document", options->document, "The document (*.tavolar)")->required();
    command->add_option("records", options->records, "Records by number, UUID or UUID prefix, or all")
        ->required();
    command->add_option("--window-begin", options->windowBegin,
                        "Window begin, ms from time zero (may be negative)");
    command->add_option("--window-end", options->windowEnd, "Window end, ms from time zero");
    command->add_option("--window-type", options->windowType, "Window taper")
        ->check(CLI::IsMember(windowTypeNames()));
    command->add_option("--comment", options->comment, "The comment, which is also the record's name");
    command->add_option("--notes", options->notes, "Notes");
    command->add_option("--color", options->color, "Curve colour: #RRGGBB or a name such as red");
    auto* reference =
        command->add_option("--spl-reference", options->splReference, "Use this SPL reference level, dB");
    command->add_flag("--no-spl-reference", options->noSPLReference, "Stop using the SPL reference level")
        ->excludes(reference);
    command->add_option("--speed-of-sound", options->speedOfSound, "Speed of sound for distances, m/s");
    commands.push_back(
        {command, [options]() -> Expected<void> {
             const bool changesWindow = options->windowBegin || options->windowEnd || options->windowType;
             if (!changesWindow && !options->comment && !options->notes && !options->color &&
                 !options->splReference && !options->noSPLReference && !options->speedOfSound)
                 return usageFailure("Nothing to change: give at least one option such as "
                                     "--window-end or --comment.",
                                     "Run tavolar set --help to see them.");
             std::optional<ArchivedColor> color;
             if (options->color) {
                 color = parseColor(*options->color);
                 if (!color)
                     return usageFailure(fmt::format("{} is not a colour.", *options->color),
                                         "Give #RRGGBB, such as #1F77B4, or a name such as red.");
             }
             if (options->speedOfSound &&
                 !(*options->speedOfSound > 0.0 && *options->speedOfSound < 100000.0))
                 return usageFailure("The speed of sound must be a positive number of m/s.");
             if (options->splReference && !std::isfinite(*options->splReference))
                 return usageFailure("The SPL reference must be a number of dB.");
             for (std::optional<float> value : {options->windowBegin, options->windowEnd})
                 if (value && !std::isfinite(*value))
                     return usageFailure("Window times must be numbers of ms.");

             auto store = RecordStore::open(options->document, RecordStore::Mode::ReadWrite);
             if (!store)
                 return std::unexpected(store.error());
             auto indices = store->select(options->records, false);
             if (!indices)
                 return std::unexpected(indices.error());
             auto records = loadRecords(*store, *indices);
             if (!records)
                 return std::unexpected(records.error());

             // Everything is checked before anything is changed.
             for (std::size_t at = 0; at < records->size(); ++at) {
                 const VELTMeasurementRecord& record = *(*records)[at];
                 if (!changesWindow)
                     continue;
                 auto impulse = record.impulseResponse();
                 if (!impulse || record.sampleRate() <= 0)
                     return failure(
                         fmt::format("Record {} has no impulse response to window.", (*indices)[at] + 1));
                 const std::int64_t begin = options->windowBegin
                                                ? record.samplesFromMilliseconds(*options->windowBegin)
                                                : record.windowBegin();
                 const std::int64_t end = options->windowEnd
                                              ? record.samplesFromMilliseconds(*options->windowEnd)
                                              : record.windowEnd();
                 const std::int64_t earliest = record.minimumImpulseSampleIndex();
                 const std::int64_t latest = record.impulseMidpoint();
                 const double msPerSample = 1000.0 / static_cast<double>(record.sampleRate());
                 if (begin >= end)
                     return failure(fmt::format("The window of record {} would end ({:.3f} ms) before "
                                                "it begins ({:.3f} ms).",
                                                (*indices)[at] + 1, end * msPerSample, begin * msPerSample),
                                    "Give a window end after its begin.");
                 if (begin < earliest || end > latest)
                     return failure(
                         fmt::format("The window {:.3f} ms to {:.3f} ms lies outside the impulse "
                                     "response of record {}, which runs from {:.3f} ms to {:.3f} ms.",
                                     begin * msPerSample, end * msPerSample, (*indices)[at] + 1,
                                     earliest * msPerSample, latest * msPerSample),
                         "Choose a window within the response.");
             }

             for (const auto& record : *records) {
                 if (changesWindow) {
                     VELTWindow window = record->impulseResponseWindow();
                     if (options->windowBegin)
                         window.setBegin(record->samplesFromMilliseconds(*options->windowBegin));
                     if (options->windowEnd)
                         window.setEnd(record->samplesFromMilliseconds(*options->windowEnd));
                     if (options->windowType)
                         window.setType(*windowTypeFromName(*options->windowType));
                     record->setImpulseResponseWindow(window);
                 }
                 if (options->comment)
                     record->setComment(*options->comment);
                 if (options->notes)
                     record->setNotes(*options->notes);
                 if (color)
                     record->setPlotColor(*color);
                 if (options->splReference) {
                     record->setSPLReferenceLevel(*options->splReference);
                     record->setUseSPLReferenceLevel(true);
                 }
                 if (options->noSPLReference)
                     record->setUseSPLReferenceLevel(false);
                 if (options->speedOfSound)
                     record->setSpeedOfSound(*options->speedOfSound);
             }
             if (auto saved = store->save(*records, {}); !saved)
                 return saved;
             printLine(
                 fmt::format("Changed {} in {}.", plural(records->size(), "record"), options->document));
             return {};
         }});
}

namespace {

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

struct CalibrationChange {
    std::shared_ptr<const MicrophoneCalibrationRecord> fromFile;
    std::optional<double> sensitivity;
    std::optional<MicrophoneSensitivityUnit> sensitivityUnit;
    std::optional<AudioChannelSensitivity> channelSensitivity;
    bool remove = false;

    // The calibration a channel or record ends up with, starting from the one it has.
    Expected<std::shared_ptr<const MicrophoneCalibrationRecord>>
    apply(const std::shared_ptr<const MicrophoneCalibrationRecord>& current, std::string_view what) const {
        if (remove)
            return std::shared_ptr<const MicrophoneCalibrationRecord>();
        std::shared_ptr<const MicrophoneCalibrationRecord> base = fromFile ? fromFile : current;
        if (!sensitivity && !sensitivityUnit)
            return base;
        if (!base)
            return usageFailure(
                fmt::format("{} has no microphone calibration to give a sensitivity to.", what),
                "Give the calibration file with --file.");
        auto changed = std::make_shared<MicrophoneCalibrationRecord>(*base);
        if (sensitivity)
            changed->setSensitivity(*sensitivity);
        if (sensitivityUnit)
            changed->setSensitivityUnits(*sensitivityUnit);
        return std::shared_ptr<const MicrophoneCalibrationRecord>(std::move(changed));
    }
};

} // namespace

void addCalibrateCommand(CLI::App& app, CommandList& commands) {
    struct Options {
        std::string document;
        std::vector<std::string> records;
        std::optional<std::string> file;
        std::optional<double> sensitivity;
        std::optional<std::string> sensitivityUnit;
        std::optional<double> channelSensitivity;
        std::string channelUnit = "dBV";
        bool captureSettings = false;
        std::vector<std::int64_t> channels;
        bool remove = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "calibrate",
        "Attach a microphone calibration file and sensitivities to records, or to the channels of "
        "the document's capture settings (used by later measurements)");
    command->add_option("document", options->document, "The document (*.tavolar)")->required();
    command->add_option("records", options->records, "Records by number, UUID or UUID prefix, or all");
    auto* file =
        command->add_option("--file", options->file, "Microphone calibration file (frequency, dB, phase)");
    command->add_option("--sensitivity", options->sensitivity,
                        "Microphone sensitivity, in --sensitivity-unit");
    command
        ->add_option("--sensitivity-unit", options->sensitivityUnit,
                     "mV/Pa, dBV/uBar or dBFS (default mV/Pa)")
        ->check(CLI::IsMember({"mV/Pa", "dBV/uBar", "dBV/µBar", "dBFS"}));
    command->add_option("--channel-sensitivity", options->channelSensitivity,
                        "Full-scale level of the input channel, in --channel-unit");
    command->add_option("--channel-unit", options->channelUnit, "dBu, dBV or dBFS")
        ->check(CLI::IsMember({"dBu", "dBV", "dBFS"}))
        ->capture_default_str();
    auto* capture = command->add_flag("--capture-settings", options->captureSettings,
                                      "Change the document's capture settings instead of records");
    command
        ->add_option("--channel", options->channels,
                     "With --capture-settings: the input channels (default 0)")
        ->needs(capture);
    command->add_flag("--remove", options->remove, "Remove the microphone calibration")->excludes(file);
    commands.push_back(
        {command, [options]() -> Expected<void> {
             if (!options->file && !options->sensitivity && !options->sensitivityUnit &&
                 !options->channelSensitivity && !options->remove)
                 return usageFailure("Nothing to attach: give --file, --sensitivity, "
                                     "--channel-sensitivity or --remove.");
             if (options->captureSettings && !options->records.empty())
                 return usageFailure("--capture-settings changes the document's channels, not "
                                     "records: leave out the record numbers.");
             CalibrationChange change;
             change.remove = options->remove;
             change.sensitivity = options->sensitivity;
             if (options->sensitivityUnit)
                 change.sensitivityUnit = microphoneUnitFromName(*options->sensitivityUnit);
             else if (options->sensitivity)
                 change.sensitivityUnit = MicrophoneSensitivityUnit::millivoltsPerPascal;
             if (options->channelSensitivity) {
                 if (!std::isfinite(*options->channelSensitivity))
                     return usageFailure("The channel sensitivity must be a number.");
                 change.channelSensitivity = AudioChannelSensitivity(
                     *options->channelSensitivity, *channelUnitFromName(options->channelUnit));
             }
             if (options->sensitivity && !std::isfinite(*options->sensitivity))
                 return usageFailure("The sensitivity must be a number.");
             if (options->file) {
                 auto calibration =
                     MicrophoneCalibrationRecord::initWithContentsOfCalibrationFileAtURL(*options->file);
                 if (!calibration) {
                     // The loader's suggestion names the line at fault; the general shape of a file
                     // is the fallback when it has none.
                     const std::string& suggestion = calibration.error().localizedRecoverySuggestion;
                     return failure(
                         fmt::format("{}: {}", *options->file, calibration.error().localizedDescription),
                         suggestion.empty() ? "A calibration file holds lines of frequency (Hz), magnitude "
                                              "(dB) and optionally phase (degrees)."
                                            : suggestion);
                 }
                 change.fromFile =
                     std::make_shared<const MicrophoneCalibrationRecord>(std::move(*calibration));
             }

             auto store = RecordStore::open(options->document, options->captureSettings
                                                                   ? RecordStore::Mode::CreateIfMissing
                                                                   : RecordStore::Mode::ReadWrite);
             if (!store)
                 return std::unexpected(store.error());

             if (options->captureSettings) {
                 auto stored = store->captureSettings();
                 if (!stored)
                     return std::unexpected(stored.error());
                 VELTAudioCaptureSettings settings =
                     *stored ? std::move(**stored) : VELTAudioCaptureSettings();
                 std::vector<RecordChannelEntry> entries = settings.recordChannelEntries();
                 std::vector<std::int64_t> channels =
                     options->channels.empty() ? std::vector<std::int64_t>{0} : options->channels;
                 for (std::int64_t channel : channels) {
                     if (channel < 0)
                         return usageFailure("Channels are counted from 0.");
                     auto entry = std::find_if(entries.begin(), entries.end(),
                                               [&](const auto& e) { return e.channel() == channel; });
                     if (entry == entries.end())
                         entry = entries.insert(entries.end(),
                                                RecordChannelEntry(channel, nullptr, std::nullopt));
                     auto calibration =
                         change.apply(entry->calibrationRecord(), fmt::format("Input channel {}", channel));
                     if (!calibration)
                         return std::unexpected(calibration.error());
                     entry->setCalibrationRecord(*calibration);
                     if (change.channelSensitivity)
                         entry->setSensitivity(change.channelSensitivity);
                 }
                 settings.setRecordChannelEntries(entries);
                 if (auto saved = store->putCaptureSettings(settings); !saved)
                     return saved;
                 printLine(fmt::format("Changed the calibration of {} in the capture settings of "
                                       "{}.",
                                       plural(channels.size(), "input channel"), options->document));
                 return {};
             }

             auto indices = store->select(options->records, false);
             if (!indices)
                 return std::unexpected(indices.error());
             auto records = loadRecords(*store, *indices);
             if (!records)
                 return std::unexpected(records.error());
             for (std::size_t at = 0; at < records->size(); ++at) {
                 VELTMeasurementRecord& record = *(*records)[at];
                 auto calibration = change.apply(record.microphoneCalibrationRecord(),
                                                 fmt::format("Record {}", (*indices)[at] + 1));
                 if (!calibration)
                     return std::unexpected(calibration.error());
                 record.setMicrophoneCalibrationRecord(*calibration);
                 record.setUseMicrophoneCalibrationRecord(*calibration != nullptr);
                 std::optional<RecordChannelEntry> entry = record.recordChannelEntry();
                 if (!entry && (change.channelSensitivity || *calibration))
                     entry = RecordChannelEntry(0, nullptr, std::nullopt);
                 if (entry) {
                     entry->setCalibrationRecord(*calibration);
                     if (change.channelSensitivity)
                         entry->setSensitivity(change.channelSensitivity);
                     record.setRecordChannelEntry(entry);
                 }
             }
             if (auto saved = store->save(*records, {}); !saved)
                 return saved;
             std::string what =
                 options->remove ? "Removed the microphone calibration of" : "Changed the calibration of";
             printLine(
                 fmt::format("{} {} in {}.", what, plural(records->size(), "record"), options->document));
             return {};
         }});
}

} // namespace tavolar::cli
