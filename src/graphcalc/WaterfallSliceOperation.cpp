#include "graphcalc/WaterfallSliceOperation.h"

#include "platform/Assertions.h"

#include <algorithm>
#include <cstring>

namespace tavolar {

WaterfallSliceOperation::WaterfallSliceOperation(std::shared_ptr<const VELTRealVector> impulseResponse,
                                                 VELTWindow window,
                                                 std::shared_ptr<VELTMutableRealMatrix> outputMatrix,
                                                 std::size_t matrixRow,
                                                 std::shared_ptr<OperationQueue> outputQueue,
                                                 std::shared_ptr<FFTWaterfallWorkingSetPool> workingSetPool)
    : impulseResponse_(std::move(impulseResponse)), window_(window), outputMatrix_(std::move(outputMatrix)),
      matrixRow_(matrixRow), outputQueue_(std::move(outputQueue)), pool_(std::move(workingSetPool)) {
    TAVOLAR_PARAMETER_ASSERT(impulseResponse_ != nullptr && outputMatrix_ != nullptr &&
                             outputQueue_ != nullptr && pool_ != nullptr);
    TAVOLAR_PARAMETER_ASSERT(matrixRow_ < outputMatrix_->rows());
}

std::size_t WaterfallSliceOperation::copyInputInto(VELTMutableRealVector& destination) const {
    float* out = destination.mutableComponents();
    const auto length = static_cast<std::int64_t>(impulseResponse_->length());
    const std::int64_t begin = window_.begin();
    const std::int64_t end = std::min(window_.end(), begin + static_cast<std::int64_t>(destination.length()));
    std::size_t written = 0;
    // The same cuts as realVectorInWindow: nothing past the midpoint, negative times from the end.
    if (begin < end && end <= length / 2 && begin >= -length) {
        const float* samples = impulseResponse_->components();
        for (std::int64_t index = begin; index < end;) {
            // A run of consecutive stored samples: the negative times, then from time zero on.
            const std::int64_t stored = index < 0 ? index + length : index;
            const std::int64_t run = index < 0 ? std::min(end, std::int64_t{0}) - index : end - index;
            std::memcpy(out + written, samples + stored, static_cast<std::size_t>(run) * sizeof(float));
            written += static_cast<std::size_t>(run);
            index += run;
        }
    }
    if (destination.length() > written)
        std::memset(out + written, 0, (destination.length() - written) * sizeof(float));
    return written;
}

VELTRealVector WaterfallSliceOperation::inputVector() const {
    const std::int64_t duration = std::max<std::int64_t>(window_.duration(), 0);
    VELTRealVector samples(static_cast<std::size_t>(duration));
    samples.setLength(copyInputInto(samples));
    return samples;
}

void FFTWaterfallSliceOperation::main() {
    if (isCancelled())
        return;
    std::unique_ptr<FFTWaterfallWorkingSet> set = workingSetPool()->borrow();
    copyInputInto(set->workingTDVector());
    set->applyWindow();
    set->transform();
    auto levels = std::make_shared<VELTRealVector>(set->fftLength() / 2 + 1);
    set->spectrumToLevels(levels->mutableSpan());
    workingSetPool()->giveBack(std::move(set));
    outputQueue()->addOperation([matrix = outputMatrix(), row = matrixRow(), levels] {
        std::span<float> destination = matrix->mutableRowAtIndex(row);
        std::copy_n(levels->components(), std::min(levels->length(), destination.size()),
                    destination.begin());
    });
}

} // namespace tavolar
