#include "GraphModel.h"

#include "GraphRenderer.h"
#include "graphing/VELTUnitFormatter.h"
#include "graphs/FrequencyGraphPlots.h"
#include "graphs/TavolarMagnitudeResponseGraph.h"
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

const std::vector<std::string_view> kCombinations{"none", "average", "difference", "sum", "rms-average"};

} // namespace

GraphModel::GraphModel(std::string name, QObject* parent) : QObject(parent), name_(std::move(name)) {
    // Smoothed graphs start at 1/12 octave.
    if (takesSmoothing())
        smoothing_ = 12;
}

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
    auto graph = frequencyGraphNamed(name_);
    return graph && graph->smoothed;
}

bool GraphModel::takesNormalization() const {
    return name_ == "magnitude" || name_ == "spl";
}

bool GraphModel::takesCombination() const {
    return frequencyGraphNamed(name_).has_value();
}

const std::vector<std::pair<std::string, QString>>& GraphModel::undoablePropertyKeyPaths() {
    // The names are the graph models' own, which every front end shares.
    static const std::vector<std::pair<std::string, QString>> keyPaths = [] {
        std::vector<std::pair<std::string, QString>> names;
        for (const auto& [keyPath, name] : TavolarMagnitudeResponseGraph().undoablePropertyKeyPaths())
            names.emplace_back(keyPath, QString::fromStdString(name));
        return names;
    }();
    return keyPaths;
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
        smoothing_ = takesSmoothing() ? std::clamp(static_cast<int>(std::lround(value)), 0, 48) : 0;
        recompute = true;
    } else if (keyPath == "normalize") {
        normalize_ = takesNormalization() && value != 0.0;
        recompute = true;
    } else if (keyPath == "multiSelectMode") {
        multiSelectMode_ = takesCombination() ? std::clamp<std::int64_t>(std::llround(value), 0, 4) : 0;
        recompute = true;
    } else if (keyPath == "extentsLocked") {
        extentsLocked_ = value != 0.0;
    } else if (keyPath.starts_with("extents.")) {
        extentsAutomatic_ = false;
    }
    if (keyPath == "extents.x.min") {
        extents_.xMin = value;
    } else if (keyPath == "extents.x.max") {
        extents_.xMax = value;
    } else if (keyPath == "extents.y.min") {
        extents_.yMin = value;
    } else if (keyPath == "extents.y.max") {
        extents_.yMax = value;
    } else if (!recompute && keyPath != "extentsLocked") {
        return;
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
    extentsAutomatic_ = false;
    emit changed();
}

void GraphModel::setRecords(RecordArray records) {
    records_ = std::move(records);
    reload();
}

PlotSettings GraphModel::plotSettings() const {
    PlotSettings settings;
    settings.graph = name_;
    if (smoothing_ > 0)
        settings.smoothing = smoothing_;
    settings.normalize = normalize_;
    settings.combine = std::string(kCombinations[static_cast<std::size_t>(multiSelectMode_)]);
    return settings;
}

void GraphModel::reload() {
    const std::uint64_t generation = ++generation_;
    reloading_ = true;
    if (records_.empty()) {
        receive(makeUnexpected("There are no records to show."));
        return;
    }
    // The picture is computed on the global queue and handed to the main queue; a model gone by then,
    // or a later reload, leaves it unused.
    std::weak_ptr<bool> alive = alive_;
    DispatchQueue::global().async([this, alive, generation, records = records_, settings = plotSettings()] {
        auto picture = std::make_shared<Expected<GraphPicture>>(plotRecords(records, settings));
        DispatchQueue::main().async([this, alive, generation, picture] {
            if (auto living = alive.lock(); living && *living && generation == generation_)
                receive(std::move(*picture));
        });
    });
}

void GraphModel::reloadSynchronously() {
    ++generation_;
    receive(records_.empty() ? Expected<GraphPicture>(makeUnexpected("There are no records to show."))
                             : plotRecords(records_, plotSettings()));
}

void GraphModel::receive(Expected<GraphPicture> picture) {
    reloading_ = false;
    if (picture) {
        picture_ = std::move(*picture);
        problem_.clear();
        // New data brings the extents that fit it, unless the user locked them; this is no undoable
        // step.
        if (!extentsLocked_)
            if (auto fitted = fittedExtents()) {
                extents_ = *fitted;
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
        picture.plot.extents = extents_;
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
        if (auto fitted = fittedExtents(); fitted && *fitted != extents_) {
            extents_ = *fitted;
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
    for (const auto& record : records_)
        rate = std::max(rate, record->sampleRate());
    return rate > 0 ? static_cast<double>(rate) / 2.0 : 24000.0;
}

VELTGraphExtents GraphModel::limited(const VELTGraphExtents& proposed) const {
    VELTGraphExtents result = proposed;
    const bool finite = std::isfinite(proposed.xMin) && std::isfinite(proposed.xMax) &&
                        std::isfinite(proposed.yMin) && std::isfinite(proposed.yMax);
    if (!finite)
        return extents_;
    const bool frequencyAxis = picture_ && picture_->plot.xQuantity.unit == "Hz";
    if (logarithmicX()) {
        const double lowest = frequencyAxis ? kLowestFrequency : 0.0;
        const double highest = frequencyAxis ? highestFrequency() : INFINITY;
        if (!(proposed.xMin > 0.0) || !(proposed.xMax / proposed.xMin >= 1.0 + kSmallestRelativeSpan)) {
            result.xMin = extents_.xMin;
            result.xMax = extents_.xMax;
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
            result.xMin = extents_.xMin;
            result.xMax = extents_.xMax;
        }
    }
    const bool decibels = picture_ && picture_->plot.yQuantity.unit == "dB";
    const double size = std::max(std::abs(proposed.yMin), std::abs(proposed.yMax));
    const double smallestY = decibels ? kSmallestDecibelSpan : kSmallestRelativeSpan * std::max(size, 1e-6);
    if (!(proposed.yMax - proposed.yMin >= smallestY)) {
        result.yMin = extents_.yMin;
        result.yMax = extents_.yMax;
    }
    return result;
}

VELTGraphExtents GraphModel::zoomed(double x, double y, double factor) const {
    // About the point: its distance to each end scales by the factor (on a logarithmic axis, the
    // distance in log x), so the inverse factor undoes it.
    VELTGraphExtents proposed{0.0, 0.0, y - (y - extents_.yMin) * factor, y + (extents_.yMax - y) * factor};
    if (logarithmicX()) {
        const double logX = std::log(x);
        proposed.xMin = std::exp(logX - (logX - std::log(extents_.xMin)) * factor);
        proposed.xMax = std::exp(logX + (std::log(extents_.xMax) - logX) * factor);
    } else {
        proposed.xMin = x - (x - extents_.xMin) * factor;
        proposed.xMax = x + (extents_.xMax - x) * factor;
    }
    return limited(proposed);
}

VELTGraphExtents GraphModel::panned(double fromX, double fromY, double toX, double toY) const {
    const double shift = fromY - toY;
    VELTGraphExtents proposed{extents_.xMin, extents_.xMax, extents_.yMin + shift, extents_.yMax + shift};
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
