#pragma once
// Accurate harmonic distortion of an exponential-sweep measurement.
//
// Harmonic n of the excitation lands in the deconvolved impulse response d_n = fs T ln(n) / ln(f2/f1)
// samples before the linear impulse, at a fractional position, and in general not as a clean
// impulse: its phase is rotated (the sweep's harmonic phases are not synchronised), so it spreads to
// both sides of its position. This analysis therefore windows each order around its exact position,
// reaching halfway towards the neighbouring orders with a raised-cosine taper on both sides, and
// refers the window's spectrum to its centre (the fractional part of the position becomes a linear
// phase that is removed). Bin n k of order n's spectrum is then the response to the excitation at
// bin k, so orders are compared with the fundamental at the very frequency that excited them.
//
// Computed in double precision. An analysis is immutable once made and may be used from any thread.

#include "math/VELTRealVector.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace tavolar {

class VELTMeasurementRecord;

// Where one order's window lies, in samples of the circular impulse response (time zero at 0).
struct HarmonicWindow {
    double position = 0.0; // the order's exact position; negative before time zero
    double before = 0.0;   // samples the window reaches before the position
    double after = 0.0;    // samples the window reaches after it
};

// One order's response at the excitation frequencies k fs / N, k = 0 .. floor(N / 2 / order).
struct HarmonicResponse {
    std::int64_t order = 0;
    VELTRealVector frequencies; // excitation frequency, Hz
    // The order's output amplitude per unit of excitation amplitude (the fundamental's is the linear
    // magnitude response).
    VELTRealVector magnitude;
    // Radians, relative to the order's exact position.
    VELTRealVector phase;
};

// An order's level relative to the fundamental at the frequency that excited it.
struct HarmonicDistortion {
    std::int64_t order = 0;
    VELTRealVector frequencies; // excitation frequency, Hz
    VELTRealVector levels;      // 20 log10(|H_n| / |H_1|), dB
};

class HarmonicAnalysis {
public:
    // Share of each side of a window given to its taper; the rest, next to the position, is flat.
    // By default the taper takes the whole side: a rotated harmonic and the spread of its neighbours
    // decay only as 1 / t, and a window that falls all the way from the position leaks least of them
    // into the low frequencies.
    static constexpr double kDefaultTaperFraction = 1.0;

    // The analysis of a record measured with an exponential sweep: its impulse response, sample rate,
    // sweep (duration, start and end frequency as the record answers them) and the linear impulse at
    // the record's peak. Requires an impulse response and a sweep with 0 < f1 < f2 and a duration.
    explicit HarmonicAnalysis(const VELTMeasurementRecord& record,
                              double taperFraction = kDefaultTaperFraction);

    // sweepDuration in ms; linearImpulsePosition in samples from time zero (fractional allowed).
    HarmonicAnalysis(std::shared_ptr<const VELTRealVector> impulseResponse, std::int64_t sampleRate,
                     float sweepDuration, float sweepStartFrequency, float sweepEndFrequency,
                     double linearImpulsePosition, double taperFraction = kDefaultTaperFraction);

    // Samples by which order n precedes the linear impulse, fs T ln(n) / ln(f2 / f1), not truncated.
    double delayOfOrder(std::int64_t order) const;
    // The same in ms, negative as the record's timeOffsetToHarmonic: -T ln(n) / ln(f2 / f1).
    double timeOffsetToHarmonic(std::int64_t order) const;
    // The order's window: halfway to order n + 1 before it, halfway to order n - 1 after it; the
    // fundamental's reaches as far after as before.
    HarmonicWindow windowOfOrder(std::int64_t order) const;
    // The taper of a window at a time offset t (samples) from its position: 1 near the position,
    // falling along a raised cosine to 0 at either edge.
    double windowWeight(const HarmonicWindow& window, double offset) const;
    // The highest order whose window does not overlap the fundamental's around the circular response.
    std::int64_t maximumOrder() const;
    // The smallest power of two that holds the fundamental's window (the widest of all).
    std::size_t minimumFFTLength() const;

    // The order's tapered window of the impulse response in an fftLength buffer, with the sample
    // nearest below the position at index 0 (earlier samples wrapped to the end). fftLength is a power
    // of two holding the window (ParameterAssertion otherwise); order from 1 to maximumOrder.
    VELTRealDoubleVector windowedImpulseOfOrder(std::int64_t order, std::size_t fftLength) const;
    // The order's response referred to the excitation frequency.
    HarmonicResponse responseOfOrder(std::int64_t order, std::size_t fftLength) const;
    // The order's level relative to the fundamental, both measured with fftLength.
    HarmonicDistortion distortionOfOrder(std::int64_t order, std::size_t fftLength) const;

    std::int64_t sampleRate() const noexcept { return sampleRate_; }
    double linearImpulsePosition() const noexcept { return linearPosition_; }

private:
    std::shared_ptr<const VELTRealVector> impulse_;
    std::int64_t sampleRate_;
    double samplesPerLogFrequency_; // fs T / ln(f2 / f1)
    double linearPosition_;
    double taperFraction_;
};

} // namespace tavolar
