#pragma once
// Calculation controllers: a graph's records become its graph data on a concurrent operation queue
// (one operation per record, as many at once as the machine has processors), then the whole list is
// post-processed and handed back, either to the caller, who waits, or to a completion handler that
// runs on the main queue. Starting a calculation cancels the previous one: its pending operations do
// not run and its handler is never called, so a graph never receives stale data.
//
// A controller reads its settings from its graph (held weakly) at the start of each calculation, or
// is given them when it has no graph. Calculations are started from one thread (the main thread in
// applications).

#include "graphcalc/GraphCalculationSettings.h"
#include "graphcalc/MeasurementProcessingOperation.h"
#include "platform/OperationQueue.h"

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace tavolar {

using RecordArray = std::vector<std::shared_ptr<VELTMeasurementRecord>>;

class GraphCalculationController {
public:
    static constexpr const char* kQueueName = "GraphCalculationControllerQueue";

    explicit GraphCalculationController(std::weak_ptr<const GraphSettingsSource> graph);
    explicit GraphCalculationController(GraphCalculationSettings settings);
    // A controller needs a graph or settings.
    GraphCalculationController() = delete;
    GraphCalculationController(const GraphCalculationController&) = delete;
    GraphCalculationController& operator=(const GraphCalculationController&) = delete;
    // Cancels what has not started and waits for what runs.
    virtual ~GraphCalculationController();

    OperationQueue& calculationQueue() noexcept { return queue_; }
    // The graph's settings, or the controller's own when it has no graph (or the graph is gone).
    GraphCalculationSettings settings() const;
    void setSettings(GraphCalculationSettings settings);

    // Blocks until every record has been processed; records whose operation was cancelled are absent.
    GraphDataArray calculate(const RecordArray& records);
    // Returns at once; the handler runs on the main queue with the result, unless a later calculation
    // has superseded this one.
    void calculate(const RecordArray& records, std::function<void(GraphDataArray)> completionHandler);

    // Run once per calculation, with the records' cached copies, before any operation is made.
    virtual void prepareWithRecords(const RecordArray& records);
    virtual std::shared_ptr<MeasurementProcessingOperation>
    processingOperationForRecord(const std::shared_ptr<VELTMeasurementRecord>& record);
    // The whole list, in record order, with the settings of the calculation.
    virtual GraphDataArray postProcessGraphDataArray(GraphDataArray graphData,
                                                     const GraphCalculationSettings& settings);
    // A single-record entry: the base makes nothing.
    virtual std::shared_ptr<const VELTGraphData>
    processRecord(const std::shared_ptr<VELTMeasurementRecord>& record);

protected:
    // The settings of the calculation in progress (read by operation factories).
    const GraphCalculationSettings& calculationSettings() const noexcept { return current_; }

private:
    std::vector<std::shared_ptr<MeasurementProcessingOperation>> start(const RecordArray& records);
    static GraphDataArray
    gathered(const std::vector<std::shared_ptr<MeasurementProcessingOperation>>& operations);

    std::weak_ptr<const GraphSettingsSource> graph_;
    bool hasGraph_;
    GraphCalculationSettings own_;
    GraphCalculationSettings current_;
    std::shared_ptr<std::atomic<std::uint64_t>> generation_ = std::make_shared<std::atomic<std::uint64_t>>(0);
    OperationQueue queue_{kQueueName};
};

// Frequency-domain graphs: every record at the largest FFT length among them; curves smoothed,
// brought onto a common axis, combined and normalised.
class FrequencyDomainGraphCalculationController : public GraphCalculationController {
public:
    using GraphCalculationController::GraphCalculationController;

    std::int64_t fftSize() const noexcept { return fftSize_; }
    // Sets fftSize to the largest fftLength among the records (0 for none).
    void prepareWithRecords(const RecordArray& records) override;
    // Smoothing (with the thinning to the smoothing grid's bins), the cut to each record's valid
    // band, interpolated groups, the combination of the multi-select mode and normalisation.
    GraphDataArray postProcessGraphDataArray(GraphDataArray graphData,
                                             const GraphCalculationSettings& settings) override;

    // Brings every curve onto the first curve's X, by a cubic spline in log frequency, over the range
    // all curves share. Curves that already share the first curve's X pass unchanged.
    static GraphDataArray interpolatedGraphDataGroups(const GraphDataArray& graphData);
    // One curve whose Y combines every curve's Y by the mode (X, line style and info of the first);
    // mode 0 passes the list unchanged, values beyond 4 combine like the mean.
    static GraphDataArray comparisonFilter(const GraphDataArray& graphData, std::int64_t mode);
    // The normalisation, or nothing for graphs that are not normalised.
    virtual std::optional<std::function<std::shared_ptr<const VELTGraphData>(const VELTGraphData&)>>
    normalizeFilter() const;

protected:
    // Smoothing: the point indexes of the smoothing grid, and the Y smoothed; decibel curves are
    // averaged as decibels.
    static std::shared_ptr<const VELTGraphData> smoothed(const VELTGraphData& data, float fraction);

private:
    std::int64_t fftSize_ = 0;
};

// Decibel graphs normalise by moving the peak to exactly 0 dB.
class FrequencyDomainDecibelGraphCalculationController : public FrequencyDomainGraphCalculationController {
public:
    using FrequencyDomainGraphCalculationController::FrequencyDomainGraphCalculationController;
    std::optional<std::function<std::shared_ptr<const VELTGraphData>(const VELTGraphData&)>>
    normalizeFilter() const override;
};

// Linear graphs normalise with the vector's own normalize.
class FrequencyDomainLinearGraphCalculationController : public FrequencyDomainGraphCalculationController {
public:
    using FrequencyDomainGraphCalculationController::FrequencyDomainGraphCalculationController;
    std::optional<std::function<std::shared_ptr<const VELTGraphData>(const VELTGraphData&)>>
    normalizeFilter() const override;
};

class MagnitudeResponseGraphCalculationController final
    : public FrequencyDomainDecibelGraphCalculationController {
public:
    using FrequencyDomainDecibelGraphCalculationController::FrequencyDomainDecibelGraphCalculationController;
    std::shared_ptr<MeasurementProcessingOperation>
    processingOperationForRecord(const std::shared_ptr<VELTMeasurementRecord>& record) override;
};

} // namespace tavolar
