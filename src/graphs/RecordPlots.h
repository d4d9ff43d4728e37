#pragma once
// Pictures of records: the records and the settings of a graph become one picture, computed as the
// graphs compute their data and drawn as they draw it, so that every host (the command line, scripts,
// the desktop application) shows the same graph for the same records and settings.
//
//   auto picture = plotRecords(records, settings);             // compute
//   writePlot("graph.png", *picture, VELTImageSize::defaultSize()); // or drawPicture into a view

#include "graphcalc/GraphCalculationController.h"
#include "graphing/VELTGraphLayout.h"
#include "graphing/cairo/VELTCairoPainter.h"
#include "platform/TavolarError.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavolar {

// The code of errors about the settings themselves (an unknown graph, an option the graph does not
// take, a range the wrong way round): hosts report them as mistakes of their user.
inline constexpr std::int64_t kPlotSettingsError = -2;

// Everything that shapes a picture besides the records. Options a graph does not take are rejected
// when they differ from their defaults.
struct PlotSettings {
    // One of plotGraphNames(): "magnitude", "spl", "phase", "minimum-phase", "excess-phase",
    // "group-delay", "impulse", "etc", "distortion", "octave-bands", "third-octave-bands",
    // "waterfall" or "spectrogram".
    std::string graph = "magnitude";
    std::optional<int> smoothing;                    // 1/N octave, N from 1 to 48 (magnitude, SPL, surfaces)
    bool normalize = false;                          // magnitude and SPL: each curve's peak at 0 dB
    std::string combine = "none";                    // none, average, difference, sum or rms-average
    std::optional<std::pair<double, double>> xRange; // the X values shown (Hz or ms)
    std::optional<std::pair<double, double>> yRange; // the Y values shown (for surfaces: the dB range)
    bool linearFrequency = false;                    // a linear rather than logarithmic frequency axis
    std::string theme = "light";                     // light, dark or print
    std::optional<std::string> title;                // in place of the graph's own title
    std::optional<double> decibelsPerDecade;         // magnitude and SPL: 10, 20, 25 or 50
    std::string phaseReference = "zero";             // zero, peak or window
    bool unwrapped = false;                          // phases unwrapped
    bool decibels = false;                           // impulse: levels in dB
    std::vector<int> orders{2, 3};                   // distortion: the harmonic orders drawn
    bool percent = false;                            // distortion: in percent of the fundamental
    char weighting = 'z';                            // bands: 'a', 'c' or 'z' (none)
    // Waterfall and spectrogram slices; a spectrogram takes 1024-sample slices overlapping by 15/16
    // from 5 ms before the peak over 500 ms for the transform length, overlap, start and duration
    // left at the waterfall's defaults.
    WaterfallSettings waterfall;
    double floor = 60.0;              // waterfall and spectrogram: dB shown below the peak
    std::string colorMap = "viridis"; // spectrogram: viridis or magma
};

// How a picture is drawn.
enum class PictureStyle {
    Curves,    // curves over X (frequency or time)
    Bars,      // one bar per band, labelled with the bands' nominal centres
    Waterfall, // slices of a surface one behind the other
    HeatMap,   // a surface as colours, with a colour bar
};

// A computed picture: the plot (title, axes, extents, curves or surfaces, appearance) and how to draw
// it. It holds only shared, read-only data, so it may be kept, copied and drawn from any thread.
struct GraphPicture {
    std::string graph; // the graph's name, as in PlotSettings
    PictureStyle style = PictureStyle::Curves;
    // For surfaces, curves holds GraphData3D and extents are X (frequency) and Z (time); the levels
    // shown are levelRange.
    VELTGraphPlot plot;
    // Y rounded out to whole steps of its ticks when drawn (not when the range was given or fixed).
    bool roundedY = true;
    std::optional<double> decibelsPerDecade;
    // Impulse: the records' windows (ms), drawn as shaded spans behind the curves.
    std::vector<std::pair<double, double>> windows;
    std::pair<double, double> levelRange{-60.0, 0.0}; // surfaces: the dB shown
    std::string colorMap = "viridis";
    std::string subject; // "Frequency Response of Left, Right", for the files' metadata
};

// The graphs plotRecords draws, by name.
const std::vector<std::string_view>& plotGraphNames();

// The picture of the records (at least one) with the settings; a waterfall or spectrogram shows the
// first record's. Errors: settings the graph does not take (code kPlotSettingsError), or records that
// give nothing to draw. It computes on the calling thread (waiting for the calculation's workers).
Expected<GraphPicture> plotRecords(const RecordArray& records, const PlotSettings& settings);

// Draws the picture into bounds (points) through the painter: a view's paint method or a file.
// Answers the layout of pictures of curves and bars, as drawn.
std::optional<VELTGraphLayout> drawPicture(VELTPainter& painter, const GraphPicture& picture,
                                           const VELTRect& bounds);

// Writes the picture to a file whose extension says the format: .png, .svg, .pdf or .tif(f) (drawn at
// the size) or .csv (the data as columns, X then Y of each curve; the size is not used). The metadata
// go into PDF files; without a title or subject they are the picture's.
Expected<void> writePlot(const std::filesystem::path& path, const GraphPicture& picture,
                         const VELTImageSize& size, VELTImageMetadata metadata = {});

// The picture's data as CSV text: for each curve its X and Y columns, headed "NAME AXIS" ("Left
// Frequency (Hz)", "Left Magnitude (dB)"); surfaces give frequency, time and level columns. An error
// "No data to write" when the picture has no points.
Expected<std::string> csvOfPicture(const GraphPicture& picture);

} // namespace tavolar
