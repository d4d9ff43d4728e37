// export: a record's curves as CSV, MATLAB text or FRD, and its impulse response as WAV.
//
// Curves that share an axis go into one file: the frequency-domain curves (over the record's valid
// range), the harmonic distortion (over the excitation frequencies every chosen order can reach) and
// the time-domain curves (over the centred time axis). One file is written where -o names; when a
// command produces several, -o names a folder and each file is named after record and curve.

#include "AudioFiles.h"
#include "CommandLine.h"
#include "FrequencyCurves.h"
#include "RecordDescription.h"
#include "RecordStore.h"
#include "dsp/Decibels.h"
#include "dsp/Hilbert.h"
#include "export/ExportText.h"
#include "export/FRDExport.h"
#include "export/VELTCSVExporter.h"
#include "export/VELTMATLABOutput.h"
#include "graphcalc/RecordCurves.h"
#include "graphcalc/SpectrogramGraphCalculationController.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <charconv>
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

const std::vector<std::string> kCurveNames = {
    "magnitude", "spl",         "phase",   "minimum-phase", "excess-phase", "group-delay", "harmonics",
    "thd",       "noise-floor", "impulse", "etc",           "waterfall",    "spectrogram"};

constexpr std::size_t kSmallestFFTLength = 256;
constexpr std::size_t kLargestFFTLength = std::size_t{1} << 22;

struct NamedVector {
    std::string header;
    std::string variable;
    VELTRealVector values;
};

// The curves of one file: an axis and the curves over it.
struct CurveGroup {
    std::string suffix; // added to the file name when several files are written
    bool timeDomain = false;
    NamedVector axis;
    std::vector<NamedVector> curves;
};

struct ExportOptions {
    std::string document;
    std::vector<std::string> records;
    std::string output;
    bool json = false;
    std::optional<std::string> format;
    std::vector<std::string> curves;
    std::optional<std::size_t> fftLength;
    std::vector<std::string> orderTexts;    // as given: orders and ranges such as 2-9
    std::vector<std::int64_t> orders{2, 3}; // parsed, sorted, without repeats
    bool percent = false;
    bool unwrapped = false;
    bool windowed = false;
    std::optional<float> timeStart;
    std::optional<float> timeEnd;
    std::optional<int> smoothing;              // 1/N octave
    std::string smoothingDomain = "db";        // or "power"
    std::optional<int> pointsPerOctave;        // a logarithmic grid instead of the bins
    std::optional<std::string> weighting;      // "a" or "c"
    std::optional<std::string> phaseReference; // "zero" (the default), "window" or "peak"
    // Waterfall and spectrogram.
    std::optional<std::int64_t> slices;
    std::optional<float> start;    // ms
    std::optional<float> duration; // ms
    std::optional<std::string> windowType;
    std::optional<float> overlap;
    bool startAtPeak = false;

    bool wants(std::string_view curve) const {
        return std::find(curves.begin(), curves.end(), curve) != curves.end();
    }
};

constexpr int kLargestSmoothingDenominator = 48;
constexpr int kLargestPointsPerOctave = 96;

bool isLevelCurve(std::string_view curve) {
    return curve == "magnitude" || curve == "spl";
}

PhaseTimeReference timeReference(std::string_view name) {
    return name == "window" ? PhaseTimeReference::WindowStart
           : name == "peak" ? PhaseTimeReference::Peak
                            : PhaseTimeReference::TimeZero;
}

// The named frequency curves over one axis (see frequencyCurvesOfRecord), with their file headers.
Expected<CurveGroup> frequencyGroup(const VELTMeasurementRecord& record, std::size_t number,
                                    const ExportOptions& options, std::size_t fftLength,
                                    const std::vector<std::string_view>& names) {
    FrequencyCurveRequest request{std::vector<std::string>(names.begin(), names.end()),
                                  options.smoothing,
                                  options.smoothingDomain == "power",
                                  options.pointsPerOctave,
                                  std::nullopt,
                                  timeReference(options.phaseReference.value_or("zero")),
                                  fftLength,
                                  options.unwrapped};
    if (options.weighting)
        request.weighting = options.weighting->front();
    auto curves = frequencyCurvesOfRecord(record, request, fmt::format("Record {}", number));
    if (!curves)
        return std::unexpected(curves.error());
    CurveGroup group;
    group.axis = {"Frequency (Hz)", "frequency", std::move(curves->frequencies)};
    for (std::size_t at = 0; at < names.size(); ++at) {
        const CurveKind& kind =
            *std::find_if(std::begin(kFrequencyCurves), std::end(kFrequencyCurves),
                          [&](const CurveKind& candidate) { return candidate.name == names[at]; });
        std::string header(kind.header);
        if (options.weighting && isLevelCurve(names[at]))
            header.replace(header.find("(dB)"), 4, *options.weighting == "a" ? "(dBA)" : "(dBC)");
        group.curves.push_back(
            {std::move(header), std::string(kind.variable), std::move(curves->curves[at])});
    }
    return group;
}

std::vector<std::string_view> requestedFrequencyCurves(const ExportOptions& options) {
    std::vector<std::string_view> names;
    for (const CurveKind& kind : kFrequencyCurves)
        if (options.wants(kind.name))
            names.push_back(kind.name);
    return names;
}

// Orders as given to --orders: numbers and ranges (2-9), each from 2 to 20.
Expected<std::vector<std::int64_t>> parsedOrders(const std::vector<std::string>& texts) {
    std::vector<std::int64_t> orders;
    for (const std::string& text : texts) {
        std::int64_t first = 0, last = 0;
        const char* end = text.data() + text.size();
        std::from_chars_result read = std::from_chars(text.data(), end, first);
        last = first;
        if (read.ec == std::errc() && read.ptr != end && *read.ptr == '-')
            read = std::from_chars(read.ptr + 1, end, last);
        const char* next = read.ptr;
        std::errc error = read.ec;
        if (error != std::errc() || next != end || text.empty())
            return usageFailure(fmt::format("\"{}\" is not a harmonic order or a range of them; write orders "
                                            "as 2,3 or 2-9.",
                                            text));
        if (first < 2 || last > 20 || first > last)
            return usageFailure(fmt::format("Harmonic orders run from 2 to 20 (got {}).", text));
        for (std::int64_t order = first; order <= last; ++order)
            orders.push_back(order);
    }
    return orders;
}

struct HarmonicCurves {
    CurveGroup relative;                                  // levels re the fundamental, dB or percent
    std::map<std::int64_t, VELTRealVector> orderPhase;    // degrees, same rows
    std::map<std::int64_t, VELTRealVector> orderDecibels; // dB re the fundamental, same rows
};

Expected<HarmonicCurves> harmonicCurves(const VELTMeasurementRecord& record, std::size_t number,
                                        const ExportOptions& options, std::size_t fftLength) {
    HarmonicCurveRequest request;
    request.orders = options.wants("harmonics") ? options.orders : std::vector<std::int64_t>{};
    request.total = options.wants("thd");
    request.noiseFloor = options.wants("noise-floor");
    request.fftLength = fftLength;
    HarmonicCurveSet set = harmonicCurvesOfRecord(record, request);
    if (set.failure)
        switch (*set.failure) {
        case HarmonicCurveFailure::NoSweep:
            return failure(
                fmt::format("Record {} has no sweep settings, so its harmonics cannot be located.", number),
                "Harmonic distortion needs the sweep that was played: import the recorded response with "
                "its sweep options.");
        case HarmonicCurveFailure::SweepDoesNotRise:
            return failure(
                fmt::format("The sweep of record {} does not rise in frequency, so it has no harmonics "
                            "to locate.",
                            number));
        case HarmonicCurveFailure::OrderTooHigh:
            return failure(
                fmt::format("Harmonic {} of record {} overlaps the linear response; the highest order "
                            "that can be told apart is {}.",
                            options.orders.back(), number, set.highestOrder),
                "Choose lower orders, or measure with a longer sweep.");
        case HarmonicCurveFailure::TooShortForTotal:
            return failure(
                fmt::format("Record {} is too short to tell its 2nd harmonic from the linear response, "
                            "so it has no total harmonic distortion.",
                            number),
                "Measure with a longer sweep or a longer response.");
        case HarmonicCurveFailure::TooShortForNoise:
            return failure(fmt::format("Record {} is too short to hold a stretch without harmonics, so its "
                                       "noise floor cannot be read.",
                                       number),
                           "Measure with a longer sweep or a longer response, or leave out noise-floor.");
        }

    HarmonicCurves curves;
    curves.relative.suffix = "-harmonics";
    curves.relative.axis = {"Frequency (Hz)", "harmonic_frequency", set.frequencies};
    auto relative = [&](const VELTRealVector& levels) {
        return options.percent ? percentFromDecibels(levels) : levels;
    };
    const char* unit = options.percent ? "%" : "dB";
    for (std::size_t at = 0; at < set.orders.size(); ++at) {
        const auto& [order, levels] = set.orders[at];
        curves.relative.curves.push_back(
            {fmt::format("H{} ({})", order, unit), fmt::format("harmonic_{}", order), relative(levels)});
        curves.orderDecibels[order] = levels;
        curves.orderPhase[order] = set.phases[at].second;
    }
    if (set.total)
        curves.relative.curves.push_back(
            {fmt::format("THD H2-H{} ({})", set.summedOrders, unit), "thd", relative(*set.total)});
    if (set.noiseFloor)
        curves.relative.curves.push_back(
            {fmt::format("Noise floor ({})", unit), "noise_floor", relative(*set.noiseFloor)});
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
    group.timeDomain = true;
    group.axis = {"Time (ms)", "time", pick(timeline)};
    if (options.wants("impulse"))
        group.curves.push_back({"Impulse response", "impulse_response", pick(impulse)});
    if (options.wants("etc"))
        group.curves.push_back({"ETC (dB)", "etc", pick(envelope)});
    return group;
}

Expected<void> writeCSV(const CurveGroup& group, const std::filesystem::path& path) {
    VELTCSVExporter exporter;
    // Time curves keep every digit: most samples of an impulse response's tail are below the six
    // decimals that frequency curves are written with.
    exporter.setWritesEverySignificantDigit(group.timeDomain);
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
    // Time curves keep every digit, as in CSV.
    for (const CurveGroup& group : groups) {
        auto write = [&](const NamedVector& vector) {
            if (group.timeDomain)
                output->writeVectorWithEveryDigit(vector.values, vector.variable);
            else
                output->writeVector(vector.values, vector.variable);
        };
        write(group.axis);
        for (const NamedVector& curve : group.curves)
            write(curve);
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

// ---- Waterfall and spectrogram: one surface per file, a row per slice.

constexpr std::pair<std::string_view, std::int64_t> kWindowTypes[] = {
    {"rectangular", 0},  {"hamming", 1}, {"half-hamming", 2}, {"hanning", 3},
    {"half-hanning", 4}, {"bingham", 5}, {"half-bingham", 6}};
constexpr std::int64_t kLargestSliceCount = 1000;

bool wantsSurface(const ExportOptions& options) {
    return options.wants("waterfall") || options.wants("spectrogram");
}

// The record's surface as its graph computes it. The waterfall defaults to a half Hanning window
// (each slice's abrupt start kept, its end faded) and 8192 points; the spectrogram to a Hanning window,
// 4096 points and slices overlapping by half.
Expected<std::shared_ptr<const GraphData3D>>
surfaceOfRecord(const std::shared_ptr<VELTMeasurementRecord>& record, std::size_t number,
                const ExportOptions& options) {
    const bool spectrogram = options.wants("spectrogram");
    GraphCalculationSettings settings;
    WaterfallSettings& waterfall = settings.waterfall;
    waterfall.fftLength = static_cast<std::int64_t>(options.fftLength.value_or(spectrogram ? 4096 : 8192));
    waterfall.sliceCount = options.slices.value_or(25);
    waterfall.startTime = options.start.value_or(0.0f);
    waterfall.duration = options.duration.value_or(0.0f);
    waterfall.startAtPeak = options.startAtPeak;
    waterfall.overlap = options.overlap.value_or(0.5f);
    waterfall.windowType = spectrogram ? 3 : 4;
    for (const auto& [name, type] : kWindowTypes)
        if (options.windowType == name)
            waterfall.windowType = type;
    std::unique_ptr<WaterfallGraphCalculationController> controller =
        spectrogram ? std::make_unique<SpectrogramGraphCalculationController>(settings)
                    : std::make_unique<WaterfallGraphCalculationController>(settings);
    GraphDataArray result = controller->calculate({record});
    auto surface = result.empty() ? nullptr : std::dynamic_pointer_cast<const GraphData3D>(result.front());
    if (!surface)
        return failure(fmt::format("Record {} gives no slices.", number));
    return surface;
}

// A header of frequencies after "Time (ms)", then each slice's time and levels: the separators and
// "%f" of the other CSV files, every field followed by a comma.
Expected<void> writeSurfaceCSV(const GraphData3D& surface, const std::filesystem::path& path) {
    CNumericFormattingScope numericFormatting;
    std::string text = "Time (ms),";
    char field[64];
    auto append = [&](float value) {
        const int length = std::snprintf(field, sizeof field, "%f,", static_cast<double>(value));
        text.append(field, static_cast<std::size_t>(length));
    };
    for (float frequency : surface.x().span())
        append(frequency);
    text += '\n';
    for (std::size_t row = 0; row < surface.rows(); ++row) {
        append(surface.z()[row]);
        for (float level : surface.rowAtIndex(row))
            append(level);
        text += '\n';
    }
    return writeFileContents(path, text);
}

// frequency (a vector), time (a vector) and the levels as a matrix named after the curve, a row per
// slice.
Expected<void> writeSurfaceMATLAB(const GraphData3D& surface, const std::string& name,
                                  const std::filesystem::path& path) {
    auto output = VELTMATLABOutput::withFilename(path);
    if (!output)
        return std::unexpected(output.error());
    output->writeVector(surface.x(), "frequency");
    output->writeVector(surface.z(), "time");
    output->writeMatrix(VELTRealMatrix(surface.y(), surface.rows(), surface.columns()), name);
    return {};
}

Expected<void> checkSurfaceOptions(const ExportOptions& options, const std::string& format) {
    const bool given = options.slices || options.start || options.duration || options.windowType ||
                       options.overlap || options.startAtPeak;
    if (!wantsSurface(options)) {
        if (given)
            return usageFailure("--slices, --start, --duration, --window-type, --overlap and --start-at-peak "
                                "apply to the waterfall and spectrogram curves.");
        return {};
    }
    if (options.curves.size() != 1)
        return usageFailure("A waterfall or spectrogram is written alone, one surface per file.",
                            "Export it with --curves waterfall or --curves spectrogram only.");
    if (format != "csv" && format != "matlab")
        return usageFailure("A waterfall or spectrogram is written as CSV or MATLAB text.");
    if (options.slices && options.wants("spectrogram"))
        return usageFailure(
            "A spectrogram's slices follow from --duration, --fft-length and --overlap: leave out "
            "--slices.");
    if (options.overlap && options.wants("waterfall"))
        return usageFailure("--overlap applies to the spectrogram; a waterfall's slices are spread over "
                            "--duration.");
    if (options.slices && (*options.slices < 1 || *options.slices > kLargestSliceCount))
        return usageFailure(
            fmt::format("--slices runs from 1 to {} (got {}).", kLargestSliceCount, *options.slices));
    if (options.duration && !(*options.duration >= 0.0f))
        return usageFailure("--duration cannot be negative.");
    if (options.overlap && !(*options.overlap >= 0.0f && *options.overlap <= 0.9f))
        return usageFailure(fmt::format("--overlap runs from 0 to 0.9 (got {}).", *options.overlap));
    return {};
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
        if (options.wants("thd") || options.wants("noise-floor"))
            return usageFailure("FRD files hold a response with its phase, which total distortion and the "
                                "noise floor have not: export them as CSV or MATLAB text.");
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

// Smoothing and weighting change magnitude and SPL curves (an FRD file of the response always holds
// one); the grid changes every frequency curve.
Expected<void> checkFrequencyOptions(const ExportOptions& options, const std::string& format) {
    if (options.smoothing && (*options.smoothing < 1 || *options.smoothing > kLargestSmoothingDenominator))
        return usageFailure(fmt::format("Smoothing runs from 1/1 to 1/{} octave (got --smoothing {}).",
                                        kLargestSmoothingDenominator, *options.smoothing));
    if (options.pointsPerOctave &&
        (*options.pointsPerOctave < 1 || *options.pointsPerOctave > kLargestPointsPerOctave))
        return usageFailure(
            fmt::format("The grid has 1 to {} points per octave (got --points-per-octave {}).",
                        kLargestPointsPerOctave, *options.pointsPerOctave));
    const bool frequencyResponse = wantsFrequencyCurves(options);
    const bool levels =
        options.wants("magnitude") || options.wants("spl") || (format == "frd" && frequencyResponse);
    for (const auto& [given, name] : {std::pair{options.smoothing.has_value(), "--smoothing"},
                                      std::pair{options.weighting.has_value(), "--weighting"}})
        if (given && !levels)
            return usageFailure(fmt::format("{} applies to magnitude and spl curves.", name),
                                "Add magnitude or spl to --curves.");
    if (options.phaseReference && !options.wants("phase") && !options.wants("excess-phase") &&
        !options.wants("group-delay"))
        return usageFailure("--phase-reference applies to phase, excess-phase and group-delay curves.",
                            "Add one of them to --curves.");
    if (options.pointsPerOctave && !frequencyResponse)
        return usageFailure("--points-per-octave applies to frequency curves (magnitude, spl, phases, group "
                            "delay).");
    return {};
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
    if (wantsSurface(options)) {
        auto surface = surfaceOfRecord(record, number, options);
        if (!surface)
            return std::unexpected(surface.error());
        const std::string curve = options.curves.front();
        files.push_back({fmt::format("{}-{}", base, curve), format == "matlab" ? "m" : "csv",
                         [surface = *surface, curve, format](const std::filesystem::path& path) {
                             return format == "matlab" ? writeSurfaceMATLAB(*surface, curve, path)
                                                       : writeSurfaceCSV(*surface, path);
                         }});
        return files;
    }

    std::optional<CurveGroup> frequency;
    if (wantsFrequencyCurves(options) && format != "frd") {
        auto group = frequencyGroup(*record, number, options, fftLength, requestedFrequencyCurves(options));
        if (!group)
            return std::unexpected(group.error());
        frequency = std::move(*group);
    }
    std::optional<HarmonicCurves> harmonics;
    if (options.wants("harmonics") || options.wants("thd") || options.wants("noise-floor")) {
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
    if (wantsFrequencyCurves(options) || !harmonics) {
        std::vector<std::string_view> names{options.wants("spl") ? "spl" : "magnitude"};
        for (std::string_view phase : {"phase", "minimum-phase", "excess-phase"})
            if (options.wants(phase))
                names.push_back(phase);
        auto group = frequencyGroup(*record, number, options, fftLength, names);
        if (!group)
            return std::unexpected(group.error());
        const VELTRealVector& axis = group->axis.values;
        const VELTRealVector& magnitude = group->curves[0].values;
        const VELTRealVector phase =
            group->curves.size() > 1 ? group->curves[1].values : VELTRealVector(axis.length());
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
    command->add_flag("--json", options->json, "Print the files written as JSON for scripts");
    command
        ->add_option("-f,--format", options->format,
                     "csv, matlab, frd or wav (default: from the file's extension)")
        ->check(CLI::IsMember({"csv", "matlab", "frd", "wav"}));
    command
        ->add_option("-c,--curves", options->curves,
                     "Comma-separated: magnitude, spl, phase, minimum-phase, excess-phase, group-delay, "
                     "harmonics, impulse, etc, waterfall, spectrogram (default: magnitude,phase; impulse "
                     "for WAV)")
        ->delimiter(',')
        ->check(CLI::IsMember(kCurveNames));
    command->add_option("--fft-length", options->fftLength,
                        "FFT length, a power of two (default: the record's, at least 32768)");
    command
        ->add_option("--orders", options->orderTexts,
                     "Harmonic orders for the harmonics curves, comma-separated, ranges allowed: 2-9 "
                     "(default: 2,3)")
        ->delimiter(',');
    command->add_flag("--percent", options->percent,
                      "Harmonic distortion, total distortion (thd: orders 2 to 9, each where its output lies "
                      "below the sweep's end and 0.95 times half the sample rate) and the noise floor (the "
                      "distortion the measurement's noise alone reads) in percent of the fundamental "
                      "(default dB)");
    command->add_flag("--unwrapped", options->unwrapped,
                      "Phases unwrapped rather than within -180 to 180 degrees");
    command->add_flag("--windowed", options->windowed,
                      "WAV: the windowed impulse response instead of the whole");
    command->add_option("--time-start", options->timeStart, "Time curves from this time, ms (default: all)");
    command->add_option("--time-end", options->timeEnd, "Time curves up to this time, ms (default: all)");
    CLI::Option* smoothing =
        command
            ->add_option(
                "--smoothing", options->smoothing,
                "Smooth magnitude and SPL over 1/N octave, N from 1 to 48 (12 when given without N), "
                "averaging the decibels as the graphs do (see --smoothing-domain); phases and "
                "group delay are not smoothed")
            ->expected(0, 1)
            ->default_str("12");
    command
        ->add_option("--smoothing-domain", options->smoothingDomain,
                     "db: average the decibel values (default); power: average the powers they stand for, "
                     "then take the decibels of the mean")
        ->check(CLI::IsMember({"db", "power"}))
        ->needs(smoothing);
    command->add_option("--points-per-octave", options->pointsPerOctave,
                        "Frequency curves at N points per octave (1 to 96) on a logarithmic grid through "
                        "1 kHz, from about 10 Hz to the top of the record's range, instead of the linear "
                        "bins; no 0 Hz line");
    command
        ->add_option("--phase-reference", options->phaseReference,
                     "What phase, excess phase and group delay count time from: zero (time zero, where "
                     "a wire reads 0 ms), peak (the impulse's peak, for aligning drivers) or window (the "
                     "window's begin)")
        ->check(CLI::IsMember({"zero", "peak", "window"}))
        ->default_str("zero");
    command
        ->add_option("--weighting", options->weighting,
                     "a or c: magnitude and SPL weighted by the A or C filter of the record's sample rate")
        ->check(CLI::IsMember({"a", "c"}));
    command->add_option("--slices", options->slices,
                        "Waterfall: the number of slices, 1 to 1000 (default 25)");
    command->add_option("--start", options->start,
                        "Waterfall and spectrogram: the first slice's start, ms after time zero or the peak "
                        "(default 0)");
    command->add_option("--duration", options->duration,
                        "Waterfall: ms from the first slice's start to the last one's (default: a quarter of "
                        "the FFT length); spectrogram: the stretch the slices cover (default: to the "
                        "response's end)");
    command
        ->add_option("--window-type", options->windowType,
                     "The window of each slice: rectangular, hamming, half-hamming, hanning, half-hanning, "
                     "bingham or half-bingham (default: half-hanning for the waterfall, hanning for the "
                     "spectrogram)")
        ->check(CLI::IsMember({"rectangular", "hamming", "half-hamming", "hanning", "half-hanning", "bingham",
                               "half-bingham"}));
    command->add_option(
        "--overlap", options->overlap,
        "Spectrogram: the fraction of a slice its neighbour overlaps, 0 to 0.9 (default 0.5)");
    command->add_flag("--start-at-peak", options->startAtPeak,
                      "Waterfall and spectrogram: count time from the impulse's peak instead of time zero");
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
             if (auto checked = checkFrequencyOptions(*options, *format); !checked)
                 return checked;
             if (auto checked = checkSurfaceOptions(*options, *format); !checked)
                 return checked;
             if (options->fftLength &&
                 (!std::has_single_bit(*options->fftLength) || *options->fftLength < kSmallestFFTLength ||
                  *options->fftLength > kLargestFFTLength))
                 return usageFailure(fmt::format("The FFT length must be a power of two from {} to {} "
                                                 "(got {}).",
                                                 kSmallestFFTLength, kLargestFFTLength, *options->fftLength));
             if (!options->orderTexts.empty()) {
                 auto orders = parsedOrders(options->orderTexts);
                 if (!orders)
                     return std::unexpected(orders.error());
                 options->orders = std::move(*orders);
             }
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
             nlohmann::json written = nlohmann::json::array();
             for (const PendingFile& file : files) {
                 std::filesystem::path path =
                     intoFolder ? output / fmt::format("{}.{}", file.name, file.extension) : output;
                 if (auto done = file.write(path); !done)
                     return done;
                 if (options->json)
                     written.push_back(validUTF8(path.string()));
                 else
                     printLine(fmt::format("Wrote {}", path.string()));
             }
             if (options->json)
                 printLine(jsonText({{"written", written}}));
             return {};
         }});
}

} // namespace tavolar::cli
