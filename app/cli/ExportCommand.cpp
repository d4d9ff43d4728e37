// export: a record's curves as CSV, MATLAB text or FRD, and its impulse response as WAV.
//
// Curves that share an axis go into one file: the frequency-domain curves (over the record's valid
// range), the harmonic distortion (over the excitation frequencies every chosen order can reach) and
// the time-domain curves (over the centred time axis). One file is written where -o names; when a
// command produces several, -o names a folder and each file is named after record and curve.

#include "AudioFiles.h"
#include "CommandLine.h"
#include "RecordStore.h"
#include "core/HarmonicAnalysis.h"
#include "dsp/Decibels.h"
#include "dsp/Hilbert.h"
#include "export/ExportText.h"
#include "export/FRDExport.h"
#include "export/VELTCSVExporter.h"
#include "export/VELTMATLABOutput.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <fmt/format.h>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tavolar::cli {

namespace {

struct CurveKind {
    std::string_view name;     // on the command line
    std::string_view header;   // CSV column title
    std::string_view variable; // MATLAB variable
};

constexpr CurveKind kFrequencyCurves[] = {
    {"magnitude", "Magnitude (dB)", "magnitude"},
    {"spl", "SPL (dB)", "spl"},
    {"phase", "Phase (deg)", "phase"},
    {"minimum-phase", "Minimum phase (deg)", "minimum_phase"},
    {"excess-phase", "Excess phase (deg)", "excess_phase"},
    {"group-delay", "Group delay (ms)", "group_delay"},
};

const std::vector<std::string> kCurveNames = {"magnitude",     "spl",          "phase",
                                              "minimum-phase", "excess-phase", "group-delay",
                                              "harmonics",     "impulse",      "etc"};

constexpr std::size_t kSmallestFFTLength = 256;
constexpr std::size_t kLargestFFTLength = std::size_t{1} << 22;

// Degrees brought into -180 to 180, every component (the first included).
void wrapDegrees(VELTRealVector& phase) {
    for (float& value : phase.mutableSpan())
        value = static_cast<float>(std::remainder(static_cast<double>(value), 360.0));
}

struct NamedVector {
    std::string header;
    std::string variable;
    VELTRealVector values;
};

// The curves of one file: an axis and the curves over it.
struct CurveGroup {
    std::string suffix; // added to the file name when several files are written
    NamedVector axis;
    std::vector<NamedVector> curves;
};

struct ExportOptions {
    std::string document;
    std::vector<std::string> records;
    std::string output;
    std::optional<std::string> format;
    std::vector<std::string> curves;
    std::optional<std::size_t> fftLength;
    std::vector<std::int64_t> orders{2, 3};
    bool percent = false;
    bool unwrapped = false;
    bool windowed = false;
    std::optional<float> timeStart;
    std::optional<float> timeEnd;

    bool wants(std::string_view curve) const {
        return std::find(curves.begin(), curves.end(), curve) != curves.end();
    }
};

Expected<CurveGroup> frequencyGroup(const VELTMeasurementRecord& record, const ExportOptions& options,
                                    std::size_t fftLength) {
    CurveGroup group;
    group.axis = {"Frequency (Hz)", "frequency", record.frequencyTableWithFFTLength(fftLength)};
    for (const CurveKind& kind : kFrequencyCurves) {
        if (!options.wants(kind.name))
            continue;
        VELTRealVector values;
        if (kind.name == "magnitude")
            values = record.fftMagnitudeResponseWithFFTLength(fftLength);
        else if (kind.name == "spl")
            values = record.fftSPLResponseWithFFTLength(fftLength);
        else if (kind.name == "phase")
            values = record.fftPhaseResponseWithFFTLength(fftLength);
        else if (kind.name == "minimum-phase")
            values = record.minimumPhaseResponseWithFFTLength(fftLength);
        else if (kind.name == "excess-phase")
            values = record.excessPhaseResponseWithFFTLength(fftLength);
        else
            values = record.groupDelayWithFFTLength(fftLength);
        if (kind.header.ends_with("(deg)") && !options.unwrapped)
            wrapDegrees(values);
        group.curves.push_back({std::string(kind.header), std::string(kind.variable), std::move(values)});
    }
    return group;
}

struct HarmonicCurves {
    CurveGroup relative;                                  // levels re the fundamental, dB or percent
    std::map<std::int64_t, VELTRealVector> orderPhase;    // degrees, same rows
    std::map<std::int64_t, VELTRealVector> orderDecibels; // dB re the fundamental, same rows
};

Expected<HarmonicCurves> harmonicCurves(const VELTMeasurementRecord& record, std::size_t number,
                                        const ExportOptions& options, std::size_t fftLength) {
    if (!record.logSweepSettings())
        return failure(
            fmt::format("Record {} has no sweep settings, so its harmonics cannot be located.", number),
            "Harmonic distortion needs the sweep that was played: import the recorded response with "
            "its sweep options.");
    if (!(record.sweepStartFrequency() > 0.0f && record.sweepEndFrequency() > record.sweepStartFrequency() &&
          record.sweepDuration() > 0.0f))
        return failure(
            fmt::format("The sweep of record {} does not rise in frequency, so it has no harmonics "
                        "to locate.",
                        number));
    HarmonicAnalysis analysis(record);
    const std::int64_t highest = analysis.maximumOrder();
    for (std::int64_t order : options.orders)
        if (order > highest)
            return failure(
                fmt::format("Harmonic {} of record {} overlaps the linear response; the highest order "
                            "that can be told apart is {}.",
                            order, number, highest),
                "Choose lower orders, or measure with a longer sweep.");
    const std::size_t length = std::max(fftLength, analysis.minimumFFTLength());

    std::map<std::int64_t, HarmonicDistortion> distortion;
    std::map<std::int64_t, HarmonicResponse> response;
    std::size_t rows = std::numeric_limits<std::size_t>::max();
    for (std::int64_t order : options.orders) {
        distortion.emplace(order, analysis.distortionOfOrder(order, length));
        response.emplace(order, analysis.responseOfOrder(order, length));
        rows = std::min(rows, distortion.at(order).frequencies.length());
    }
    const VELTRealVector& excitation = distortion.at(options.orders.front()).frequencies;
    const float lowest = std::max(record.startFrequency(), record.sweepStartFrequency());
    // Order n of an excitation at f lies at n f, and is measured only where the sweep had energy
    // there too: every chosen order is, up to the sweep's end divided by the highest order.
    const float validEnd = record.endFrequency() > 0.0f
                               ? std::min(record.endFrequency(), record.sweepEndFrequency())
                               : record.sweepEndFrequency();
    const float top =
        std::min(validEnd, record.sweepEndFrequency() / static_cast<float>(options.orders.back()));
    std::vector<std::size_t> kept;
    for (std::size_t row = 0; row < rows; ++row)
        if (excitation[row] > 0.0f && excitation[row] >= lowest && excitation[row] <= top)
            kept.push_back(row);
    auto pick = [&](const VELTRealVector& values, const std::function<float(float)>& map) {
        VELTRealVector picked(kept.size());
        for (std::size_t at = 0; at < kept.size(); ++at)
            picked[at] = map(values[kept[at]]);
        return picked;
    };
    auto same = [](float value) { return value; };

    HarmonicCurves curves;
    curves.relative.suffix = "-harmonics";
    curves.relative.axis = {"Frequency (Hz)", "harmonic_frequency", pick(excitation, same)};
    for (std::int64_t order : options.orders) {
        const VELTRealVector& levels = distortion.at(order).levels;
        VELTRealVector values =
            options.percent
                ? pick(levels, [](float decibels) { return 100.0f * std::pow(10.0f, decibels / 20.0f); })
                : pick(levels, same);
        curves.relative.curves.push_back({fmt::format("H{} ({})", order, options.percent ? "%" : "dB"),
                                          fmt::format("harmonic_{}", order), std::move(values)});
        curves.orderDecibels[order] = pick(levels, same);
        VELTRealVector phase = pick(response.at(order).phase, [](float radians) {
            return static_cast<float>(static_cast<double>(radians) * 180.0 / 3.141592653589793);
        });
        wrapDegrees(phase);
        curves.orderPhase[order] = std::move(phase);
    }
    return curves;
}

Expected<CurveGroup> timeGroup(const VELTMeasurementRecord& record, std::size_t number,
                               const ExportOptions& options) {
    VELTRealVector impulse = record.centeredImpulseResponse();
    if (impulse.length() == 0)
        return failure(fmt::format("Record {} has no impulse response.", number));
    VELTRealVector timeline = record.centeredTimeline();
    VELTRealVector envelope;
    if (options.wants("etc")) {
        envelope = energyTimeCurve(impulse);
        envelope.setLength(impulse.length());
        convertAbsToMagnitude(envelope);
    }
    const float start = options.timeStart.value_or(-std::numeric_limits<float>::infinity());
    const float end = options.timeEnd.value_or(std::numeric_limits<float>::infinity());
    std::vector<std::size_t> kept;
    for (std::size_t index = 0; index < impulse.length() && index < timeline.length(); ++index)
        if (timeline[index] >= start && timeline[index] <= end)
            kept.push_back(index);
    if (kept.empty())
        return failure(fmt::format("No part of record {}'s impulse response lies between {} ms and {} ms.",
                                   number, start, end),
                       fmt::format("It runs from {:.3f} ms to {:.3f} ms.", timeline[0],
                                   timeline[std::min(impulse.length(), timeline.length()) - 1]));
    auto pick = [&](const VELTRealVector& values) {
        VELTRealVector picked(kept.size());
        for (std::size_t at = 0; at < kept.size(); ++at)
            picked[at] = values[kept[at]];
        return picked;
    };
    CurveGroup group;
    group.suffix = "-time";
    group.axis = {"Time (ms)", "time", pick(timeline)};
    if (options.wants("impulse"))
        group.curves.push_back({"Impulse response", "impulse_response", pick(impulse)});
    if (options.wants("etc"))
        group.curves.push_back({"ETC (dB)", "etc", pick(envelope)});
    return group;
}

Expected<void> writeCSV(const CurveGroup& group, const std::filesystem::path& path) {
    VELTCSVExporter exporter;
    exporter.addColumn(group.axis.values, group.axis.header);
    for (const NamedVector& curve : group.curves)
        exporter.addColumn(curve.values, curve.header);
    std::optional<std::string> text = exporter.csvText();
    if (!text)
        return failure(fmt::format("Nothing to write to {}: the curves are empty.", path.string()),
                       "Check the record's valid frequency range and window.");
    return writeFileContents(path, lossyASCIIFromUTF8(*text));
}

Expected<void> writeMATLAB(const std::vector<CurveGroup>& groups, const std::filesystem::path& path) {
    auto output = VELTMATLABOutput::withFilename(path);
    if (!output)
        return std::unexpected(output.error());
    for (const CurveGroup& group : groups) {
        output->writeVector(group.axis.values, group.axis.variable);
        for (const NamedVector& curve : group.curves)
            output->writeVector(curve.values, curve.variable);
    }
    return {};
}

std::string slug(std::string_view name) {
    std::string result;
    for (unsigned char c : name) {
        if (std::isalnum(c))
            result += static_cast<char>(std::tolower(c));
        else if (!result.empty() && result.back() != '-')
            result += '-';
    }
    while (!result.empty() && result.back() == '-')
        result.pop_back();
    return result.substr(0, 40);
}

// One file to write: where (relative to a folder, when several are written) and how.
struct PendingFile {
    std::string name;
    std::string extension;
    std::function<Expected<void>(const std::filesystem::path&)> write;
};

Expected<std::string> formatOf(const ExportOptions& options) {
    if (options.format)
        return *options.format;
    std::string extension = std::filesystem::path(options.output).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (extension == ".csv" || extension == ".txt")
        return std::string("csv");
    if (extension == ".m")
        return std::string("matlab");
    if (extension == ".frd")
        return std::string("frd");
    if (extension == ".wav")
        return std::string("wav");
    if (extension.empty())
        return std::string("csv");
    return usageFailure(fmt::format("Cannot tell the format from {}.", options.output),
                        "Give --format csv, matlab, frd or wav.");
}

Expected<void> checkCurves(const ExportOptions& options, const std::string& format) {
    auto count = [&](std::initializer_list<std::string_view> names) {
        return std::count_if(names.begin(), names.end(),
                             [&](std::string_view name) { return options.wants(name); });
    };
    if (options.windowed && format != "wav")
        return usageFailure("--windowed applies to WAV files only.");
    if (format == "wav") {
        if (options.curves.size() != 1 || !options.wants("impulse"))
            return usageFailure("A WAV file holds the impulse response only.",
                                "Use --curves impulse, or another format.");
        return {};
    }
    if (format == "frd") {
        if (count({"group-delay", "impulse", "etc"}) > 0)
            return usageFailure(
                "FRD files hold frequency responses: group-delay, impulse and etc cannot be written "
                "as FRD.",
                "Use CSV or MATLAB for those curves.");
        if (count({"magnitude", "spl"}) > 1)
            return usageFailure("An FRD file holds one magnitude: choose magnitude or spl.");
        if (count({"phase", "minimum-phase", "excess-phase"}) > 1)
            return usageFailure("An FRD file holds one phase: choose phase, minimum-phase or excess-phase.");
        if (options.wants("harmonics") && options.percent)
            return usageFailure("FRD files hold levels in dB: leave out --percent.");
    }
    return {};
}

bool wantsFrequencyCurves(const ExportOptions& options) {
    return std::any_of(std::begin(kFrequencyCurves), std::end(kFrequencyCurves),
                       [&](const CurveKind& kind) { return options.wants(kind.name); });
}

bool wantsTimeCurves(const ExportOptions& options) {
    return options.wants("impulse") || options.wants("etc");
}

// The files of one record, with their contents computed: a record that cannot give a curve fails
// here, before anything is written.
Expected<std::vector<PendingFile>> filesOfRecord(const std::shared_ptr<VELTMeasurementRecord>& record,
                                                 std::size_t number, const ExportOptions& options,
                                                 const std::string& format) {
    const std::string base = [&] {
        std::string name = slug(RecordStore::displayName(*record));
        return name.empty() ? fmt::format("{}", number) : fmt::format("{}-{}", number, name);
    }();
    if (!record->impulseResponse() || record->sampleRate() <= 0)
        return failure(fmt::format("Record {} has no impulse response to export.", number));
    const std::size_t fftLength = options.fftLength.value_or(record->fftLength());

    std::vector<PendingFile> files;
    if (format == "wav") {
        VELTRealVector samples =
            options.windowed ? record->windowedImpulseResponse() : *record->impulseResponse();
        if (samples.length() == 0)
            return failure(fmt::format("The window of record {} holds no samples.", number),
                           "Set a window within the response with tavolar set.");
        const std::int64_t rate = record->sampleRate();
        files.push_back(
            {base, "wav", [samples = std::move(samples), rate](const std::filesystem::path& path) {
                 return writeMonoFloatWav(path, samples.span(), rate);
             }});
        return files;
    }

    std::optional<CurveGroup> frequency;
    if (wantsFrequencyCurves(options)) {
        auto group = frequencyGroup(*record, options, fftLength);
        if (!group)
            return std::unexpected(group.error());
        frequency = std::move(*group);
    }
    std::optional<HarmonicCurves> harmonics;
    if (options.wants("harmonics")) {
        auto curves = harmonicCurves(*record, number, options, fftLength);
        if (!curves)
            return std::unexpected(curves.error());
        harmonics = std::move(*curves);
    }
    std::optional<CurveGroup> time;
    if (wantsTimeCurves(options)) {
        auto group = timeGroup(*record, number, options);
        if (!group)
            return std::unexpected(group.error());
        time = std::move(*group);
    }

    if (format == "matlab") {
        std::vector<CurveGroup> groups;
        for (auto* group : {frequency ? &*frequency : nullptr, harmonics ? &harmonics->relative : nullptr,
                            time ? &*time : nullptr})
            if (group)
                groups.push_back(std::move(*group));
        files.push_back({base, "m", [groups = std::move(groups)](const std::filesystem::path& path) {
                             return writeMATLAB(groups, path);
                         }});
        return files;
    }

    if (format == "csv") {
        for (auto* group : {frequency ? &*frequency : nullptr, harmonics ? &harmonics->relative : nullptr,
                            time ? &*time : nullptr})
            if (group)
                files.push_back({base + group->suffix, "csv",
                                 [group = std::move(*group)](const std::filesystem::path& path) {
                                     return writeCSV(group, path);
                                 }});
        return files;
    }

    // FRD: the frequency response (magnitude or SPL, and one kind of phase), and one file per
    // harmonic order with its level relative to the fundamental.
    if (frequency || !harmonics) {
        VELTRealVector axis = record->frequencyTableWithFFTLength(fftLength);
        VELTRealVector magnitude = options.wants("spl")
                                       ? record->fftSPLResponseWithFFTLength(fftLength)
                                       : record->fftMagnitudeResponseWithFFTLength(fftLength);
        VELTRealVector phase;
        if (options.wants("minimum-phase"))
            phase = record->minimumPhaseResponseWithFFTLength(fftLength);
        else if (options.wants("excess-phase"))
            phase = record->excessPhaseResponseWithFFTLength(fftLength);
        else if (options.wants("phase"))
            phase = record->fftPhaseResponseWithFFTLength(fftLength);
        else
            phase = VELTRealVector(axis.length());
        if (!options.unwrapped)
            wrapDegrees(phase);
        if (magnitude.length() < axis.length() || phase.length() < axis.length())
            return failure(fmt::format("The curves of record {} do not cover its frequency axis.", number));
        files.push_back(
            {base, "frd", [text = frdText(axis, magnitude, phase)](const std::filesystem::path& path) {
                 return writeFileContents(path, lossyASCIIFromUTF8(text));
             }});
    }
    if (harmonics)
        for (std::int64_t order : options.orders)
            files.push_back(
                {fmt::format("{}-h{}", base, order), "frd",
                 [text = frdText(harmonics->relative.axis.values, harmonics->orderDecibels.at(order),
                                 harmonics->orderPhase.at(order))](const std::filesystem::path& path) {
                     return writeFileContents(path, lossyASCIIFromUTF8(text));
                 }});
    return files;
}

} // namespace

void addExportCommand(CLI::App& app, CommandList& commands) {
    auto options = std::make_shared<ExportOptions>();
    CLI::App* command = app.add_subcommand(
        "export", "Write records' curves as CSV, MATLAB text or FRD, or their impulse responses as WAV");
    command->add_option("document", options->document, "The document (*.tavolar)")->required();
    command->add_option("records", options->records, "Records by number, UUID or UUID prefix; default: all");
    command
        ->add_option("-o,--output", options->output,
                     "The file to write; a folder when several files result (one per record and curve group)")
        ->required();
    command
        ->add_option("-f,--format", options->format,
                     "csv, matlab, frd or wav (default: from the file's extension)")
        ->check(CLI::IsMember({"csv", "matlab", "frd", "wav"}));
    command
        ->add_option("-c,--curves", options->curves,
                     "Comma-separated: magnitude, spl, phase, minimum-phase, excess-phase, group-delay, "
                     "harmonics, impulse, etc (default: magnitude,phase; impulse for WAV)")
        ->delimiter(',')
        ->check(CLI::IsMember(kCurveNames));
    command->add_option("--fft-length", options->fftLength,
                        "FFT length, a power of two (default: the record's, at least 32768)");
    command->add_option("--orders", options->orders, "Harmonic orders, comma-separated")
        ->delimiter(',')
        ->capture_default_str();
    command->add_flag("--percent", options->percent,
                      "Harmonic distortion in percent of the fundamental (default dB)");
    command->add_flag("--unwrapped", options->unwrapped,
                      "Phases unwrapped rather than within -180 to 180 degrees");
    command->add_flag("--windowed", options->windowed,
                      "WAV: the windowed impulse response instead of the whole");
    command->add_option("--time-start", options->timeStart, "Time curves from this time, ms (default: all)");
    command->add_option("--time-end", options->timeEnd, "Time curves up to this time, ms (default: all)");
    commands.push_back(
        {command, [options]() -> Expected<void> {
             auto format = formatOf(*options);
             if (!format)
                 return std::unexpected(format.error());
             if (options->curves.empty())
                 options->curves = *format == "wav" ? std::vector<std::string>{"impulse"}
                                                    : std::vector<std::string>{"magnitude", "phase"};
             if (auto checked = checkCurves(*options, *format); !checked)
                 return checked;
             if (options->fftLength &&
                 (!std::has_single_bit(*options->fftLength) || *options->fftLength < kSmallestFFTLength ||
                  *options->fftLength > kLargestFFTLength))
                 return usageFailure(fmt::format("The FFT length must be a power of two from {} to {} "
                                                 "(got {}).",
                                                 kSmallestFFTLength, kLargestFFTLength, *options->fftLength));
             for (std::int64_t order : options->orders)
                 if (order < 2 || order > 20)
                     return usageFailure(fmt::format("Harmonic orders run from 2 to 20 (got {}).", order));
             std::sort(options->orders.begin(), options->orders.end());
             options->orders.erase(std::unique(options->orders.begin(), options->orders.end()),
                                   options->orders.end());

             auto store = RecordStore::open(options->document, RecordStore::Mode::ReadOnly);
             if (!store)
                 return std::unexpected(store.error());
             auto indices = store->select(options->records, true);
             if (!indices)
                 return std::unexpected(indices.error());
             if (indices->empty())
                 return failure(fmt::format("{} holds no records to export.", options->document));

             std::vector<PendingFile> files;
             for (std::size_t index : *indices) {
                 auto record = store->load(index);
                 if (!record)
                     return std::unexpected(record.error());
                 auto pending = filesOfRecord(*record, index + 1, *options, *format);
                 if (!pending)
                     return std::unexpected(pending.error());
                 for (PendingFile& file : *pending)
                     files.push_back(std::move(file));
             }

             const std::filesystem::path output(options->output);
             std::error_code status;
             const bool intoFolder = files.size() > 1 || std::filesystem::is_directory(output, status);
             if (intoFolder) {
                 std::filesystem::create_directories(output, status);
                 if (status || !std::filesystem::is_directory(output))
                     return failure(fmt::format("Cannot make the folder {}: {}", output.string(),
                                                status ? status.message() : "a file is in the way"),
                                    "Several files result, so -o must name a folder.");
             }
             for (const PendingFile& file : files) {
                 std::filesystem::path path =
                     intoFolder ? output / fmt::format("{}.{}", file.name, file.extension) : output;
                 if (auto written = file.write(path); !written)
                     return written;
                 printLine(fmt::format("Wrote {}", path.string()));
             }
             return {};
         }});
}

} // namespace tavolar::cli
