#pragma once
// The waterfall (cumulative spectral decay) of one record: a series of slices of its impulse
// response, each starting a little later than the one before, transformed in parallel on working
// sets borrowed from a pool and gathered into a matrix (one row a slice, one column a frequency bin)
// that becomes a surface: X the frequency of each bin (Hz), Z the time of each slice (ms), values in
// dB with the largest value of all slices at 0 dB.
//
// Where the slices lie:
// - Time origin: the impulse response's peak with startAtPeak, otherwise time zero. The first slice
//   starts startTime ms after the origin (rounded to a sample).
// - Spacing: the slice starts are spread evenly over duration ms, the first slice's start to the
//   last one's, at a whole number of samples (at least one) between neighbours; a duration of 0
//   spreads them over a quarter of the FFT length. The overlap setting is not used here.
// - Each slice is fftLength samples from its start, cut short where the stored response ends
//   (its midpoint: the upper half holds negative times) and zero-padded to fftLength. The window
//   type's taper spans the whole fftLength, so a half window (falling taper) keeps each slice's
//   abrupt start, which is what a decay plot measures, and fades its end.
// - Columns: bins 0 to fftLength / 2 (0 Hz to Nyquist inclusive); the mirrored bins above Nyquist
//   of a real signal are not kept.
// - Z: the time of each slice's start from the origin, startTime + k * spacing ms (so 0 is the peak
//   with startAtPeak). A slice count of 0 (or less) makes no surface.
//
// Working memory: the slices hold no samples until they run, so it is the working sets in flight
// (one per slice running at once, each with a row of levels on its way to the serial output queue)
// plus the output matrix.
// Cancelling the operation cancels its pending slices; a cancelled operation makes nothing.

#include "graphcalc/GraphCalculationSettings.h"
#include "graphcalc/MeasurementProcessingOperation.h"
#include "platform/OperationQueue.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace tavolar {

// Where the slices of one record lie: their windows in samples of the circular response and the
// time axis of the surface in ms.
struct WaterfallSlicePlan {
    std::vector<VELTWindow> windows;
    VELTRealVector times;
};

class WaterfallMeasurementProcessingOperation : public MeasurementProcessingOperation {
public:
    WaterfallMeasurementProcessingOperation(std::shared_ptr<VELTMeasurementRecord> record,
                                            WaterfallSettings settings);

    const WaterfallSettings& settings() const noexcept { return settings_; }
    // Slices computed at once: the processor count unless set (at least 1).
    int maxConcurrentSliceCount() const noexcept { return width_; }
    void setMaxConcurrentSliceCount(int count);

    // The slices of a response of responseLength samples of the record.
    virtual WaterfallSlicePlan slicePlan(std::size_t responseLength) const;

    void cancel() override;

protected:
    void main() override;
    // The sample index of the time origin: the peak with startAtPeak, otherwise 0.
    std::int64_t originSample() const;

private:
    WaterfallSettings settings_;
    int width_;
    std::mutex mutex_;
    std::shared_ptr<OperationQueue> slices_;
};

// A spectrogram of the impulse response by the same machinery: slices of fftLength samples spaced
// by fftLength * (1 - overlap) (rounded, at least one sample), from startTime ms after the origin
// over duration ms (0: up to the end of the stored response), as many as fit whole in that stretch
// and at least one. Z is the time of each slice's centre from the origin (ms); X and the values as
// for the waterfall. The slice count setting is not used.
class SpectrogramMeasurementProcessingOperation final : public WaterfallMeasurementProcessingOperation {
public:
    using WaterfallMeasurementProcessingOperation::WaterfallMeasurementProcessingOperation;
    WaterfallSlicePlan slicePlan(std::size_t responseLength) const override;
};

} // namespace tavolar
