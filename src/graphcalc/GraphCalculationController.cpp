#include "graphcalc/GraphCalculationController.h"

#include "core/VELTSpline.h"
#include "dsp/Smoothing.h"
#include "platform/Assertions.h"
#include "platform/DispatchQueue.h"

#include <algorithm>
#include <cmath>

namespace tavolar {

GraphCalculationController::GraphCalculationController(std::weak_ptr<const GraphSettingsSource> graph)
    : graph_(std::move(graph)), hasGraph_(true) {
    queue_.setMaxConcurrentOperationCount(OperationQueue::processorCount());
}

GraphCalculationController::GraphCalculationController(GraphCalculationSettings settings)
    : hasGraph_(false), own_(std::move(settings)) {
    queue_.setMaxConcurrentOperationCount(OperationQueue::processorCount());
}

GraphCalculationController::~GraphCalculationController() {
    generation_->fetch_add(1);
    queue_.cancelAllOperations();
    queue_.waitUntilAllOperationsAreFinished();
}

GraphCalculationSettings GraphCalculationController::settings() const {
    if (hasGraph_)
        if (auto graph = graph_.lock())
            return graph->graphCalculationSettings();
    return own_;
}

void GraphCalculationController::setSettings(GraphCalculationSettings settings) {
    own_ = std::move(settings);
}

std::vector<std::shared_ptr<MeasurementProcessingOperation>>
GraphCalculationController::start(const RecordArray& records) {
    queue_.cancelAllOperations();
    current_ = settings();
    RecordArray copies;
    copies.reserve(records.size());
    for (const auto& record : records) {
        TAVOLAR_PARAMETER_ASSERT(record != nullptr);
        copies.push_back(record->cachedCopy());
    }
    prepareWithRecords(copies);
    std::vector<std::shared_ptr<MeasurementProcessingOperation>> operations;
    operations.reserve(copies.size());
    for (const auto& copy : copies)
        operations.push_back(processingOperationForRecord(copy));
    return operations;
}

GraphDataArray GraphCalculationController::gathered(
    const std::vector<std::shared_ptr<MeasurementProcessingOperation>>& operations) {
    GraphDataArray all;
    for (const auto& operation : operations)
        for (auto& data : operation->graphDataArray())
            all.push_back(std::move(data));
    return all;
}

GraphDataArray GraphCalculationController::calculate(const RecordArray& records) {
    generation_->fetch_add(1);
    auto operations = start(records);
    for (const auto& operation : operations)
        queue_.addOperation(operation);
    queue_.waitUntilAllOperationsAreFinished();
    return postProcessGraphDataArray(gathered(operations), current_);
}

void GraphCalculationController::calculate(const RecordArray& records,
                                           std::function<void(GraphDataArray)> completionHandler) {
    const std::uint64_t generation = generation_->fetch_add(1) + 1;
    auto operations = start(records);
    auto token = generation_;
    auto finish = std::make_shared<BlockOperation>([this, operations, settings = current_,
                                                    handler = std::move(completionHandler), token,
                                                    generation](const Operation& self) mutable {
        if (self.isCancelled() || token->load() != generation)
            return;
        GraphDataArray result = postProcessGraphDataArray(gathered(operations), settings);
        // A later calculation may start while this one delivers: only the newest reaches the graph.
        DispatchQueue::main().async(
            [handler = std::move(handler), result = std::move(result), token, generation]() mutable {
                if (token->load() == generation)
                    handler(std::move(result));
            });
    });
    for (const auto& operation : operations)
        finish->addDependency(operation);
    for (const auto& operation : operations)
        queue_.addOperation(operation);
    queue_.addOperation(finish);
}

void GraphCalculationController::prepareWithRecords(const RecordArray&) {}

std::shared_ptr<MeasurementProcessingOperation> GraphCalculationController::processingOperationForRecord(
    const std::shared_ptr<VELTMeasurementRecord>& record) {
    return std::make_shared<MeasurementProcessingOperation>(record);
}

GraphDataArray GraphCalculationController::postProcessGraphDataArray(GraphDataArray graphData,
                                                                     const GraphCalculationSettings&) {
    return graphData;
}

std::shared_ptr<const VELTGraphData>
GraphCalculationController::processRecord(const std::shared_ptr<VELTMeasurementRecord>&) {
    return nullptr;
}

// ---- Frequency domain

void FrequencyDomainGraphCalculationController::prepareWithRecords(const RecordArray& records) {
    std::int64_t largest = 0;
    for (const auto& record : records)
        largest = std::max(largest, static_cast<std::int64_t>(record->fftLength()));
    fftSize_ = largest;
}

namespace {

std::optional<double> infoNumber(const VELTGraphData& data, const char* key) {
    auto entry = data.infoDictionary().find(key);
    if (entry == data.infoDictionary().end())
        return std::nullopt;
    if (const auto* real = std::get_if<double>(&entry->second))
        return *real;
    if (const auto* integer = std::get_if<std::int64_t>(&entry->second))
        return static_cast<double>(*integer);
    return std::nullopt;
}

// The points of a curve whose X lies within its record's valid band, for curves that carry one.
std::shared_ptr<const VELTGraphData> cutToValidBand(std::shared_ptr<const VELTGraphData> data) {
    auto start = infoNumber(*data, kGraphDataValidStartKey), end = infoNumber(*data, kGraphDataValidEndKey);
    if (!start || !end || dynamic_cast<const GraphData3D*>(data.get()))
        return data;
    std::vector<float> x, y;
    for (std::size_t i = 0; i < std::min(data->x().length(), data->y().length()); ++i)
        if (data->x()[i] >= *start && data->x()[i] <= *end) {
            x.push_back(data->x()[i]);
            y.push_back(data->y()[i]);
        }
    return data->withXY(VELTRealVector(std::span<const float>(x)), VELTRealVector(std::span<const float>(y)));
}

bool sameX(const VELTRealVector& a, const VELTRealVector& b) {
    return a.length() == b.length() && std::equal(a.span().begin(), a.span().end(), b.span().begin());
}

} // namespace

std::shared_ptr<const VELTGraphData>
FrequencyDomainGraphCalculationController::smoothed(const VELTGraphData& data, float fraction) {
    if (data.y().length() < 2 || data.x().length() != data.y().length())
        return data.withXY(data.x(), data.y());
    VELTRealVector y = data.y();
    smoothWithOctaveFraction(y, fraction);
    std::vector<std::int64_t> indexes = smoothedPointIndexesForFraction(y, fraction, data.sampleRate());
    // Where the grid is finer than the bins (at the lowest frequencies of short transforms) neighbouring
    // grid points round to the same bin: each bin is taken once, so that X strictly increases.
    std::vector<float> x, thinned;
    x.reserve(indexes.size());
    thinned.reserve(indexes.size());
    std::int64_t previous = -1;
    for (std::int64_t wanted : indexes) {
        const std::int64_t index = std::clamp<std::int64_t>(wanted, 0, std::int64_t(y.length()) - 1);
        if (index <= previous)
            continue;
        previous = index;
        x.push_back(data.x()[static_cast<std::size_t>(index)]);
        thinned.push_back(y[static_cast<std::size_t>(index)]);
    }
    return data.withXY(VELTRealVector(std::span<const float>(x)),
                       VELTRealVector(std::span<const float>(thinned)));
}

GraphDataArray
FrequencyDomainGraphCalculationController::interpolatedGraphDataGroups(const GraphDataArray& graphData) {
    if (graphData.size() < 2)
        return graphData;
    const VELTRealVector& first = graphData.front()->x();
    if (std::all_of(graphData.begin(), graphData.end(),
                    [&](const auto& data) { return sameX(data->x(), first); }))
        return graphData;
    // The range every curve covers, at positive frequencies.
    double low = 0.0, high = std::numeric_limits<double>::infinity();
    for (const auto& data : graphData) {
        double smallest = std::numeric_limits<double>::infinity(), largest = 0.0;
        for (float x : data->x().span())
            if (x > 0.0f)
                smallest = std::min(smallest, double(x)), largest = std::max(largest, double(x));
        low = std::max(low, smallest);
        high = std::min(high, largest);
    }
    std::size_t location = 0, length = 0;
    for (std::size_t i = 0; i < first.length(); ++i)
        if (first[i] >= low && first[i] <= high) {
            if (length == 0)
                location = i;
            ++length;
        }
    VELTRealVector x = first.realVectorInRange(location, length);
    VELTRealVector logX(length);
    for (std::size_t i = 0; i < length; ++i)
        logX[i] = std::log10(x[i]);
    GraphDataArray result;
    for (const auto& data : graphData) {
        if (sameX(data->x(), first)) {
            result.push_back(data->withXY(x, data->y().realVectorInRange(location, length)));
            continue;
        }
        // Knots at strictly rising positive frequencies (thinned curves repeat low bins).
        std::vector<float> knotsX, knotsY;
        for (std::size_t i = 0; i < std::min(data->x().length(), data->y().length()); ++i)
            if (data->x()[i] > 0.0f && (knotsX.empty() || std::log10(data->x()[i]) > knotsX.back())) {
                knotsX.push_back(std::log10(data->x()[i]));
                knotsY.push_back(data->y()[i]);
            }
        VELTRealVector values(length);
        if (knotsX.size() >= 2)
            values = VELTSpline(VELTRealVector(std::span<const float>(knotsX)),
                                VELTRealVector(std::span<const float>(knotsY)))
                         .valuesForXVector(logX);
        result.push_back(data->withXY(x, std::move(values)));
    }
    return result;
}

GraphDataArray FrequencyDomainGraphCalculationController::comparisonFilter(const GraphDataArray& graphData,
                                                                           std::int64_t mode) {
    if (mode == static_cast<std::int64_t>(TavolarFrequencyDomainGraphMultiSelectMode::None) ||
        graphData.empty())
        return graphData;
    std::vector<VELTRealVector> vectors;
    for (const auto& data : graphData)
        vectors.push_back(data->y());
    VELTRealVector combined;
    switch (mode) {
    case static_cast<std::int64_t>(TavolarFrequencyDomainGraphMultiSelectMode::Difference):
        combined = VELTRealVector::differenceOfVectors(vectors);
        break;
    case static_cast<std::int64_t>(TavolarFrequencyDomainGraphMultiSelectMode::Sum):
        combined = VELTRealVector::sumOfVectors(vectors);
        break;
    case static_cast<std::int64_t>(TavolarFrequencyDomainGraphMultiSelectMode::RMSAverage):
        combined = VELTRealVector::RMSAverageOfVectors(vectors);
        break;
    default:
        combined = VELTRealVector::averageOfVectors(vectors);
    }
    return {graphData.front()->withXY(graphData.front()->x(), std::move(combined))};
}

std::optional<std::function<std::shared_ptr<const VELTGraphData>(const VELTGraphData&)>>
FrequencyDomainGraphCalculationController::normalizeFilter() const {
    return std::nullopt;
}

GraphDataArray FrequencyDomainGraphCalculationController::postProcessGraphDataArray(
    GraphDataArray graphData, const GraphCalculationSettings& settings) {
    // Each curve by itself, on every core.
    DispatchQueue::concurrentPerform(graphData.size(), [&](std::size_t at) {
        std::shared_ptr<const VELTGraphData> data = graphData[at];
        if (settings.smoothingFraction > 0.0f)
            data = smoothed(*data, settings.smoothingFraction);
        graphData[at] = cutToValidBand(std::move(data));
    });
    if (settings.multiSelectMode != 0)
        graphData = comparisonFilter(interpolatedGraphDataGroups(graphData), settings.multiSelectMode);
    if (settings.normalize)
        if (auto filter = normalizeFilter())
            for (auto& data : graphData)
                data = (*filter)(*data);
    return graphData;
}

std::optional<std::function<std::shared_ptr<const VELTGraphData>(const VELTGraphData&)>>
FrequencyDomainDecibelGraphCalculationController::normalizeFilter() const {
    return [](const VELTGraphData& data) -> std::shared_ptr<const VELTGraphData> {
        return data.withModifiedYValues([](VELTRealVector& y) {
            if (y.length() == 0)
                return;
            float peak = 0.0f;
            std::size_t location = 0;
            y.getMaximum(peak, location);
            y.addScalar(-peak);
        });
    };
}

std::optional<std::function<std::shared_ptr<const VELTGraphData>(const VELTGraphData&)>>
FrequencyDomainLinearGraphCalculationController::normalizeFilter() const {
    return [](const VELTGraphData& data) -> std::shared_ptr<const VELTGraphData> {
        return data.withModifiedYValues([](VELTRealVector& y) { y.normalize(); });
    };
}

std::shared_ptr<MeasurementProcessingOperation>
MagnitudeResponseGraphCalculationController::processingOperationForRecord(
    const std::shared_ptr<VELTMeasurementRecord>& record) {
    return std::make_shared<MagnitudeResponseMeasurementProcessingOperation>(record, fftSize());
}

} // namespace tavolar
