#include "GraphModel.h"

#include "GraphRenderer.h"
#include "graphing/VELTUnitFormatter.h"
#include "graphs/FrequencyGraphPlots.h"
#include "graphs/TavolarBandLevelGraph.h"
#include "graphs/TavolarEnergyTimeCurveGraph.h"
#include "graphs/TavolarExcessPhaseGraph.h"
#include "graphs/TavolarGroupDelayGraph.h"
#include "graphs/TavolarHarmonicDistortionGraph.h"
#include "graphs/TavolarImpulseResponseGraph.h"
#include "graphs/TavolarMagnitudeResponseGraph.h"
#include "graphs/TavolarMinimumPhaseGraph.h"
#include "graphs/TavolarSPLGraph.h"
#include "graphs/TavolarSpectrogramGraph.h"
#include "graphs/TavolarWaterfallGraph.h"
#include "platform/DispatchQueue.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace tavolar::desktop {

namespace {

constexpr double kLowestFrequency = 1.0; // Hz
constexpr double kSmallestDecibelSpan = 1.0;
// The narrowest ranges otherwise, relative to their size, so that an axis always has room for a tick.
constexpr double kSmallestRelativeSpan = 1e-3;

constexpr int kLargestSmoothingDenominator = 48;

// The pictures' names of the combinations and phase references, in the order of the graph models'
// values.
const std::vector<std::string_view> kCombinations{"none", "average", "difference", "sum", "rms-average"};
const std::vector<std::string_view> kPhaseReferences{"window", "zero", "peak"};

std::shared_ptr<TavolarGraph> makeGraph(std::string_view name) {
    if (name == "magnitude")
        return std::make_shared<TavolarMagnitudeResponseGraph>();
    if (name == "spl")
        return std::make_shared<TavolarSPLGraph>();
    if (name == "phase")
        return std::make_shared<TavolarPhaseGraph>();
    if (name == "minimum-phase")
        return std::make_shared<TavolarMinimumPhaseGraph>();
    if (name == "excess-phase")
        return std::make_shared<TavolarExcessPhaseGraph>();
    if (name == "group-delay")
        return std::make_shared<TavolarGroupDelayGraph>();
    if (name == "impulse")
        return std::make_shared<TavolarImpulseResponseGraph>();
    if (name == "etc")
        return std::make_shared<TavolarEnergyTimeCurveGraph>();
    if (name == "distortion")
        return std::make_shared<TavolarHarmonicDistortionGraph>();
    if (name == "waterfall")
        return std::make_shared<TavolarWaterfallGraph>();
    if (name == "spectrogram")
        return std::make_shared<TavolarSpectrogramGraph>();
    if (name == "octave-bands" || name == "third-octave-bands") {
        auto graph = std::make_shared<TavolarBandLevelGraph>();
        graph->setNumberForKeyPath("thirdOctaveBands", name == "third-octave-bands" ? 1.0 : 0.0);
        return graph;
    }
    return std::make_shared<TavolarGraph>();
}

std::size_t indexWithin(double value, std::size_t count) {
    return static_cast<std::size_t>(
        std::clamp<long long>(std::llround(value), 0, static_cast<long long>(count) - 1));
}

} // namespace

GraphModel::GraphModel(std::string name, QObject* parent)
    : QObject(parent), name_(std::move(name)), graph_(makeGraph(name_)) {}

GraphModel::~GraphModel() {
    *alive_ = false;
}

QString GraphModel::title() const {
    if (auto graph = frequencyGraphNamed(name_))
        return QString::fromUtf8(graph->title.data(), static_cast<qsizetype>(graph->title.size()));
    static const std::map<std::string, const char*> titles{{"impulse", "Impulse Response"},
                                                           {"etc", "Energy-Time Curve"},
                                                           {"distortion", "Distortion"},
                                                           {"octave-bands", "Octave Bands"},
                                                           {"third-octave-bands", "1/3 Octave Bands"},
                                                           {"waterfall", "Waterfall"},
                                                           {"spectrogram", "Spectrogram"}};
    auto found = titles.find(name_);
    return found == titles.end() ? QString::fromStdString(name_) : tr(found->second);
}

bool GraphModel::takesSmoothing() const {
    return takes("smoothingFraction");
}

bool GraphModel::takesNormalization() const {
    return takes("normalize");
}

bool GraphModel::takesCombination() const {
    return takes("multiSelectMode");
}

bool GraphModel::takes(std::string_view keyPath) const {
    if (!graph_->undoablePropertyKeyPaths().contains(keyPath))
        return false;
    // The graph models share settings that not every picture draws (a phase graph keeps a smoothing
    // it does not apply); the window offers those that show.
    const auto frequency = frequencyGraphNamed(name_);
    const bool phase = name_ == "phase" || name_ == "minimum-phase" || name_ == "excess-phase";
    if (keyPath == "smoothingFraction")
        return frequency && frequency->smoothed;
    if (keyPath == "normalize")
        return name_ == "magnitude" || name_ == "spl";
    if (keyPath == "multiSelectMode")
        return frequency.has_value();
    if (keyPath == "logFrequencyScale")
        return frequency || name_ == "distortion" || name_ == "waterfall" || name_ == "spectrogram";
    if (keyPath == "unwrapPhase")
        return phase;
    if (keyPath == "phaseReference")
        return phase || name_ == "group-delay";
    if (keyPath == "decibels")
        return name_ == "impulse";
    if (keyPath == "percent")
        return name_ == "distortion";
    return keyPath == "extentsLocked" || keyPath.starts_with("extents.");
}

const std::vector<std::pair<int, int>>& GraphModel::smoothingKeys() {
    static const std::vector<std::pair<int, int>> keys = [] {
        std::vector<std::pair<int, int>> found;
        for (const KeyEquivalent& key : TavolarMagnitudeResponseGraph().keyEquivalents())
            if (key.action == TavolarFrequencyDomainGraph::kSetSmoothingAction && key.key.size() == 1 &&
                key.key[0] >= '0' && key.key[0] <= '9')
                found.emplace_back(key.key[0] - '0', static_cast<int>(key.tag));
        return found;
    }();
    return keys;
}

QString GraphModel::undoActionName(const std::string& keyPath) const {
    const UndoActionNames names = graph_->undoablePropertyKeyPaths();
    auto found = names.find(keyPath);
    return found == names.end() ? QString() : QString::fromStdString(found->second);
}

int GraphModel::smoothing() const {
    return static_cast<int>(std::lround(value("smoothingFraction")));
}

double GraphModel::value(const std::string& keyPath) const {
    return takes(keyPath) ? graph_->numberForKeyPath(keyPath).value_or(0.0) : 0.0;
}

void GraphModel::setValue(const std::string& keyPath, double value) {
    if (!takes(keyPath))
        return;
    if (keyPath == "smoothingFraction")
        value = std::clamp<double>(std::lround(value), 0, kLargestSmoothingDenominator);
    // The window's undo stack takes the step back; the graph model registers none of its own.
    graph_->changeKeyPath(keyPath, value);
    const bool extents = keyPath.starts_with("extents.");
    if (extents)
        extentsAutomatic_ = false;
    emit valueChanged(QString::fromStdString(keyPath));
    if (!extents && keyPath != "extentsLocked")
        reload();
    emit changed();
}

void GraphModel::setExtents(const VELTGraphExtents& extents) {
    if (extents == graph_->extents())
        return;
    graph_->setExtents(extents);
    extentsAutomatic_ = false;
    emit changed();
}

void GraphModel::setRecords(RecordArray records) {
    keepExtents_ = picture_ && !extentsAutomatic_ && records == graph_->measurementRecords();
    graph_->setMeasurementRecords(std::move(records));
    reload();
}

PlotSettings GraphModel::plotSettings() const {
    PlotSettings settings;
    settings.graph = name_;
    if (smoothing() > 0)
        settings.smoothing = smoothing();
    settings.normalize = value("normalize") != 0.0;
    settings.combine = kCombinations[indexWithin(value("multiSelectMode"), kCombinations.size())];
    settings.linearFrequency = takes("logFrequencyScale") && value("logFrequencyScale") == 0.0;
    if (takes("phaseReference"))
        settings.phaseReference =
            kPhaseReferences[indexWithin(value("phaseReference"), kPhaseReferences.size())];
    settings.unwrapped = value("unwrapPhase") != 0.0;
    settings.decibels = value("decibels") != 0.0;
    settings.percent = value("percent") != 0.0;
    return settings;
}

void GraphModel::reload() {
    ++generation_;
    reloading_ = true;
    if (graph_->measurementRecords().empty()) {
        receive(makeUnexpected("There are no records to show."));
        return;
    }
    // One computation at a time: reloads made while one runs (the steps of a drag of a window's edge)
    // leave a single one to follow it, of the records and settings as they are by then.
    if (!computing_)
        compute();
}

void GraphModel::compute() {
    // The picture is computed on the global queue and handed to the main queue; a model gone by then
    // leaves it unused, and one reloaded since computes again rather than take it.
    computing_ = true;
    const std::uint64_t generation = generation_;
    std::weak_ptr<bool> alive = alive_;
    DispatchQueue::global().async(
        [this, alive, generation, records = graph_->measurementRecords(), settings = plotSettings()] {
            auto picture = std::make_shared<Expected<GraphPicture>>(plotRecords(records, settings));
            DispatchQueue::main().async([this, alive, generation, picture] {
                if (auto living = alive.lock(); !living || !*living)
                    return;
                computing_ = false;
                if (generation == generation_)
                    receive(std::move(*picture));
                else if (reloading_)
                    reload();
            });
        });
}

void GraphModel::reloadSynchronously() {
    ++generation_;
    const RecordArray& records = graph_->measurementRecords();
    receive(records.empty() ? Expected<GraphPicture>(makeUnexpected("There are no records to show."))
                            : plotRecords(records, plotSettings()));
}

void GraphModel::receive(Expected<GraphPicture> picture) {
    reloading_ = false;
    const bool keep = std::exchange(keepExtents_, false);
    if (picture) {
        picture_ = std::move(*picture);
        problem_.clear();
        // New data brings the extents that fit it, unless the user locked them; this is no undoable
        // step.
        if (!extentsLocked() && !keep)
            if (auto fitted = fittedExtents()) {
                graph_->setExtents(*fitted);
                extentsAutomatic_ = true;
            }
    } else {
        picture_.reset();
        problem_ = QString::fromStdString(picture.error().localizedDescription);
    }
    emit changed();
}

std::optional<GraphPicture> GraphModel::picture() const {
    if (!picture_)
        return std::nullopt;
    GraphPicture picture = *picture_;
    if (isInteractive()) {
        picture.plot.extents = extents();
        picture.roundedY = false;
    }
    return picture;
}

const GraphDataArray& GraphModel::curves() const {
    static const GraphDataArray none;
    return picture_ ? picture_->plot.curves : none;
}

bool GraphModel::isInteractive() const {
    return picture_ && (picture_->style == PictureStyle::Curves || picture_->style == PictureStyle::Bars);
}

bool GraphModel::logarithmicX() const {
    return picture_ ? picture_->plot.logarithmicX : true;
}

void GraphModel::setViewBounds(const VELTRect& bounds) {
    if (bounds == viewBounds_)
        return;
    viewBounds_ = bounds;
    if (extentsAutomatic_)
        if (auto fitted = fittedExtents(); fitted && *fitted != extents()) {
            graph_->setExtents(*fitted);
            emit changed();
        }
}

std::optional<VELTGraphExtents> GraphModel::fittedExtents() const {
    if (!picture_)
        return std::nullopt;
    VELTGraphExtents extents = picture_->plot.extents;
    if (picture_->roundedY && isInteractive())
        withMeasuringPainter([&](VELTPainter& painter) {
            extents = roundedGraphExtents(painter, picture_->plot, viewBounds_);
        });
    return extents;
}

double GraphModel::highestFrequency() const {
    std::int64_t rate = 0;
    for (const auto& record : graph_->measurementRecords())
        rate = std::max(rate, record->sampleRate());
    return rate > 0 ? static_cast<double>(rate) / 2.0 : 24000.0;
}

VELTGraphExtents GraphModel::limited(const VELTGraphExtents& proposed) const {
    VELTGraphExtents result = proposed;
    const bool finite = std::isfinite(proposed.xMin) && std::isfinite(proposed.xMax) &&
                        std::isfinite(proposed.yMin) && std::isfinite(proposed.yMax);
    if (!finite)
        return extents();
    const bool frequencyAxis = picture_ && picture_->plot.xQuantity.unit == "Hz";
    if (logarithmicX()) {
        const double lowest = frequencyAxis ? kLowestFrequency : 0.0;
        const double highest = frequencyAxis ? highestFrequency() : INFINITY;
        if (!(proposed.xMin > 0.0) || !(proposed.xMax / proposed.xMin >= 1.0 + kSmallestRelativeSpan)) {
            result.xMin = extents().xMin;
            result.xMax = extents().xMax;
        } else if (frequencyAxis && proposed.xMax / proposed.xMin >= highest / lowest) {
            result.xMin = lowest;
            result.xMax = highest;
        } else if (proposed.xMin < lowest) {
            // Moved back inside, keeping the span of the axis (a ratio on the logarithmic axis).
            result.xMax = proposed.xMax * (lowest / proposed.xMin);
            result.xMin = lowest;
        } else if (proposed.xMax > highest) {
            result.xMin = proposed.xMin * (highest / proposed.xMax);
            result.xMax = highest;
        }
    } else {
        const double size = std::max(std::abs(proposed.xMin), std::abs(proposed.xMax));
        if (!(proposed.xMax - proposed.xMin >= kSmallestRelativeSpan * std::max(size, 1e-3))) {
            result.xMin = extents().xMin;
            result.xMax = extents().xMax;
        }
    }
    const bool decibels = picture_ && picture_->plot.yQuantity.unit == "dB";
    const double size = std::max(std::abs(proposed.yMin), std::abs(proposed.yMax));
    const double smallestY = decibels ? kSmallestDecibelSpan : kSmallestRelativeSpan * std::max(size, 1e-6);
    if (!(proposed.yMax - proposed.yMin >= smallestY)) {
        result.yMin = extents().yMin;
        result.yMax = extents().yMax;
    }
    return result;
}

VELTGraphExtents GraphModel::zoomed(double x, double y, double factor) const {
    // About the point: its distance to each end scales by the factor (on a logarithmic axis, the
    // distance in log x), so the inverse factor undoes it.
    VELTGraphExtents proposed{0.0, 0.0, y - (y - extents().yMin) * factor, y + (extents().yMax - y) * factor};
    if (logarithmicX()) {
        const double logX = std::log(x);
        proposed.xMin = std::exp(logX - (logX - std::log(extents().xMin)) * factor);
        proposed.xMax = std::exp(logX + (std::log(extents().xMax) - logX) * factor);
    } else {
        proposed.xMin = x - (x - extents().xMin) * factor;
        proposed.xMax = x + (extents().xMax - x) * factor;
    }
    return limited(proposed);
}

VELTGraphExtents GraphModel::panned(double fromX, double fromY, double toX, double toY) const {
    const double shift = fromY - toY;
    VELTGraphExtents proposed{extents().xMin, extents().xMax, extents().yMin + shift, extents().yMax + shift};
    if (logarithmicX()) {
        proposed.xMin *= fromX / toX;
        proposed.xMax *= fromX / toX;
    } else {
        proposed.xMin += fromX - toX;
        proposed.xMax += fromX - toX;
    }
    return limited(proposed);
}

void GraphModel::setMarker(int index, std::optional<double> x) {
    markers_.at(static_cast<std::size_t>(index)) = x;
    emit changed();
}

QStringList GraphModel::markerDescriptions() const {
    QStringList lines;
    if (!picture_)
        return lines;
    const GraphQuantity& xQuantity = picture_->plot.xQuantity;
    const std::string yUnit = displayUnit(picture_->plot.yQuantity.unit);
    auto xText = [&](double x) {
        return QString::fromStdString(xQuantity.unit == "Hz"
                                          ? formatFrequencyWithUnit(x)
                                          : formatShortNumber(x) + " " + displayUnit(xQuantity.unit));
    };
    auto yText = [&](std::optional<double> y) {
        return y ? QString::number(*y, 'f', 2) + " " + QString::fromStdString(yUnit) : tr("no value");
    };
    std::array<std::optional<double>, 2> values;
    for (std::size_t index = 0; index < markers_.size(); ++index) {
        if (!markers_[index])
            continue;
        const auto readings = readout(*markers_[index]);
        if (!readings.empty())
            values[index] = readings.front().value;
        lines << QString("%1: %2, %3")
                     .arg(QChar('A' + static_cast<int>(index)))
                     .arg(xText(*markers_[index]), yText(values[index]));
    }
    if (markers_[0] && markers_[1]) {
        const double across = *markers_[1] - *markers_[0];
        QString line = QString("B \u2212 A: %1").arg(xText(across));
        // On a frequency axis, the difference of the periods too: the time between the two.
        if (xQuantity.unit == "Hz" && *markers_[0] > 0.0 && *markers_[1] > 0.0)
            line += ", " + QString::fromStdString(
                               formatShortNumber(1000.0 / *markers_[1] - 1000.0 / *markers_[0]) + " ms");
        if (values[0] && values[1])
            line += ", " + yText(*values[1] - *values[0]);
        lines << line;
    }
    return lines;
}

std::vector<GraphModel::Reading> GraphModel::readout(double at) const {
    std::vector<Reading> readings;
    if (!picture_ || picture_->style != PictureStyle::Curves)
        return readings;
    const bool logarithmic = logarithmicX();
    for (const auto& curve : curves()) {
        const VELTColor& color = curve->lineStyle().color;
        Reading reading{QString::fromStdString(curve->name()),
                        QColor::fromRgbF(static_cast<float>(color.red), static_cast<float>(color.green),
                                         static_cast<float>(color.blue)),
                        std::nullopt};
        const auto x = curve->x().span();
        const auto y = curve->y().span();
        const std::size_t count = std::min(x.size(), y.size());
        // The first point at or beyond x, and the one before it.
        const auto above = std::lower_bound(x.begin(), x.begin() + static_cast<std::ptrdiff_t>(count), at,
                                            [](float point, double wanted) { return point < wanted; });
        const auto index = static_cast<std::size_t>(above - x.begin());
        if (index < count && x[index] == at) {
            reading.value = y[index];
        } else if (index > 0 && index < count) {
            auto position = [&](double value) { return logarithmic ? std::log(value) : value; };
            const double low = position(x[index - 1]), high = position(x[index]);
            const double t = (position(at) - low) / (high - low);
            reading.value = y[index - 1] + t * (y[index] - y[index - 1]);
        }
        if (reading.value && !std::isfinite(*reading.value))
            reading.value.reset();
        readings.push_back(std::move(reading));
    }
    return readings;
}

} // namespace tavolar::desktop
