#pragma once
// One slice of a waterfall or spectrogram: the stretch of an impulse response between a window's
// begin and end, zero-padded to the FFT length, tapered, transformed and written in dB into one row
// of the output matrix. Slices run in parallel; rows are written only on the serial output queue, so
// no two writes to the matrix overlap.
//
// A slice holds the shared impulse response and its window rather than a copy of its samples: the
// samples are read when the slice runs, straight into the working set, so that slices waiting on the
// queue hold no memory and a waterfall's working memory is its working sets plus its output matrix,
// whatever the slice count.

#include "core/VELTWindow.h"
#include "graphcalc/FFTWaterfallWorkingSet.h"
#include "graphcalc/ResourcePool.h"
#include "math/VELTRealMatrix.h"
#include "platform/OperationQueue.h"

#include <array>
#include <cstddef>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

namespace tavolar {

using FFTWaterfallWorkingSetPool = ResourcePool<FFTWaterfallWorkingSet>;

// The way from the slices of one waterfall to its output queue: the vectors that carry a slice's
// levels there, kept for reuse once copied into the matrix (a waterfall allocates as many as are in
// flight at once, not one per slice), and the loudest level of each row, so that normalising the
// surface needs no search over it. Rows delivered while the output queue is still to write earlier
// ones are written by the same operation: a queue operation and a thread wake-up per slice would
// cost a quarter of a slice's transform, and take a processor from the slices while they run.
class WaterfallRowBuffers : public std::enable_shared_from_this<WaterfallRowBuffers> {
public:
    WaterfallRowBuffers(std::size_t rows, std::size_t columns);

    // A vector of the row length, its contents left from an earlier slice. Any thread.
    std::shared_ptr<VELTRealVector> take();
    // The levels of a row and their loudest, copied into the matrix on the output queue. Any thread.
    void deliver(OperationQueue& outputQueue, const std::shared_ptr<VELTMutableRealMatrix>& matrix,
                 std::size_t row, std::shared_ptr<VELTRealVector> levels, float peak);
    // The loudest level of the rows written, not-a-number skipped (minus infinity for none); once
    // the output queue has finished.
    float loudest() const noexcept;

private:
    struct Delivery {
        std::size_t row;
        std::shared_ptr<VELTRealVector> levels;
        float peak;
    };
    // On the output queue: writes what was delivered until nothing is left.
    void writeDelivered(VELTMutableRealMatrix& matrix);

    std::size_t columns_;
    std::mutex mutex_;
    std::vector<std::shared_ptr<VELTRealVector>> free_;
    std::vector<Delivery> delivered_;
    bool writing_ = false; // an operation of the output queue will write what is delivered
    std::vector<float> peaks_;
};

class WaterfallSliceOperation : public Operation {
public:
    // The window's begin and end are sample indices of the circular response (negative: before time
    // zero); its type is not used (the working set's taper applies). A window that cannot be cut (an
    // empty one, or one reaching past the response's midpoint) gives a silent slice.
    WaterfallSliceOperation(std::shared_ptr<const VELTRealVector> impulseResponse, VELTWindow window,
                            std::shared_ptr<VELTMutableRealMatrix> outputMatrix, std::size_t matrixRow,
                            std::shared_ptr<OperationQueue> outputQueue,
                            std::shared_ptr<FFTWaterfallWorkingSetPool> workingSetPool,
                            std::shared_ptr<WaterfallRowBuffers> rowBuffers = nullptr);

    const VELTWindow& window() const noexcept { return window_; }
    std::size_t matrixRow() const noexcept { return matrixRow_; }
    // The samples of this slice (a copy, made on request).
    VELTRealVector inputVector() const;

protected:
    // The slice's samples where the response stores them, at most limit of them: the part before time
    // zero (stored at the response's end), then the part from time zero on; either may be empty.
    std::array<std::span<const float>, 2> inputRuns(std::size_t limit) const;

    const std::shared_ptr<VELTMutableRealMatrix>& outputMatrix() const noexcept { return outputMatrix_; }
    const std::shared_ptr<OperationQueue>& outputQueue() const noexcept { return outputQueue_; }
    const std::shared_ptr<FFTWaterfallWorkingSetPool>& workingSetPool() const noexcept { return pool_; }
    // Where levels are carried to the output queue; nullptr: a vector of the slice's own.
    const std::shared_ptr<WaterfallRowBuffers>& rowBuffers() const noexcept { return rowBuffers_; }

private:
    std::shared_ptr<const VELTRealVector> impulseResponse_;
    VELTWindow window_;
    std::shared_ptr<VELTMutableRealMatrix> outputMatrix_;
    std::size_t matrixRow_;
    std::shared_ptr<OperationQueue> outputQueue_;
    std::shared_ptr<FFTWaterfallWorkingSetPool> pool_;
    std::shared_ptr<WaterfallRowBuffers> rowBuffers_;
};

// The slice's magnitude spectrum, bins 0 to fftLength / 2, in dB (20 log10 |X[k]|, the unscaled
// forward transform of the tapered slice). The working set is borrowed for the computation; the
// levels go to the output queue in a vector of the row buffers (or of their own), so the set goes
// back to the pool at once.
class FFTWaterfallSliceOperation final : public WaterfallSliceOperation {
public:
    using WaterfallSliceOperation::WaterfallSliceOperation;

protected:
    void main() override;
};

} // namespace tavolar
