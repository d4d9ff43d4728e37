#pragma once
// The graph of the graphing library: the model behind a picture. It holds the two axes, the graph
// data, the extents shown, the markers and the title, tells observers of changes by key path
// ("extents", "extents.x.min", "markers", "title", ...), and draws itself through the graph layout.
// Numeric properties can be read and set by key path, so that undo and views can address them.

#include "graphing/VELTAxis.h"
#include "graphing/VELTGraphData.h"
#include "graphing/VELTGraphExtents.h"
#include "graphing/VELTGraphLayout.h"
#include "graphing/VELTPainter.h"
#include "platform/Observing.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar {

// A line across the plot area at a value of one axis, with an optional label at its end.
struct VELTGraphMarker {
    enum class Orientation { Vertical, Horizontal }; // vertical: at an X value; horizontal: at a Y value
    Orientation orientation = Orientation::Vertical;
    double value = 0.0;
    std::string label;
    VELTLineStyle lineStyle{{0.8, 0.1, 0.1, 1.0}, 1.0, {4.0, 2.0}};
    bool operator==(const VELTGraphMarker&) const = default;
};

class VELTGraph : public Observable {
public:
    // The key paths of the extents' four limits.
    static constexpr std::string_view kXMinKeyPath = "extents.x.min";
    static constexpr std::string_view kXMaxKeyPath = "extents.x.max";
    static constexpr std::string_view kYMinKeyPath = "extents.y.min";
    static constexpr std::string_view kYMaxKeyPath = "extents.y.max";

    VELTGraph() = default;
    // Copies every property; the copy starts with no observers.
    VELTGraph(const VELTGraph&) = default;
    VELTGraph& operator=(const VELTGraph&) = delete;
    ~VELTGraph() override = default;

    const VELTAxis& horizontalAxis() const noexcept { return horizontalAxis_; }
    virtual void setHorizontalAxis(VELTAxis axis);
    const VELTAxis& verticalAxis() const noexcept { return verticalAxis_; }
    virtual void setVerticalAxis(VELTAxis axis);

    const GraphDataArray& graphDataArray() const noexcept { return graphData_; }
    void addGraphData(std::shared_ptr<const VELTGraphData> data);
    // Replaces the whole list (empty entries left out) with one notification.
    void setGraphDataArray(GraphDataArray graphData);
    void removeAllGraphData();
    // True when there is graph data to draw.
    bool canDraw() const noexcept { return !graphData_.empty(); }

    const VELTGraphExtents& extents() const noexcept { return extents_; }
    // Sets the limits that differ; each one changed is announced to willChangeNumberForKeyPath first.
    void setExtents(const VELTGraphExtents& extents);
    // The smallest extents holding the graph data (nothing without a finite point).
    virtual std::optional<VELTGraphExtents> extentsFittingGraphData() const;

    const std::vector<VELTGraphMarker>& markers() const noexcept { return markers_; }
    void setMarkers(std::vector<VELTGraphMarker> markers);
    void addMarker(VELTGraphMarker marker);

    const std::string& title() const noexcept { return title_; }
    void setTitle(std::string title);

    const VELTGraphAppearance& appearance() const noexcept { return appearance_; }
    void setAppearance(VELTGraphAppearance appearance) { appearance_ = std::move(appearance); }

    // Numeric properties by key path: the four extents limits here, more in subclasses (booleans as
    // 0 and 1). Nothing, or false, for a key path the graph does not have.
    virtual std::optional<double> numberForKeyPath(std::string_view keyPath) const;
    virtual bool setNumberForKeyPath(std::string_view keyPath, double value);

    // The key paths whose change calls for a redraw.
    virtual std::vector<std::string> keyPathsOfPropertiesAffectingDisplay() const;

    // The picture of the graph as the layout draws it.
    virtual VELTGraphPlot graphPlot() const;
    // Lays out and draws the axes, the data and the title, then the markers, inside rect.
    virtual void drawInRect(VELTPainter& painter, const VELTRect& rect) const;

    std::vector<std::string_view> keyPathsForValuesAffectingValueForKey(std::string_view key) const override;

protected:
    // Told before a numeric property changes, with its value before the change (for undo).
    virtual void willChangeNumberForKeyPath(std::string_view keyPath, double oldValue) {}
    // Stores value in storage when they differ, announcing and notifying the key path; answers
    // whether it changed.
    template <typename T> bool changeNumber(T& storage, T value, std::string_view keyPath) {
        if (storage == value)
            return false;
        willChangeNumberForKeyPath(keyPath, static_cast<double>(storage));
        storage = value;
        didChangeValueForKey(keyPath);
        return true;
    }

private:
    void drawMarkers(VELTPainter& painter, const VELTGraphPlot& plot, const VELTGraphLayout& layout) const;

    VELTAxis horizontalAxis_;
    VELTAxis verticalAxis_;
    GraphDataArray graphData_;
    VELTGraphExtents extents_;
    std::vector<VELTGraphMarker> markers_;
    std::string title_;
    VELTGraphAppearance appearance_ = VELTGraphAppearance::light();
};

} // namespace tavolar
