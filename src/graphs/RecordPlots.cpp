#include "graphs/RecordPlots.h"

#include "core/VELTMeasurementRecord.h"
#include "graphcalc/RecordGraphCalculationControllers.h"
#include "graphcalc/SpectrogramGraphCalculationController.h"
#include "graphcalc/WaterfallGraphCalculationController.h"
#include "graphing/VELTCollapsingFrequencyNumberFormatter.h"
#include "graphing/VELTUnitFormatter.h"
#include "graphs/BandGraphPlots.h"
#include "graphs/FrequencyGraphPlots.h"
#include "graphs/SurfaceGraphPlots.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <fstream>
#include <limits>
#include <tuple>

namespace tavolar {

namespace {

// The window's edges in milliseconds from time zero. They are signed sample offsets with an
// exclusive end, so an end at the response's midpoint (the default of a short response) is its
// last positive time, not the first negative one that the record's circular time axis reads there.
std::pair<double, double> windowInMilliseconds(const VELTMeasurementRecord& record) {
    const double rate = static_cast<double>(record.sampleRate());
    if (!(rate > 0.0))
        return {std::nan(""), std::nan("")};
    return {1000.0 * static_cast<double>(record.windowBegin()) / rate,
            1000.0 * static_cast<double>(record.windowEnd()) / rate};
}

constexpr int kLargestSmoothingDenominator = 48;
constexpr int kLargestHarmonicOrder = 9;

const std::vector<std::string_view> kCombinations{"none", "average", "difference", "sum", "rms-average"};

std::unexpected<TavolarError> settingsError(std::string description, std::string suggestion = {}) {
    return makeUnexpected(std::move(description), std::move(suggestion), kPlotSettingsError);
}

bool isSurfaceGraph(std::string_view name) {
    return name == "waterfall" || name == "spectrogram";
}

bool isBandGraph(std::string_view name) {
    return name == "octave-bands" || name == "third-octave-bands";
}

// The settings a graph does not take, checked against their defaults.
Expected<void> checkedSettings(const PlotSettings& s) {
    const PlotSettings defaults;
    const auto& names = plotGraphNames();
    if (std::find(names.begin(), names.end(), s.graph) == names.end())
        return settingsError(fmt::format("There is no graph named {}.", s.graph),
                             fmt::format("The graphs are {}.", fmt::join(names, ", ")));
    const auto frequency = frequencyGraphNamed(s.graph);
    const bool smoothed =
        (frequency && frequency->smoothed) || s.graph == "waterfall" || s.graph == "spectrogram";
    const bool decibelGraph = s.graph == "magnitude" || s.graph == "spl";
    const bool phaseGraph = s.graph == "phase" || s.graph == "minimum-phase" || s.graph == "excess-phase";
    if (s.smoothing && (*s.smoothing < 1 || *s.smoothing > kLargestSmoothingDenominator))
        return settingsError(fmt::format("Smoothing is over 1/N octave with N from 1 to {} (got {}).",
                                         kLargestSmoothingDenominator, *s.smoothing));
    if (s.smoothing && !smoothed)
        return settingsError(fmt::format("The {} graph is not smoothed.", s.graph),
                             "Smoothing applies to the magnitude, SPL, waterfall and spectrogram graphs.");
    if (std::find(kCombinations.begin(), kCombinations.end(), s.combine) == kCombinations.end())
        return settingsError(fmt::format("There is no combination named {}.", s.combine),
                             fmt::format("The combinations are {}.", fmt::join(kCombinations, ", ")));
    if (s.combine != defaults.combine && !frequency)
        return settingsError(fmt::format("The {} graph does not combine records.", s.graph),
                             "Records are combined on the frequency-response graphs.");
    if (s.normalize && !decibelGraph)
        return settingsError("Normalising applies to the magnitude and SPL graphs.");
    if (s.decibelsPerDecade && !decibelGraph)
        return settingsError("A fixed number of dB per decade applies to the magnitude and SPL graphs.");
    if (s.decibelsPerDecade && s.linearFrequency)
        return settingsError("A fixed number of dB per decade needs a logarithmic frequency axis.");
    if (s.unwrapped && !phaseGraph)
        return settingsError("Unwrapping applies to the phase graphs.");
    if (s.decibels && s.graph != "impulse")
        return settingsError("Levels in dB apply to the impulse graph (the others are in dB already).");
    if ((s.percent || s.orders != defaults.orders) && s.graph != "distortion")
        return settingsError("Orders and percent apply to the distortion graph.");
    for (int order : s.orders)
        if (order < 2 || order > kLargestHarmonicOrder)
            return settingsError(
                fmt::format("Harmonic orders run from 2 to {} (got {}).", kLargestHarmonicOrder, order));
    if (s.orders.empty())
        return settingsError("The distortion graph needs at least one harmonic order.");
    if (s.weighting != 'a' && s.weighting != 'c' && s.weighting != 'z')
        return settingsError(fmt::format("There is no weighting {}.", s.weighting),
                             "The weightings are a, c and z (none).");
    if (s.weighting != defaults.weighting && !isBandGraph(s.graph))
        return settingsError("Weighting applies to the band graphs.");
    if (s.phaseReference != "zero" && s.phaseReference != "peak" && s.phaseReference != "window")
        return settingsError(fmt::format("There is no phase reference named {}.", s.phaseReference),
                             "The references are zero, peak and window.");
    if (!VELTGraphAppearance::appearanceNamed(s.theme))
        return settingsError(fmt::format("There is no theme named {}.", s.theme),
                             "The themes are light, dark and print.");
    if (s.colorMap != "viridis" && s.colorMap != "magma")
        return settingsError(fmt::format("There is no colour map named {}.", s.colorMap),
                             "The colour maps are viridis and magma.");
    const WaterfallSettings& w = s.waterfall;
    if (w.sliceCount < 2 || w.sliceCount > 1000 || w.fftLength < 64 || w.fftLength > 65536 ||
        (w.fftLength & (w.fftLength - 1)) != 0 || !(w.duration >= 0.0f) || !std::isfinite(w.startTime))
        return settingsError(
            "Waterfalls and spectrograms take 2 to 1000 slices, a transform of a power of two "
            "from 64 to 65536 samples, and a duration that is not negative.");
    if (!(s.floor > 0.0) || s.floor > 200.0)
        return settingsError(fmt::format("The floor is from 0 to 200 dB below the peak (got {}).", s.floor));
    for (const auto& range : {s.xRange, s.yRange})
        if (range &&
            !(std::isfinite(range->first) && std::isfinite(range->second) && range->first < range->second))
            return settingsError("A range must be finite, its lower end first.");
    const bool logarithmicX =
        (frequency || s.graph == "distortion" || isSurfaceGraph(s.graph) || isBandGraph(s.graph)) &&
        !s.linearFrequency;
    if (s.xRange && logarithmicX && !(s.xRange->first > 0.0))
        return settingsError("The frequency axis is logarithmic, so its range must start above 0 Hz.");
    if (s.linearFrequency && !(frequency || s.graph == "distortion" || isSurfaceGraph(s.graph)))
        return settingsError(fmt::format("The {} graph has no frequency axis to make linear.", s.graph));
    return {};
}

GraphCalculationSettings calculationSettings(const PlotSettings& s) {
    GraphCalculationSettings settings;
    settings.normalize = s.normalize;
    settings.unwrapPhase = s.unwrapped;
    settings.phaseReference = s.phaseReference == "peak"     ? PhaseTimeReference::Peak
                              : s.phaseReference == "window" ? PhaseTimeReference::WindowStart
                                                             : PhaseTimeReference::TimeZero;
    settings.multiSelectMode =
        std::find(kCombinations.begin(), kCombinations.end(), s.combine) - kCombinations.begin();
    if (s.smoothing)
        settings.smoothingFraction = 1.0f / static_cast<float>(*s.smoothing);
    settings.decibels = s.decibels;
    settings.harmonicOrders.assign(s.orders.begin(), s.orders.end());
    settings.percent = s.percent;
    settings.noiseFloor = false;
    settings.thirdOctaveBands = s.graph == "third-octave-bands";
    settings.weighting = s.weighting;
    settings.waterfall = s.waterfall;
    // The waterfall's slices are long and few; a spectrogram takes short, closely overlapping ones
    // over the first half second instead, for each setting left as the waterfall has it.
    const WaterfallSettings defaults;
    WaterfallSettings& w = settings.waterfall;
    if (s.graph == "spectrogram") {
        if (w.fftLength == defaults.fftLength)
            w.fftLength = 1024;
        if (w.overlap == defaults.overlap)
            w.overlap = 0.9375f;
        if (w.startTime == defaults.startTime)
            w.startTime = -5.0f;
        if (w.duration == defaults.duration)
            w.duration = 500.0f;
    }
    return settings;
}

std::string recordName(const VELTMeasurementRecord& record) {
    std::optional<std::string> comment = record.comment();
    return comment && !comment->empty() ? *comment : std::string("Untitled");
}

// The note under the plot, what shaped the data: the records' sample rates, the lengths of their
// windows (where the graph is computed from the windowed response), their averages and the smoothing.
// Each record's value is given once: "48 kHz · 200 ms window · 4 averages · 1/12 octave smoothing".
std::string dataNote(const RecordArray& records, const PlotSettings& s, bool windowed) {
    std::vector<std::string> rates, windows, averages;
    auto add = [](std::vector<std::string>& values, std::string value) {
        if (std::find(values.begin(), values.end(), value) == values.end())
            values.push_back(std::move(value));
    };
    for (const auto& record : records) {
        add(rates, formatFrequencyWithUnit(static_cast<double>(record->sampleRate())));
        const auto [begin, end] = windowInMilliseconds(*record);
        const double length = end - begin;
        if (windowed && std::isfinite(length) && length > 0.0)
            add(windows, formatMilliseconds(length, length < 10.0 ? 1 : 0));
        if (record->synchronousAverages() > 1)
            add(averages, fmt::format("{}", record->synchronousAverages()));
    }
    std::vector<std::string> parts{fmt::format("{}", fmt::join(rates, ", "))};
    if (!windows.empty())
        parts.push_back(fmt::format("{} window{}", fmt::join(windows, ", "), windows.size() > 1 ? "s" : ""));
    if (!averages.empty())
        parts.push_back(fmt::format("{} averages", fmt::join(averages, ", ")));
    if (s.smoothing)
        parts.push_back(fmt::format("1/{} octave smoothing", *s.smoothing));
    return fmt::format("{}", fmt::join(parts, " \u00B7 "));
}

// The time graphs: the impulse response (with its window) and the energy-time curve.
Expected<GraphPicture> timePicture(const RecordArray& records, const PlotSettings& s,
                                   const GraphCalculationSettings& settings) {
    GraphPicture picture;
    GraphDataArray data;
    const bool impulse = s.graph == "impulse";
    if (impulse)
        data = ImpulseResponseGraphCalculationController(settings).calculate(records);
    else
        data = EnergyTimeCurveGraphCalculationController(settings).calculate(records);
    // The impulse controller gives the response and its window in turn; the window is drawn as a span.
    GraphDataArray curves;
    for (std::size_t i = 0; i < data.size(); ++i)
        if (!impulse || i % 2 == 0)
            curves.push_back(data[i]);
    for (const auto& record : records) {
        if (!impulse)
            break;
        const auto [begin, end] = windowInMilliseconds(*record);
        if (std::isfinite(begin) && std::isfinite(end) && end > begin)
            picture.windows.emplace_back(begin, end);
    }
    VELTGraphPlot& plot = picture.plot;
    plot.title = impulse ? "Impulse Response" : "Energy-Time Curve";
    plot.xQuantity = {"Time", "ms"};
    plot.yQuantity = impulse && !s.decibels ? GraphQuantity{"Amplitude", ""} : GraphQuantity{"Level", "dB"};
    auto extents = automaticGraphExtents(curves, false);
    if (!extents)
        return makeUnexpected(fmt::format("The records hold no {} to draw.",
                                          impulse ? "impulse response" : "energy-time curve"));
    // The loudest point of all curves, and the last point within 60 dB of it: the response of
    // interest, however long the recording.
    double peak = -std::numeric_limits<double>::infinity(), peakTime = 0.0;
    for (const auto& curve : curves)
        for (std::size_t i = 0; i < curve->y().length(); ++i) {
            const double level = impulse && !s.decibels ? std::abs(curve->y()[i]) : curve->y()[i];
            if (std::isfinite(level) && level > peak) {
                peak = level;
                peakTime = curve->x()[i];
            }
        }
    const double audible = impulse && !s.decibels ? peak * 1e-3 : peak - 60.0;
    double lastLoud = peakTime;
    for (const auto& curve : curves)
        for (std::size_t i = 0; i < curve->y().length(); ++i) {
            const double level = impulse && !s.decibels ? std::abs(curve->y()[i]) : curve->y()[i];
            if (level >= audible)
                lastLoud = std::max(lastLoud, static_cast<double>(curve->x()[i]));
        }
    // A linear response spans its own peaks, symmetrically about zero.
    if (impulse && !s.decibels && peak > 0.0) {
        extents->yMin = -peak * 1.1;
        extents->yMax = peak * 1.1;
    }
    // Levels in dB reach far down into the noise: the picture shows the top 100 dB.
    if (!impulse || s.decibels)
        extents->yMin = std::max(extents->yMin, extents->yMax - 100.0);
    // Most of a long response is silence: the X range runs from a little before the peak to a little
    // after the response has decayed by 60 dB.
    const double span = std::max((lastLoud - peakTime) * 1.2, 10.0);
    extents->xMin = std::max(extents->xMin, peakTime - std::max(span * 0.1, 2.0));
    extents->xMax = std::min(extents->xMax, peakTime + span);
    plot.extents = *extents;
    plot.curves = std::move(curves);
    picture.roundedY = true;
    return picture;
}

Expected<GraphPicture> distortionPicture(const RecordArray& records, const PlotSettings& s,
                                         const GraphCalculationSettings& settings) {
    GraphPicture picture;
    // Each record's curves apart, so that several records' curves are named after their record.
    GraphDataArray curves;
    HarmonicDistortionGraphCalculationController controller(settings);
    for (const auto& record : records)
        for (const auto& curve : controller.calculate(RecordArray{record})) {
            if (records.size() == 1) {
                curves.push_back(curve);
                continue;
            }
            auto named = std::make_shared<VELTGraphData>(*curve);
            named->setName(recordName(*record) + " " + curve->name());
            curves.push_back(std::move(named));
        }
    VELTGraphPlot& plot = picture.plot;
    plot.title = "Harmonic Distortion";
    plot.xQuantity = {"Frequency", "Hz"};
    plot.xTickLabels = VELTCollapsingFrequencyNumberFormatter();
    plot.yQuantity = {"Distortion", s.percent ? "%" : "dB"};
    plot.logarithmicX = !s.linearFrequency;
    auto extents = automaticGraphExtents(curves, plot.logarithmicX);
    if (!extents)
        return makeUnexpected("The records hold no harmonic distortion to draw.",
                              "Distortion is read from logarithmic sweeps.");
    if (!s.percent) {
        // The last bins below the sweep's end read spurious levels: the top is at most 10 dB over
        // the 99.5th percentile of all levels, and the range reaches 100 dB down from it.
        std::vector<float> levels;
        for (const auto& curve : curves)
            for (std::size_t i = 0; i < curve->y().length(); ++i)
                if (std::isfinite(curve->y()[i]))
                    levels.push_back(curve->y()[i]);
        if (levels.size() >= 200) {
            auto nth = levels.begin() + static_cast<std::ptrdiff_t>(0.995 * double(levels.size() - 1));
            std::nth_element(levels.begin(), nth, levels.end());
            extents->yMax = std::min(extents->yMax, static_cast<double>(*nth) + 10.0);
        }
        extents->yMin = std::max(extents->yMin, extents->yMax - 100.0);
    } else
        extents->yMin = std::max(0.0, extents->yMin);
    plot.extents = *extents;
    plot.curves = std::move(curves);
    return picture;
}

} // namespace

const std::vector<std::string_view>& plotGraphNames() {
    static const std::vector<std::string_view> names{
        "magnitude",          "spl",       "phase",      "minimum-phase", "excess-phase",
        "group-delay",        "impulse",   "etc",        "distortion",    "octave-bands",
        "third-octave-bands", "waterfall", "spectrogram"};
    return names;
}

Expected<GraphPicture> plotRecords(const RecordArray& records, const PlotSettings& s) {
    if (auto checked = checkedSettings(s); !checked)
        return std::unexpected(checked.error());
    if (records.empty())
        return makeUnexpected("There are no records to plot.");
    const GraphCalculationSettings settings = calculationSettings(s);
    Expected<GraphPicture> picture = makeUnexpected("Nothing to draw.");
    if (const auto graph = frequencyGraphNamed(s.graph)) {
        auto controller = makeFrequencyGraphController(graph->kind, settings);
        auto plotted = frequencyGraphPlot(*graph, controller->calculate(records), settings);
        if (!plotted)
            return makeUnexpected(fmt::format("The records hold no {} curve to draw.", s.graph));
        GraphPicture made;
        made.plot = std::move(*plotted);
        // Wrapped phases keep their ±180° range.
        made.roundedY = s.unwrapped || !(graph->kind == FrequencyGraphKind::Phase ||
                                         graph->kind == FrequencyGraphKind::MinimumPhase ||
                                         graph->kind == FrequencyGraphKind::ExcessPhase);
        made.decibelsPerDecade = s.decibelsPerDecade;
        if (s.linearFrequency)
            made.plot.logarithmicX = false;
        picture = std::move(made);
    } else if (s.graph == "impulse" || s.graph == "etc") {
        picture = timePicture(records, s, settings);
    } else if (s.graph == "distortion") {
        picture = distortionPicture(records, s, settings);
    } else if (isBandGraph(s.graph)) {
        picture = bandPicture(records, s, settings);
    } else if (isSurfaceGraph(s.graph)) {
        picture = surfacePicture(records, s, settings);
    }
    if (!picture)
        return picture;
    picture->graph = s.graph;
    VELTGraphPlot& plot = picture->plot;
    plot.appearance = *VELTGraphAppearance::appearanceNamed(s.theme);
    plot.note = dataNote(records, s, frequencyGraphNamed(s.graph) || isBandGraph(s.graph));
    if (s.title)
        plot.title = *s.title;
    if (s.xRange)
        std::tie(plot.extents.xMin, plot.extents.xMax) = *s.xRange;
    if (s.yRange) {
        if (picture->style == PictureStyle::Waterfall || picture->style == PictureStyle::HeatMap)
            picture->levelRange = *s.yRange;
        else
            std::tie(plot.extents.yMin, plot.extents.yMax) = *s.yRange;
        picture->roundedY = false;
    }
    std::vector<std::string> names;
    for (const auto& record : records)
        names.push_back(recordName(*record));
    const std::string title = plot.title.empty() ? std::string(s.graph) : plot.title;
    picture->subject = fmt::format("{} of {}", title, fmt::join(names, ", "));
    return picture;
}

std::optional<VELTGraphLayout> drawPicture(VELTPainter& painter, const GraphPicture& picture,
                                           const VELTRect& bounds) {
    switch (picture.style) {
    case PictureStyle::Waterfall:
        drawWaterfall(painter, picture, bounds);
        return std::nullopt;
    case PictureStyle::HeatMap:
        drawHeatMap(painter, picture, bounds);
        return std::nullopt;
    case PictureStyle::Bars:
    case PictureStyle::Curves:
        break;
    }
    VELTGraphPlot plot = picture.plot;
    if (picture.roundedY)
        plot.extents = roundedGraphExtents(painter, plot, bounds);
    if (picture.decibelsPerDecade)
        plot.extents = extentsWithDecibelsPerDecade(painter, plot, bounds, *picture.decibelsPerDecade);
    const VELTColor shade{0.5, 0.5, 0.5, 0.1};
    for (const auto& [begin, end] : picture.windows)
        plot.xSpans.push_back({begin, end, shade});
    return drawGraph(painter, plot, bounds);
}

namespace {

std::string csvField(const std::string& text) {
    if (text.find_first_of(",\"\n") == std::string::npos)
        return text;
    std::string quoted = "\"";
    for (char c : text) {
        if (c == '"')
            quoted += '"';
        quoted += c;
    }
    return quoted + "\"";
}

std::string columnTitle(const std::string& name, const GraphQuantity& quantity) {
    const std::string axis = axisTitle(quantity.name, quantity.unit);
    return name.empty() ? axis : name + " " + axis;
}

} // namespace

Expected<std::string> csvOfPicture(const GraphPicture& picture) {
    std::vector<std::string> titles;
    std::vector<std::vector<float>> columns;
    const VELTGraphPlot& plot = picture.plot;
    for (const auto& curve : plot.curves) {
        if (!curve)
            continue;
        if (const auto* surface = dynamic_cast<const GraphData3D*>(curve.get())) {
            std::vector<float> x, z, v;
            for (std::size_t row = 0; row < surface->rows(); ++row)
                for (std::size_t column = 0; column < surface->columns(); ++column) {
                    x.push_back(surface->x()[column]);
                    z.push_back(surface->z()[row]);
                    v.push_back(surface->valueAt(row, column));
                }
            if (v.empty())
                continue;
            titles.push_back(columnTitle(surface->name(), surface->xQuantity()));
            titles.push_back(columnTitle(surface->name(), surface->zQuantity()));
            titles.push_back(columnTitle(surface->name(), surface->yQuantity()));
            columns.push_back(std::move(x));
            columns.push_back(std::move(z));
            columns.push_back(std::move(v));
            continue;
        }
        const std::size_t n = std::min(curve->x().length(), curve->y().length());
        if (n == 0)
            continue;
        const GraphQuantity& xq = curve->xQuantity().name.empty() ? plot.xQuantity : curve->xQuantity();
        const GraphQuantity& yq = curve->yQuantity().name.empty() ? plot.yQuantity : curve->yQuantity();
        titles.push_back(columnTitle(curve->name(), xq));
        titles.push_back(columnTitle(curve->name(), yq));
        columns.emplace_back(curve->x().components(), curve->x().components() + n);
        columns.emplace_back(curve->y().components(), curve->y().components() + n);
    }
    if (columns.empty())
        return makeUnexpected("No data to write");
    std::size_t rows = 0;
    for (const auto& column : columns)
        rows = std::max(rows, column.size());
    std::string text;
    for (std::size_t i = 0; i < titles.size(); ++i)
        text += (i ? "," : "") + csvField(titles[i]);
    text += '\n';
    for (std::size_t row = 0; row < rows; ++row) {
        for (std::size_t i = 0; i < columns.size(); ++i) {
            if (i)
                text += ',';
            if (row < columns[i].size() && std::isfinite(columns[i][row]))
                text += fmt::format("{}", columns[i][row]);
        }
        text += '\n';
    }
    return text;
}

Expected<void> writePlot(const std::filesystem::path& path, const GraphPicture& picture,
                         const VELTImageSize& size, VELTImageMetadata metadata) {
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (extension == ".csv") {
        auto text = csvOfPicture(picture);
        if (!text)
            return std::unexpected(text.error());
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        file << *text;
        file.close();
        if (!file)
            return makeUnexpected(fmt::format("{} could not be written.", path.string()),
                                  "Check that its folder exists and may be written to.");
        return {};
    }
#if TAVOLAR_WITH_GRAPHICS
    auto format = imageFormatOfPath(path);
    if (!format)
        return std::unexpected(TavolarError{format.error().domain, kPlotSettingsError,
                                            format.error().localizedDescription,
                                            format.error().localizedRecoverySuggestion});
    if (metadata.title.empty())
        metadata.title = picture.plot.titleModifier.empty()
                             ? picture.plot.title
                             : picture.plot.title + " " + picture.plot.titleModifier;
    if (metadata.subject.empty())
        metadata.subject = picture.subject;
    // Reproducible files: SOURCE_DATE_EPOCH (seconds since 1970, UTC) fixes the creation date.
    if (!metadata.creationDate)
        if (const char* epoch = std::getenv("SOURCE_DATE_EPOCH")) {
            long long seconds = 0;
            auto [end, error] = std::from_chars(epoch, epoch + std::strlen(epoch), seconds);
            if (error == std::errc() && *end == '\0' && seconds >= 0) {
                const std::time_t time = static_cast<std::time_t>(seconds);
                std::tm utc{};
                gmtime_r(&time, &utc);
                char text[32];
                std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
                metadata.creationDate = text;
            }
        }
    const VELTRect bounds{0.0, 0.0, size.width, size.height};
    return writeImage(
        path, *format, size, [&](VELTPainter& painter) { drawPicture(painter, picture, bounds); }, metadata);
#else
    (void)size;
    (void)metadata;
    return makeUnexpected("This TavolarKit was built without graph drawing; only .csv files can be written.",
                          "Build it with TAVOLAR_WITH_GRAPHICS on (Cairo and Pango).");
#endif
}

} // namespace tavolar
