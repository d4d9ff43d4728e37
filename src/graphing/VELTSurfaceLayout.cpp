#include "graphing/VELTSurfaceLayout.h"

#include "graphing/VELTUnitFormatter.h"

#include <algorithm>
#include <cmath>

namespace tavolar {

namespace {

constexpr double kGap = 4.0;

// Where X lies across the X range, from 0 to 1 (outside for X outside it).
double xFraction(const VELTSurfacePlot& plot, double x) {
    if (plot.logarithmicX)
        return std::log(x / plot.xMin) / std::log(plot.xMax / plot.xMin);
    return (x - plot.xMin) / (plot.xMax - plot.xMin);
}

double levelFraction(const VELTSurfacePlot& plot, double level) {
    return (level - plot.levelMin) / (plot.levelMax - plot.levelMin);
}

bool drawable(const VELTSurfacePlot& plot) {
    return plot.surface && plot.surface->rows() > 0 && plot.surface->columns() > 0 && plot.xMax > plot.xMin &&
           (!plot.logarithmicX || plot.xMin > 0.0) && plot.zMax >= plot.zMin && plot.levelMax > plot.levelMin;
}

std::vector<TickMark> xTicksOf(VELTPainter& painter, const VELTSurfacePlot& plot, double length) {
    auto width = [&](std::string_view text) {
        return painter.textWidth(text, plot.appearance.tickLabelFont);
    };
    const TickLabelText text = tickLabelText(plot.xTickLabels, plot.surface->xQuantity());
    return plot.logarithmicX ? logarithmicTickMarks(plot.xMin, plot.xMax, length, width, text)
                             : linearTickMarks(plot.xMin, plot.xMax, length, width, text);
}

// Ticks of an axis whose labels are stacked: each takes a line's height.
std::vector<TickMark> stackedTicksOf(VELTPainter& painter, const VELTSurfacePlot& plot, double minimum,
                                     double maximum, double length) {
    const double line = painter.lineHeight(plot.appearance.tickLabelFont);
    TickMarkOptions options;
    options.minimumGap = line;
    return linearTickMarks(
        minimum, maximum, length, [line](std::string_view) { return line; }, tickLabelText({}, {}), options);
}

// The title and its modifier centred over the bounds; returns the height taken.
double drawTitle(VELTPainter& painter, const VELTSurfacePlot& plot, const VELTRect& bounds) {
    const VELTGraphAppearance& a = plot.appearance;
    if (plot.title.empty() && plot.titleModifier.empty())
        return 0.0;
    const double available = bounds.width - 2.0 * a.padding;
    const std::string modifier = plot.titleModifier.empty() ? "" : " " + plot.titleModifier;
    const std::string title = ellipsized(painter, plot.title, a.titleFont, available);
    const double titleWidth = painter.textWidth(title, a.titleFont);
    const std::string shownModifier =
        ellipsized(painter, modifier, a.titleModifierFont, std::max(available - titleWidth, 0.0));
    const double total =
        titleWidth + (modifier.empty() ? 0.0 : painter.textWidth(shownModifier, a.titleModifierFont));
    const double x = bounds.x + std::max((bounds.width - total) / 2.0, a.padding);
    const double y = bounds.y + a.padding + kGap;
    painter.drawText(title, {x, y}, a.titleFont, a.text, VELTHorizontalAlignment::Left,
                     VELTVerticalAlignment::Top);
    if (!modifier.empty() && shownModifier != "\u2026")
        painter.drawText(shownModifier, {x + titleWidth, y}, a.titleModifierFont, a.secondaryText,
                         VELTHorizontalAlignment::Left, VELTVerticalAlignment::Top);
    return painter.lineHeight(a.titleFont) + kGap * 2.0;
}

void drawNote(VELTPainter& painter, const VELTSurfacePlot& plot, const VELTRect& bounds, double leftLimit) {
    const VELTGraphAppearance& a = plot.appearance;
    if (plot.note.empty())
        return;
    // Beside the axis title, set smaller or cut short where the room is narrow.
    const auto [note, font] =
        fittedText(painter, plot.note, a.legendFont, bounds.right() - a.padding - leftLimit - kGap * 2.0);
    painter.drawText(note, {bounds.right() - a.padding, bounds.bottom() - a.padding}, font, a.secondaryText,
                     VELTHorizontalAlignment::Right, VELTVerticalAlignment::Bottom);
}

} // namespace

std::pair<int, int> heatMapImageSize(double width, double height) {
    auto pixels = [](double points) {
        return std::clamp(static_cast<int>(std::ceil(points * 2.0)), 1, 2048);
    };
    return {pixels(width), pixels(height)};
}

std::vector<std::uint32_t> heatMapPixels(const VELTSurfacePlot& plot, int width, int height) {
    std::vector<std::uint32_t> pixels(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), 0u);
    if (!drawable(plot) || width < 1 || height < 1)
        return pixels;
    const GraphData3D& surface = *plot.surface;
    const std::size_t columns = surface.columns(), rows = surface.rows();
    // The nearest of ascending values, or -1 beyond half a step outside them.
    auto nearest = [](const VELTRealVector& values, std::size_t count, double value) -> long {
        const float* begin = values.components();
        const float* end = begin + count;
        const float* above = std::lower_bound(begin, end, static_cast<float>(value));
        long index = above - begin;
        if (above == end || (above != begin && value - above[-1] < *above - value))
            --index;
        const double step = count > 1 ? (double(begin[count - 1]) - begin[0]) / double(count - 1) : 1.0;
        if (value < begin[0] - step / 2.0 || value > begin[count - 1] + step / 2.0)
            return -1;
        return index;
    };
    std::vector<long> binOfColumn(static_cast<std::size_t>(width));
    for (int c = 0; c < width; ++c) {
        const double fraction = (c + 0.5) / width;
        const double x = plot.logarithmicX ? plot.xMin * std::pow(plot.xMax / plot.xMin, fraction)
                                           : plot.xMin + fraction * (plot.xMax - plot.xMin);
        binOfColumn[static_cast<std::size_t>(c)] = nearest(surface.x(), columns, x);
    }
    for (int r = 0; r < height; ++r) {
        const double time = plot.zMax - (r + 0.5) / height * (plot.zMax - plot.zMin);
        const long row = nearest(surface.z(), rows, time);
        if (row < 0)
            continue;
        const auto values = surface.rowAtIndex(static_cast<std::size_t>(row));
        std::uint32_t* line = pixels.data() + static_cast<std::size_t>(r) * static_cast<std::size_t>(width);
        for (int c = 0; c < width; ++c) {
            const long bin = binOfColumn[static_cast<std::size_t>(c)];
            if (bin >= 0)
                line[c] = plot.colorMap.pixelAt(levelFraction(plot, values[static_cast<std::size_t>(bin)]));
        }
    }
    return pixels;
}

void drawHeatMapGraph(VELTPainter& painter, const VELTSurfacePlot& plot, const VELTRect& bounds) {
    const VELTGraphAppearance& a = plot.appearance;
    painter.fillRect(bounds, a.background);
    // The colour bar's strip on the right: the bar, its ticks and labels, and its title.
    const double barWidth = 10.0;
    double labelWidth = 0.0;
    for (double level : {plot.levelMin, plot.levelMax, (plot.levelMin + plot.levelMax) / 2.0})
        labelWidth = std::max(labelWidth, painter.textWidth(formatNumber(level, 0), a.tickLabelFont));
    const double titleHeight = painter.lineHeight(a.axisTitleFont);
    const double strip =
        a.padding + kGap * 3.0 + barWidth + a.tickLength + kGap / 2.0 + labelWidth + kGap + titleHeight;

    VELTGraphPlot frame;
    frame.title = plot.title;
    frame.titleModifier = plot.titleModifier;
    frame.note = plot.note;
    frame.logarithmicX = plot.logarithmicX;
    frame.appearance = a;
    GraphQuantity valueQuantity{"Level", "dB"};
    if (plot.surface) {
        frame.xQuantity = plot.surface->xQuantity();
        frame.xTickLabels = plot.xTickLabels;
        frame.yQuantity = plot.surface->zQuantity();
        valueQuantity = plot.surface->yQuantity();
    }
    frame.extents = {plot.xMin, plot.xMax, plot.zMin, plot.zMax};
    VELTRect graphBounds = bounds;
    graphBounds.width = std::max(bounds.width - strip, 1.0);
    const VELTGraphLayout layout = drawGraph(painter, frame, graphBounds);
    const VELTRect& area = layout.plotArea;
    if (!drawable(plot))
        return;
    const auto [width, height] = heatMapImageSize(area.width, area.height);
    const std::vector<std::uint32_t> pixels = heatMapPixels(plot, width, height);
    painter.drawImage(area, width, height, pixels);
    painter.strokeRect(area, a.frame);

    // The colour bar, in bands of solid colour that overlap a little so that no seam shows.
    const VELTRect bar{graphBounds.right() + kGap * 2.0, area.y, barWidth, area.height};
    constexpr int kBands = 64;
    for (int band = 0; band < kBands; ++band) {
        const double y = bar.bottom() - bar.height * (band + 1) / kBands;
        painter.fillRect({bar.x, y, bar.width, bar.height / kBands + (band + 1 < kBands ? 0.5 : 0.0)},
                         plot.colorMap.colorAt((band + 0.5) / kBands));
    }
    painter.strokeRect(bar, a.frame);
    for (const TickMark& tick : stackedTicksOf(painter, plot, plot.levelMin, plot.levelMax, bar.height)) {
        const double y = bar.bottom() - levelFraction(plot, tick.value) * bar.height;
        const double length = tick.major ? a.tickLength : a.tickLength / 2.0;
        painter.drawLine({bar.right(), y}, {bar.right() + length, y}, a.frame);
        if (tick.major)
            painter.drawText(tick.label, {bar.right() + a.tickLength + kGap / 2.0, y}, a.tickLabelFont,
                             a.text, VELTHorizontalAlignment::Left, VELTVerticalAlignment::Middle);
    }
    painter.drawText(axisTitle(valueQuantity.name, valueQuantity.unit),
                     {bounds.right() - a.padding - titleHeight, bar.y + bar.height / 2.0}, a.axisTitleFont,
                     a.text, VELTHorizontalAlignment::Center, VELTVerticalAlignment::Top, true);
}

void drawWaterfallGraph(VELTPainter& painter, const VELTSurfacePlot& plot, const VELTRect& bounds) {
    const VELTGraphAppearance& a = plot.appearance;
    painter.fillRect(bounds, a.background);
    const double titleHeight = drawTitle(painter, plot, bounds);
    if (!drawable(plot))
        return;
    const GraphData3D& surface = *plot.surface;
    const double line = painter.lineHeight(a.tickLabelFont);
    const double axisLine = painter.lineHeight(a.axisTitleFont);

    // The box of the view: the front slice in its bottom left, the last one in its top right.
    double levelLabelWidth = 0.0;
    for (double level : {plot.levelMin, plot.levelMax})
        levelLabelWidth =
            std::max(levelLabelWidth, painter.textWidth(formatNumber(level, 0), a.tickLabelFont));
    double timeLabelWidth = 0.0;
    for (double time : {plot.zMin, plot.zMax})
        timeLabelWidth = std::max(timeLabelWidth, painter.textWidth(formatNumber(time, 1), a.tickLabelFont));
    const double left = bounds.x + a.padding + axisLine + kGap + levelLabelWidth + a.tickLength + kGap;
    const double right = bounds.right() - a.padding - timeLabelWidth - a.tickLength - kGap;
    const double top = bounds.y + a.padding + titleHeight;
    const double bottom = bounds.bottom() - a.padding - axisLine - kGap - a.tickLength - line - kGap / 2.0;
    const VELTRect box{left, top, std::max(right - left, 1.0), std::max(bottom - top, 1.0)};
    const double dx = box.width * 0.25, dy = box.height * 0.35;
    const VELTRect front{box.x, box.y + dy, box.width - dx, box.height - dy};
    const VELTRect back{front.x + dx, front.y - dy, front.width, front.height};
    auto mapX = [&](double x) { return front.x + xFraction(plot, x) * front.width; };
    auto mapLevel = [&](double level) {
        return front.bottom() - std::clamp(levelFraction(plot, level), 0.0, 1.0) * front.height;
    };
    auto depth = [&](double time) {
        return plot.zMax > plot.zMin ? (time - plot.zMin) / (plot.zMax - plot.zMin) : 0.0;
    };

    // The walls behind the slices: the back with the level grid, the left side and the floor with the
    // frequency grid.
    const std::vector<TickMark> xTicks = xTicksOf(painter, plot, front.width);
    const std::vector<TickMark> levelTicks =
        stackedTicksOf(painter, plot, plot.levelMin, plot.levelMax, front.height);
    for (const TickMark& tick : levelTicks) {
        if (!tick.major)
            continue;
        const double y = mapLevel(tick.value);
        painter.drawLine({front.x, y}, {back.x, y - dy}, a.majorGrid);
        painter.drawLine({back.x, y - dy}, {back.right(), y - dy}, a.majorGrid);
    }
    for (const TickMark& tick : xTicks) {
        if (!tick.major)
            continue;
        const double x = mapX(tick.value);
        painter.drawLine({x, front.bottom()}, {x + dx, back.bottom()}, a.majorGrid);
        painter.drawLine({x + dx, back.y}, {x + dx, back.bottom()}, a.majorGrid);
    }
    painter.strokeRect(back, a.majorGrid);
    painter.drawLine({front.x, front.y}, {back.x, back.y}, a.majorGrid);
    painter.drawLine({front.x, front.bottom()}, {back.x, back.bottom()}, a.majorGrid);

    // Slices from the back: each one's outline is the highest level within each half point across,
    // filled down to the floor with the ground so that it hides the slices behind it.
    VELTLineStyle style{a.monochrome ? a.text : VELTGraphAppearance::palette().front(), 0.75, {}};
    const std::size_t columns = surface.columns();
    for (std::size_t row = surface.rows(); row-- > 0;) {
        const double time = surface.z()[row];
        if (time < plot.zMin - 1e-9 || time > plot.zMax + 1e-9)
            continue;
        const double t = depth(time);
        const double ox = t * dx, oy = -t * dy;
        const auto values = surface.rowAtIndex(row);
        std::vector<VELTPoint> points;
        long column = 0;
        bool open = false;
        for (std::size_t bin = 0; bin < columns; ++bin) {
            const double x = surface.x()[bin];
            if (x < plot.xMin || x > plot.xMax || (plot.logarithmicX && !(x > 0.0)))
                continue;
            const double value = std::isfinite(values[bin]) ? values[bin] : plot.levelMin;
            const VELTPoint p{mapX(x) + ox, mapLevel(value) + oy};
            const long c = static_cast<long>(std::floor(p.x * 2.0));
            if (open && c == column) {
                points.back().y = std::min(points.back().y, p.y);
                continue;
            }
            open = true;
            column = c;
            points.push_back(p);
        }
        if (points.size() < 2)
            continue;
        std::vector<VELTPoint> outline = points;
        outline.push_back({points.back().x, front.bottom() + oy});
        outline.push_back({points.front().x, front.bottom() + oy});
        painter.fillPolygon(outline, a.background);
        VELTLineStyle sliceStyle = style;
        if (row == 0)
            sliceStyle.width = a.curveWidth;
        painter.drawPolyline(points, sliceStyle);
        painter.drawLine(outline[outline.size() - 2], outline.back(), a.minorGrid);
    }

    // The axes: frequency along the front slice's foot, level up its left side, time along the
    // floor's right edge.
    painter.drawLine({front.x, front.bottom()}, {front.right(), front.bottom()}, a.frame);
    painter.drawLine({front.x, front.y}, {front.x, front.bottom()}, a.frame);
    painter.drawLine({front.right(), front.bottom()}, {back.right(), back.bottom()}, a.frame);
    for (const TickMark& tick : xTicks) {
        const double x = mapX(tick.value);
        painter.drawLine({x, front.bottom()},
                         {x, front.bottom() + (tick.major ? a.tickLength : a.tickLength / 2.0)}, a.frame);
        if (tick.major)
            painter.drawText(tick.label, {x, front.bottom() + a.tickLength + kGap / 2.0}, a.tickLabelFont,
                             a.text, VELTHorizontalAlignment::Center, VELTVerticalAlignment::Top);
    }
    for (const TickMark& tick : levelTicks) {
        const double y = mapLevel(tick.value);
        painter.drawLine({front.x - (tick.major ? a.tickLength : a.tickLength / 2.0), y}, {front.x, y},
                         a.frame);
        if (tick.major)
            painter.drawText(tick.label, {front.x - a.tickLength - kGap, y}, a.tickLabelFont, a.text,
                             VELTHorizontalAlignment::Right, VELTVerticalAlignment::Middle);
    }
    const double diagonal = std::hypot(dx, dy);
    for (const TickMark& tick : stackedTicksOf(painter, plot, plot.zMin, plot.zMax, diagonal)) {
        if (!tick.major)
            continue;
        const double t = depth(tick.value);
        const VELTPoint p{front.right() + t * dx, front.bottom() - t * dy};
        painter.drawLine(p, {p.x + a.tickLength, p.y}, a.frame);
        painter.drawText(tick.label, {p.x + a.tickLength + kGap / 2.0, p.y}, a.tickLabelFont, a.text,
                         VELTHorizontalAlignment::Left, VELTVerticalAlignment::Middle);
    }
    const GraphQuantity& xq = surface.xQuantity();
    const GraphQuantity& zq = surface.zQuantity();
    const GraphQuantity& vq = surface.yQuantity();
    const std::string xTitle = axisTitle(xq.name, xq.unit);
    painter.drawText(xTitle, {front.x + front.width / 2.0, bounds.bottom() - a.padding}, a.axisTitleFont,
                     a.text, VELTHorizontalAlignment::Center, VELTVerticalAlignment::Bottom);
    painter.drawText(axisTitle(vq.name, vq.unit), {bounds.x + a.padding, front.y + front.height / 2.0},
                     a.axisTitleFont, a.text, VELTHorizontalAlignment::Center, VELTVerticalAlignment::Top,
                     true);
    // The time axis's title in the row of the frequency labels, after the last of them, where the
    // time axis starts.
    painter.drawText(axisTitle(zq.name, zq.unit),
                     {front.right() + painter.textWidth("20k", a.tickLabelFont) / 2.0 + kGap * 2.0,
                      front.bottom() + a.tickLength + kGap / 2.0},
                     a.axisTitleFont, a.text, VELTHorizontalAlignment::Left, VELTVerticalAlignment::Top);
    drawNote(painter, plot, bounds,
             front.x + front.width / 2.0 + painter.textWidth(xTitle, a.axisTitleFont) / 2.0);
}

} // namespace tavolar
