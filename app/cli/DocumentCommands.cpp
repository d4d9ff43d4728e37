// list, info, set, calibrate, rename, delete and copy: reading and changing the records of a document.

#include "CommandLine.h"
#include "RecordChanges.h"
#include "RecordDescription.h"
#include "RecordStore.h"
#include "audio/AudioChannelSensitivity.h"
#include "audio/MicrophoneCalibrationRecord.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <memory>
#include <optional>
#include <set>
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

namespace {

// What info --capture-settings shows: the devices, output channels, loop-back and input channels
// (with their calibrations and sensitivities) that measure uses next; null when there are none.
nlohmann::json describeCaptureSettings(const std::optional<VELTAudioCaptureSettings>& settings) {
    if (!settings)
        return nullptr;
    auto text = [](const std::optional<std::string>& value) {
        return value ? nlohmann::json(*value) : nlohmann::json(nullptr);
    };
    nlohmann::json json;
    json["recordDevice"] = text(settings->recordDeviceUID());
    json["playbackDevice"] = text(settings->playbackDeviceUID());
    json["playbackChannels"] = settings->playbackDeviceUID() || settings->playbackChannels()
                                   ? nlohmann::json(settings->playbackChannelArray())
                                   : nlohmann::json(nullptr);
    json["loopback"] = settings->correctionEnabled()
                           ? nlohmann::json{{"output", settings->correctionPlaybackChannel()},
                                            {"input", settings->correctionRecordChannel()}}
                           : nlohmann::json(nullptr);
    json["inputs"] = nlohmann::json::array();
    for (const RecordChannelEntry& entry : settings->recordChannelEntries()) {
        nlohmann::json input{{"channel", entry.channel()},
                             {"sensitivity", entry.sensitivity()
                                                 ? nlohmann::json(entry.sensitivity()->stringValue())
                                                 : nlohmann::json(nullptr)},
                             {"splOffsetDecibels", entry.dBSPLOffsetValue()}};
        if (const auto& calibration = entry.calibrationRecord())
            input["calibration"] = {
                {"microphone", calibration->name()},
                {"sensitivity", calibration->sensitivity()},
                {"sensitivityUnit",
                 std::string(labelForMicrophoneSensitivityUnit(calibration->sensitivityUnits()))},
                {"points",
                 calibration->magnitudeSpline() ? calibration->magnitudeSpline()->x().length() : 0}};
        else
            input["calibration"] = nullptr;
        json["inputs"].push_back(std::move(input));
    }
    return json;
}

std::string formatCaptureSettings(const nlohmann::json& json) {
    auto textOr = [](const nlohmann::json& value, std::string_view otherwise) {
        return value.is_string() ? value.get<std::string>() : std::string(otherwise);
    };
    std::string text = "Capture settings:\n";
    text += fmt::format("  Record device    {}\n", textOr(json["recordDevice"], "not chosen"));
    std::string playback = textOr(json["playbackDevice"], "not chosen");
    if (json["playbackChannels"].is_array())
        playback += fmt::format(", output {}",
                                fmt::join(json["playbackChannels"].get<std::vector<std::uint64_t>>(), ","));
    text += fmt::format("  Playback device  {}\n", playback);
    if (const auto& loopback = json["loopback"]; loopback.is_object())
        text += fmt::format("  Loop-back        output {} to input {}\n",
                            loopback["output"].get<std::int64_t>(), loopback["input"].get<std::int64_t>());
    else
        text += "  Loop-back        none\n";
    if (json["inputs"].empty())
        text += "  Inputs           none\n";
    for (const nlohmann::json& input : json["inputs"]) {
        std::string value = "no calibration";
        if (const auto& calibration = input["calibration"]; calibration.is_object())
            value = fmt::format("{}, {:g} {}, {} points", calibration["microphone"].get<std::string>(),
                                calibration["sensitivity"].get<double>(),
                                calibration["sensitivityUnit"].get<std::string>(),
                                calibration["points"].get<std::size_t>());
        if (input["sensitivity"].is_string())
            value += fmt::format(", full scale {}", input["sensitivity"].get<std::string>());
        value += fmt::format(" (SPL offset {:.2f} dB)", input["splOffsetDecibels"].get<double>());
        text += fmt::format("  Input {:<10} {}\n", input["channel"].get<std::int64_t>(), value);
    }
    return text;
}

} // namespace

void addInfoCommand(CLI::App& app, CommandList& commands) {
    struct Options {
        std::string document;
        std::vector<std::string> records;
        bool json = false;
        bool captureSettings = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("info", "Show everything about records: peak, delay, window, sweep, "
                                   "calibration, comments; or the document's capture settings");
    command->add_option("document", options->document, "The document (*.tavolar)")->required();
    command->add_option("records", options->records,
                        "Records by number (as list shows), UUID or UUID prefix; default: all");
    command->add_flag("--capture-settings", options->captureSettings,
                      "Show the document's capture settings (devices, channels, calibrations) instead of "
                      "records");
    command->add_flag("--json", options->json, "Print JSON for scripts");
    commands.push_back({command, [options]() -> Expected<void> {
                            if (options->captureSettings && !options->records.empty())
                                return usageFailure("--capture-settings shows the document's channels, not "
                                                    "records: leave out the record numbers.");
                            auto store = RecordStore::open(options->document, RecordStore::Mode::ReadOnly);
                            if (!store)
                                return std::unexpected(store.error());
                            if (options->captureSettings) {
                                auto settings = store->captureSettings();
                                if (!settings)
                                    return std::unexpected(settings.error());
                                nlohmann::json description = describeCaptureSettings(*settings);
                                if (options->json) {
                                    printLine(jsonText(description));
                                } else if (description.is_null()) {
                                    printLine(fmt::format("{} holds no capture settings: measure keeps them, "
                                                          "and calibrate --capture-settings sets them.",
                                                          options->document));
                                } else {
                                    std::string text = formatCaptureSettings(description);
                                    text.pop_back();
                                    printLine(text);
                                }
                                return {};
                            }
                            auto indices = store->select(options->records, true);
                            if (!indices)
                                return std::unexpected(indices.error());
                            // A record that cannot be read does not hide the others: they are shown,
                            // and the first failure is reported after them.
                            nlohmann::json descriptions = nlohmann::json::array();
                            std::optional<TavolarError> unreadable;
                            std::size_t unreadableCount = 0;
                            for (std::size_t index : *indices) {
                                auto record = store->load(index);
                                if (!record) {
                                    if (!unreadable)
                                        unreadable = record.error();
                                    ++unreadableCount;
                                    continue;
                                }
                                descriptions.push_back(
                                    describeRecord(**record, index + 1,
                                                   store->loopbackReference(store->summaries()[index].uuid)));
                            }
                            if (unreadableCount > 1)
                                unreadable->localizedDescription +=
                                    fmt::format(" ({} records cannot be read.)", unreadableCount);
                            if (options->json) {
                                if (!descriptions.empty() || !unreadable)
                                    printLine(jsonText(descriptions));
                            } else {
                                if (descriptions.empty() && !unreadable)
                                    printLine(fmt::format("{} holds no records.", options->document));
                                for (std::size_t at = 0; at < descriptions.size(); ++at) {
                                    std::string text = formatRecordDescription(descriptions[at]);
                                    if (at + 1 == descriptions.size())
                                        text.pop_back();
                                    printLine(text);
                                }
                            }
                            if (unreadable)
                                return std::unexpected(*unreadable);
                            return {};
                        }});
}

void addSetCommand(CLI::App& app, CommandList& commands) {
    struct Options {
        std::string document;
        std::vector<std::string> records;
        RecordChanges changes;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    RecordChanges& changes = options->changes;
    CLI::App* command =
        app.add_subcommand("set", "Change records: window, comment, notes, colour, SPL reference, "
                                  "speed of sound");
    command->add_option("document", options->document, "The document (*.tavolar)")->required();
    command->add_option("records", options->records, "Records by number, UUID or UUID prefix, or all")
        ->required();
    command->add_option("--window-begin", changes.windowBegin,
                        "Window begin, ms from time zero (may be negative)");
    command->add_option("--window-end", changes.windowEnd, "Window end, ms from time zero");
    command->add_option("--window-type", changes.windowType, "Window taper")
        ->check(CLI::IsMember(windowTypeNames()));
    command->add_option("--comment", changes.comment, "The comment, which is also the record's name");
    command->add_option("--notes", changes.notes, "Notes");
    command->add_option("--color", changes.color, "Curve colour: #RRGGBB or a name such as red");
    auto* reference =
        command->add_option("--spl-reference", changes.splReference, "Use this SPL reference level, dB");
    command->add_flag("--no-spl-reference", changes.noSPLReference, "Stop using the SPL reference level")
        ->excludes(reference);
    command->add_option("--speed-of-sound", changes.speedOfSound, "Speed of sound for distances, m/s");
    command->add_flag("--json", options->json, "Print the records changed as JSON for scripts");
    commands.push_back(
        {command, [options]() -> Expected<void> {
             const RecordChanges& changes = options->changes;
             if (changes.empty())
                 return usageFailure("Nothing to change: give at least one option such as "
                                     "--window-end or --comment.",
                                     "Run tavolar set --help to see them.");
             if (auto checked = changes.check(); !checked)
                 return checked;

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
             for (std::size_t at = 0; at < records->size(); ++at)
                 if (auto fits =
                         changes.checkWindow(*(*records)[at], fmt::format("record {}", (*indices)[at] + 1));
                     !fits)
                     return fits;
             for (const auto& record : *records)
                 changes.apply(*record);
             if (auto saved = store->save(*records, {}); !saved)
                 return saved;
             if (options->json) {
                 nlohmann::json changed = nlohmann::json::array();
                 for (std::size_t at = 0; at < records->size(); ++at)
                     changed.push_back({{"number", (*indices)[at] + 1},
                                        {"uuid", (*records)[at]->impulseUUID()},
                                        {"name", RecordStore::displayName(*(*records)[at])}});
                 printLine(jsonText({{"document", validUTF8(options->document)}, {"changed", changed}}));
             } else
                 printLine(
                     fmt::format("Changed {} in {}.", plural(records->size(), "record"), options->document));
             return {};
         }});
}

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
                 auto calibration = readCalibrationFile(*options->file);
                 if (!calibration)
                     return std::unexpected(calibration.error());
                 change.fromFile = std::move(*calibration);
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
             for (std::size_t at = 0; at < records->size(); ++at)
                 if (auto applied =
                         change.applyTo(*(*records)[at], fmt::format("Record {}", (*indices)[at] + 1));
                     !applied)
                     return applied;
             if (auto saved = store->save(*records, {}); !saved)
                 return saved;
             std::string what =
                 options->remove ? "Removed the microphone calibration of" : "Changed the calibration of";
             printLine(
                 fmt::format("{} {} in {}.", what, plural(records->size(), "record"), options->document));
             return {};
         }});
}

void addRenameCommand(CLI::App& app, CommandList& commands) {
    struct Options {
        std::string document;
        std::string record;
        std::string name;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("rename", "Give a record a new name (its comment)");
    command->add_option("document", options->document, "The document (*.tavolar)")->required();
    command->add_option("record", options->record, "The record by number, UUID or UUID prefix")->required();
    command->add_option("name", options->name, "The new name")->required();
    command->add_flag("--json", options->json, "Print JSON for scripts");
    commands.push_back(
        {command, [options]() -> Expected<void> {
             if (options->name.empty())
                 return usageFailure("The new name is empty.",
                                     "Give a name, or clear it with set --comment \"\".");
             if (!isValidUTF8(options->name))
                 return usageFailure("The new name is not valid UTF-8 text.",
                                     "Give text in UTF-8 (check the terminal's encoding and the locale).");
             auto store = RecordStore::open(options->document, RecordStore::Mode::ReadWrite);
             if (!store)
                 return std::unexpected(store.error());
             const std::vector<std::string> selector{options->record};
             auto indices = store->select(selector, false);
             if (!indices)
                 return std::unexpected(indices.error());
             if (indices->size() != 1)
                 return usageFailure("rename changes one record: name it by its number or UUID.");
             auto record = store->load(indices->front());
             if (!record)
                 return std::unexpected(record.error());
             (*record)->setComment(options->name);
             const std::shared_ptr<VELTMeasurementRecord> changed[] = {*record};
             if (auto saved = store->save(changed, {}); !saved)
                 return saved;
             if (options->json)
                 printLine(jsonText({{"number", indices->front() + 1},
                                     {"uuid", (*record)->impulseUUID()},
                                     {"name", RecordStore::displayName(**record)}}));
             else
                 printLine(fmt::format("Renamed record {} of {} to {}.", indices->front() + 1,
                                       options->document, RecordStore::displayName(**record)));
             return {};
         }});
}

void addDeleteCommand(CLI::App& app, CommandList& commands) {
    struct Options {
        std::string document;
        std::vector<std::string> records;
        bool captureSettings = false;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "delete", "Remove records and their impulse responses from a document, or its capture settings");
    command->add_option("document", options->document, "The document (*.tavolar)")->required();
    command->add_option("records", options->records, "Records by number, UUID or UUID prefix, or all");
    command->add_flag("--capture-settings", options->captureSettings,
                      "Remove the document's capture settings (channels, calibrations) instead of records");
    command->add_flag("--json", options->json, "Print JSON for scripts");
    commands.push_back(
        {command, [options]() -> Expected<void> {
             if (options->captureSettings && !options->records.empty())
                 return usageFailure("--capture-settings removes the document's channels, not records: leave "
                                     "out the record numbers.");
             auto store = RecordStore::open(options->document, RecordStore::Mode::ReadWrite);
             if (!store)
                 return std::unexpected(store.error());
             if (options->captureSettings) {
                 auto removed = store->document().removeCaptureSettings(kCaptureSettingsName);
                 if (!removed)
                     return std::unexpected(documentError(options->document, removed.error()));
                 if (options->json)
                     printLine(jsonText({{"captureSettingsRemoved", *removed}}));
                 else
                     printLine(*removed
                                   ? fmt::format("Removed the capture settings of {}.", options->document)
                                   : fmt::format("{} holds no capture settings.", options->document));
                 return {};
             }
             auto indices = store->select(options->records, false);
             if (!indices)
                 return std::unexpected(indices.error());
             // A damaged record can be deleted too: nothing of it is read.
             MeasurementDocument& document = store->document();
             auto removed = document.performBatch([&]() -> Expected<void> {
                 for (std::size_t index : *indices)
                     if (auto gone = document.removeRecord(store->summaries()[index].uuid); !gone)
                         return std::unexpected(gone.error());
                 return {};
             });
             if (!removed)
                 return std::unexpected(documentError(options->document, removed.error()));
             std::vector<std::size_t> numbers;
             for (std::size_t index : *indices)
                 numbers.push_back(index + 1);
             std::sort(numbers.begin(), numbers.end());
             if (options->json) {
                 nlohmann::json deleted = nlohmann::json::array();
                 for (std::size_t number : numbers)
                     deleted.push_back({{"number", number}, {"uuid", store->summaries()[number - 1].uuid}});
                 printLine(jsonText({{"deleted", deleted}}));
                 return {};
             }
             printLine(fmt::format("Deleted record{} {} from {}.", numbers.size() == 1 ? "" : "s",
                                   fmt::join(numbers, ", "), options->document));
             return {};
         }});
}

void addCopyCommand(CLI::App& app, CommandList& commands) {
    struct Options {
        std::string document;
        std::vector<std::string> records;
        std::string target;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "copy", "Copy records, with their impulse responses, calibrations and settings, into another "
                "document (created if missing)");
    command->add_option("document", options->document, "The document to copy from (*.tavolar)")->required();
    command->add_option("records", options->records, "Records by number, UUID or UUID prefix, or all")
        ->required();
    command->add_option("-o,--output", options->target, "The document to copy into (created if missing)")
        ->required();
    command->add_flag("--json", options->json, "Print JSON for scripts");
    commands.push_back(
        {command, [options]() -> Expected<void> {
             std::error_code sameError;
             if (std::filesystem::exists(options->target) &&
                 std::filesystem::equivalent(options->document, options->target, sameError))
                 return usageFailure("The records are in that document already: give another one with -o.");
             auto source = RecordStore::open(options->document, RecordStore::Mode::ReadOnly);
             if (!source)
                 return std::unexpected(source.error());
             auto indices = source->select(options->records, false);
             if (!indices)
                 return std::unexpected(indices.error());
             // Every record is read (and its checksums checked) before anything is written, so that a
             // damaged one stops the copy before the target is created or changed.
             auto copies = source->storedCopies(*indices);
             if (!copies)
                 return std::unexpected(copies.error());
             auto target = RecordStore::open(options->target, RecordStore::Mode::CreateIfMissing);
             if (!target)
                 return std::unexpected(target.error());
             const std::size_t firstNumber = target->summaries().size() + 1;
             if (auto written = target->putCopies(*copies); !written)
                 return written;
             if (options->json) {
                 nlohmann::json copied = nlohmann::json::array();
                 for (std::size_t at = 0; at < copies->size(); ++at)
                     copied.push_back({{"number", (*copies)[at].number},
                                       {"uuid", (*copies)[at].summary.uuid},
                                       {"newNumber", firstNumber + at}});
                 printLine(jsonText({{"copied", copied}, {"document", options->target}}));
                 return {};
             }
             printLine(
                 fmt::format("Copied {} from {} into {} as record{} {}.", plural(copies->size(), "record"),
                             options->document, options->target, copies->size() == 1 ? "" : "s",
                             copies->size() == 1
                                 ? std::to_string(firstNumber)
                                 : fmt::format("{} to {}", firstNumber, firstNumber + copies->size() - 1)));
             return {};
         }});
}

} // namespace tavolar::cli
