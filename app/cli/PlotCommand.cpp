// plot: a graph of records drawn to a PNG, SVG or PDF file, computed as the graphs compute it and laid
// out as they are drawn.

#include "CommandLine.h"
#include "RecordStore.h"

#if TAVOLAR_WITH_GRAPHICS
#include "graphing/VELTUnitFormatter.h"
#include "graphing/cairo/VELTCairoPainter.h"
#include "graphs/FrequencyGraphPlots.h"
#endif

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace tavolar::cli {

namespace {

struct PlotOptions {
    std::string document;
    std::vector<std::string> records;
    std::string graph = "magnitude";
    std::optional<int> smoothing; // 1/N octave
    std::string output;
    double width = 160.0;  // mm
    double height = 100.0; // mm
    double dpi = 300.0;
    std::optional<std::string> title;
    std::string theme = "light";
    std::optional<std::string> xRange; // "A:B"
    std::optional<std::string> yRange;
    bool normalize = false;
    std::string combine = "none";
    std::optional<double> decibelsPerDecade;
    std::string phaseReference = "zero";
    bool unwrapped = false;
};

constexpr int kLargestSmoothingDenominator = 48;

const std::vector<std::string> kCombinations{"none", "average", "difference", "sum", "rms-average"};

// "A:B" with A below B, both finite numbers.
Expected<std::pair<double, double>> parsedRange(const std::string& text, std::string_view option) {
    const auto colon = text.find(':');
    auto number = [](std::string_view part) -> std::optional<double> {
        double value = 0.0;
        auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), value);
        if (error != std::errc() || end != part.data() + part.size() || !std::isfinite(value))
            return std::nullopt;
        return value;
    };
    if (colon != std::string::npos) {
        auto low = number(std::string_view(text).substr(0, colon));
        auto high = number(std::string_view(text).substr(colon + 1));
        if (low && high && *low < *high)
            return std::pair{*low, *high};
    }
    return usageFailure(
        fmt::format("{} takes a range such as 20:20000, the lower end first (got {}).", option, text));
}

#if TAVOLAR_WITH_GRAPHICS

Expected<void> plot(const PlotOptions& options) {
    auto format = imageFormatOfPath(options.output);
    if (!format)
        return usageFailure(format.error().localizedDescription, format.error().localizedRecoverySuggestion);
    const auto graph = frequencyGraphNamed(options.graph);
    if (!graph)
        return usageFailure(fmt::format("There is no graph named {}.", options.graph));
    if (options.smoothing && (*options.smoothing < 1 || *options.smoothing > kLargestSmoothingDenominator))
        return usageFailure(fmt::format("Smoothing is over 1/N octave with N from 1 to {} (got {}).",
                                        kLargestSmoothingDenominator, *options.smoothing));
    if (options.smoothing && !graph->smoothed)
        return usageFailure(fmt::format("The {} graph is not smoothed.", options.graph),
                            "Smoothing applies to the magnitude and SPL graphs.");
    if (!(options.width > 0.0) || !(options.height > 0.0) || !(options.dpi >= 10.0) || options.dpi > 2400.0)
        return usageFailure("The width and height must be positive and the resolution from 10 to 2400 dpi.");
    VELTImageSize size{VELTImageSize::pointsFromMillimetres(options.width),
                       VELTImageSize::pointsFromMillimetres(options.height), options.dpi};

    auto store = RecordStore::open(options.document, RecordStore::Mode::ReadOnly);
    if (!store)
        return std::unexpected(store.error());
    auto indices = store->select(options.records, true);
    if (!indices)
        return std::unexpected(indices.error());
    if (indices->empty())
        return failure(fmt::format("{} holds no records to plot.", options.document));
    RecordArray records;
    for (std::size_t index : *indices) {
        auto record = store->load(index);
        if (!record)
            return std::unexpected(record.error());
        records.push_back(*record);
    }

    std::optional<std::pair<double, double>> xRange, yRange;
    if (options.xRange) {
        auto range = parsedRange(*options.xRange, "--x-range");
        if (!range)
            return std::unexpected(range.error());
        if (!(range->first > 0.0))
            return usageFailure("The frequency axis is logarithmic, so --x-range must start above 0 Hz.");
        xRange = *range;
    }
    if (options.yRange) {
        auto range = parsedRange(*options.yRange, "--y-range");
        if (!range)
            return std::unexpected(range.error());
        yRange = *range;
    }
    const bool phaseGraph = graph->kind == FrequencyGraphKind::Phase ||
                            graph->kind == FrequencyGraphKind::ExcessPhase ||
                            graph->kind == FrequencyGraphKind::MinimumPhase;
    if (options.unwrapped && !phaseGraph)
        return usageFailure("--unwrapped applies to the phase graphs.");
    if (options.decibelsPerDecade && graph->kind != FrequencyGraphKind::Magnitude &&
        graph->kind != FrequencyGraphKind::SPL)
        return usageFailure("--db-per-decade applies to the magnitude and SPL graphs.");
    auto appearance = VELTGraphAppearance::appearanceNamed(options.theme);
    if (!appearance)
        return usageFailure(fmt::format("There is no theme named {}.", options.theme));

    GraphCalculationSettings settings;
    settings.normalize = options.normalize;
    settings.unwrapPhase = options.unwrapped;
    settings.phaseReference = options.phaseReference == "peak"     ? PhaseTimeReference::Peak
                              : options.phaseReference == "window" ? PhaseTimeReference::WindowStart
                                                                   : PhaseTimeReference::TimeZero;
    settings.multiSelectMode =
        std::find(kCombinations.begin(), kCombinations.end(), options.combine) - kCombinations.begin();
    if (options.smoothing)
        settings.smoothingFraction = 1.0f / static_cast<float>(*options.smoothing);
    auto controller = makeFrequencyGraphController(graph->kind, settings);
    auto plotted = frequencyGraphPlot(*graph, controller->calculate(records), settings);
    if (!plotted)
        return failure(fmt::format("The records hold no {} curve to draw.", options.graph));
    if (options.title)
        plotted->title = *options.title;
    plotted->appearance = *appearance;
    // The note: the records' sample rates and the smoothing.
    std::vector<std::string> rates;
    for (const auto& record : records) {
        std::string rate = formatFrequencyWithUnit(static_cast<double>(record->sampleRate()));
        if (std::find(rates.begin(), rates.end(), rate) == rates.end())
            rates.push_back(std::move(rate));
    }
    plotted->note = fmt::format("{}", fmt::join(rates, ", "));
    if (options.smoothing && graph->smoothed)
        plotted->note += fmt::format(" \u00B7 1/{} octave smoothing", *options.smoothing);
    if (xRange)
        std::tie(plotted->extents.xMin, plotted->extents.xMax) = *xRange;
    if (yRange)
        std::tie(plotted->extents.yMin, plotted->extents.yMax) = *yRange;
    // Wrapped phases keep their ±180° range; other axes end on whole steps of their ticks.
    const bool wrappedPhase = graph->kind == FrequencyGraphKind::Phase ||
                              graph->kind == FrequencyGraphKind::MinimumPhase ||
                              graph->kind == FrequencyGraphKind::ExcessPhase;
    const VELTRect bounds{0.0, 0.0, size.width, size.height};
    VELTImageMetadata metadata;
    metadata.title =
        plotted->titleModifier.empty() ? plotted->title : plotted->title + " " + plotted->titleModifier;
    std::vector<std::string> names;
    for (const auto& record : records)
        names.push_back(RecordStore::displayName(*record));
    metadata.subject = fmt::format("{} of {}", graph->title, fmt::join(names, ", "));
    // Reproducible files: SOURCE_DATE_EPOCH (seconds since 1970, UTC) fixes the creation date.
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
    auto written = writeImage(
        options.output, *format, size,
        [&](VELTPainter& painter) {
            if (!wrappedPhase && !yRange)
                plotted->extents = roundedGraphExtents(painter, *plotted, bounds);
            if (options.decibelsPerDecade)
                plotted->extents =
                    extentsWithDecibelsPerDecade(painter, *plotted, bounds, *options.decibelsPerDecade);
            drawGraph(painter, *plotted, bounds);
        },
        metadata);
    if (!written)
        return written;
    const std::string curves = plotted->curves.size() == 1 ? std::string("1 curve")
                                                           : fmt::format("{} curves", plotted->curves.size());
    if (*format == VELTImageFormat::PNG)
        printLine(fmt::format("Wrote {} ({} × {} pixels, {})", options.output, size.pixelWidth(),
                              size.pixelHeight(), curves));
    else
        printLine(fmt::format("Wrote {} ({:.0f} × {:.0f} points, {})", options.output, size.width,
                              size.height, curves));
    return {};
}

#else

Expected<void> plot(const PlotOptions&) {
    return failure("This tavolar was built without graph drawing.",
                   "Build it with TAVOLAR_WITH_GRAPHICS on (Cairo and Pango).");
}

#endif

} // namespace

void addPlotCommand(CLI::App& app, CommandList& commands) {
    auto options = std::make_shared<PlotOptions>();
    CLI::App* command = app.add_subcommand("plot", "Draw a graph of records to a PNG, SVG or PDF file");
    command->add_option("document", options->document, "The document (*.tavolar)")->required();
    command->add_option("records", options->records, "Records by number, UUID or UUID prefix; default: all");
    command
        ->add_option("-g,--graph", options->graph,
                     "magnitude, spl, phase, minimum-phase, excess-phase or group-delay (default magnitude)")
        ->check(CLI::IsMember({"magnitude", "spl", "phase", "minimum-phase", "excess-phase", "group-delay"}));
    command
        ->add_option("--smoothing", options->smoothing,
                     "Smooth magnitude and SPL over 1/N octave, N from 1 to 48 (12 when given without N)")
        ->expected(0, 1)
        ->default_str("12");
    command->add_option("-o,--output", options->output, "The picture to write: a .png, .svg or .pdf file")
        ->required();
    command->add_option("--width", options->width, "Width in millimetres (default 160)");
    command->add_option("--height", options->height, "Height in millimetres (default 100)");
    command->add_option("--dpi", options->dpi, "Resolution of PNG files in dots per inch (default 300)");
    command->add_option("--title", options->title, "The graph's title (default: the graph's name)");
    command->add_option("--theme", options->theme, "light (default), dark or print (black, curves dashed)")
        ->check(CLI::IsMember({"light", "dark", "print"}));
    command->add_option("--x-range", options->xRange,
                        "The frequencies shown, A:B in Hz (default: the curves')");
    command->add_option("--y-range", options->yRange,
                        "The values shown, A:B (default: the curves', rounded out)");
    command->add_flag("--normalize", options->normalize, "Magnitude and SPL: move each curve's peak to 0 dB");
    command
        ->add_option("--combine", options->combine,
                     "Draw one curve of all records: none (default), average, difference, sum or rms-average")
        ->check(CLI::IsMember(kCombinations));
    command
        ->add_option(
            "--db-per-decade", options->decibelsPerDecade,
            "Magnitude and SPL: the fixed aspect of IEC 60263, a decade across as long as 10, 20, 25 "
            "or 50 dB up (the top of the range stays)")
        ->check(CLI::IsMember({10.0, 20.0, 25.0, 50.0}));
    command
        ->add_option("--phase-reference", options->phaseReference,
                     "What phase, excess phase and group delay count time from: zero (default), peak (the "
                     "impulse's peak) or window (the window's begin)")
        ->check(CLI::IsMember({"zero", "peak", "window"}));
    command->add_flag("--unwrapped", options->unwrapped,
                      "Phases unwrapped rather than within -180 to 180 degrees");
    commands.push_back({command, [options]() -> Expected<void> { return plot(*options); }});
}

} // namespace tavolar::cli
