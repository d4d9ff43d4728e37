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
// The windows between orders are short (a 1 s sweep from 1 Hz to 24 kHz leaves 40 ms between the 2nd
// and 3rd order), shorter than the ringing of a loudspeaker's low-frequency roll-off, which every
// order carries when the loudspeaker follows the nonlinearity. So each order's spectrum is corrected
// by what its window does to the linear response: the same window laid on the linear impulse cuts
// the same ringing, and the order is multiplied by the whole linear response over that cut one.
// The linear response itself is read through a long window, from halfway to the 2nd order before it
// to a third of the way round to the 10th order after it, so that it holds all of its tail.
//
// The noise floor is read where the 100th order would lie, which no device distorts into measurably,
// through each order's own window and processing: it is the distortion that the measurement's noise
// alone would show.
//
// Computed in double precision. An analysis is immutable once made and may be used from any thread.

#include "math/VELTRealVector.h"

#include <complex>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

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

// An order's level relative to the fundamental at the frequency that excited it; for the total
// harmonic distortion and the noise floor, the root sum of the squares of orders 2 to `order`.
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
    // The highest order summed into the total harmonic distortion by default.
    static constexpr std::int64_t kTotalDistortionOrders = 9;

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
    // fundamental's reaches a third of the way round to the 10th order's window after it, or, in a
    // response too short for that, as far after as before.
    HarmonicWindow windowOfOrder(std::int64_t order) const;
    // Where the noise floor is read (samples from time zero; before the linear impulse), or nothing
    // when the response is too short to hold it clear of the orders and the linear response.
    std::optional<double> noisePosition() const;
    // The taper of a window at a time offset t (samples) from its position: 1 near the position,
    // falling along a raised cosine to 0 at either edge.
    double windowWeight(const HarmonicWindow& window, double offset) const;
    // The highest order whose window does not overlap the fundamental's around the circular response.
    std::int64_t maximumOrder() const;
    // The smallest power of two that holds a window reaching from the fundamental halfway to the 2nd
    // order on both sides, wider than any harmonic's window.
    std::size_t minimumFFTLength() const;

    // The order's response referred to the excitation frequency. fftLength is a power of two of at
    // least minimumFFTLength (ParameterAssertion otherwise); order from 1 to maximumOrder.
    HarmonicResponse responseOfOrder(std::int64_t order, std::size_t fftLength) const;
    // The order's level relative to the fundamental, both measured with fftLength.
    HarmonicDistortion distortionOfOrder(std::int64_t order, std::size_t fftLength) const;
    // Total harmonic distortion: the root sum of the squares of orders 2 to highestOrder relative to
    // the fundamental, at the excitation frequencies where the 2nd order's output lies in the band;
    // an order counts where its own output lies in the band, up to the sweep's end frequency and
    // 0.95 times half the sample rate. highestOrder from 2 to maximumOrder.
    HarmonicDistortion totalHarmonicDistortion(std::size_t fftLength,
                                               std::int64_t highestOrder = kTotalDistortionOrders) const;
    // The total harmonic distortion that the noise alone reads, on the same frequencies; nothing when
    // there is no noisePosition.
    std::optional<HarmonicDistortion> noiseFloor(std::size_t fftLength,
                                                 std::int64_t highestOrder = kTotalDistortionOrders) const;

    std::int64_t sampleRate() const noexcept { return sampleRate_; }
    double linearImpulsePosition() const noexcept { return linearPosition_; }

private:
    struct Spectrum {
        std::vector<double> real, imaginary;
    };
    // The spectrum of a window of the impulse response at fftLength bins, referred to the window's
    // position.
    Spectrum windowSpectrum(const HarmonicWindow& window, std::size_t fftLength) const;
    // A buffer's spectrum referred to its window's exact position: buffer index 0 holds the sample at
    // floor(position), so the position lies `fraction` of a sample later, a linear phase of
    // 2 pi j fraction / N at bin j that is removed.
    static Spectrum referred(const std::vector<double>& buffer, double fraction);
    // The linear response at fftLength bins, referred to the linear impulse's position.
    Spectrum linearSpectrum(std::size_t fftLength) const;
    // The order's output at the excitation bins k (bins n k of fftLength) through a window of the
    // order's shape at the window's position, corrected for what that window cuts of the linear
    // response.
    std::vector<std::complex<double>> outputSpectrum(const HarmonicWindow& window, std::int64_t order,
                                                     std::size_t fftLength, const Spectrum& linear) const;
    HarmonicDistortion summed(std::size_t fftLength, std::int64_t highestOrder,
                              std::optional<double> noiseAt) const;

    std::shared_ptr<const VELTRealVector> impulse_;
    std::int64_t sampleRate_;
    double samplesPerLogFrequency_; // fs T / ln(f2 / f1)
    double linearPosition_;
    double taperFraction_;
    double topFrequency_ = 0.0;         // the band's top: min(sweep end, 0.95 fs / 2)
    double fundamentalReach_ = 0.0;     // the fundamental window's reach after the linear impulse
    std::optional<double> noiseOffset_; // from the linear impulse to where the noise is read
    std::size_t linearLength_ = 0;      // the power of two that holds the fundamental's window
    Spectrum linear_;                   // the linear response at linearLength_ bins
};

} // namespace tavolar
