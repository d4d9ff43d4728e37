#pragma once
// Deconvolution of a recorded sweep response by its stimulus into an impulse response, by spectral
// division: plain, or regularised with a constant lambda, optionally dividing out a loop-back
// reference recorded at the same time.
//
// Transform length: L is the smallest power of two not below lenR + lenS - 1, formed in 32-bit
// unsigned arithmetic (see deconvolutionTransformLength). Response, stimulus and reference are
// zero-padded (or cut) to L; spectra hold the L/2 + 1 bins 0 .. L/2 of the real transform, DC and
// Nyquist included in every division. The result has L samples and is circular: the response sits
// at its delay relative to the stimulus and whatever precedes it (the harmonic products of a sweep)
// wraps round to the end. No window and no normalisation; forward unscaled, inverse scaled by 1/L.
//
// Precision: transforms are single precision. The per-bin quotient 1 / S (plain) or
// conj(S) / (|S|^2 + lambda) (regularised) is formed in double precision and rounded once, so bins
// where |S|^2 underflows single precision still divide; a stimulus bin that is exactly zero gives
// not-a-number under plain division. Nothing here fails: NaN and infinity are passed on for the
// caller (the synchronous averaging) to report.

#include "math/AlignedBuffer.h"
#include "math/VELTComplexVector.h"
#include "math/VELTFFTSetup.h"
#include "math/VELTRealVector.h"

#include <complex>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>

namespace tavolar {

// User-defaults keys read at every deconvolution.
inline constexpr const char* kUseRegularizationDuringDeconvolutionKey =
    "RZUseRegularizationDuringDeconvolution";
inline constexpr const char* kRegularizationDuringDeconvolutionLambdaKey =
    "RZRegularizationDuringDeconvolutionLambda";
// The lambda used when regularisation is on and no positive lambda is set: the single-precision
// 1e-9 widened to double.
inline constexpr double kDefaultDeconvolutionRegularizationLambda = static_cast<double>(1e-9f);

// The smallest power of two >= responseLength + stimulusLength - 1, computed in 32-bit unsigned
// arithmetic by filling the bits right of the highest set bit of (lenR + lenS - 2) and adding one.
// (10, 7) gives 16; a sum of 1025 gives 2048. Sums below 2 wrap round to 0, meaning there is
// nothing to transform; sums above 2^31 + 1 are refused (parameter assertion).
std::size_t deconvolutionTransformLength(std::size_t responseLength, std::size_t stimulusLength);

// The regularisation the user defaults ask for: nullopt for plain division, otherwise lambda
// ("RZRegularizationDuringDeconvolutionLambda" when greater than zero, a NaN passing too,
// else kDefaultDeconvolutionRegularizationLambda).
std::optional<double> deconvolutionRegularizationFromUserDefaults();

// Reads the user defaults and forwards to one of the two variants below. correction is the
// loop-back reference recorded with the response, or null to divide by the stimulus alone.
VELTRealVector realVectorByDeconvolvingResponse(const VELTRealVector& response,
                                                const VELTRealVector& stimulus,
                                                const VELTRealVector* correction);

// R / S. With a reference C, the stimulus spectrum is first replaced by S x (C / S), so that the
// chain from the output to the reference input is divided out too.
VELTRealVector realVectorByDeconvolvingResponseWithoutRegularization(const VELTRealVector& response,
                                                                     const VELTRealVector& stimulus,
                                                                     const VELTRealVector* correction);

// R conj(S) / (|S|^2 + lambda), lambda narrowed to float. With a reference C, S is first replaced by
// S x C conj(S) / (|S|^2 + lambda): the reference spectrum where the stimulus has energy, falling to
// zero outside the swept band.
VELTRealVector realVectorByDeconvolvingResponseWithRegularization(const VELTRealVector& response,
                                                                  const VELTRealVector& stimulus,
                                                                  const VELTRealVector* correction,
                                                                  double lambda);

// The plain division (reference substitution included) carried out entirely in double precision.
// Reads no user defaults and has no regularised form.
VELTRealDoubleVector realDoubleVectorByDeconvolvingResponse(const VELTRealDoubleVector& response,
                                                            const VELTRealDoubleVector& stimulus,
                                                            const VELTRealDoubleVector* correction);

// The deconvolution prepared for one stimulus, for many responses: the stimulus spectrum is
// transformed once per transform length and the per-bin quotient formed once per reference and
// regularisation, so each further response costs one forward and one inverse transform and one
// complex multiplication. The single-precision operations above are this class used once.
//
// Memory: two spectra (the quotient and the response's), and a third, the stimulus spectrum, once a
// reference has been prepared; the caller's output doubles as the zero-padded input of the
// transforms. The stimulus and any reference are viewed, not copied: the stimulus must outlive the
// deconvolver and a reference must live until the next deconvolve. prepare allocates; deconvolve
// neither allocates nor locks. One deconvolver serves one thread at a time.
class SweptSineDeconvolver {
public:
    explicit SweptSineDeconvolver(std::span<const float> stimulus) : stimulus_(stimulus) {}

    std::span<const float> stimulus() const noexcept { return stimulus_; }
    std::size_t transformLength() const noexcept { return transformLength_; }

    // Makes ready for responses of the given transform length (a power of two of at least 1, as
    // deconvolutionTransformLength gives) recorded with the given reference (null: none), divided
    // plainly (lambda nullopt) or regularised. The quotient is formed by the next deconvolve, again
    // only when a reference is given or the length or lambda changed; so a caller prepares once per
    // recording, not once per channel.
    void prepare(std::size_t transformLength, const VELTRealVector* correction, std::optional<double> lambda);

    // Deconvolves response (cut to the transform length if longer) into the first L samples of
    // impulseResponse, which must hold at least L and must not overlap response (parameter
    // assertions, as is a call before prepare). Once the quotient is formed (by an earlier
    // deconvolve, or for a deconvolver made by sharingQuotient), response may instead be the first
    // samples of impulseResponse itself: the deconvolution is then made in place, copying nothing.
    // impulseResponseIsZero promises that its first L samples are all zero (a new vector), or all
    // zero after the response, which spares clearing them for the zero padding.
    void deconvolve(std::span<const float> response, std::span<float> impulseResponse,
                    bool impulseResponseIsZero = false);

    // The same result for a deconvolver that serves this one response: the quotient is not formed,
    // the response spectrum is divided by the stimulus spectrum in the same pass that multiplies.
    // (With a reference, this is deconvolve.) A later deconvolve forms the quotient anew.
    void deconvolveOnly(std::span<const float> response, std::span<float> impulseResponse,
                        bool impulseResponseIsZero = false);

    // A deconvolver for another thread that divides by this one's quotient, formed now if pending
    // (scratch, at least L samples, serves as the zero-padded input of its transforms and is left
    // holding no particular values). The two share the quotient read-only, each with a response
    // spectrum of its own, so that channels deconvolved on several threads cost one stimulus
    // transform and one quotient's memory. A later prepare that needs a new quotient gives the
    // deconvolver that makes it a quotient of its own.
    SweptSineDeconvolver sharingQuotient(std::span<float> scratch);

private:
    void deconvolveInto(std::span<const float> response, std::span<float> impulseResponse,
                        bool impulseResponseIsZero, bool singleUse);
    void formPendingQuotient(std::span<float> padded, std::size_t& zeroFrom) noexcept;

    // A spectrum of L/2 + 1 bins, interleaved (the transforms' fastest layout) and left
    // uninitialised: every use writes it whole before reading it, and clearing megabytes only to
    // overwrite them is a pass over memory for nothing.
    class Spectrum {
    public:
        Spectrum() = default;
        explicit Spectrum(std::size_t bins)
            : data_(AlignedAllocator<std::complex<float>>().allocate(bins), Free{bins}), size_(bins) {}
        std::size_t size() const noexcept { return size_; }
        std::complex<float>* data() noexcept { return data_.get(); }
        const std::complex<float>* data() const noexcept { return data_.get(); }

    private:
        struct Free {
            Free() noexcept : bins(0) {}
            explicit Free(std::size_t count) noexcept : bins(count) {}
            std::size_t bins;
            void operator()(std::complex<float>* pointer) const noexcept {
                AlignedAllocator<std::complex<float>>().deallocate(pointer, bins);
            }
        };
        std::unique_ptr<std::complex<float>[], Free> data_;
        std::size_t size_ = 0;
    };

    std::span<const float> stimulus_;
    std::size_t transformLength_ = 0;
    std::optional<VELTFFTInterleavedSetup> setup_;
    Spectrum stimulusSpectrum_; // S, kept once a reference is seen
    Spectrum responseSpectrum_; // R, and a reference's spectrum while the quotient is formed
    // Q / L, so that the impulse response is the unscaled inverse of R x Q / L; shared with the
    // deconvolvers made by sharingQuotient.
    std::shared_ptr<Spectrum> quotient_;
    bool stimulusSpectrumValid_ = false;
    bool quotientReusable_ = false; // Q was made for this length without a reference
    std::optional<float> quotientLambda_;
    bool quotientPending_ = false;
    const VELTRealVector* pendingCorrection_ = nullptr;
    std::optional<float> pendingLambda_;
};

} // namespace tavolar
