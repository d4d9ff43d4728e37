#include "math/VELTComplexVector.h"

#include "math/VELTFFTSetup.h"
#include "platform/Assertions.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace tavolar {

namespace {

// The element-wise complex kernels of both precisions. Each component is read completely before it
// is written, so the other vector may be the receiver itself. W is the type of the intermediate
// products: double for float vectors, so that |z|^2 of a spectrum neither overflows nor underflows.
template <typename T, typename W>
void complexMultiply(T* ar, T* ai, const T* br, const T* bi, std::size_t n) noexcept {
    for (std::size_t i = 0; i < n; ++i) {
        const W a = ar[i], b = ai[i], c = br[i], d = bi[i];
        ar[i] = static_cast<T>(a * c - b * d);
        ai[i] = static_cast<T>(a * d + b * c);
    }
}

// (a + ib) / (c + id) by the textbook formula; a zero divisor gives NaN, which callers check for.
template <typename T, typename W>
void complexDivide(T* ar, T* ai, const T* br, const T* bi, std::size_t n) noexcept {
    for (std::size_t i = 0; i < n; ++i) {
        const W a = ar[i], b = ai[i], c = br[i], d = bi[i];
        const W denominator = c * c + d * d;
        ar[i] = static_cast<T>((a * c + b * d) / denominator);
        ai[i] = static_cast<T>((b * c - a * d) / denominator);
    }
}

template <typename T, typename W> void magnitude(const T* re, const T* im, T* out, std::size_t n) noexcept {
    for (std::size_t i = 0; i < n; ++i) {
        const W a = re[i], b = im[i];
        out[i] = static_cast<T>(std::sqrt(a * a + b * b));
    }
}

template <typename T> void scale(T* p, std::size_t n, T factor) noexcept {
    for (std::size_t i = 0; i < n; ++i)
        p[i] *= factor;
}

template <typename T> void multiply(T* p, const T* q, std::size_t n) noexcept {
    for (std::size_t i = 0; i < n; ++i)
        p[i] *= q[i];
}

template <typename T> void addInto(T* p, const T* q, std::size_t n) noexcept {
    for (std::size_t i = 0; i < n; ++i)
        p[i] += q[i];
}

template <typename T> void negate(T* p, std::size_t n) noexcept {
    for (std::size_t i = 0; i < n; ++i)
        p[i] = -p[i];
}

// The length of the real signal whose transform has the given number of bins.
std::size_t signalLengthForBins(std::size_t bins) {
    return bins == 1 ? 1 : 2 * (bins - 1);
}

} // namespace

// VELTComplexVector

VELTComplexVector::VELTComplexVector(std::size_t length) : real_(length), imag_(length) {}

VELTComplexVector VELTComplexVector::complexVectorWithLength(std::size_t length) {
    return VELTComplexVector(length);
}

VELTComplexVector VELTComplexVector::complexVectorWithRealVector(const VELTRealVector& real) {
    VELTComplexVector vector(real.length());
    std::copy(real.span().begin(), real.span().end(), vector.real_.begin());
    return vector;
}

void VELTComplexVector::setLength(std::size_t length) {
    real_.resize(length);
    imag_.resize(length);
}

VELTRealVector VELTComplexVector::real() const {
    return VELTRealVector(std::span<const float>(real_));
}

VELTRealVector VELTComplexVector::imag() const {
    return VELTRealVector(std::span<const float>(imag_));
}

void VELTComplexVector::complexMultiplyBy(const VELTComplexVector& other) {
    TAVOLAR_PARAMETER_ASSERT(other.length() == length());
    complexMultiply<float, float>(real_.data(), imag_.data(), other.realComponents(),
                                  other.imaginaryComponents(), length());
}

void VELTComplexVector::complexDivideBy(const VELTComplexVector& other) {
    TAVOLAR_PARAMETER_ASSERT(other.length() == length());
    complexDivide<float, double>(real_.data(), imag_.data(), other.realComponents(),
                                 other.imaginaryComponents(), length());
}

void VELTComplexVector::multiplyBy(const VELTRealVector& factors) {
    TAVOLAR_PARAMETER_ASSERT(factors.length() == length());
    multiply(real_.data(), factors.components(), length());
    multiply(imag_.data(), factors.components(), length());
}

void VELTComplexVector::add(const VELTRealVector& values) {
    TAVOLAR_PARAMETER_ASSERT(values.length() == length());
    addInto(real_.data(), values.components(), length());
}

void VELTComplexVector::scaleBy(float factor) noexcept {
    scale(real_.data(), length(), factor);
    scale(imag_.data(), length(), factor);
}

void VELTComplexVector::conjugate() noexcept {
    negate(imag_.data(), length());
}

void VELTComplexVector::exp() noexcept {
    for (std::size_t i = 0, n = length(); i < n; ++i) {
        const float modulus = std::exp(real_[i]);
        const float angle = imag_[i];
        real_[i] = modulus * std::cos(angle);
        imag_[i] = modulus * std::sin(angle);
    }
}

VELTRealVector VELTComplexVector::abs() const {
    VELTRealVector result(length());
    magnitude<float, double>(real_.data(), imag_.data(), result.mutableComponents(), length());
    return result;
}

VELTRealVector VELTComplexVector::phaseInRadians() const {
    VELTRealVector result(length());
    float* out = result.mutableComponents();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        out[i] = std::atan2(imag_[i], real_[i]);
    return result;
}

VELTRealVector VELTComplexVector::ifft() const {
    TAVOLAR_PARAMETER_ASSERT(length() > 0);
    const std::size_t n = signalLengthForBins(length());
    TAVOLAR_PARAMETER_ASSERT(std::has_single_bit(n));
    VELTRealVector signal(n);
    ifftIntoRealVector(signal, VELTFFTSetup::FFTSetupWithLength(n));
    return signal;
}

void VELTComplexVector::ifftIntoRealVector(VELTRealVector& signal, const VELTFFTSetup& setup) const {
    TAVOLAR_PARAMETER_ASSERT(length() >= setup.length() / 2 + 1);
    TAVOLAR_PARAMETER_ASSERT(signal.length() >= setup.length());
    setup.inverseReal(realComponents(), imaginaryComponents(), signal.mutableComponents());
}

VELTComplexVector VELTComplexVector::complexFFT() const {
    TAVOLAR_PARAMETER_ASSERT(std::has_single_bit(length()));
    VELTComplexVector result(length());
    VELTFFTSetup::FFTSetupWithLength(length()).forwardComplex(realComponents(), imaginaryComponents(),
                                                              result.mutableRealComponents(),
                                                              result.mutableImaginaryComponents());
    return result;
}

VELTComplexVector VELTComplexVector::complexIFFT() const {
    TAVOLAR_PARAMETER_ASSERT(std::has_single_bit(length()));
    VELTComplexVector result(length());
    VELTFFTSetup::FFTSetupWithLength(length()).inverseComplex(realComponents(), imaginaryComponents(),
                                                              result.mutableRealComponents(),
                                                              result.mutableImaginaryComponents());
    return result;
}

// VELTMutableComplexDoubleVector

VELTMutableComplexDoubleVector::VELTMutableComplexDoubleVector(std::size_t length)
    : real_(length), imag_(length) {}

VELTMutableComplexDoubleVector
VELTMutableComplexDoubleVector::complexDoubleVectorWithLength(std::size_t length) {
    return VELTMutableComplexDoubleVector(length);
}

void VELTMutableComplexDoubleVector::setLength(std::size_t length) {
    real_.resize(length);
    imag_.resize(length);
}

VELTRealDoubleVector VELTMutableComplexDoubleVector::real() const {
    return VELTRealDoubleVector(std::span<const double>(real_));
}

VELTRealDoubleVector VELTMutableComplexDoubleVector::imag() const {
    return VELTRealDoubleVector(std::span<const double>(imag_));
}

void VELTMutableComplexDoubleVector::complexMultiplyBy(const VELTMutableComplexDoubleVector& other) {
    TAVOLAR_PARAMETER_ASSERT(other.length() == length());
    complexMultiply<double, double>(real_.data(), imag_.data(), other.realComponents(),
                                    other.imaginaryComponents(), length());
}

void VELTMutableComplexDoubleVector::complexDivideBy(const VELTMutableComplexDoubleVector& other) {
    TAVOLAR_PARAMETER_ASSERT(other.length() == length());
    complexDivide<double, double>(real_.data(), imag_.data(), other.realComponents(),
                                  other.imaginaryComponents(), length());
}

void VELTMutableComplexDoubleVector::multiplyBy(const VELTRealDoubleVector& factors) {
    TAVOLAR_PARAMETER_ASSERT(factors.length() == length());
    multiply(real_.data(), factors.components(), length());
    multiply(imag_.data(), factors.components(), length());
}

void VELTMutableComplexDoubleVector::add(const VELTRealDoubleVector& values) {
    TAVOLAR_PARAMETER_ASSERT(values.length() == length());
    addInto(real_.data(), values.components(), length());
}

void VELTMutableComplexDoubleVector::scaleBy(double factor) noexcept {
    scale(real_.data(), length(), factor);
    scale(imag_.data(), length(), factor);
}

void VELTMutableComplexDoubleVector::conjugate() noexcept {
    negate(imag_.data(), length());
}

VELTRealDoubleVector VELTMutableComplexDoubleVector::abs() const {
    VELTRealDoubleVector result(length());
    magnitude<double, double>(real_.data(), imag_.data(), result.mutableComponents(), length());
    return result;
}

VELTRealDoubleVector VELTMutableComplexDoubleVector::ifft() const {
    TAVOLAR_PARAMETER_ASSERT(length() > 0);
    const std::size_t n = signalLengthForBins(length());
    TAVOLAR_PARAMETER_ASSERT(std::has_single_bit(n));
    VELTRealDoubleVector signal(n);
    ifftIntoRealDoubleVector(signal, VELTFFTDoubleSetup::FFTSetupWithLength(n));
    return signal;
}

void VELTMutableComplexDoubleVector::ifftIntoRealDoubleVector(VELTRealDoubleVector& signal,
                                                              const VELTFFTDoubleSetup& setup) const {
    TAVOLAR_PARAMETER_ASSERT(length() >= setup.length() / 2 + 1);
    TAVOLAR_PARAMETER_ASSERT(signal.length() >= setup.length());
    setup.inverseReal(realComponents(), imaginaryComponents(), signal.mutableComponents());
}

} // namespace tavolar
