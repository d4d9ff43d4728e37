#include "GraphModel.h"

#include "GraphRenderer.h"
#include "graphing/VELTUnitFormatter.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace tavolar::desktop {

namespace {

constexpr double kLowestFrequency = 1.0; // Hz
constexpr double kSmallestYSpan = 1.0;   // dB (or the graph's unit)
// The narrowest frequency range, as a ratio, so that the axis always has room for a tick.
constexpr double kSmallestXRatio = 1.001;

bool isWrappedPhase(FrequencyGraphKind kind) {
    return kind == FrequencyGraphKind::Phase || kind == FrequencyGraphKind::MinimumPhase ||
           kind == FrequencyGraphKind::ExcessPhase;
}

} // namespace

GraphModel::GraphModel(FrequencyGraphDescription graph, QObject* parent) : QObject(parent), graph_(graph) {
    // Smoothed graphs start at 1/12 octave.
    if (graph_.smoothed)
        smoothing_ = 12;
    controller_ = makeFrequencyGraphController(graph_.kind, calculationSettings());
}

GraphModel::~GraphModel() {
    *alive_ = false;
}

const std::vector<std::pair<std::string, QString>>& GraphModel::undoablePropertyKeyPaths() {
    static const std::vector<std::pair<std::string, QString>> keyPaths{
        {"extents.x.min", tr("Set X Minimum")},
        {"extents.x.max", tr("Set X Maximum")},
        {"extents.y.min", tr("Set Y Minimum")},
        {"extents.y.max", tr("Set Y Maximum")},
        {"extentsLocked", tr("Toggle Extents Lock")},
        {"smoothingFraction", tr("Set Smoothing Fraction")},
        {"multiSelectMode", tr("Set Multiple Selection Mode")},
        {"normalize", tr("Toggle Normalization")},
    };
    return keyPaths;
}

QString GraphModel::undoActionName(const std::string& keyPath) {
    for (const auto& [path, name] : undoablePropertyKeyPaths())
        if (path == keyPath)
            return name;
    return {};
}

double GraphModel::value(const std::string& keyPath) const {
    if (keyPath == "smoothingFraction")
        return smoothing_;
    if (keyPath == "normalize")
        return normalize_ ? 1.0 : 0.0;
    if (keyPath == "multiSelectMode")
        return static_cast<double>(multiSelectMode_);
    if (keyPath == "extentsLocked")
        return extentsLocked_ ? 1.0 : 0.0;
    if (keyPath == "extents.x.min")
        return extents_.xMin;
    if (keyPath == "extents.x.max")
        return extents_.xMax;
    if (keyPath == "extents.y.min")
        return extents_.yMin;
    if (keyPath == "extents.y.max")
        return extents_.yMax;
    return 0.0;
}

void GraphModel::setValue(const std::string& keyPath, double value) {
    bool recompute = false;
    if (keyPath == "smoothingFraction") {
        smoothing_ = graph_.smoothed ? std::max(0, static_cast<int>(std::lround(value))) : 0;
        recompute = true;
    } else if (keyPath == "normalize") {
        normalize_ = value != 0.0;
        recompute = true;
    } else if (keyPath == "multiSelectMode") {
        multiSelectMode_ = std::max<std::int64_t>(0, std::llround(value));
        recompute = true;
    } else if (keyPath == "extentsLocked") {
        extentsLocked_ = value != 0.0;
    } else {
        VELTGraphExtents extents = extents_;
        if (keyPath == "extents.x.min")
            extents.xMin = value;
        else if (keyPath == "extents.x.max")
            extents.xMax = value;
        else if (keyPath == "extents.y.min")
            extents.yMin = value;
        else if (keyPath == "extents.y.max")
            extents.yMax = value;
        else
            return;
        extents_ = extents;
    }
    emit valueChanged(QString::fromStdString(keyPath));
    if (recompute)
        reload();
    emit changed();
}

void GraphModel::setExtents(const VELTGraphExtents& extents) {
    if (extents == extents_)
        return;
    extents_ = extents;
    emit changed();
}

void GraphModel::setRecords(RecordArray records) {
    records_ = std::move(records);
    reload();
}

GraphCalculationSettings GraphModel::calculationSettings() const {
    GraphCalculationSettings settings;
    settings.smoothingFraction = smoothing_ > 0 ? 1.0f / static_cast<float>(smoothing_) : 0.0f;
    settings.normalize = normalize_;
    settings.multiSelectMode = multiSelectMode_;
    return settings;
}

void GraphModel::reload() {
    controller_->setSettings(calculationSettings());
    reloading_ = true;
    // The handler runs on the main queue, which the window drains; a model gone by then is left alone.
    std::weak_ptr<bool> alive = alive_;
    controller_->calculate(records_, [this, alive](GraphDataArray curves) {
        if (auto living = alive.lock(); living && *living)
            receive(std::move(curves));
    });
}

void GraphModel::reloadSynchronously() {
    controller_->setSettings(calculationSettings());
    receive(controller_->calculate(records_));
}

void GraphModel::receive(GraphDataArray curves) {
    reloading_ = false;
    curves_ = std::move(curves);
    // New data brings the extents that fit it, unless the user locked them; this is no undoable step.
    if (!extentsLocked_)
        if (auto fitted = fittedExtents())
            extents_ = *fitted;
    emit changed();
}

std::optional<VELTGraphPlot> GraphModel::plot(const VELTGraphAppearance& appearance) const {
    auto plotted = frequencyGraphPlot(graph_, curves_, calculationSettings());
    if (!plotted)
        return std::nullopt;
    plotted->appearance = appearance;
    plotted->extents = extents_;
    // The note names the curves' sample rates and the smoothing, as picture files have it.
    std::vector<std::string> rates;
    for (const auto& curve : curves_) {
        std::string rate = formatFrequencyWithUnit(static_cast<double>(curve->sampleRate()));
        if (curve->sampleRate() > 0 && std::find(rates.begin(), rates.end(), rate) == rates.end())
            rates.push_back(std::move(rate));
    }
    plotted->note = fmt::format("{}", fmt::join(rates, ", "));
    if (smoothing_ > 0 && graph_.smoothed)
        plotted->note += fmt::format(" \u00B7 1/{} octave smoothing", smoothing_);
    return plotted;
}

std::optional<VELTGraphExtents> GraphModel::fittedExtents() const {
    auto plotted = frequencyGraphPlot(graph_, curves_, calculationSettings());
    if (!plotted)
        return std::nullopt;
    // Wrapped phases keep their ±180° range; other axes end on whole steps of their ticks.
    if (!isWrappedPhase(graph_.kind))
        withMeasuringPainter([&](VELTPainter& painter) {
            plotted->extents = roundedGraphExtents(painter, *plotted, viewBounds_);
        });
    return limited(plotted->extents);
}

double GraphModel::highestFrequency() const {
    std::int64_t rate = 0;
    for (const auto& curve : curves_)
        rate = std::max(rate, curve->sampleRate());
    for (const auto& record : records_)
        rate = std::max(rate, record->sampleRate());
    return rate > 0 ? static_cast<double>(rate) / 2.0 : 24000.0;
}

VELTGraphExtents GraphModel::limited(const VELTGraphExtents& proposed) const {
    VELTGraphExtents result = proposed;
    const double highest = highestFrequency();
    if (!(proposed.xMax / proposed.xMin >= kSmallestXRatio) || !std::isfinite(proposed.xMin) ||
        !std::isfinite(proposed.xMax)) {
        result.xMin = extents_.xMin;
        result.xMax = extents_.xMax;
    } else if (proposed.xMax / proposed.xMin >= highest / kLowestFrequency) {
        result.xMin = kLowestFrequency;
        result.xMax = highest;
    } else if (proposed.xMin < kLowestFrequency) {
        // Moved back inside, keeping the span of the axis (a ratio on the logarithmic axis).
        result.xMax = proposed.xMax * (kLowestFrequency / proposed.xMin);
        result.xMin = kLowestFrequency;
    } else if (proposed.xMax > highest) {
        result.xMin = proposed.xMin * (highest / proposed.xMax);
        result.xMax = highest;
    }
    if (!(proposed.yMax - proposed.yMin >= kSmallestYSpan) || !std::isfinite(proposed.yMin) ||
        !std::isfinite(proposed.yMax)) {
        result.yMin = extents_.yMin;
        result.yMax = extents_.yMax;
    }
    return result;
}

VELTGraphExtents GraphModel::zoomed(double x, double y, double factor) const {
    // About the point: its distance to each end scales by the factor (on the logarithmic axis, the
    // distance in log frequency), so the inverse factor undoes it.
    const double logX = std::log(x);
    VELTGraphExtents proposed{std::exp(logX - (logX - std::log(extents_.xMin)) * factor),
                              std::exp(logX + (std::log(extents_.xMax) - logX) * factor),
                              y - (y - extents_.yMin) * factor, y + (extents_.yMax - y) * factor};
    return limited(proposed);
}

VELTGraphExtents GraphModel::panned(double fromX, double fromY, double toX, double toY) const {
    const double ratio = fromX / toX;
    const double shift = fromY - toY;
    return limited(
        {extents_.xMin * ratio, extents_.xMax * ratio, extents_.yMin + shift, extents_.yMax + shift});
}

std::vector<GraphModel::Reading> GraphModel::readout(double frequency) const {
    std::vector<Reading> readings;
    for (const auto& curve : curves_) {
        const auto& style = curve->lineStyle().color;
        Reading reading{QString::fromStdString(curve->name()),
                        QColor::fromRgbF(static_cast<float>(style.red), static_cast<float>(style.green),
                                         static_cast<float>(style.blue)),
                        std::nullopt};
        const auto x = curve->x().span();
        const auto y = curve->y().span();
        const std::size_t count = std::min(x.size(), y.size());
        // The first point at or above the frequency, and the one before it.
        const auto above = std::lower_bound(x.begin(), x.begin() + count, static_cast<float>(frequency));
        const auto at = static_cast<std::size_t>(above - x.begin());
        if (count > 0 && at < count && x[at] == static_cast<float>(frequency)) {
            reading.value = y[at];
        } else if (at > 0 && at < count && x[at - 1] > 0.0f) {
            const double low = std::log(x[at - 1]), high = std::log(x[at]);
            const double t = (std::log(frequency) - low) / (high - low);
            reading.value = y[at - 1] + t * (y[at] - y[at - 1]);
        }
        if (reading.value && !std::isfinite(*reading.value))
            reading.value.reset();
        readings.push_back(std::move(reading));
    }
    return readings;
}

} // namespace tavolar::desktop
