#include "engine/SweptSineDeconvolution.h"

#include "platform/Assertions.h"
#include "platform/UserDefaults.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace tavolar {

namespace {

// Hot loops run in blocks of this many bins, a form the compiler vectorises at every optimisation
// level.
constexpr std::size_t kLanes = 8;

bool isPowerOfTwo(std::size_t value) noexcept {
    return value != 0 && (value & (value - 1)) == 0;
}

// Copies source into the first samples of destination and zeroes the rest, cutting a longer source.
void padInto(std::span<const float> source, std::span<float> destination) noexcept {
    const std::size_t count = std::min(source.size(), destination.size());
    if (count != 0)
        std::memmove(destination.data(), source.data(), count * sizeof(float));
    std::fill(destination.begin() + static_cast<std::ptrdiff_t>(count), destination.end(), 0.0f);
}

std::optional<float> narrowed(std::optional<double> lambda) noexcept {
    return lambda ? std::optional<float>(static_cast<float>(*lambda)) : std::nullopt;
}

// Forms the quotient Q of every bin in double precision from the single-precision spectra,
// rounding once:
//   plain:        S' = S x (C / S)                      Q = 1 / S'
//   regularised:  S' = S x C conj(S) / (|S|^2 + lambda)  Q = conj(S') / (|S'|^2 + lambda)
// with S' = S when there is no reference C (referenceReal null). A bin where S is exactly zero gives
// NaN under plain division, as dividing by it would. Q may be written over S: each bin is read
// before it is written.
void formQuotient(std::size_t bins, const float* stimulusReal, const float* stimulusImaginary,
                  const float* referenceReal, const float* referenceImaginary, std::optional<float> lambda,
                  float* quotientReal, float* quotientImaginary) noexcept {
    const double addend = lambda ? static_cast<double>(*lambda) : 0.0;
    const bool withReference = referenceReal != nullptr;
    auto bin = [&](std::size_t k) {
        double a = stimulusReal[k];
        double b = stimulusImaginary[k];
        if (withReference) {
            // C / S, or C conj(S) / (|S|^2 + lambda): the same expression with the addend.
            const double c = referenceReal[k];
            const double d = referenceImaginary[k];
            const double scale = 1.0 / (a * a + b * b + addend);
            const double substituteReal = (c * a + d * b) * scale;
            const double substituteImaginary = (d * a - c * b) * scale;
            const double effectiveReal = a * substituteReal - b * substituteImaginary;
            b = a * substituteImaginary + b * substituteReal;
            a = effectiveReal;
        }
        const double scale = 1.0 / (a * a + b * b + addend);
        quotientReal[k] = static_cast<float>(a * scale);
        quotientImaginary[k] = static_cast<float>(-b * scale);
    };
    std::size_t k = 0;
    for (; k + kLanes <= bins; k += kLanes)
        for (std::size_t lane = 0; lane < kLanes; ++lane)
            bin(k + lane);
    for (; k < bins; ++k)
        bin(k);
}

// R = R x Q, in single precision.
void multiplyByQuotient(std::size_t bins, float* __restrict spectrumReal, float* __restrict spectrumImaginary,
                        const float* __restrict quotientReal,
                        const float* __restrict quotientImaginary) noexcept {
    auto bin = [&](std::size_t k) {
        const float x = spectrumReal[k];
        const float y = spectrumImaginary[k];
        spectrumReal[k] = x * quotientReal[k] - y * quotientImaginary[k];
        spectrumImaginary[k] = x * quotientImaginary[k] + y * quotientReal[k];
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
    deconvolver.deconvolve(response.span(), impulseResponse.mutableSpan());
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
        setup_ = VELTFFTSetup::FFTSetupWithLength(transformLength);
        responseSpectrum_ = VELTComplexVector(bins);
        quotient_ = VELTComplexVector(bins);
        stimulusSpectrum_ = VELTComplexVector();
        stimulusSpectrumValid_ = false;
        quotientReusable_ = false;
        transformLength_ = transformLength;
    }
    // The stimulus spectrum is kept apart from the quotient once a reference is seen, since every
    // recording's reference needs it.
    if (correction && stimulusSpectrum_.length() != bins)
        stimulusSpectrum_ = VELTComplexVector(bins);

    const std::optional<float> narrowedLambda = narrowed(lambda);
    pendingCorrection_ = correction;
    pendingLambda_ = narrowedLambda;
    quotientPending_ = correction || !quotientReusable_ || quotientLambda_ != narrowedLambda;
}

// Forms the quotient that prepare asked for, with the caller's output as the zero-padded input of
// the transforms it needs: the stimulus (unless kept) and the reference.
void SweptSineDeconvolver::formPendingQuotient(std::span<float> padded) noexcept {
    const std::size_t bins = transformLength_ / 2 + 1;
    float* quotientReal = quotient_.mutableRealComponents();
    float* quotientImaginary = quotient_.mutableImaginaryComponents();
    const bool keepStimulus = stimulusSpectrum_.length() == bins;
    if (!keepStimulus) {
        // No reference so far: the stimulus spectrum becomes the quotient in place.
        padInto(stimulus_, padded);
        setup_->forwardReal(padded.data(), quotientReal, quotientImaginary);
        formQuotient(bins, quotientReal, quotientImaginary, nullptr, nullptr, pendingLambda_, quotientReal,
                     quotientImaginary);
    } else {
        if (!stimulusSpectrumValid_) {
            padInto(stimulus_, padded);
            setup_->forwardReal(padded.data(), stimulusSpectrum_.mutableRealComponents(),
                                stimulusSpectrum_.mutableImaginaryComponents());
            stimulusSpectrumValid_ = true;
        }
        const float* referenceReal = nullptr;
        const float* referenceImaginary = nullptr;
        if (pendingCorrection_) {
            padInto(pendingCorrection_->span(), padded);
            setup_->forwardReal(padded.data(), responseSpectrum_.mutableRealComponents(),
                                responseSpectrum_.mutableImaginaryComponents());
            referenceReal = responseSpectrum_.realComponents();
            referenceImaginary = responseSpectrum_.imaginaryComponents();
        }
        formQuotient(bins, stimulusSpectrum_.realComponents(), stimulusSpectrum_.imaginaryComponents(),
                     referenceReal, referenceImaginary, pendingLambda_, quotientReal, quotientImaginary);
    }
    quotientReusable_ = pendingCorrection_ == nullptr;
    quotientLambda_ = pendingLambda_;
    quotientPending_ = false;
    pendingCorrection_ = nullptr;
}

void SweptSineDeconvolver::deconvolve(std::span<const float> response, std::span<float> impulseResponse) {
    TAVOLAR_PARAMETER_ASSERT(transformLength_ != 0);
    TAVOLAR_PARAMETER_ASSERT(impulseResponse.size() >= transformLength_);
    TAVOLAR_PARAMETER_ASSERT(response.data() + response.size() <= impulseResponse.data() ||
                             impulseResponse.data() + impulseResponse.size() <= response.data() ||
                             response.empty());
    const std::span<float> padded = impulseResponse.first(transformLength_);
    if (quotientPending_)
        formPendingQuotient(padded);

    padInto(response, padded);
    float* spectrumReal = responseSpectrum_.mutableRealComponents();
    float* spectrumImaginary = responseSpectrum_.mutableImaginaryComponents();
    setup_->forwardReal(padded.data(), spectrumReal, spectrumImaginary);
    multiplyByQuotient(transformLength_ / 2 + 1, spectrumReal, spectrumImaginary, quotient_.realComponents(),
                       quotient_.imaginaryComponents());
    setup_->inverseReal(spectrumReal, spectrumImaginary, padded.data());
}

} // namespace tavolar
