#include "engine/SweptSineDeconvolution.h"

#include "platform/Assertions.h"
#include "platform/UserDefaults.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstring>

namespace tavolar {

namespace {

// Hot loops run in blocks of this many bins, a form the compiler vectorises at every optimisation
// level. On x86-64 the per-bin loops are also built for AVX2 and chosen when the processor has it: their
// double precision divisions then run four at a time instead of two. AVX2 without FMA contracts nothing, so
// both builds round alike and give the same bits.
constexpr std::size_t kLanes = 8;
// ThreadSanitizer instruments the clones' resolver, which the loader runs before the sanitizer's
// runtime is up, so a ThreadSanitizer build keeps the plain build only.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__)
#define TAVOLAR_BIN_LOOP __attribute__((target_clones("avx2", "default")))
#else
#define TAVOLAR_BIN_LOOP
#endif

bool isPowerOfTwo(std::size_t value) noexcept {
    return value != 0 && (value & (value - 1)) == 0;
}

// Copies source into the first samples of destination and zeroes the rest, cutting a longer source.
// zeroFrom tells where destination is known to hold only zeros already (its size when nothing is
// known); it is moved to where the padded source ends, so that padding again clears only what is
// needed.
void padInto(std::span<const float> source, std::span<float> destination, std::size_t& zeroFrom) noexcept {
    const std::size_t count = std::min(source.size(), destination.size());
    if (count != 0)
        std::memmove(destination.data(), source.data(), count * sizeof(float));
    if (count < zeroFrom)
        std::fill(destination.begin() + static_cast<std::ptrdiff_t>(count),
                  destination.begin() + static_cast<std::ptrdiff_t>(std::min(zeroFrom, destination.size())),
                  0.0f);
    zeroFrom = count;
}

std::optional<float> narrowed(std::optional<double> lambda) noexcept {
    return lambda ? std::optional<float>(static_cast<float>(*lambda)) : std::nullopt;
}

// conj(S) scale / (|S|^2 + addend) for S = a + ib, rounded once to q[0] + i q[1].
inline void plainQuotient(double a, double b, double addend, double scale, float* q) noexcept {
    const double factor = scale / (a * a + b * b + addend);
    q[0] = static_cast<float>(a * factor);
    q[1] = static_cast<float>(-b * factor);
}

// r = r x q in single precision, written out on the parts so that it vectorises (the complex type's
// multiplication guards against infinities bin by bin).
inline void multiplyBin(float* r, const float* q) noexcept {
    const float x = r[0];
    const float y = r[1];
    r[0] = x * q[0] - y * q[1];
    r[1] = x * q[1] + y * q[0];
}

// Forms the quotient Q of every bin in double precision from the single-precision spectra,
// rounding once:
//   plain:        S' = S x (C / S)                      Q = 1 / S'
//   regularised:  S' = S x C conj(S) / (|S|^2 + lambda)  Q = conj(S') / (|S'|^2 + lambda)
// with S' = S when there is no reference C (reference null), then multiplied by scale (the inverse
// transform's 1/L, exact for a power of two). A bin where S is exactly zero gives NaN under plain
// division, as dividing by it would. Q may be written over S: each bin is read before it is written.
template <bool withReference>
void formQuotientBin(std::size_t k, const float* s, const float* c, double addend, double scale,
                     float* q) noexcept {
    double a = s[2 * k];
    double b = s[2 * k + 1];
    if constexpr (withReference) {
        // C / S, or C conj(S) / (|S|^2 + lambda): the same expression with the addend.
        const double cr = c[2 * k];
        const double ci = c[2 * k + 1];
        const double inverse = 1.0 / (a * a + b * b + addend);
        const double substituteReal = (cr * a + ci * b) * inverse;
        const double substituteImaginary = (ci * a - cr * b) * inverse;
        const double effectiveReal = a * substituteReal - b * substituteImaginary;
        b = a * substituteImaginary + b * substituteReal;
        a = effectiveReal;
    }
    plainQuotient(a, b, addend, scale, q + 2 * k);
}

// The bins in blocks the compiler vectorises at every optimisation level. In place, the stimulus
// is read from q itself, so that the compiler sees each bin read before it is written; otherwise
// the three arrays are distinct.
template <bool withReference, bool inPlace>
TAVOLAR_BIN_LOOP void formQuotientBins(std::size_t bins, const float* __restrict stimulus,
                                       const float* __restrict reference, double addend, double scale,
                                       float* __restrict q) noexcept {
    const float* s = inPlace ? q : stimulus;
    std::size_t k = 0;
    for (; k + kLanes <= bins; k += kLanes)
        for (std::size_t lane = 0; lane < kLanes; ++lane)
            formQuotientBin<withReference>(k + lane, s, reference, addend, scale, q);
    for (; k < bins; ++k)
        formQuotientBin<withReference>(k, s, reference, addend, scale, q);
}

void formQuotient(std::size_t bins, const std::complex<float>* stimulus, const std::complex<float>* reference,
                  std::optional<float> lambda, double scale, std::complex<float>* quotient) noexcept {
    const double addend = lambda ? static_cast<double>(*lambda) : 0.0;
    const auto* s = reinterpret_cast<const float*>(stimulus);
    auto* q = reinterpret_cast<float*>(quotient);
    if (reference)
        formQuotientBins<true, false>(bins, s, reinterpret_cast<const float*>(reference), addend, scale, q);
    else if (s == q)
        formQuotientBins<false, true>(bins, nullptr, nullptr, addend, scale, q);
    else
        formQuotientBins<false, false>(bins, s, nullptr, addend, scale, q);
}

// R = R x Q, bin by bin.
TAVOLAR_BIN_LOOP void multiplyByQuotient(std::size_t bins, std::complex<float>* spectrum,
                                         const std::complex<float>* quotient) noexcept {
    auto* __restrict r = reinterpret_cast<float*>(spectrum);
    const auto* __restrict q = reinterpret_cast<const float*>(quotient);
    std::size_t k = 0;
    for (; k + kLanes <= bins; k += kLanes)
        for (std::size_t lane = 0; lane < kLanes; ++lane)
            multiplyBin(r + 2 * (k + lane), q + 2 * (k + lane));
    for (; k < bins; ++k)
        multiplyBin(r + 2 * k, q + 2 * k);
}

// R = R x Q with Q formed from the stimulus spectrum S as the plain quotient above, in one pass
// without storing Q: the same arithmetic, so the same result, for a stimulus spectrum that serves
// one response only.
TAVOLAR_BIN_LOOP void divideBySpectrum(std::size_t bins, std::complex<float>* spectrum,
                                       const std::complex<float>* stimulus, double addend,
                                       double scale) noexcept {
    auto* __restrict r = reinterpret_cast<float*>(spectrum);
    const auto* __restrict s = reinterpret_cast<const float*>(stimulus);
    auto bin = [&](std::size_t k) {
        float q[2];
        plainQuotient(s[2 * k], s[2 * k + 1], addend, scale, q);
        multiplyBin(r + 2 * k, q);
    };
    std::size_t k = 0;
    for (; k + kLanes <= bins; k += kLanes)
        for (std::size_t lane = 0; lane < kLanes; ++lane)
            bin(k + lane);
    for (; k < bins; ++k)
        bin(k);
}

VELTRealVector deconvolveOnce(const VELTRealVector& response, const VELTRealVector& stimulus,
                              const VELTRealVector* correction, std::optional<double> lambda) {
    const std::size_t transformLength = deconvolutionTransformLength(response.length(), stimulus.length());
    if (transformLength == 0)
        return {};
    SweptSineDeconvolver deconvolver(stimulus.span());
    deconvolver.prepare(transformLength, correction, lambda);
    VELTRealVector impulseResponse(transformLength);
    deconvolver.deconvolveOnly(response.span(), impulseResponse.mutableSpan(), true);
    return impulseResponse;
}

VELTRealDoubleVector paddedCopy(const VELTRealDoubleVector& vector, std::size_t length) {
    VELTRealDoubleVector padded = vector;
    padded.setLength(length);
    return padded;
}

} // namespace

std::size_t deconvolutionTransformLength(std::size_t responseLength, std::size_t stimulusLength) {
    TAVOLAR_PARAMETER_ASSERT(responseLength + stimulusLength <= (std::size_t{1} << 31) + 1);
    // Deliberately 32-bit: a sum below 2 wraps round to all ones and so to a length of 0.
    std::uint32_t bits = static_cast<std::uint32_t>(responseLength + stimulusLength - 2);
    bits |= bits >> 1;
    bits |= bits >> 2;
    bits |= bits >> 4;
    bits |= bits >> 8;
    bits |= bits >> 16;
    return static_cast<std::uint32_t>(bits + 1);
}

std::optional<double> deconvolutionRegularizationFromUserDefaults() {
    UserDefaults& defaults = UserDefaults::standard();
    if (!defaults.boolForKey(kUseRegularizationDuringDeconvolutionKey))
        return std::nullopt;
    const double lambda = defaults.doubleForKey(kRegularizationDuringDeconvolutionLambdaKey);
    // Written as "not at most zero" on purpose: a NaN lambda is used as it is, as it always was.
    if (!(lambda <= 0.0))
        return lambda;
    return kDefaultDeconvolutionRegularizationLambda;
}

VELTRealVector realVectorByDeconvolvingResponse(const VELTRealVector& response,
                                                const VELTRealVector& stimulus,
                                                const VELTRealVector* correction) {
    return deconvolveOnce(response, stimulus, correction, deconvolutionRegularizationFromUserDefaults());
}

VELTRealVector realVectorByDeconvolvingResponseWithoutRegularization(const VELTRealVector& response,
                                                                     const VELTRealVector& stimulus,
                                                                     const VELTRealVector* correction) {
    return deconvolveOnce(response, stimulus, correction, std::nullopt);
}

VELTRealVector realVectorByDeconvolvingResponseWithRegularization(const VELTRealVector& response,
                                                                  const VELTRealVector& stimulus,
                                                                  const VELTRealVector* correction,
                                                                  double lambda) {
    return deconvolveOnce(response, stimulus, correction, lambda);
}

VELTRealDoubleVector realDoubleVectorByDeconvolvingResponse(const VELTRealDoubleVector& response,
                                                            const VELTRealDoubleVector& stimulus,
                                                            const VELTRealDoubleVector* correction) {
    const std::size_t transformLength = deconvolutionTransformLength(response.length(), stimulus.length());
    if (transformLength == 0)
        return {};
    const VELTFFTDoubleSetup setup = VELTFFTDoubleSetup::FFTSetupWithLength(transformLength);
    const std::size_t bins = transformLength / 2 + 1;

    VELTMutableComplexDoubleVector responseSpectrum(bins);
    VELTMutableComplexDoubleVector stimulusSpectrum(bins);
    paddedCopy(response, transformLength).fftIntoComplexDoubleVector(responseSpectrum, setup);
    paddedCopy(stimulus, transformLength).fftIntoComplexDoubleVector(stimulusSpectrum, setup);
    if (correction) {
        VELTMutableComplexDoubleVector correctionSpectrum(bins);
        paddedCopy(*correction, transformLength).fftIntoComplexDoubleVector(correctionSpectrum, setup);
        // The stimulus spectrum becomes S x (C / S): the reference where S is usable, NaN where it is 0.
        correctionSpectrum.complexDivideBy(stimulusSpectrum);
        stimulusSpectrum.complexMultiplyBy(correctionSpectrum);
    }
    responseSpectrum.complexDivideBy(stimulusSpectrum);
    VELTRealDoubleVector impulseResponse(transformLength);
    responseSpectrum.ifftIntoRealDoubleVector(impulseResponse, setup);
    return impulseResponse;
}

void SweptSineDeconvolver::prepare(std::size_t transformLength, const VELTRealVector* correction,
                                   std::optional<double> lambda) {
    TAVOLAR_PARAMETER_ASSERT(isPowerOfTwo(transformLength));
    const std::size_t bins = transformLength / 2 + 1;
    if (transformLength != transformLength_) {
        setup_ = VELTFFTInterleavedSetup::FFTSetupWithLength(transformLength);
        responseSpectrum_ = Spectrum(bins);
        quotient_ = std::make_shared<Spectrum>(bins);
        stimulusSpectrum_ = Spectrum();
        stimulusSpectrumValid_ = false;
        quotientReusable_ = false;
        transformLength_ = transformLength;
    }
    // The stimulus spectrum is kept apart from the quotient once a reference is seen, since every
    // recording's reference needs it.
    if (correction && stimulusSpectrum_.size() != bins)
        stimulusSpectrum_ = Spectrum(bins);

    const std::optional<float> narrowedLambda = narrowed(lambda);
    pendingCorrection_ = correction;
    pendingLambda_ = narrowedLambda;
    quotientPending_ = correction || !quotientReusable_ || quotientLambda_ != narrowedLambda;
    // A quotient shared with other deconvolvers stays theirs.
    if (quotientPending_ && quotient_.use_count() > 1)
        quotient_ = std::make_shared<Spectrum>(bins);
}

// Forms the quotient that prepare asked for, with the caller's output as the zero-padded input of
// the transforms it needs: the stimulus (unless kept) and the reference.
void SweptSineDeconvolver::formPendingQuotient(std::span<float> padded, std::size_t& zeroFrom) noexcept {
    const std::size_t bins = transformLength_ / 2 + 1;
    const double scale = 1.0 / static_cast<double>(transformLength_);
    const bool keepStimulus = stimulusSpectrum_.size() == bins;
    if (!keepStimulus) {
        // No reference so far: the stimulus spectrum becomes the quotient in place.
        padInto(stimulus_, padded, zeroFrom);
        std::complex<float>* quotient = quotient_->data();
        setup_->forwardReal(padded.data(), quotient);
        formQuotient(bins, quotient, nullptr, pendingLambda_, scale, quotient);
    } else {
        if (!stimulusSpectrumValid_) {
            padInto(stimulus_, padded, zeroFrom);
            setup_->forwardReal(padded.data(), stimulusSpectrum_.data());
            stimulusSpectrumValid_ = true;
        }
        const std::complex<float>* reference = nullptr;
        if (pendingCorrection_) {
            padInto(pendingCorrection_->span(), padded, zeroFrom);
            setup_->forwardReal(padded.data(), responseSpectrum_.data());
            reference = responseSpectrum_.data();
        }
        formQuotient(bins, stimulusSpectrum_.data(), reference, pendingLambda_, scale, quotient_->data());
    }
    quotientReusable_ = pendingCorrection_ == nullptr;
    quotientLambda_ = pendingLambda_;
    quotientPending_ = false;
    pendingCorrection_ = nullptr;
}

SweptSineDeconvolver SweptSineDeconvolver::sharingQuotient(std::span<float> scratch) {
    TAVOLAR_PARAMETER_ASSERT(transformLength_ != 0);
    TAVOLAR_PARAMETER_ASSERT(scratch.size() >= transformLength_);
    if (quotientPending_) {
        std::size_t zeroFrom = transformLength_;
        formPendingQuotient(scratch.first(transformLength_), zeroFrom);
    }
    SweptSineDeconvolver shared(stimulus_);
    shared.transformLength_ = transformLength_;
    shared.setup_ = setup_;
    shared.responseSpectrum_ = Spectrum(transformLength_ / 2 + 1);
    shared.quotient_ = quotient_;
    shared.quotientReusable_ = quotientReusable_;
    shared.quotientLambda_ = quotientLambda_;
    return shared;
}

void SweptSineDeconvolver::deconvolve(std::span<const float> response, std::span<float> impulseResponse,
                                      bool impulseResponseIsZero) {
    deconvolveInto(response, impulseResponse, impulseResponseIsZero, false);
}

void SweptSineDeconvolver::deconvolveOnly(std::span<const float> response, std::span<float> impulseResponse,
                                          bool impulseResponseIsZero) {
    deconvolveInto(response, impulseResponse, impulseResponseIsZero, true);
}

void SweptSineDeconvolver::deconvolveInto(std::span<const float> response, std::span<float> impulseResponse,
                                          bool impulseResponseIsZero, bool singleUse) {
    TAVOLAR_PARAMETER_ASSERT(transformLength_ != 0);
    TAVOLAR_PARAMETER_ASSERT(impulseResponse.size() >= transformLength_);
    TAVOLAR_PARAMETER_ASSERT(response.data() + response.size() <= impulseResponse.data() ||
                             impulseResponse.data() + impulseResponse.size() <= response.data() ||
                             response.empty() ||
                             (response.data() == impulseResponse.data() && !quotientPending_));
    const std::span<float> padded = impulseResponse.first(transformLength_);
    std::size_t zeroFrom = impulseResponseIsZero ? 0 : transformLength_;
    const std::size_t bins = transformLength_ / 2 + 1;
    if (singleUse && quotientPending_ && !pendingCorrection_ && stimulusSpectrum_.size() == 0) {
        // The stimulus spectrum goes where the quotient would be; the quotient stays pending.
        padInto(stimulus_, padded, zeroFrom);
        setup_->forwardReal(padded.data(), quotient_->data());
        padInto(response, padded, zeroFrom);
        setup_->forwardReal(padded.data(), responseSpectrum_.data());
        divideBySpectrum(bins, responseSpectrum_.data(), quotient_->data(),
                         pendingLambda_ ? static_cast<double>(*pendingLambda_) : 0.0,
                         1.0 / static_cast<double>(transformLength_));
        quotientReusable_ = false;
    } else {
        if (quotientPending_)
            formPendingQuotient(padded, zeroFrom);
        padInto(response, padded, zeroFrom);
        setup_->forwardReal(padded.data(), responseSpectrum_.data());
        multiplyByQuotient(bins, responseSpectrum_.data(), quotient_->data());
    }
    setup_->inverseRealUnscaled(responseSpectrum_.data(), padded.data());
}

} // namespace tavolar
