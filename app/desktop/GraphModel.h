#pragma once
// One graph of a document window: the library's graph model of its kind, which holds the settings
// (each undoable under its key path and action name), the extents and their lock, and the picture of
// the records it shows, computed from those settings by the same code as picture files on a worker
// thread. The gestures of the graph view (zoom, pan, fit) are worked out here as extents, so that
// they can be tested without a window and undone as values.

#include "graphs/RecordPlots.h"
#include "graphs/TavolarGraph.h"

#include <QColor>
#include <QObject>
#include <QString>
#include <QStringList>
#include <array>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavolar::desktop {

class GraphModel : public QObject {
    Q_OBJECT
public:
    // A graph of plotGraphNames(): "magnitude", "group-delay", "impulse", "waterfall", ...
    explicit GraphModel(std::string name, QObject* parent = nullptr);
    ~GraphModel() override;

    const std::string& name() const noexcept { return name_; }
    // The graph's name for people: "Frequency Response", "Impulse Response".
    QString title() const;
    // Which settings the graph takes.
    bool takesSmoothing() const;
    bool takesNormalization() const;
    bool takesCombination() const;
    // Whether the window offers the setting for this graph: the graph model has it, undoable, and
    // the picture draws it.
    bool takes(std::string_view keyPath) const;

    // The graph model of the graph's kind, which keeps its settings.
    const TavolarGraph& graphModel() const noexcept { return *graph_; }
    // The name of the undo action of a setting, as the graph model gives it.
    QString undoActionName(const std::string& keyPath) const;
    // The smoothing shortcuts of frequency graphs: Ctrl with the digit sets the smoothing (digit,
    // denominator of the octave fraction, 0 for none).
    static const std::vector<std::pair<int, int>>& smoothingKeys();
    // A setting by key path, as the graph model names it: "smoothingFraction" (the octave fraction's
    // denominator, 0 for none), "normalize", "multiSelectMode", "logFrequencyScale",
    // "phaseReference", "unwrapPhase", "extentsLocked", "extents.x.min" ... "extents.y.max". A
    // setting the graph does not take reads 0 and is not set.
    double value(const std::string& keyPath) const;
    void setValue(const std::string& keyPath, double value);

    int smoothing() const;
    bool extentsLocked() const { return graph_->extentsLocked(); }
    const VELTGraphExtents& extents() const noexcept { return graph_->extents(); }
    // Sets the extents as they are; gestures keep to the limits through zoomed, panned and limited.
    void setExtents(const VELTGraphExtents& extents);

    // The records to draw; the picture is computed again. The same records again (a window or colour
    // changed) keep extents the user chose, so that the view stays where it was.
    void setRecords(RecordArray records);
    // The records drawn, in the order of their curves.
    const RecordArray& records() const { return graph_->measurementRecords(); }
    // Whether the picture shows the records' analysis windows (the impulse response's does).
    bool showsWindows() const { return name_ == "impulse" && isInteractive(); }
    // Computes the picture on a worker thread; it arrives on the main queue, which the window
    // drains. A later reload supersedes an earlier one that has not arrived.
    void reload();
    // Computes the picture before returning (pictures made without a window, tests).
    void reloadSynchronously();
    bool isReloading() const noexcept { return reloading_; }
    // Why there is no picture (no records, or nothing of this graph in them).
    const QString& problem() const noexcept { return problem_; }

    // The picture as files draw it, with the model's extents; nothing before there is one.
    std::optional<GraphPicture> picture() const;
    const GraphDataArray& curves() const;
    // Whether the extents can be zoomed and panned (curves and bars, not surfaces).
    bool isInteractive() const;
    bool logarithmicX() const;
    // The unit of the horizontal axis ("Hz", "ms"), empty before there is a picture.
    std::string xUnit() const { return picture_ ? picture_->plot.xQuantity.unit : std::string(); }
    // Where the view draws (points); automatic extents round the Y axis out to its ticks there.
    // Extents still fitted automatically are fitted again to the new bounds.
    void setViewBounds(const VELTRect& bounds);
    // Extents fitting the picture (Y rounded out to whole ticks, as picture files have them).
    std::optional<VELTGraphExtents> fittedExtents() const;

    // The highest frequency shown: half the highest sample rate among the records.
    double highestFrequency() const;
    // The proposed extents kept to the limits (on a frequency axis from 1 Hz to the highest
    // frequency; levels in dB at least 1 dB across); an axis that cannot be brought within them keeps
    // its present range.
    VELTGraphExtents limited(const VELTGraphExtents& proposed) const;
    // Zoomed about the point (x, y) by factor (below 1 zooms in): the point stays where it is, and a
    // zoom by 1/factor about the same point brings the extents back.
    VELTGraphExtents zoomed(double x, double y, double factor) const;
    // Moved so that the point (fromX, fromY) comes to lie at (toX, toY).
    VELTGraphExtents panned(double fromX, double fromY, double toX, double toY) const;

    // Each curve's value at x, interpolated between its points (on a logarithmic axis, linearly in
    // log x); nothing for a curve that does not reach x.
    struct Reading {
        QString name;
        QColor color;
        std::optional<double> value;
    };
    std::vector<Reading> readout(double x) const;

    // Two markers, A and B, at places along X; a marker reads the first curve there.
    const std::optional<double>& marker(int index) const {
        return markers_.at(static_cast<std::size_t>(index));
    }
    void setMarker(int index, std::optional<double> x);
    // "A: 500 Hz, -12.04 dB", "B: ...", and the differences "B − A: 500 Hz, 9.54 dB"; empty without markers.
    QStringList markerDescriptions() const;

signals:
    // Something drawn changed.
    void changed();
    void valueChanged(const QString& keyPath);

private:
    PlotSettings plotSettings() const;
    void compute();
    void receive(Expected<GraphPicture> picture);

    std::string name_;
    std::shared_ptr<TavolarGraph> graph_;
    bool extentsAutomatic_ = false; // the extents are the fitted ones, not the user's
    VELTRect viewBounds_{0.0, 0.0, 480.0, 300.0};
    RecordArray records_;
    std::optional<GraphPicture> picture_;
    std::array<std::optional<double>, 2> markers_;
    QString problem_;
    bool reloading_ = false;
    bool keepExtents_ = false; // the next picture keeps the extents the user chose
    std::uint64_t generation_ = 0;
    bool computing_ = false; // a picture is being computed on a worker thread
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace tavolar::desktop
