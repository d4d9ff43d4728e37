// Graphs of records: pictures computed and drawn by the library's plotting, the code behind
// tavolar plot, so that a file written from Python is the one the command line writes.

#include "Bindings.h"

#if TAVOLAR_WITH_GRAPHICS
#include "graphs/RecordPlots.h"

#include <fmt/format.h>
#include <pybind11/stl.h>

namespace tavolar::python {

namespace {

struct Picture {
    std::shared_ptr<const GraphPicture> picture;
};

// Mistakes in the settings are the caller's, as a bad argument is.
[[noreturn]] void raisePlotError(const TavolarError& error) {
    if (error.code == kPlotSettingsError)
        throw py::value_error(error.localizedRecoverySuggestion.empty()
                                  ? error.localizedDescription
                                  : error.localizedDescription + " " + error.localizedRecoverySuggestion);
    throw RaisedError{"Error", error};
}

template <typename T> std::optional<T> option(const py::dict& options, const char* key) {
    if (!options.contains(key) || options[key].is_none())
        return std::nullopt;
    return options[key].cast<T>();
}

PlotSettings plotSettings(const std::string& graph, const py::dict& options) {
    static const std::vector<std::string> known = {
        "smoothing",        "normalize", "combine",    "x_range",       "y_range",
        "linear_frequency", "theme",     "title",      "db_per_decade", "phase_reference",
        "unwrapped",        "decibels",  "orders",     "percent",       "weighting",
        "slices",           "duration",  "fft_length", "floor",         "color_map"};
    for (auto [key, value] : options)
        if (std::find(known.begin(), known.end(), key.cast<std::string>()) == known.end())
            throw py::type_error(fmt::format("plot takes no option \"{}\"; the options are {}.",
                                             key.cast<std::string>(), fmt::join(known, ", ")));
    PlotSettings settings;
    settings.graph = graph;
    settings.smoothing = option<int>(options, "smoothing");
    settings.normalize = option<bool>(options, "normalize").value_or(false);
    settings.combine = option<std::string>(options, "combine").value_or("none");
    for (auto [key, range] : {std::pair{"x_range", &settings.xRange}, std::pair{"y_range", &settings.yRange}})
        if (auto given = option<std::pair<double, double>>(options, key)) {
            if (!(given->first < given->second) || !std::isfinite(given->first) ||
                !std::isfinite(given->second))
                throw py::value_error(
                    fmt::format("{} is a (low, high) pair of numbers, the lower first.", key));
            *range = *given;
        }
    settings.linearFrequency = option<bool>(options, "linear_frequency").value_or(false);
    settings.theme = option<std::string>(options, "theme").value_or("light");
    settings.title = option<std::string>(options, "title");
    settings.decibelsPerDecade = option<double>(options, "db_per_decade");
    settings.phaseReference = option<std::string>(options, "phase_reference").value_or("zero");
    settings.unwrapped = option<bool>(options, "unwrapped").value_or(false);
    settings.decibels = option<bool>(options, "decibels").value_or(false);
    if (auto orders = option<std::vector<int>>(options, "orders"))
        settings.orders = *orders;
    settings.percent = option<bool>(options, "percent").value_or(false);
    if (auto weighting = option<std::string>(options, "weighting")) {
        if (*weighting != "a" && *weighting != "c" && *weighting != "z")
            throw py::value_error(
                fmt::format("weighting must be \"a\", \"c\" or None, not \"{}\".", *weighting));
        settings.weighting = weighting->front();
    }
    const bool surface = graph == "waterfall" || graph == "spectrogram";
    const auto slices = option<int>(options, "slices");
    const auto duration = option<double>(options, "duration");
    const auto fftLength = option<int>(options, "fft_length");
    if (!surface && (slices || duration || fftLength))
        throw py::value_error("slices, duration and fft_length apply to the waterfall and spectrogram.");
    if (slices)
        settings.waterfall.sliceCount = *slices;
    if (duration)
        settings.waterfall.duration = static_cast<float>(*duration);
    if (fftLength)
        settings.waterfall.fftLength = *fftLength;
    if (auto floor = option<double>(options, "floor"))
        settings.floor = *floor;
    settings.colorMap = option<std::string>(options, "color_map").value_or("viridis");
    return settings;
}

} // namespace

void addPlots(py::module_& module) {
    module.attr("graph_names") = [] {
        std::vector<std::string> names;
        for (std::string_view name : plotGraphNames())
            names.emplace_back(name);
        return names;
    }();
    py::class_<Picture>(module, "PictureHandle", "A computed graph of records.")
        .def_static(
            "make",
            [](const std::vector<RecordHandle>& records, const std::string& graph, const py::dict& options) {
                if (records.empty())
                    throw py::value_error("Give at least one record to plot.");
                const PlotSettings settings = plotSettings(graph, options);
                RecordArray array;
                for (const RecordHandle& record : records)
                    array.push_back(record.record);
                Expected<GraphPicture> picture = std::unexpected(TavolarError{});
                {
                    py::gil_scoped_release release;
                    picture = plotRecords(array, settings);
                }
                if (!picture)
                    raisePlotError(picture.error());
                return Picture{std::make_shared<const GraphPicture>(std::move(*picture))};
            },
            py::arg("records"), py::arg("graph"), py::arg("options"))
        .def_property_readonly("graph", [](const Picture& self) { return self.picture->graph; })
        .def_property_readonly("curve_count",
                               [](const Picture& self) { return self.picture->plot.curves.size(); })
        .def(
            "write",
            [](const Picture& self, const std::string& path, double width, double height, double dpi) {
                if (!(width > 0.0) || !(height > 0.0) || !(dpi >= 10.0) || dpi > 2400.0)
                    throw py::value_error(
                        "The width and height (mm) must be positive and the resolution from 10 "
                        "to 2400 dpi.");
                const VELTImageSize size{VELTImageSize::pointsFromMillimetres(width),
                                         VELTImageSize::pointsFromMillimetres(height), dpi};
                Expected<void> written;
                {
                    py::gil_scoped_release release;
                    written = writePlot(path, *self.picture, size);
                }
                if (!written)
                    raisePlotError(written.error());
            },
            py::arg("path"), py::arg("width"), py::arg("height"), py::arg("dpi"))
        .def("csv", [](const Picture& self) {
            auto text = csvOfPicture(*self.picture);
            if (!text)
                raisePlotError(text.error());
            return *text;
        });
}

} // namespace tavolar::python

#else

namespace tavolar::python {

// A build without graph drawing has no plots.
void addPlots(py::module_& module) {
    module.attr("graph_names") = std::vector<std::string>{};
}

} // namespace tavolar::python

#endif
