#pragma once
// One frequency graph of a document window: its settings (each undoable under its key path), its
// extents, and the curves of the records it shows, computed on the calculation queue. The gestures
// of the graph view (zoom, pan, fit) are worked out here as extents, so that they can be tested
// without a window and undone as values.

#include "graphcalc/GraphCalculationController.h"
#include "graphs/FrequencyGraphPlots.h"

#include <QColor>
#include <QObject>
#include <QString>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavolar::desktop {

class GraphModel : public QObject {
    Q_OBJECT
public:
    explicit GraphModel(FrequencyGraphDescription graph, QObject* parent = nullptr);
    ~GraphModel() override;

    const FrequencyGraphDescription& graph() const noexcept { return graph_; }

    // The settings that are undoable, by key path, with their undo action names.
    static const std::vector<std::pair<std::string, QString>>& undoablePropertyKeyPaths();
    static QString undoActionName(const std::string& keyPath);
    // A setting by key path: "smoothingFraction" (the octave fraction's denominator, 0 for none),
    // "normalize", "multiSelectMode", "extentsLocked", "extents.x.min" ... "extents.y.max".
    double value(const std::string& keyPath) const;
    void setValue(const std::string& keyPath, double value);

    int smoothing() const noexcept { return smoothing_; }
    bool extentsLocked() const noexcept { return extentsLocked_; }
    const VELTGraphExtents& extents() const noexcept { return extents_; }
    // Sets the extents as they are; gestures keep to the limits through zoomed, panned and limited.
    void setExtents(const VELTGraphExtents& extents);

    // The records to draw; their curves are computed again.
    void setRecords(RecordArray records);
    // Computes the curves on the calculation queue; they arrive on the main queue.
    void reload();
    // Computes the curves before returning (pictures made without a window, tests).
    void reloadSynchronously();
    bool isReloading() const noexcept { return reloading_; }
    const GraphDataArray& curves() const noexcept { return curves_; }

    // The plot as picture files draw it, with the model's extents; nothing before there are curves.
    std::optional<VELTGraphPlot> plot(const VELTGraphAppearance& appearance) const;
    // Where the view draws (points); automatic extents round the Y axis out to its ticks there.
    void setViewBounds(const VELTRect& bounds) { viewBounds_ = bounds; }
    // Extents fitting the curves (Y rounded out to whole ticks, as picture files have them).
    std::optional<VELTGraphExtents> fittedExtents() const;

    // The highest frequency shown: half the highest sample rate among the curves.
    double highestFrequency() const;
    // The proposed extents kept to the limits (X from 1 Hz to the highest frequency, Y at least
    // 1 unit across); an axis that cannot be brought within them keeps its present range.
    VELTGraphExtents limited(const VELTGraphExtents& proposed) const;
    // Zoomed about the point (x, y) by factor (below 1 zooms in): the point stays where it is, and a
    // zoom by 1/factor about the same point brings the extents back.
    VELTGraphExtents zoomed(double x, double y, double factor) const;
    // Moved so that the point (fromX, fromY) comes to lie at (toX, toY).
    VELTGraphExtents panned(double fromX, double fromY, double toX, double toY) const;

    // Each curve's value at the frequency, interpolated between its points (linear in log
    // frequency); nothing for a curve that does not reach the frequency.
    struct Reading {
        QString name;
        QColor color;
        std::optional<double> value;
    };
    std::vector<Reading> readout(double frequency) const;

signals:
    // Something drawn changed.
    void changed();
    void valueChanged(const QString& keyPath);

private:
    GraphCalculationSettings calculationSettings() const;
    void receive(GraphDataArray curves);

    FrequencyGraphDescription graph_;
    int smoothing_ = 0;
    bool normalize_ = false;
    std::int64_t multiSelectMode_ = 0;
    bool extentsLocked_ = false;
    VELTGraphExtents extents_{20.0, 20000.0, -60.0, 0.0};
    VELTRect viewBounds_{0.0, 0.0, 480.0, 300.0};
    RecordArray records_;
    GraphDataArray curves_;
    bool reloading_ = false;
    std::unique_ptr<GraphCalculationController> controller_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace tavolar::desktop
