#pragma once
// Split-complex vectors: two equal-length, aligned arrays of real and imaginary parts, in float
// (VELTComplexVector) and double (VELTMutableComplexDoubleVector). Plain values.
//
// Numeric contract. Component-wise operations take a vector of the receiver's length (parameter
// assertion otherwise) and may be given the receiver itself. Division and magnitude of float
// vectors are computed in double precision, so neither overflows nor underflows where the result
// is representable; dividing by 0 gives NaN or infinity, which is passed on. A real spectrum holds
// bins 0 .. N/2 of an N-point transform (see VELTFFTSetup for scaling and threads).

#include "math/AlignedBuffer.h"
#include "math/VELTRealVector.h"

#include <cstddef>
#include <span>

namespace tavolar {

class VELTComplexVector {
public:
    VELTComplexVector() = default;
    explicit VELTComplexVector(std::size_t length); // zero-filled
    static VELTComplexVector complexVectorWithLength(std::size_t length);
    static VELTComplexVector complexVectorWithRealVector(const VELTRealVector& real);

    std::size_t length() const noexcept { return real_.size(); }
    void setLength(std::size_t length); // extends with zeros
    const float* realComponents() const noexcept { return real_.data(); }
    const float* imaginaryComponents() const noexcept { return imag_.data(); }
    float* mutableRealComponents() noexcept { return real_.data(); }
    float* mutableImaginaryComponents() noexcept { return imag_.data(); }
    VELTRealVector real() const;
    VELTRealVector imag() const;

    // Component-wise, in place; the other vector must have the same length (parameter assertion).
    void complexMultiplyBy(const VELTComplexVector& other);
    void complexDivideBy(const VELTComplexVector& other);
    void multiplyBy(const VELTRealVector& factors); // both parts scaled
    void add(const VELTRealVector& values);         // added to the real parts
    void scaleBy(float factor) noexcept;
    void conjugate() noexcept;
    void exp() noexcept; // complex exponential of each component
    VELTRealVector abs() const;
    // Argument of each component in radians, in (-pi, pi] (atan2).
    VELTRealVector phaseInRadians() const;

    // Inverse of VELTRealVector::fft: a spectrum of M = N/2 + 1 bins gives N = 2 (M - 1) real samples,
    // scaled by 1/N. The imaginary parts of bins 0 and N/2 are ignored.
    // A single bin is the transform of a single sample.
    VELTRealVector ifft() const;
    // The same into the first N components of a caller's vector (at least N long) with a plan of
    // length N, reading bins 0 .. N/2; takes no lock and no memory of its own (see VELTFFTSetup).
    void ifftIntoRealVector(VELTRealVector& signal, const VELTFFTSetup& setup) const;
    // Full complex transforms of a power-of-two length; forward unscaled, inverse scaled by 1/N.
    VELTComplexVector complexFFT() const;
    VELTComplexVector complexIFFT() const;

    bool operator==(const VELTComplexVector&) const = default;

private:
    AlignedBuffer<float> real_;
    AlignedBuffer<float> imag_;
};

using VELTMutableComplexVector = VELTComplexVector;

class VELTMutableComplexDoubleVector {
public:
    VELTMutableComplexDoubleVector() = default;
    explicit VELTMutableComplexDoubleVector(std::size_t length);
    static VELTMutableComplexDoubleVector complexDoubleVectorWithLength(std::size_t length);

    std::size_t length() const noexcept { return real_.size(); }
    void setLength(std::size_t length);
    const double* realComponents() const noexcept { return real_.data(); }
    const double* imaginaryComponents() const noexcept { return imag_.data(); }
    double* mutableRealComponents() noexcept { return real_.data(); }
    double* mutableImaginaryComponents() noexcept { return imag_.data(); }

    VELTRealDoubleVector real() const;
    VELTRealDoubleVector imag() const;

    void complexMultiplyBy(const VELTMutableComplexDoubleVector& other);
    void complexDivideBy(const VELTMutableComplexDoubleVector& other);
    void multiplyBy(const VELTRealDoubleVector& factors); // both parts scaled
    void add(const VELTRealDoubleVector& values);         // added to the real parts
    void scaleBy(double factor) noexcept;
    void conjugate() noexcept;
    VELTRealDoubleVector abs() const;

    // Inverse real transform of M = N/2 + 1 bins into N = 2 (M - 1) samples (one bin: one sample),
    // scaled by 1/N; the imaginary parts of bins 0 and N/2 are ignored.
    VELTRealDoubleVector ifft() const;
    // The same into the first N components of a caller's vector (at least N long) with a plan of
    // length N; takes no lock and no memory of its own (see VELTFFTSetup).
    void ifftIntoRealDoubleVector(VELTRealDoubleVector& signal, const VELTFFTDoubleSetup& setup) const;

    bool operator==(const VELTMutableComplexDoubleVector&) const = default;

private:
    AlignedBuffer<double> real_;
    AlignedBuffer<double> imag_;
};

} // namespace tavolar
