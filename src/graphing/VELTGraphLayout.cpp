#include "graphing/VELTGraphLayout.h"

#include "graphing/VELTUnitFormatter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fmt/format.h>
#include <limits>
#include <tuple>

namespace tavolar {

const std::vector<VELTColor>& VELTGraphAppearance::palette() {
    static const std::vector<VELTColor> colors{
        {0.000, 0.447, 0.698, 1.0}, // blue
        {0.835, 0.369, 0.000, 1.0}, // vermillion
        {0.000, 0.620, 0.451, 1.0}, // bluish green
        {0.800, 0.475, 0.655, 1.0}, // reddish purple
        {0.902, 0.624, 0.000, 1.0}, // orange
        {0.337, 0.706, 0.914, 1.0}, // sky blue
        {0.941, 0.894, 0.259, 1.0}, // yellow
    };
    return colors;
}

const std::vector<std::vector<double>>& VELTGraphAppearance::dashPatterns() {
    static const std::vector<std::vector<double>> patterns{{}, {5.0, 2.5}, {1.2, 1.8}, {5.0, 2.0, 1.2, 2.0}};
    return patterns;
}

VELTGraphAppearance VELTGraphAppearance::light() {
    return {};
}

VELTGraphAppearance VELTGraphAppearance::dark() {
    VELTGraphAppearance a;
    a.background = {0.11, 0.11, 0.12, 1.0};
    a.text = {0.92, 0.92, 0.92, 1.0};
    a.secondaryText = {0.7, 0.7, 0.7, 1.0};
    a.frame.color = {0.75, 0.75, 0.75, 1.0};
    a.majorGrid.color = {0.33, 0.33, 0.35, 1.0};
    a.minorGrid.color = {0.2, 0.2, 0.22, 1.0};
    return a;
}

VELTGraphAppearance VELTGraphAppearance::print() {
    VELTGraphAppearance a;
    a.monochrome = true;
    return a;
}

std::optional<VELTGraphAppearance> VELTGraphAppearance::appearanceNamed(std::string_view name) {
    if (name == "light")
        return light();
    if (name == "dark")
        return dark();
    if (name == "print")
        return print();
    return std::nullopt;
}

std::optional<VELTGraphExtents> automaticGraphExtents(const GraphDataArray& curves, bool logarithmicX) {
    double xMin = std::numeric_limits<double>::infinity(), xMax = -xMin;
    double yMin = xMin, yMax = -xMin;
    for (const auto& curve : curves) {
        if (!curve)
            continue;
        const std::size_t n = std::min(curve->x().length(), curve->y().length());
        for (std::size_t i = 0; i < n; ++i) {
            const double x = curve->x()[i], y = curve->y()[i];
            if (!std::isfinite(x) || !std::isfinite(y) || (logarithmicX && !(x > 0.0)))
                continue;
            xMin = std::min(xMin, x);
            xMax = std::max(xMax, x);
            yMin = std::min(yMin, y);
            yMax = std::max(yMax, y);
        }
    }
    if (!(xMin <= xMax))
        return std::nullopt;
    if (yMax - yMin < 1.0) {
        const double middle = (yMin + yMax) / 2.0;
        yMin = middle - 0.5;
        yMax = middle + 0.5;
    }
    return VELTGraphExtents{xMin, xMax, yMin, yMax};
}

TickLabelText tickLabelText(const VELTAxis::TickLabelFormatter& formatter, const GraphQuantity& quantity) {
    if (formatter)
        return [formatter](double value, int) { return formatter(value); };
    if (quantity.unit == "Hz")
        return [](double value, int) { return formatFrequency(value); };
    return [](double value, int decimals) { return formatNumber(value, decimals); };
}

namespace {

struct Frame {
    double titleHeight = 0.0;
    double xLabelsHeight = 0.0;
    double xTitleHeight = 0.0;
    double yTitleWidth = 0.0;
    // The note's own line under the X axis title, when it does not fit beside the title.
    double noteHeight = 0.0;
    double gap = 4.0;
};

double plotHeightOf(const Frame& frame, const VELTGraphPlot& plot, const VELTRect& bounds);
double yTickLabelWidthOf(VELTPainter& painter, const VELTGraphPlot& plot, double height);

// The left and right edges of the plot area, before a legend beside it takes its room.
std::pair<double, double> plotEdgesOf(VELTPainter& painter, const VELTGraphPlot& plot, const VELTRect& bounds,
                                      const Frame& frame) {
    const VELTGraphAppearance& a = plot.appearance;
    const double yLabels = yTickLabelWidthOf(painter, plot, plotHeightOf(frame, plot, bounds));
    // Room on the right for half the widest X label, which may sit on the plot area's edge.
    return {bounds.x + a.padding + frame.yTitleWidth + yLabels + a.tickLength + frame.gap,
            bounds.right() - a.padding - painter.textWidth("20k", a.tickLabelFont) / 2.0};
}

Frame frameOf(VELTPainter& painter, const VELTGraphPlot& plot, const VELTRect& bounds) {
    const VELTGraphAppearance& a = plot.appearance;
    Frame frame;
    if (!plot.title.empty() || !plot.titleModifier.empty())
        frame.titleHeight = painter.lineHeight(a.titleFont) + frame.gap * 2.0;
    frame.xLabelsHeight = a.tickLength + painter.lineHeight(a.tickLabelFont) + frame.gap / 2.0;
    frame.xTitleHeight = painter.lineHeight(a.axisTitleFont) + frame.gap;
    frame.yTitleWidth = painter.lineHeight(a.axisTitleFont) + frame.gap;
    if (!plot.note.empty()) {
        // The note goes right of the X axis title, which is centred under the plot area, where there
        // is room for it; otherwise on a line of its own.
        const auto [left, right] = plotEdgesOf(painter, plot, bounds, frame);
        const double titleRight =
            (left + right) / 2.0 +
            painter.textWidth(axisTitle(plot.xQuantity.name, plot.xQuantity.unit), a.axisTitleFont) / 2.0;
        if (bounds.right() - a.padding - painter.textWidth(plot.note, a.legendFont) <=
            titleRight + frame.gap * 2.0)
            frame.noteHeight = painter.lineHeight(a.legendFont);
    }
    return frame;
}

TickMarkOptions yTickOptions(VELTPainter& painter, const VELTGraphPlot& plot) {
    TickMarkOptions options;
    options.minimumGap = painter.lineHeight(plot.appearance.tickLabelFont);
    options.steps = plot.ySteps;
    return options;
}

std::vector<TickMark> yTicksOf(VELTPainter& painter, const VELTGraphPlot& plot, double height) {
    auto width = [&](std::string_view) { return painter.lineHeight(plot.appearance.tickLabelFont); };
    // Vertical labels are stacked, so their height is what must fit; a line's height between them keeps
    // the axis from reading as a column of numbers.
    return linearTickMarks(plot.extents.yMin, plot.extents.yMax, height, width,
                           tickLabelText(plot.yTickLabels, plot.yQuantity), yTickOptions(painter, plot));
}

double plotHeightOf(const Frame& frame, const VELTGraphPlot& plot, const VELTRect& bounds) {
    return std::max(bounds.height - 2.0 * plot.appearance.padding - frame.titleHeight - frame.xLabelsHeight -
                        frame.xTitleHeight - frame.noteHeight,
                    1.0);
}

double yTickLabelWidthOf(VELTPainter& painter, const VELTGraphPlot& plot, double height) {
    double width = 0.0;
    for (const TickMark& tick : yTicksOf(painter, plot, height))
        if (tick.major)
            width = std::max(width, painter.textWidth(tick.label, plot.appearance.tickLabelFont));
    return width;
}

double mapX(const VELTGraphPlot& plot, const VELTRect& area, double x) {
    const VELTGraphExtents& e = plot.extents;
    if (plot.logarithmicX)
        return area.x +
               (std::log10(x) - std::log10(e.xMin)) / (std::log10(e.xMax) - std::log10(e.xMin)) * area.width;
    return area.x + (x - e.xMin) / (e.xMax - e.xMin) * area.width;
}

double mapY(const VELTGraphPlot& plot, const VELTRect& area, double y) {
    const VELTGraphExtents& e = plot.extents;
    return area.bottom() - (y - e.yMin) / (e.yMax - e.yMin) * area.height;
}

} // namespace

VELTGraphExtents roundedGraphExtents(VELTPainter& painter, const VELTGraphPlot& plot,
                                     const VELTRect& bounds) {
    const Frame frame = frameOf(painter, plot, bounds);
    auto width = [&](std::string_view) { return painter.lineHeight(plot.appearance.tickLabelFont); };
    const double height = plotHeightOf(frame, plot, bounds);
    auto stepOf = [&](double minimum, double maximum) {
        return linearTickStep(minimum, maximum, height, width,
                              tickLabelText(plot.yTickLabels, plot.yQuantity), yTickOptions(painter, plot));
    };
    // Rounding widens the range, which may call for a coarser step than the one it rounded to: the
    // range is rounded again with the coarser step until the ticks drawn are the ones it ends on.
    VELTGraphExtents extents = plot.extents;
    double step = stepOf(plot.extents.yMin, plot.extents.yMax);
    for (int attempt = 0; attempt < 4; ++attempt) {
        std::tie(extents.yMin, extents.yMax) = roundedOutwards(plot.extents.yMin, plot.extents.yMax, step);
        const double drawn = stepOf(extents.yMin, extents.yMax);
        if (drawn == step)
            break;
        step = drawn;
    }
    return extents;
}

VELTGraphExtents extentsWithDecibelsPerDecade(VELTPainter& painter, const VELTGraphPlot& plot,
                                              const VELTRect& bounds, double decibelsPerDecade) {
    VELTGraphExtents extents = plot.extents;
    if (!plot.logarithmicX || !(extents.xMin > 0.0) || !(extents.xMax > extents.xMin) ||
        !(decibelsPerDecade > 0.0))
        return extents;
    // The plot area's height does not depend on the Y extents; its width does, through the widths of
    // the Y labels, so the span is found again once with the labels of the first guess.
    for (int pass = 0; pass < 2; ++pass) {
        VELTGraphPlot guess = plot;
        guess.extents = extents;
        const VELTRect area = layoutGraph(painter, guess, bounds).plotArea;
        const double decades = std::log10(extents.xMax / extents.xMin);
        extents.yMin = extents.yMax - decibelsPerDecade * decades * area.height / area.width;
    }
    return extents;
}

namespace {

constexpr double kLegendSwatch = 18.0, kLegendInset = 5.0, kLegendMargin = 6.0;

struct Bar {
    VELTRect rect;
    std::size_t curve = 0;
};

// Bars of every curve's points: each X gets the room up to halfway to its neighbours (on the axis's
// scale), four fifths of it filled by the curves' bars side by side.
std::vector<Bar> barsOf(const VELTGraphPlot& plot, const VELTRect& area) {
    std::vector<Bar> bars;
    const std::size_t count = plot.curves.size();
    for (std::size_t c = 0; c < count; ++c) {
        const VELTGraphData& curve = *plot.curves[c];
        const std::size_t n = std::min(curve.x().length(), curve.y().length());
        std::vector<double> xs(n);
        for (std::size_t i = 0; i < n; ++i)
            xs[i] =
                plot.logarithmicX && !(curve.x()[i] > 0.0f) ? std::nan("") : mapX(plot, area, curve.x()[i]);
        for (std::size_t i = 0; i < n; ++i) {
            const double y = curve.y()[i];
            if (!std::isfinite(xs[i]) || !std::isfinite(y))
                continue;
            double half = area.width / 20.0;
            if (i > 0 && std::isfinite(xs[i - 1]))
                half = std::min(half, (xs[i] - xs[i - 1]) / 2.0);
            if (i + 1 < n && std::isfinite(xs[i + 1]))
                half = std::min(half, (xs[i + 1] - xs[i]) / 2.0);
            const double slot = half * 2.0 * 0.8 / static_cast<double>(count);
            const double left = xs[i] - half * 0.8 + slot * static_cast<double>(c);
            const double top = std::max(mapY(plot, area, y), area.y - 1.0);
            if (top < area.bottom())
                bars.push_back({{left, top, slot, area.bottom() - top}, c});
        }
    }
    return bars;
}

// The text with characters taken out of its middle, in place of an ellipsis, so that it is at most
// maximumWidth wide; never half a character.
std::string middleEllipsized(VELTPainter& painter, const std::string& text, const VELTFont& font,
                             double maximumWidth) {
    if (painter.textWidth(text, font) <= maximumWidth)
        return text;
    std::vector<std::size_t> starts; // where each character begins
    for (std::size_t i = 0; i < text.size(); ++i)
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80)
            starts.push_back(i);
    starts.push_back(text.size());
    const std::size_t characters = starts.size() - 1;
    for (std::size_t kept = characters - 1; kept > 0; --kept) {
        const std::size_t head = (kept + 1) / 2, tail = kept - head;
        std::string shortened =
            text.substr(0, starts[head]) + "\u2026" + text.substr(starts[characters - tail]);
        if (painter.textWidth(shortened, font) <= maximumWidth)
            return shortened;
    }
    return "\u2026";
}

// Whether the segment from a to b passes through the rectangle (Liang and Barsky's clipping).
bool crosses(VELTPoint a, VELTPoint b, const VELTRect& r) {
    const double dx = b.x - a.x, dy = b.y - a.y;
    const double p[] = {-dx, dx, -dy, dy};
    const double q[] = {a.x - r.x, r.right() - a.x, a.y - r.y, r.bottom() - a.y};
    double enter = 0.0, leave = 1.0;
    for (int i = 0; i < 4; ++i) {
        if (p[i] == 0.0) {
            if (q[i] < 0.0)
                return false;
            continue;
        }
        const double t = q[i] / p[i];
        if (p[i] < 0.0)
            enter = std::max(enter, t);
        else
            leave = std::min(leave, t);
        if (enter > leave)
            return false;
    }
    return true;
}

// The legend's rows, with names at most nameWidth wide and as many rows as a box at most
// maximumHeight high holds (the last saying how many curves are left out); its width and height, or
// nothing when the graph has no legend (no curves, or a single one without a name).
std::optional<std::pair<double, double>> legendRows(VELTGraphLayout& layout, VELTPainter& painter,
                                                    const VELTGraphPlot& plot, double nameWidth,
                                                    double maximumHeight) {
    const VELTGraphAppearance& a = plot.appearance;
    std::vector<std::string> names;
    bool anyName = false;
    for (const auto& curve : plot.curves) {
        anyName = anyName || !curve->name().empty();
        names.push_back(curve->name().empty() ? "Untitled" : curve->name());
    }
    if (names.empty() || (!anyName && names.size() == 1))
        return std::nullopt;
    const double line = painter.lineHeight(a.legendFont);
    const std::size_t rows =
        static_cast<std::size_t>(std::max(std::floor((maximumHeight - kLegendInset * 2.0) / line), 1.0));
    layout.legendCurves = names.size();
    if (names.size() > rows) {
        layout.legendCurves = rows - 1;
        names.resize(layout.legendCurves);
        names.push_back(fmt::format("{} more", plot.curves.size() - layout.legendCurves));
    }
    // Names cut at the end; when that makes different names alike ("Left speaker near fi…" twice),
    // every name is cut in its middle instead, keeping the ends that tell them apart.
    std::vector<std::string> cut;
    for (const std::string& name : names)
        cut.push_back(ellipsized(painter, name, a.legendFont, std::max(nameWidth, 0.0)));
    for (std::size_t i = 0; i < names.size(); ++i)
        for (std::size_t j = 0; j < i; ++j)
            if (cut[i] == cut[j] && names[i] != names[j]) {
                for (std::size_t k = 0; k < names.size(); ++k)
                    cut[k] = middleEllipsized(painter, names[k], a.legendFont, std::max(nameWidth, 0.0));
                i = j = names.size();
                break;
            }
    names = std::move(cut);
    double textWidth = 0.0;
    for (const std::string& name : names)
        textWidth = std::max(textWidth, painter.textWidth(name, a.legendFont));
    layout.legendNames = std::move(names);
    return std::pair{kLegendInset * 3.0 + kLegendSwatch + textWidth,
                     kLegendInset * 2.0 + line * static_cast<double>(layout.legendNames.size())};
}

// Places the legend in the corner of the plot area where it crosses the fewest pieces of curves
// (top right first when several are clear); when every corner would cover some, beside the plot
// area, which gives up the room on its right, as long as it keeps three fifths of its width.
using CurveRuns = std::vector<std::vector<std::vector<VELTPoint>>>;

// Places the legend; runs receives the curves' plotted points in the plot area when they were needed
// to place it and the plot area kept its size, so that drawing does not work them out again.
void placeLegend(VELTGraphLayout& layout, VELTPainter& painter, const VELTGraphPlot& plot, bool drawable,
                 CurveRuns& runs) {
    const VELTGraphAppearance& a = plot.appearance;
    const VELTRect area = layout.plotArea;
    const double insideNames =
        std::min(a.legendMaximumWidth, area.width - 2.0 * kLegendMargin - kLegendInset * 3.0 - kLegendSwatch);
    const auto size = legendRows(layout, painter, plot, insideNames, area.height - 2.0 * kLegendMargin);
    if (!size)
        return;
    const auto [width, height] = *size;
    const double left = area.x + kLegendMargin, right = area.right() - width - kLegendMargin;
    const double top = area.y + kLegendMargin, bottom = area.bottom() - height - kLegendMargin;
    const std::array<VELTRect, 4> corners{
        VELTRect{right, top, width, height}, VELTRect{left, top, width, height},
        VELTRect{right, bottom, width, height}, VELTRect{left, bottom, width, height}};
    layout.legend = corners[0];
    if (!drawable)
        return;
    std::array<std::size_t, 4> covered{};
    if (plot.bars) {
        for (const Bar& bar : barsOf(plot, area))
            for (std::size_t c = 0; c < corners.size(); ++c)
                covered[c] += bar.rect.x < corners[c].right() && bar.rect.right() > corners[c].x &&
                              bar.rect.y < corners[c].bottom();
    } else {
        for (const auto& curve : plot.curves) {
            runs.push_back(plottedPoints(*curve, plot, area));
            for (const auto& run : runs.back())
                for (std::size_t i = 1; i < run.size(); ++i)
                    for (std::size_t c = 0; c < corners.size(); ++c)
                        covered[c] += crosses(run[i - 1], run[i], corners[c]);
        }
    }
    const std::size_t best =
        static_cast<std::size_t>(std::min_element(covered.begin(), covered.end()) - covered.begin());
    layout.legend = corners[best];
    if (covered[best] == 0)
        return;
    VELTGraphLayout beside = layout;
    const auto besideSize = legendRows(
        beside, painter, plot, std::min(a.legendMaximumWidth, layout.bounds.width / 4.0), area.height);
    // The gap leaves room for half the last X label, which may sit on the plot area's right edge.
    const double gap = painter.textWidth("20k", a.tickLabelFont) / 2.0 + kLegendMargin;
    const double besideRight = layout.bounds.right() - a.padding - besideSize->first - gap;
    if (besideRight - area.x < area.width * 0.6)
        return;
    runs.clear();
    layout.legendNames = std::move(beside.legendNames);
    layout.legendCurves = beside.legendCurves;
    layout.plotArea.width = besideRight - area.x;
    layout.legend = {besideRight + gap, area.y, besideSize->first, besideSize->second};
}

VELTGraphLayout layoutGraph(VELTPainter& painter, const VELTGraphPlot& plot, const VELTRect& bounds,
                            CurveRuns& runs) {
    const VELTGraphAppearance& a = plot.appearance;
    const Frame frame = frameOf(painter, plot, bounds);
    VELTGraphLayout layout;
    layout.bounds = bounds;
    const double plotHeight = plotHeightOf(frame, plot, bounds);
    layout.yTicks = yTicksOf(painter, plot, plotHeight);
    for (const TickMark& tick : layout.yTicks)
        if (tick.major)
            layout.yTickLabelWidth =
                std::max(layout.yTickLabelWidth, painter.textWidth(tick.label, a.tickLabelFont));
    const double left =
        bounds.x + a.padding + frame.yTitleWidth + layout.yTickLabelWidth + a.tickLength + frame.gap;
    // Room on the right for half the widest X label, which may sit on the plot area's edge.
    const double right = bounds.right() - a.padding - painter.textWidth("20k", a.tickLabelFont) / 2.0;
    layout.plotArea = {left, bounds.y + a.padding + frame.titleHeight, std::max(right - left, 1.0),
                       plotHeight};
    const bool drawable = plot.extents.xMax > plot.extents.xMin && plot.extents.yMax > plot.extents.yMin &&
                          (!plot.logarithmicX || plot.extents.xMin > 0.0);
    placeLegend(layout, painter, plot, drawable, runs);
    auto xWidth = [&](std::string_view text) { return painter.textWidth(text, a.tickLabelFont); };
    const TickLabelText xText = tickLabelText(plot.xTickLabels, plot.xQuantity);
    layout.xTicks =
        !plot.xTicks.empty() ? plot.xTicks
        : plot.logarithmicX
            ? logarithmicTickMarks(plot.extents.xMin, plot.extents.xMax, layout.plotArea.width, xWidth, xText)
            : linearTickMarks(plot.extents.xMin, plot.extents.xMax, layout.plotArea.width, xWidth, xText);
    return layout;
}

} // namespace

VELTGraphLayout layoutGraph(VELTPainter& painter, const VELTGraphPlot& plot, const VELTRect& bounds) {
    CurveRuns runs;
    return layoutGraph(painter, plot, bounds, runs);
}

std::vector<std::vector<VELTPoint>> plottedPoints(const VELTGraphData& curve, const VELTGraphPlot& plot,
                                                  const VELTRect& area, double columnWidth) {
    std::vector<std::vector<VELTPoint>> runs;
    std::vector<VELTPoint> run;
    // X and Y map to the plot area as a scale and an offset of X (or its logarithm) and Y, worked
    // out once: the loop below meets every point of curves millions of points long.
    const VELTGraphExtents& e = plot.extents;
    const double xFrom = plot.logarithmicX ? std::log10(e.xMin) : e.xMin;
    const double xTo = plot.logarithmicX ? std::log10(e.xMax) : e.xMax;
    const double xScale = area.width / (xTo - xFrom) / columnWidth,
                 xOffset = area.x / columnWidth - xFrom * xScale;
    const double yScale = -area.height / (e.yMax - e.yMin), yOffset = area.bottom() - e.yMin * yScale;
    // The column being gathered: its first, lowest, highest and last points, as X in columns and Y
    // as given (the lowest Y is the lowest point: Y grows downwards in the plot area).
    bool open = false;
    long column = 0;
    VELTPoint first, low, high, last;
    auto flushColumn = [&] {
        if (!open)
            return;
        for (VELTPoint* p : {&first, &low, &high, &last})
            *p = {p->x * columnWidth, yOffset + p->y * yScale};
        run.push_back(first);
        // The extremes in the order they were met keep the curve's shape within the column.
        const bool lowFirst = low.x <= high.x;
        for (const VELTPoint& p : lowFirst ? std::array{low, high} : std::array{high, low})
            if (!(p == run.back()) && !(p == last))
                run.push_back(p);
        if (!(last == run.back()))
            run.push_back(last);
        open = false;
    };
    auto breakRun = [&] {
        flushColumn();
        if (!run.empty())
            runs.push_back(std::move(run));
        run.clear();
    };
    const std::size_t n = std::min(curve.x().length(), curve.y().length());
    double previous = std::numeric_limits<double>::quiet_NaN();
    for (std::size_t i = 0; i < n; ++i) {
        const double x = curve.x()[i], y = curve.y()[i];
        if (!std::isfinite(x) || !std::isfinite(y) || (plot.logarithmicX && !(x > 0.0))) {
            breakRun();
            previous = std::numeric_limits<double>::quiet_NaN();
            continue;
        }
        if (plot.yWrap > 0.0 && std::abs(y - previous) > plot.yWrap / 2.0)
            breakRun();
        previous = y;
        const VELTPoint p{xOffset + (plot.logarithmicX ? std::log10(x) : x) * xScale, y};
        const long c = static_cast<long>(std::floor(p.x));
        if (!open || c != column) {
            flushColumn();
            open = true;
            column = c;
            first = low = high = last = p;
            continue;
        }
        if (p.y < low.y)
            low = p;
        if (p.y > high.y)
            high = p;
        last = p;
    }
    breakRun();
    return runs;
}

std::pair<std::string, VELTFont> fittedText(VELTPainter& painter, const std::string& text, VELTFont font,
                                            double maximumWidth) {
    const double width = painter.textWidth(text, font);
    if (width > maximumWidth && width > 0.0)
        // A little under the exact ratio: text widths do not scale quite linearly with the size.
        font.size = std::max(font.size * maximumWidth / width * 0.97, std::min(font.size, 6.0));
    return {ellipsized(painter, text, font, maximumWidth), font};
}

std::string ellipsized(VELTPainter& painter, const std::string& text, const VELTFont& font,
                       double maximumWidth) {
    if (painter.textWidth(text, font) <= maximumWidth)
        return text;
    const std::string ellipsis = "\u2026";
    std::string cut = text;
    while (!cut.empty()) {
        // Drop one whole UTF-8 character from the end.
        while (!cut.empty() && (static_cast<unsigned char>(cut.back()) & 0xC0) == 0x80)
            cut.pop_back();
        if (!cut.empty())
            cut.pop_back();
        if (painter.textWidth(cut + ellipsis, font) <= maximumWidth)
            return cut + ellipsis;
    }
    return ellipsis;
}

namespace {

// Each curve's line style: its own colour, or the palette's colour for its place when it has none of
// its own (records are black until a colour is chosen for them); when two curves would share a
// colour, every curve takes the palette's colours in turn, then the dash patterns.
std::vector<VELTLineStyle> curveStyles(const VELTGraphPlot& plot) {
    const VELTGraphAppearance& a = plot.appearance;
    const auto& palette = VELTGraphAppearance::palette();
    const auto& dashes = VELTGraphAppearance::dashPatterns();
    std::vector<VELTColor> colors;
    for (std::size_t i = 0; i < plot.curves.size(); ++i) {
        const VELTColor& own = plot.curves[i]->lineStyle().color;
        colors.push_back(own == VELTColor::blackColor() ? palette[i % palette.size()] : own);
    }
    bool shared = false;
    for (std::size_t i = 0; i < colors.size(); ++i)
        for (std::size_t j = 0; j < i; ++j)
            shared = shared || colors[i] == colors[j];
    // A curve's own colour too close to the ground to be seen (on a dark ground) counts as shared.
    auto luminance = [](const VELTColor& c) { return 0.2126 * c.red + 0.7152 * c.green + 0.0722 * c.blue; };
    for (const VELTColor& color : colors)
        shared = shared || std::abs(luminance(color) - luminance(a.background)) < 0.25;
    std::vector<VELTLineStyle> styles;
    for (std::size_t i = 0; i < plot.curves.size(); ++i) {
        VELTLineStyle style = plot.curves[i]->lineStyle();
        style.color = colors[i];
        if (a.monochrome) {
            style.color = a.text;
            style.dashPattern = dashes[i % dashes.size()];
        } else if (shared) {
            style.color = palette[i % palette.size()];
            style.dashPattern = dashes[(i / palette.size()) % dashes.size()];
        }
        style.width = std::max(style.width, a.curveWidth);
        styles.push_back(std::move(style));
    }
    return styles;
}

// The colour of a curve's bars: its line's colour, or in print a grey lighter for each curve.
VELTColor barFill(const VELTGraphPlot& plot, const std::vector<VELTLineStyle>& styles, std::size_t curve) {
    VELTColor fill = styles[curve].color;
    if (plot.appearance.monochrome)
        fill.alpha = 1.0 - 0.6 * static_cast<double>(curve) /
                               static_cast<double>(std::max<std::size_t>(styles.size(), 2) - 1);
    return fill;
}

void drawBars(VELTPainter& painter, const VELTGraphPlot& plot, const VELTRect& area,
              const std::vector<VELTLineStyle>& styles) {
    for (const auto& [rect, curve] : barsOf(plot, area))
        painter.fillRect(rect, barFill(plot, styles, curve));
}

void drawLegend(VELTPainter& painter, const VELTGraphPlot& plot, const VELTGraphLayout& layout,
                const std::vector<VELTLineStyle>& styles) {
    const VELTGraphAppearance& a = plot.appearance;
    if (layout.legendNames.empty())
        return;
    const double line = painter.lineHeight(a.legendFont);
    const VELTRect& box = layout.legend;
    VELTColor ground = a.background;
    ground.alpha = 0.85;
    painter.fillRect(box, ground);
    painter.strokeRect(box, a.majorGrid);
    for (std::size_t i = 0; i < layout.legendNames.size(); ++i) {
        const double y = box.y + kLegendInset + line * (static_cast<double>(i) + 0.5);
        const double left = box.x + kLegendInset;
        if (i < layout.legendCurves && plot.bars)
            painter.fillRect({left, y - line * 0.3, kLegendSwatch, line * 0.6}, barFill(plot, styles, i));
        else if (i < layout.legendCurves)
            painter.drawLine({left, y}, {left + kLegendSwatch, y}, styles[i]);
        painter.drawText(layout.legendNames[i], {left + kLegendInset + kLegendSwatch, y}, a.legendFont,
                         a.text, VELTHorizontalAlignment::Left, VELTVerticalAlignment::Middle);
    }
}

} // namespace

VELTGraphLayout drawGraph(VELTPainter& painter, const VELTGraphPlot& plot, const VELTRect& bounds) {
    const VELTGraphAppearance& a = plot.appearance;
    CurveRuns runs;
    const VELTGraphLayout layout = layoutGraph(painter, plot, bounds, runs);
    const VELTRect& area = layout.plotArea;
    const Frame frame = frameOf(painter, plot, bounds);
    painter.fillRect(bounds, a.background);

    // Title and its modifier, centred over the plot area; a title wider than the picture is set
    // smaller until it fits, down to the size of the tick labels, and cut short below that.
    if (frame.titleHeight > 0.0) {
        const std::string modifier = plot.titleModifier.empty() ? "" : " " + plot.titleModifier;
        VELTFont titleFont = a.titleFont, modifierFont = a.titleModifierFont;
        const double available = bounds.width - 2.0 * a.padding;
        double total = painter.textWidth(plot.title, titleFont) + painter.textWidth(modifier, modifierFont);
        if (total > available && total > 0.0) {
            // A little under the exact ratio: text widths do not scale quite linearly with the size.
            const double size = std::max(titleFont.size * available / total * 0.97, a.tickLabelFont.size);
            titleFont.size = modifierFont.size = size;
        }
        std::string title = ellipsized(painter, plot.title, titleFont, available);
        const double titleWidth = painter.textWidth(title, titleFont);
        const std::string shownModifier =
            ellipsized(painter, modifier, modifierFont, std::max(available - titleWidth, 0.0));
        total = titleWidth + (modifier.empty() ? 0.0 : painter.textWidth(shownModifier, modifierFont));
        const double x = std::clamp(area.x + (area.width - total) / 2.0, bounds.x + a.padding,
                                    std::max(bounds.right() - a.padding - total, bounds.x + a.padding));
        const double y = bounds.y + a.padding + frame.gap;
        painter.drawText(title, {x, y}, titleFont, a.text, VELTHorizontalAlignment::Left,
                         VELTVerticalAlignment::Top);
        if (!modifier.empty() && shownModifier != "\u2026")
            painter.drawText(shownModifier, {x + titleWidth, y}, modifierFont, a.secondaryText,
                             VELTHorizontalAlignment::Left, VELTVerticalAlignment::Top);
    }

    const bool drawable = plot.extents.xMax > plot.extents.xMin && plot.extents.yMax > plot.extents.yMin &&
                          (!plot.logarithmicX || plot.extents.xMin > 0.0);
    // Grid: minor lines first, so that major lines lie over them.
    if (drawable) {
        for (bool major : {false, true}) {
            for (const TickMark& tick : layout.xTicks) {
                if (tick.major != major)
                    continue;
                const double x = mapX(plot, area, tick.value);
                painter.drawLine({x, area.y}, {x, area.bottom()}, major ? a.majorGrid : a.minorGrid);
            }
            for (const TickMark& tick : layout.yTicks) {
                if (tick.major != major)
                    continue;
                const double y = mapY(plot, area, tick.value);
                painter.drawLine({area.x, y}, {area.right(), y}, major ? a.majorGrid : a.minorGrid);
            }
        }
    }

    // Curves, clipped to the plot area.
    const std::vector<VELTLineStyle> styles = curveStyles(plot);
    if (drawable) {
        painter.pushClip(area);
        for (const VELTGraphSpan& span : plot.xSpans) {
            if (plot.logarithmicX && !(span.from > 0.0 && span.to > 0.0))
                continue;
            const double from = mapX(plot, area, span.from), to = mapX(plot, area, span.to);
            painter.fillRect({std::min(from, to), area.y, std::abs(to - from), area.height}, span.fill);
        }
        if (plot.bars)
            drawBars(painter, plot, area, styles);
        else
            for (std::size_t i = 0; i < plot.curves.size(); ++i) {
                if (i >= runs.size())
                    runs.push_back(plottedPoints(*plot.curves[i], plot, area));
                for (const auto& run : runs[i])
                    painter.drawPolyline(run, styles[i]);
            }
        painter.popClip();
    }
    painter.strokeRect(area, a.frame);

    // Ticks and their labels.
    if (drawable) {
        for (const TickMark& tick : layout.xTicks) {
            const double x = mapX(plot, area, tick.value);
            const double length = tick.major ? a.tickLength : a.tickLength / 2.0;
            painter.drawLine({x, area.bottom()}, {x, area.bottom() + length}, a.frame);
            if (tick.major)
                painter.drawText(tick.label, {x, area.bottom() + a.tickLength + frame.gap / 2.0},
                                 a.tickLabelFont, a.text, VELTHorizontalAlignment::Center,
                                 VELTVerticalAlignment::Top);
        }
        for (const TickMark& tick : layout.yTicks) {
            const double y = mapY(plot, area, tick.value);
            const double length = tick.major ? a.tickLength : a.tickLength / 2.0;
            painter.drawLine({area.x - length, y}, {area.x, y}, a.frame);
            if (tick.major)
                painter.drawText(tick.label, {area.x - a.tickLength - frame.gap, y}, a.tickLabelFont, a.text,
                                 VELTHorizontalAlignment::Right, VELTVerticalAlignment::Middle);
        }
    }

    // Axis titles.
    const std::string xTitle = axisTitle(plot.xQuantity.name, plot.xQuantity.unit);
    const std::string yTitle = axisTitle(plot.yQuantity.name, plot.yQuantity.unit);
    painter.drawText(xTitle, {area.x + area.width / 2.0, bounds.bottom() - a.padding - frame.noteHeight},
                     a.axisTitleFont, a.text, VELTHorizontalAlignment::Center, VELTVerticalAlignment::Bottom);
    if (!plot.note.empty()) {
        // On its own line the note takes the whole width, set smaller or cut short if need be.
        const auto [note, font] =
            fittedText(painter, plot.note, a.legendFont, bounds.width - 2.0 * a.padding);
        painter.drawText(note, {bounds.right() - a.padding, bounds.bottom() - a.padding}, font,
                         a.secondaryText, VELTHorizontalAlignment::Right, VELTVerticalAlignment::Bottom);
    }
    painter.drawText(yTitle, {bounds.x + a.padding, area.y + area.height / 2.0}, a.axisTitleFont, a.text,
                     VELTHorizontalAlignment::Center, VELTVerticalAlignment::Top, true);

    drawLegend(painter, plot, layout, styles);
    return layout;
}

std::optional<std::size_t> legendCurveAt(const VELTGraphLayout& layout, VELTPoint point) {
    const VELTRect& box = layout.legend;
    if (layout.legendNames.empty() || !box.contains(point))
        return std::nullopt;
    // The rows share the box's height inside its insets, as drawLegend sets them.
    const double line = (box.height - 2.0 * kLegendInset) / static_cast<double>(layout.legendNames.size());
    const double down = point.y - box.y - kLegendInset;
    if (down < 0.0 || !(line > 0.0))
        return std::nullopt;
    const auto row = static_cast<std::size_t>(down / line);
    return row < layout.legendCurves ? std::optional(row) : std::nullopt;
}

} // namespace tavolar
