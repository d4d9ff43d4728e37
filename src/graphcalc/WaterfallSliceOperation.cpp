#include "graphcalc/WaterfallSliceOperation.h"

#include "platform/Assertions.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace tavolar {

WaterfallRowBuffers::WaterfallRowBuffers(std::size_t rows, std::size_t columns)
    : columns_(columns), peaks_(rows, -std::numeric_limits<float>::infinity()) {}

std::shared_ptr<VELTRealVector> WaterfallRowBuffers::take() {
    {
        std::lock_guard lock(mutex_);
        if (!free_.empty()) {
            std::shared_ptr<VELTRealVector> levels = std::move(free_.back());
            free_.pop_back();
            return levels;
        }
    }
    return std::make_shared<VELTRealVector>(columns_);
}

void WaterfallRowBuffers::deliver(OperationQueue& outputQueue,
                                  const std::shared_ptr<VELTMutableRealMatrix>& matrix, std::size_t row,
                                  std::shared_ptr<VELTRealVector> levels, float peak) {
    bool start = false;
    {
        std::lock_guard lock(mutex_);
        delivered_.push_back({row, std::move(levels), peak});
        start = !std::exchange(writing_, true);
    }
    if (start)
        outputQueue.addOperation([self = shared_from_this(), matrix] { self->writeDelivered(*matrix); });
}

void WaterfallRowBuffers::writeDelivered(VELTMutableRealMatrix& matrix) {
    std::vector<Delivery> batch;
    for (;;) {
        {
            std::lock_guard lock(mutex_);
            for (Delivery& written : batch)
                free_.push_back(std::move(written.levels));
            batch.clear();
            if (delivered_.empty()) {
                writing_ = false;
                return;
            }
            batch.swap(delivered_);
        }
        for (const Delivery& delivery : batch) {
            std::span<float> destination = matrix.mutableRowAtIndex(delivery.row);
            std::copy_n(delivery.levels->components(),
                        std::min(delivery.levels->length(), destination.size()), destination.begin());
            peaks_[delivery.row] = delivery.peak;
        }
    }
}

float WaterfallRowBuffers::loudest() const noexcept {
    float peak = -std::numeric_limits<float>::infinity();
    for (float rowPeak : peaks_)
        peak = rowPeak > peak ? rowPeak : peak;
    return peak;
}

WaterfallSliceOperation::WaterfallSliceOperation(std::shared_ptr<const VELTRealVector> impulseResponse,
                                                 VELTWindow window,
                                                 std::shared_ptr<VELTMutableRealMatrix> outputMatrix,
                                                 std::size_t matrixRow,
                                                 std::shared_ptr<OperationQueue> outputQueue,
                                                 std::shared_ptr<FFTWaterfallWorkingSetPool> workingSetPool,
                                                 std::shared_ptr<WaterfallRowBuffers> rowBuffers)
    : impulseResponse_(std::move(impulseResponse)), window_(window), outputMatrix_(std::move(outputMatrix)),
      matrixRow_(matrixRow), outputQueue_(std::move(outputQueue)), pool_(std::move(workingSetPool)),
      rowBuffers_(std::move(rowBuffers)) {
    TAVOLAR_PARAMETER_ASSERT(impulseResponse_ != nullptr && outputMatrix_ != nullptr &&
                             outputQueue_ != nullptr && pool_ != nullptr);
    TAVOLAR_PARAMETER_ASSERT(matrixRow_ < outputMatrix_->rows());
}

std::array<std::span<const float>, 2> WaterfallSliceOperation::inputRuns(std::size_t limit) const {
    const auto length = static_cast<std::int64_t>(impulseResponse_->length());
    const std::int64_t begin = window_.begin();
    const std::int64_t end = std::min(window_.end(), begin + static_cast<std::int64_t>(limit));
    // The same cuts as realVectorInWindow: nothing past the midpoint, negative times from the end.
    if (!(begin < end && end <= length / 2 && begin >= -length))
        return {};
    const float* samples = impulseResponse_->components();
    auto run = [&](std::int64_t from, std::int64_t to) {
        return from < to ? std::span<const float>(samples + (from < 0 ? from + length : from),
                                                  static_cast<std::size_t>(to - from))
                         : std::span<const float>();
    };
    return {run(begin, std::min(end, std::int64_t{0})), run(std::max(begin, std::int64_t{0}), end)};
}

VELTRealVector WaterfallSliceOperation::inputVector() const {
    const std::int64_t duration = std::max<std::int64_t>(window_.duration(), 0);
    const auto [before, after] = inputRuns(static_cast<std::size_t>(duration));
    VELTRealVector samples(before.size() + after.size());
    std::copy(after.begin(), after.end(),
              std::copy(before.begin(), before.end(), samples.mutableComponents()));
    return samples;
}

void FFTWaterfallSliceOperation::main() {
    if (isCancelled())
        return;
    std::unique_ptr<FFTWaterfallWorkingSet> set = workingSetPool()->borrow();
    set->loadTapered(inputRuns(set->fftLength()));
    set->transform();
    std::shared_ptr<VELTRealVector> levels =
        rowBuffers() ? rowBuffers()->take() : std::make_shared<VELTRealVector>(set->fftLength() / 2 + 1);
    const float peak = set->spectrumToLevels(levels->mutableSpan());
    workingSetPool()->giveBack(std::move(set));
    if (rowBuffers()) {
        rowBuffers()->deliver(*outputQueue(), outputMatrix(), matrixRow(), std::move(levels), peak);
        return;
    }
    outputQueue()->addOperation([matrix = outputMatrix(), row = matrixRow(), levels] {
        std::span<float> destination = matrix->mutableRowAtIndex(row);
        std::copy_n(levels->components(), std::min(levels->length(), destination.size()),
                    destination.begin());
    });
}

} // namespace tavolar
