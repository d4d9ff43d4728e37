// bands: octave or third-octave band levels of records' windowed impulse responses, optionally A- or
// C-weighted, as a table, as JSON or as a CSV file.

#include "CommandLine.h"
#include "RecordDescription.h"
#include "RecordStore.h"
#include "export/ExportText.h"
#include "export/VELTCSVExporter.h"
#include "graphcalc/RecordCurves.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace tavolar::cli {

namespace {

struct BandsOptions {
    std::string document;
    std::vector<std::string> records;
    bool octave = false;
    bool thirdOctave = false;
    std::string weighting = "z";
    bool json = false;
    std::string output;
};

// One record's bands: nominal and exact centres, levels in dB re full scale, and levels in dB SPL
// when the record has an SPL reference or a microphone calibration in use.
struct RecordBands {
    std::size_t number = 0;
    std::string name;
    std::int64_t sampleRate = 0;
    VELTRealVector nominal, exact, levels;
    std::optional<VELTRealVector> spl;
};

Expected<RecordBands> bandsOfRecord(const VELTMeasurementRecord& record, std::size_t number,
                                    const BandsOptions& options) {
    auto [bands, fault] = bandLevelsOfRecord(record, options.octave, options.weighting.front());
    if (fault == BandLevelFailure::NoImpulseResponse)
        return failure(fmt::format("Record {} has no impulse response.", number));
    if (fault == BandLevelFailure::UnsupportedSampleRate)
        return failure(
            fmt::format("Record {} has a sample rate of {} Hz, for which there are no band filters.", number,
                        record.sampleRate()),
            "Band levels work at 44100, 48000, 88200, 96000, 176400 and 192000 Hz.");
    if (fault == BandLevelFailure::EmptyWindow)
        return failure(fmt::format("The window of record {} holds no samples.", number),
                       "Set a window within the response with tavolar set.");
    return RecordBands{number,
                       RecordStore::displayName(record),
                       record.sampleRate(),
                       std::move(bands->nominal),
                       std::move(bands->exact),
                       std::move(bands->levels),
                       std::move(bands->spl)};
}

std::string describeBank(const BandsOptions& options) {
    std::string text = options.octave ? "octave bands" : "third-octave bands";
    if (options.weighting != "z")
        text += options.weighting == "a" ? ", A-weighted" : ", C-weighted";
    return text;
}

std::string formatTable(const RecordBands& bands, const BandsOptions& options) {
    std::string text = fmt::format("Record {}: {} ({} Hz, {})\n", bands.number, bands.name, bands.sampleRate,
                                   describeBank(options));
    text += fmt::format("{:>10} {:>12} {:>11}{}\n", "Band (Hz)", "Exact (Hz)", "Level (dB)",
                        bands.spl ? fmt::format(" {:>10}", "SPL (dB)") : "");
    for (std::size_t i = 0; i < bands.levels.length(); ++i)
        text += fmt::format("{:>10} {:>12.2f} {:>11.2f}{}\n", bands.nominal[i], bands.exact[i],
                            bands.levels[i], bands.spl ? fmt::format(" {:>10.2f}", (*bands.spl)[i]) : "");
    return text;
}

nlohmann::json describe(const RecordBands& bands, const BandsOptions& options) {
    nlohmann::json list = nlohmann::json::array();
    for (std::size_t i = 0; i < bands.levels.length(); ++i) {
        nlohmann::json band = {
            {"nominal", bands.nominal[i]}, {"exact", bands.exact[i]}, {"level", bands.levels[i]}};
        if (bands.spl)
            band["spl"] = (*bands.spl)[i];
        list.push_back(std::move(band));
    }
    return {{"record", bands.number},         {"name", bands.name},
            {"sampleRate", bands.sampleRate}, {"bank", options.octave ? "octave" : "third-octave"},
            {"weighting", options.weighting}, {"bands", std::move(list)}};
}

// One file: the centres, then each record's levels (and SPL, where it has one). The records must
// have the same bands, which records of sample rates from one family do.
Expected<void> writeCSV(const std::vector<RecordBands>& all, const std::string& output) {
    const RecordBands& first = all.front();
    VELTCSVExporter exporter;
    exporter.addColumn(first.nominal, "Band (Hz)");
    exporter.addColumn(first.exact, "Exact (Hz)");
    for (const RecordBands& bands : all) {
        if (bands.exact != first.exact)
            return usageFailure(
                fmt::format("Records {} and {} have different bands ({} Hz and {} Hz), so they cannot share "
                            "one file.",
                            first.number, bands.number, first.sampleRate, bands.sampleRate),
                "Write them to separate files.");
        const std::string prefix = all.size() > 1 ? fmt::format("Record {} ", bands.number) : "";
        exporter.addColumn(bands.levels, prefix + "Level (dB)");
        if (bands.spl)
            exporter.addColumn(*bands.spl, prefix + "SPL (dB)");
    }
    if (auto written = writeFileContents(output, lossyASCIIFromUTF8(*exporter.csvText())); !written)
        return written;
    printLine(fmt::format("Wrote {}", output));
    return {};
}

} // namespace

void addBandsCommand(CLI::App& app, CommandList& commands) {
    auto options = std::make_shared<BandsOptions>();
    CLI::App* command = app.add_subcommand(
        "bands", "Octave or third-octave band levels of records' windowed impulse responses: the RMS value "
                 "of each band in dB re full scale, and in dB SPL where a record has an SPL reference or a "
                 "microphone calibration");
    command->add_option("document", options->document, "The document (*.tavolar)")->required();
    command->add_option("records", options->records,
                        "Records by number (as list shows), UUID or UUID prefix; default: all");
    auto* octave = command->add_flag("--octave", options->octave, "Octave bands, 31.5 Hz to 16 kHz");
    command->add_flag("--third-octave", options->thirdOctave, "Third-octave bands from 31.5 Hz (the default)")
        ->excludes(octave);
    command
        ->add_option("--weighting", options->weighting,
                     "Frequency weighting before the bands: a, c or z (none)")
        ->check(CLI::IsMember({"a", "c", "z"}, CLI::ignore_case))
        ->capture_default_str();
    auto* json = command->add_flag("--json", options->json, "Print JSON for scripts");
    command->add_option("-o,--output", options->output, "Write the levels to a CSV file instead")
        ->excludes(json);
    commands.push_back({command, [options]() -> Expected<void> {
                            for (char& c : options->weighting)
                                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                            auto store = RecordStore::open(options->document, RecordStore::Mode::ReadOnly);
                            if (!store)
                                return std::unexpected(store.error());
                            auto indices = store->select(options->records, true);
                            if (!indices)
                                return std::unexpected(indices.error());
                            if (indices->empty())
                                return failure(fmt::format("{} holds no records.", options->document));
                            std::vector<RecordBands> all;
                            for (std::size_t index : *indices) {
                                auto record = store->load(index);
                                if (!record)
                                    return std::unexpected(record.error());
                                auto bands = bandsOfRecord(**record, index + 1, *options);
                                if (!bands)
                                    return std::unexpected(bands.error());
                                all.push_back(std::move(*bands));
                            }
                            if (!options->output.empty())
                                return writeCSV(all, options->output);
                            if (options->json) {
                                nlohmann::json list = nlohmann::json::array();
                                for (const RecordBands& bands : all)
                                    list.push_back(describe(bands, *options));
                                printLine(jsonText(list));
                                return {};
                            }
                            for (std::size_t at = 0; at < all.size(); ++at) {
                                std::string text = formatTable(all[at], *options);
                                if (at + 1 == all.size())
                                    text.pop_back();
                                printLine(text);
                            }
                            return {};
                        }});
}

} // namespace tavolar::cli
