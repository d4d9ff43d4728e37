// The pass over the whole surface is a maths kernel, vectorised with a remainder loop as the math
// layer's are.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC optimize("vect-cost-model=dynamic")
#endif

#include "graphcalc/WaterfallMeasurementProcessingOperation.h"

#include "graphcalc/WaterfallSliceOperation.h"
#include "platform/Assertions.h"
#include "platform/DispatchQueue.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <limits>

namespace tavolar {

namespace {

// Every window of a plan starts at a begin and runs fftLength samples, cut at the response's midpoint.
VELTWindow sliceWindow(std::int64_t begin, std::int64_t fftLength, std::size_t responseLength) {
    const auto midpoint = static_cast<std::int64_t>(responseLength / 2);
    return VELTWindow::windowWithBegin(begin, std::min(begin + fftLength, midpoint));
}

// A count of pending slices whose last decrement wakes the one waiting thread.
class Countdown {
public:
    explicit Countdown(std::size_t count) : remaining_(count) {}
    void countDown() {
        if (remaining_.fetch_sub(1, std::memory_order_acq_rel) != 1)
            return;
        std::lock_guard lock(mutex_);
        done_ = true;
        finished_.notify_one();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        finished_.wait(lock, [this] { return done_; });
    }

private:
    std::atomic<std::size_t> remaining_;
    std::mutex mutex_;
    std::condition_variable finished_;
    bool done_ = false;
};

} // namespace

WaterfallMeasurementProcessingOperation::WaterfallMeasurementProcessingOperation(
    std::shared_ptr<VELTMeasurementRecord> record, WaterfallSettings settings)
    : MeasurementProcessingOperation(std::move(record)), settings_(settings),
      width_(OperationQueue::processorCount()) {
    TAVOLAR_PARAMETER_ASSERT(settings_.fftLength >= 2 &&
                             (settings_.fftLength & (settings_.fftLength - 1)) == 0);
}

void WaterfallMeasurementProcessingOperation::setMaxConcurrentSliceCount(int count) {
    TAVOLAR_PARAMETER_ASSERT(count >= 1);
    width_ = count;
}

std::int64_t WaterfallMeasurementProcessingOperation::originSample() const {
    return settings_.startAtPeak ? record()->impulsePeak() : 0;
}

WaterfallSlicePlan WaterfallMeasurementProcessingOperation::slicePlan(std::size_t responseLength) const {
    WaterfallSlicePlan plan;
    if (settings_.sliceCount <= 0)
        return plan;
    const VELTMeasurementRecord& record = *this->record();
    const std::int64_t first = record.samplesFromMilliseconds(settings_.startTime);
    const std::int64_t spread = settings_.duration > 0.0f ? record.samplesFromMilliseconds(settings_.duration)
                                                          : settings_.fftLength / 4;
    const std::int64_t spacing =
        settings_.sliceCount > 1
            ? std::max<std::int64_t>(1, std::llround(double(spread) / double(settings_.sliceCount - 1)))
            : 0;
    const std::int64_t origin = originSample();
    const double millisecondsPerSample = 1000.0 / double(record.sampleRate());
    plan.times = VELTRealVector(static_cast<std::size_t>(settings_.sliceCount));
    for (std::int64_t k = 0; k < settings_.sliceCount; ++k) {
        const std::int64_t offset = first + k * spacing;
        plan.windows.push_back(sliceWindow(origin + offset, settings_.fftLength, responseLength));
        plan.times[std::size_t(k)] = static_cast<float>(double(offset) * millisecondsPerSample);
    }
    return plan;
}

WaterfallSlicePlan SpectrogramMeasurementProcessingOperation::slicePlan(std::size_t responseLength) const {
    const WaterfallSettings& settings = this->settings();
    const VELTMeasurementRecord& record = *this->record();
    const std::int64_t origin = originSample();
    const std::int64_t first = record.samplesFromMilliseconds(settings.startTime);
    const std::int64_t end = settings.duration > 0.0f
                                 ? first + record.samplesFromMilliseconds(settings.duration)
                                 : static_cast<std::int64_t>(responseLength / 2) - origin;
    const std::int64_t hop = std::max<std::int64_t>(
        1, std::llround(double(settings.fftLength) * (1.0 - double(settings.overlap))));
    const std::int64_t count =
        end - first > settings.fftLength ? (end - first - settings.fftLength) / hop + 1 : 1;
    const double millisecondsPerSample = 1000.0 / double(record.sampleRate());
    WaterfallSlicePlan plan;
    plan.times = VELTRealVector(static_cast<std::size_t>(count));
    for (std::int64_t k = 0; k < count; ++k) {
        const std::int64_t offset = first + k * hop;
        plan.windows.push_back(sliceWindow(origin + offset, settings.fftLength, responseLength));
        plan.times[std::size_t(k)] =
            static_cast<float>((double(offset) + double(settings.fftLength) / 2.0) * millisecondsPerSample);
    }
    return plan;
}

void WaterfallMeasurementProcessingOperation::cancel() {
    MeasurementProcessingOperation::cancel();
    std::lock_guard lock(mutex_);
    if (slices_)
        slices_->cancelAllOperations();
}

void WaterfallMeasurementProcessingOperation::main() {
    if (isCancelled())
        return;
    std::shared_ptr<const VELTRealVector> response = record()->impulseResponse();
    if (!response || response->length() == 0)
        return;
    WaterfallSlicePlan plan = slicePlan(response->length());
    if (plan.windows.empty())
        return;
    const auto fftLength = static_cast<std::size_t>(settings_.fftLength);
    const std::size_t rows = plan.windows.size(), columns = fftLength / 2 + 1;
    auto matrix = std::make_shared<VELTMutableRealMatrix>(rows, columns);
    auto slices = std::make_shared<OperationQueue>("com.tavolar.graphcalc.waterfallSlices");
    slices->setMaxConcurrentOperationCount(width_);
    auto output = std::make_shared<OperationQueue>("com.tavolar.graphcalc.waterfallOutput");
    output->setMaxConcurrentOperationCount(1);
    auto buffers = std::make_shared<WaterfallRowBuffers>(rows, columns);
    auto pool = std::make_shared<FFTWaterfallWorkingSetPool>([fftLength, type = settings_.windowType] {
        return std::make_unique<FFTWaterfallWorkingSet>(fftLength, type);
    });
    {
        // Published before the cancellation check, so that a cancel either sees the queue or is seen here.
        std::lock_guard lock(mutex_);
        slices_ = slices;
    }
    VELTRealVector frequencies;
    if (!isCancelled()) {
        // Each slice counts itself done, run or cancelled, and the last one wakes this thread: waiting
        // on the queue instead would wake it at every slice.
        auto sliced = std::make_shared<Countdown>(rows);
        std::vector<std::shared_ptr<Operation>> operations;
        operations.reserve(rows);
        for (std::size_t row = 0; row < rows; ++row) {
            operations.push_back(std::make_shared<FFTWaterfallSliceOperation>(
                response, plan.windows[row], matrix, row, output, pool, buffers));
            operations.back()->setCompletionBlock([sliced] { sliced->countDown(); });
        }
        slices->addOperations(operations, false);
        // The frequency axis is worked out while the slices run.
        frequencies = VELTRealVector::realVectorWithFrequencyTable(
            static_cast<std::uint64_t>(record()->sampleRate()), fftLength);
        sliced->wait();
    }
    output->waitUntilAllOperationsAreFinished();
    {
        std::lock_guard lock(mutex_);
        slices_.reset();
    }
    if (isCancelled())
        return;

    // One normalisation for the whole surface, as normalizeDecibels does it: the loudest bin of all
    // slices becomes 0 dB. In as many parts as slices ran at once: one pass over the surface costs
    // as much as several of its slices.
    if (const float peak = buffers->loudest(); std::isfinite(peak)) {
        const std::size_t parts = std::min(static_cast<std::size_t>(width_), rows);
        float* values = matrix->mutableVector().mutableComponents();
        DispatchQueue::concurrentPerform(parts, [&](std::size_t part) {
            for (std::size_t i = part * rows / parts * columns, end = (part + 1) * rows / parts * columns;
                 i < end; ++i)
                values[i] -= peak;
        });
    }
    auto surface = std::make_shared<GraphData3D>(std::move(matrix->mutableVector()), rows, columns);
    surface->setXZ(std::move(frequencies), std::move(plan.times));
    surface->setInfoDictionary({{kGraphDataSampleRateKey, record()->sampleRate()}});
    surface->setName(record()->comment().value_or(""));
    surface->setQuantities({"Frequency", "Hz"}, {"Time", "ms"}, {"Level", "dB"});
    appendGraphData(std::move(surface));
}

} // namespace tavolar
