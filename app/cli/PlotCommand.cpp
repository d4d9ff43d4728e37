// plot: a graph of records drawn to a PNG, SVG, PDF or TIFF file, or its data written as CSV; the
// picture is the library's (plotRecords), so every host draws the same one.

#include "CommandLine.h"
#include "RecordStore.h"
#include "graphs/RecordPlots.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
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
    std::optional<int> smoothing; // 1/N octave
    std::string output;
    double width = 160.0;  // mm
    double height = 100.0; // mm
    double dpi = 300.0;
    std::optional<std::string> xRange; // "A:B"
    std::optional<std::string> yRange;
    std::optional<std::string> orders; // "2-5" or "2,3,5"
    std::string weighting = "z";
    std::optional<int> slices;
    std::optional<double> duration;
    std::optional<int> fftLength;
    PlotSettings settings;
};

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

// Harmonic orders: "2-5", "3" or "2,3,5".
Expected<std::vector<int>> parsedOrders(const std::string& text) {
    std::vector<int> orders;
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::size_t comma = rest.find(',');
        std::string_view part = rest.substr(0, comma);
        rest = comma == std::string_view::npos ? std::string_view{} : rest.substr(comma + 1);
        int low = 0, high = 0;
        const std::size_t dash = part.find('-');
        std::string_view first = part.substr(0, dash);
        auto [end, error] = std::from_chars(first.data(), first.data() + first.size(), low);
        bool valid = error == std::errc() && end == first.data() + first.size();
        high = low;
        if (valid && dash != std::string_view::npos) {
            std::string_view second = part.substr(dash + 1);
            auto [end2, error2] = std::from_chars(second.data(), second.data() + second.size(), high);
            valid = error2 == std::errc() && end2 == second.data() + second.size() && high >= low;
        }
        if (!valid || high - low > 16)
            return usageFailure(fmt::format("--orders takes orders such as 2-5 or 2,3,5 (got {}).", text));
        for (int order = low; order <= high; ++order)
            if (std::find(orders.begin(), orders.end(), order) == orders.end())
                orders.push_back(order);
    }
    if (orders.empty())
        return usageFailure("--orders takes orders such as 2-5 or 2,3,5.");
    return orders;
}

// Errors about the settings are mistakes on the command line.
std::unexpected<TavolarError> reported(const TavolarError& error) {
    if (error.code == kPlotSettingsError)
        return usageFailure(error.localizedDescription, error.localizedRecoverySuggestion);
    return std::unexpected(error);
}

Expected<void> plot(PlotOptions options) {
    PlotSettings& settings = options.settings;
    settings.smoothing = options.smoothing;
    if (options.xRange) {
        auto range = parsedRange(*options.xRange, "--x-range");
        if (!range)
            return std::unexpected(range.error());
        settings.xRange = *range;
    }
    if (options.yRange) {
        auto range = parsedRange(*options.yRange, "--y-range");
        if (!range)
            return std::unexpected(range.error());
        settings.yRange = *range;
    }
    if (options.orders) {
        auto orders = parsedOrders(*options.orders);
        if (!orders)
            return std::unexpected(orders.error());
        settings.orders = *orders;
    }
    settings.weighting = options.weighting.front();
    const bool surface = settings.graph == "waterfall" || settings.graph == "spectrogram";
    if (!surface && (options.slices || options.duration || options.fftLength))
        return usageFailure("--slices, --duration and --fft apply to the waterfall and spectrogram.");
    if (options.slices)
        settings.waterfall.sliceCount = *options.slices;
    if (options.duration)
        settings.waterfall.duration = static_cast<float>(*options.duration);
    if (options.fftLength)
        settings.waterfall.fftLength = *options.fftLength;
    if (!(options.width > 0.0) || !(options.height > 0.0) || !(options.dpi >= 10.0) || options.dpi > 2400.0)
        return usageFailure("The width and height must be positive and the resolution from 10 to 2400 dpi.");
    const VELTImageSize size{VELTImageSize::pointsFromMillimetres(options.width),
                             VELTImageSize::pointsFromMillimetres(options.height), options.dpi};
    std::string extension = std::filesystem::path(options.output).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const bool csv = extension == ".csv";
    if (!csv && extension != ".png" && extension != ".svg" && extension != ".pdf" && extension != ".tif" &&
        extension != ".tiff")
        return usageFailure(
            fmt::format("{} is no picture file to write.", options.output),
            "Give a .png, .svg or .pdf file (or .tiff) for a picture, or .csv for the graph's data.");

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

    auto picture = plotRecords(records, settings);
    if (!picture)
        return reported(picture.error());
    if (auto written = writePlot(options.output, *picture, size); !written)
        return reported(written.error());
    const std::size_t count = picture->plot.curves.size();
    const std::string curves = count == 1 ? std::string("1 curve") : fmt::format("{} curves", count);
    if (csv)
        printLine(fmt::format("Wrote {} ({})", options.output, curves));
    else if (extension == ".png" || extension == ".tif" || extension == ".tiff")
        printLine(fmt::format("Wrote {} ({} × {} pixels, {})", options.output, size.pixelWidth(),
                              size.pixelHeight(), curves));
    else
        printLine(fmt::format("Wrote {} ({:.0f} × {:.0f} points, {})", options.output, size.width,
                              size.height, curves));
    return {};
}

} // namespace

void addPlotCommand(CLI::App& app, CommandList& commands) {
    auto options = std::make_shared<PlotOptions>();
    PlotSettings& settings = options->settings;
    CLI::App* command = app.add_subcommand(
        "plot", "Draw a graph of records to a PNG, SVG, PDF or TIFF file, or write its data as CSV");
    command->add_option("document", options->document, "The document (*.tavolar)")->required();
    command->add_option("records", options->records, "Records by number, UUID or UUID prefix; default: all");
    std::vector<std::string> graphs(plotGraphNames().begin(), plotGraphNames().end());
    command->add_option("-g,--graph", settings.graph, "The graph (default magnitude)")
        ->check(CLI::IsMember(graphs));
    command
        ->add_option(
            "--smoothing", options->smoothing,
            "Smooth magnitude, SPL, waterfall and spectrogram over 1/N octave, N from 1 to 48 (12 when given "
            "without N)")
        ->expected(0, 1)
        ->default_str("12");
    command
        ->add_option("-o,--output", options->output,
                     "The file to write: .png, .svg, .pdf, .tiff, or .csv for the graph's data")
        ->required();
    command->add_option("--width", options->width, "Width in millimetres (default 160)");
    command->add_option("--height", options->height, "Height in millimetres (default 100)");
    command->add_option("--dpi", options->dpi,
                        "Resolution of PNG and TIFF files in dots per inch (default 300)");
    command->add_option("--title", settings.title, "The graph's title (default: the graph's name)");
    command->add_option("--theme", settings.theme, "light (default), dark or print (black, curves dashed)")
        ->check(CLI::IsMember({"light", "dark", "print"}));
    command->add_option("--x-range", options->xRange,
                        "The X values shown, A:B in Hz or ms (default: the curves')");
    command->add_option("--y-range", options->yRange,
                        "The values shown, A:B (default: the curves', rounded out; waterfall and "
                        "spectrogram: the dB range)");
    command->add_flag("--linear-frequency", settings.linearFrequency, "A linear frequency axis");
    command->add_flag("--normalize", settings.normalize, "Magnitude and SPL: move each curve's peak to 0 dB");
    command
        ->add_option("--combine", settings.combine,
                     "Draw one curve of all records: none (default), average, difference, sum or rms-average")
        ->check(CLI::IsMember({"none", "average", "difference", "sum", "rms-average"}));
    command
        ->add_option(
            "--db-per-decade", settings.decibelsPerDecade,
            "Magnitude and SPL: the fixed aspect of IEC 60263, a decade across as long as 10, 20, 25 "
            "or 50 dB up (the top of the range stays)")
        ->check(CLI::IsMember({10.0, 20.0, 25.0, 50.0}));
    command
        ->add_option("--phase-reference", settings.phaseReference,
                     "What phase, excess phase and group delay count time from: zero (default), peak (the "
                     "impulse's peak) or window (the window's begin)")
        ->check(CLI::IsMember({"zero", "peak", "window"}));
    command->add_flag("--unwrapped", settings.unwrapped,
                      "Phases unwrapped rather than within -180 to 180 degrees");
    command->add_flag("--db", settings.decibels, "Impulse: levels in dB rather than linear");
    command->add_option("--orders", options->orders,
                        "Distortion: the harmonic orders, such as 2-5 (default 2,3)");
    command->add_flag("--percent", settings.percent,
                      "Distortion: in percent of the fundamental rather than dB");
    command->add_option("--weighting", options->weighting, "Bands: a, c or z (none, default)")
        ->check(CLI::IsMember({"a", "c", "z"}));
    command->add_option("--slices", options->slices, "Waterfall: the number of slices (default 25)");
    command->add_option("--duration", options->duration,
                        "Waterfall and spectrogram: ms from the first slice to the last (default: automatic; "
                        "spectrogram 500)");
    command->add_option(
        "--fft", options->fftLength,
        "Waterfall and spectrogram: samples of each slice's transform (default 8192; spectrogram 1024)");
    command->add_option("--floor", settings.floor,
                        "Waterfall and spectrogram: the dB shown below the peak (default 60)");
    command->add_option("--colormap", settings.colorMap, "Spectrogram: viridis (default) or magma")
        ->check(CLI::IsMember({"viridis", "magma"}));
    commands.push_back({command, [options]() -> Expected<void> { return plot(*options); }});
}

} // namespace tavolar::cli
