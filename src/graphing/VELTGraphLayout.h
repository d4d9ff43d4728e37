#pragma once
// The layout and drawing of a two-dimensional graph: a title with its modifier, the plot area with
// its grid, the axes with ticks, labels and titles, the curves clipped to the plot area, and a legend
// of the curves' names. It draws through a painter only, so the same code makes files and fills
// views.

#include "graphing/VELTAxis.h"
#include "graphing/VELTGraphData.h"
#include "graphing/VELTGraphExtents.h"
#include "graphing/VELTPainter.h"
#include "graphing/VELTTickMarks.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavolar {

// Colours, line styles and fonts of a graph.
struct VELTGraphAppearance {
    VELTColor background{1.0, 1.0, 1.0, 1.0};
    VELTColor text{0.0, 0.0, 0.0, 1.0};
    VELTColor secondaryText{0.3, 0.3, 0.3, 1.0};
    VELTLineStyle frame{{0.0, 0.0, 0.0, 1.0}, 0.75, {}};
    VELTLineStyle majorGrid{{0xBF / 255.0, 0xBF / 255.0, 0xBF / 255.0, 1.0}, 0.75, {}};
    VELTLineStyle minorGrid{{0xE5 / 255.0, 0xE5 / 255.0, 0xE5 / 255.0, 1.0}, 0.5, {}};
    VELTFont titleFont{13.0, true};
    VELTFont titleModifierFont{13.0, false};
    VELTFont axisTitleFont{10.0, false};
    VELTFont tickLabelFont{9.0, false};
    VELTFont legendFont{8.5, false};
    double curveWidth = 1.25; // points; curves drawn thinner than this are widened to it
    double tickLength = 4.0;
    double padding = 8.0; // around the whole picture
    double legendMaximumWidth = 160.0;
    // Curves in the text colour told apart by dash patterns alone, for printing in black.
    bool monochrome = false;

    // Black on white.
    static VELTGraphAppearance light();
    // Light text and grid on a dark ground.
    static VELTGraphAppearance dark();
    // Black on white with every curve black and dashed in turn.
    static VELTGraphAppearance print();
    // The appearance named "light", "dark" or "print".
    static std::optional<VELTGraphAppearance> appearanceNamed(std::string_view name);

    // Colours told apart with every common form of colour blindness (Okabe and Ito's eight, black
    // left out), for curves that share a colour.
    static const std::vector<VELTColor>& palette();
    // Dash patterns for curves beyond the palette: solid, then dashed, dotted and dash-dotted.
    static const std::vector<std::vector<double>>& dashPatterns();
};

// A stretch of the X axis shaded over the plot area's height, behind the curves (an impulse
// response's window).
struct VELTGraphSpan {
    double from = 0.0;
    double to = 0.0;
    VELTColor fill;
};

struct VELTGraphPlot {
    std::string title;
    std::string titleModifier; // after the title, in the lighter face: "(1/12 Octave Smoothing)"
    // What shaped the data ("48 kHz · 1/12 octave smoothing"), in small type in the bottom right
    // corner: beside the X axis title where there is room, otherwise on a line of its own under it.
    std::string note;
    GraphQuantity xQuantity;
    GraphQuantity yQuantity;
    // The text of each axis's tick labels: its axis's own formatter where it has one, otherwise as
    // its quantity's unit calls for (see tickLabelText).
    VELTAxis::TickLabelFormatter xTickLabels;
    VELTAxis::TickLabelFormatter yTickLabels;
    bool logarithmicX = false;
    // The steps of the Y axis when it has its own (see TickMarkOptions::steps).
    std::vector<double> ySteps;
    VELTGraphExtents extents;
    GraphDataArray curves;
    VELTGraphAppearance appearance;
    std::vector<VELTGraphSpan> xSpans;
    // The X ticks to draw in place of those the axis would choose (the nominal centres of bands).
    std::vector<TickMark> xTicks;
    // The period of a wrapped Y (360 for phases within ±180°), or 0: a curve breaks where it jumps by
    // more than half of it between neighbouring points, rather than crossing the plot area.
    double yWrap = 0.0;
    // Each point of each curve drawn as a bar up from the bottom of the plot area, the bars of one X
    // side by side, rather than the points joined by lines.
    bool bars = false;
};

// Extents fitting the curves: on a logarithmic X axis only positive X counts; Y spans at least 1
// (a flat curve gets its value ± 0.5). Nothing when no curve has a point to show.
std::optional<VELTGraphExtents> automaticGraphExtents(const GraphDataArray& curves, bool logarithmicX);

// The text of tick labels: the formatter's where there is one; frequencies ("Hz") as "20", "1k",
// "2.5k"; other numbers with the decimals of the step.
TickLabelText tickLabelText(const VELTAxis::TickLabelFormatter& formatter, const GraphQuantity& quantity);

// Where everything goes inside bounds.
struct VELTGraphLayout {
    VELTRect bounds;
    VELTRect plotArea;
    std::vector<TickMark> xTicks;
    std::vector<TickMark> yTicks;
    double yTickLabelWidth = 0.0;
    // The legend's box: in the corner of the plot area where it covers the fewest curves, or beside
    // the plot area on its right when every corner would cover some; empty when there is no legend.
    VELTRect legend;
    // Its rows: the curves' names cut to fit, the last one perhaps saying how many are left out.
    std::vector<std::string> legendNames;
    std::size_t legendCurves = 0; // of the rows, those naming a curve
};

VELTGraphLayout layoutGraph(VELTPainter& painter, const VELTGraphPlot& plot, const VELTRect& bounds);
// The curve whose legend row holds the point (in the layout's points), if any: for views that hide a
// curve when its legend entry is clicked.
std::optional<std::size_t> legendCurveAt(const VELTGraphLayout& layout, VELTPoint point);
// Lays out and draws the graph.
VELTGraphLayout drawGraph(VELTPainter& painter, const VELTGraphPlot& plot, const VELTRect& bounds);

// The Y extents widened outwards to whole steps of the ticks that layout would draw over the plot
// area's height.
VELTGraphExtents roundedGraphExtents(VELTPainter& painter, const VELTGraphPlot& plot, const VELTRect& bounds);

// The Y extents of a logarithmic-frequency graph set so that one decade across is as long as
// decibelsPerDecade up (the fixed aspects of IEC 60263: 10, 20, 25 or 50 dB a decade), keeping the
// top of the range and reaching down from it.
VELTGraphExtents extentsWithDecibelsPerDecade(VELTPainter& painter, const VELTGraphPlot& plot,
                                              const VELTRect& bounds, double decibelsPerDecade);

// The points of a curve in the plot area, with at most four points (first, lowest, highest, last) per
// column of the given width, so that long curves draw quickly and vector files stay small. Points
// that cannot be shown (not finite, or X not positive on a logarithmic axis) break the curve, as do
// the jumps of a wrapped Y (see VELTGraphPlot::yWrap): each inner vector is one unbroken run.
std::vector<std::vector<VELTPoint>> plottedPoints(const VELTGraphData& curve, const VELTGraphPlot& plot,
                                                  const VELTRect& plotArea, double columnWidth = 0.5);

// The text in the font, or when it is wider than maximumWidth in a smaller size (down to 6 points),
// cut short with an ellipsis if it is still too wide: notes are made to fit rather than left out.
std::pair<std::string, VELTFont> fittedText(VELTPainter& painter, const std::string& text, VELTFont font,
                                            double maximumWidth);

// The text cut at the end with an ellipsis so that it is at most maximumWidth wide.
std::string ellipsized(VELTPainter& painter, const std::string& text, const VELTFont& font,
                       double maximumWidth);

} // namespace tavolar
