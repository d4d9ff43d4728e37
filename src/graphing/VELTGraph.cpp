#include "graphing/VELTGraph.h"

#include <cmath>

namespace tavolar {

void VELTGraph::setHorizontalAxis(VELTAxis axis) {
    horizontalAxis_ = std::move(axis);
    didChangeValueForKey("horizontalAxis");
}

void VELTGraph::setVerticalAxis(VELTAxis axis) {
    verticalAxis_ = std::move(axis);
    didChangeValueForKey("verticalAxis");
}

void VELTGraph::addGraphData(std::shared_ptr<const VELTGraphData> data) {
    if (!data)
        return;
    graphData_.push_back(std::move(data));
    didChangeValueForKey("graphDataArray");
}

void VELTGraph::setGraphDataArray(GraphDataArray graphData) {
    std::erase(graphData, nullptr);
    graphData_ = std::move(graphData);
    didChangeValueForKey("graphDataArray");
}

void VELTGraph::removeAllGraphData() {
    if (graphData_.empty())
        return;
    graphData_.clear();
    didChangeValueForKey("graphDataArray");
}

void VELTGraph::setExtents(const VELTGraphExtents& extents) {
    changeNumber(extents_.xMin, extents.xMin, kXMinKeyPath);
    changeNumber(extents_.xMax, extents.xMax, kXMaxKeyPath);
    changeNumber(extents_.yMin, extents.yMin, kYMinKeyPath);
    changeNumber(extents_.yMax, extents.yMax, kYMaxKeyPath);
}

std::optional<VELTGraphExtents> VELTGraph::extentsFittingGraphData() const {
    return tavolar::extentsFittingGraphData(graphData_);
}

void VELTGraph::setMarkers(std::vector<VELTGraphMarker> markers) {
    markers_ = std::move(markers);
    didChangeValueForKey("markers");
}

void VELTGraph::addMarker(VELTGraphMarker marker) {
    markers_.push_back(std::move(marker));
    didChangeValueForKey("markers");
}

void VELTGraph::setTitle(std::string title) {
    if (title == title_)
        return;
    title_ = std::move(title);
    didChangeValueForKey("title");
}

namespace {

double* limitForKeyPath(VELTGraphExtents& extents, std::string_view keyPath) {
    if (keyPath == VELTGraph::kXMinKeyPath)
        return &extents.xMin;
    if (keyPath == VELTGraph::kXMaxKeyPath)
        return &extents.xMax;
    if (keyPath == VELTGraph::kYMinKeyPath)
        return &extents.yMin;
    if (keyPath == VELTGraph::kYMaxKeyPath)
        return &extents.yMax;
    return nullptr;
}

} // namespace

std::optional<double> VELTGraph::numberForKeyPath(std::string_view keyPath) const {
    VELTGraphExtents extents = extents_;
    if (const double* limit = limitForKeyPath(extents, keyPath))
        return *limit;
    return std::nullopt;
}

bool VELTGraph::setNumberForKeyPath(std::string_view keyPath, double value) {
    VELTGraphExtents extents = extents_;
    double* limit = limitForKeyPath(extents, keyPath);
    if (!limit)
        return false;
    *limit = value;
    setExtents(extents);
    return true;
}

std::vector<std::string> VELTGraph::keyPathsOfPropertiesAffectingDisplay() const {
    return {"title", "horizontalAxis", "verticalAxis", "graphDataArray"};
}

std::vector<std::string_view> VELTGraph::keyPathsForValuesAffectingValueForKey(std::string_view key) const {
    if (key == "extents")
        return {kXMinKeyPath, kXMaxKeyPath, kYMinKeyPath, kYMaxKeyPath};
    if (key == "canDraw")
        return {"graphDataArray"};
    return {};
}

VELTGraphPlot VELTGraph::graphPlot() const {
    VELTGraphPlot plot;
    plot.title = title_;
    plot.xQuantity = horizontalAxis_.quantity();
    plot.yQuantity = verticalAxis_.quantity();
    plot.xTickLabels = horizontalAxis_.tickLabelFormatter();
    plot.yTickLabels = verticalAxis_.tickLabelFormatter();
    plot.logarithmicX = horizontalAxis_.isLogarithmic();
    plot.extents = extents_;
    plot.curves = graphData_;
    plot.appearance = appearance_;
    return plot;
}

void VELTGraph::drawInRect(VELTPainter& painter, const VELTRect& rect) const {
    const VELTGraphPlot plot = graphPlot();
    const VELTGraphLayout layout = drawGraph(painter, plot, rect);
    drawMarkers(painter, plot, layout);
}

void VELTGraph::drawMarkers(VELTPainter& painter, const VELTGraphPlot& plot,
                            const VELTGraphLayout& layout) const {
    if (markers_.empty())
        return;
    const VELTRect& area = layout.plotArea;
    const VELTGraphExtents& e = plot.extents;
    // The position of a value along the axis as a fraction of its length, or nothing off the axis.
    auto fraction = [](double value, double low, double high, bool logarithmic) -> std::optional<double> {
        if (logarithmic) {
            if (!(value > 0.0 && low > 0.0 && high > low))
                return std::nullopt;
            value = std::log10(value), low = std::log10(low), high = std::log10(high);
        }
        if (!(high > low) || !std::isfinite(value) || value < low || value > high)
            return std::nullopt;
        return (value - low) / (high - low);
    };
    painter.pushClip(area);
    for (const VELTGraphMarker& marker : markers_) {
        const bool vertical = marker.orientation == VELTGraphMarker::Orientation::Vertical;
        auto at = vertical ? fraction(marker.value, e.xMin, e.xMax, plot.logarithmicX)
                           : fraction(marker.value, e.yMin, e.yMax, false);
        if (!at)
            continue;
        VELTPoint from, to, labelAnchor;
        if (vertical) {
            const double x = area.x + *at * area.width;
            from = {x, area.bottom()}, to = {x, area.y}, labelAnchor = {x + 2.0, area.y + 2.0};
        } else {
            const double y = area.bottom() - *at * area.height;
            from = {area.x, y}, to = {area.right(), y}, labelAnchor = {area.right() - 2.0, y - 2.0};
        }
        painter.drawLine(from, to, marker.lineStyle);
        if (!marker.label.empty())
            painter.drawText(marker.label, labelAnchor, plot.appearance.legendFont, marker.lineStyle.color,
                             vertical ? VELTHorizontalAlignment::Left : VELTHorizontalAlignment::Right,
                             vertical ? VELTVerticalAlignment::Top : VELTVerticalAlignment::Bottom);
    }
    painter.popClip();
}

} // namespace tavolar
