#pragma once
// Length-counted, contiguous, 64-byte aligned arrays of 32-bit (VELTRealVector) and 64-bit
// (VELTRealDoubleVector) floats. Plain values: copying copies the samples. An immutable vector is
// a const one; VELTMutableRealVector names the same class where the code mutates.
//
// Numeric contract. In-place operations take another vector of the same length (parameter
// assertion otherwise) and may be given the receiver itself. Sums, RMS values and dot products
// accumulate in double precision. Extremes skip NaN components. Transforms: see VELTFFTSetup.
// Threads: a const vector may be read from any number of threads; nothing here has shared state
// except the FFT plan cache, which is thread-safe.

#include "math/AlignedBuffer.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <vector>

namespace tavolar {

class VELTComplexVector;
class VELTMutableComplexDoubleVector;
class VELTFFTSetup;
class VELTFFTDoubleSetup;
class VELTRealDoubleVector;

class VELTRealVector {
public:
    // Creation. Every new vector is zero-filled.
    VELTRealVector() = default;
    explicit VELTRealVector(std::size_t length);
    VELTRealVector(std::initializer_list<float> components);
    explicit VELTRealVector(std::span<const float> components);

    static VELTRealVector realVectorWithLength(std::size_t length);
    static VELTRealVector realVectorWithComponents(std::span<const float> components);
    static VELTRealVector realVectorWithComponents(std::initializer_list<float> components);
    // Packed host-order floats; a trailing partial float is ignored.
    static VELTRealVector realVectorWithData(std::span<const std::byte> data);
    static VELTRealVector onesWithLength(std::size_t length);
    // The integers first, first + 1, ..., last - 1 (last excluded), so (0, n) is an index ramp of n.
    static VELTRealVector realVectorWithIntegersRangingFrom(std::int64_t first, std::int64_t last);
    // Bin centre frequencies k * rate / fftLength for k = 0 .. fftLength / 2, the bins of a real FFT.
    static VELTRealVector realVectorWithFrequencyTable(std::uint64_t sampleRate, std::size_t fftLength);

    // Direct-form II transposed IIR filter; a[0] is the leading coefficient (normally 1) and every
    // coefficient is divided by it. w is the initial state (length max(|a|, |b|) - 1), zero if null.
    // Computed in double precision, output rounded to float. Output has the length of x.
    // Two empty coefficient vectors stand for a filter that does not exist (a coefficient table
    // without a row for the sample rate): the output is then the one-component vector [0.0],
    // whatever x is, so that a level taken from it reads as silence. One empty vector beside a
    // filled one is a parameter assertion.
    static VELTRealVector filteredVector(const VELTRealDoubleVector& b, const VELTRealDoubleVector& a,
                                         const VELTRealVector& x, const VELTRealDoubleVector* w = nullptr);
    // Component-wise over equal-length vectors (TAVOLAR_PARAMETER_ASSERT on unequal lengths).
    // The difference is the first vector minus all the others. An empty list gives an empty vector.
    static VELTRealVector sumOfVectors(std::span<const VELTRealVector> vectors);
    static VELTRealVector differenceOfVectors(std::span<const VELTRealVector> vectors);
    static VELTRealVector averageOfVectors(std::span<const VELTRealVector> vectors);
    static VELTRealVector RMSAverageOfVectors(std::span<const VELTRealVector> vectors);

    VELTRealVector mutableCopy() const { return *this; }

    // Access.
    std::size_t length() const noexcept { return data_.size(); }
    // Truncates, or extends with 0.0.
    void setLength(std::size_t length);
    // Makes room for this many components, so that appending up to there moves nothing; the length
    // is unchanged.
    void reserve(std::size_t capacity) { data_.reserve(capacity); }
    std::size_t capacity() const noexcept { return data_.capacity(); }
    const float* components() const noexcept { return data_.data(); }
    float* mutableComponents() noexcept { return data_.data(); }
    std::span<const float> span() const noexcept { return {data_.data(), data_.size()}; }
    std::span<float> mutableSpan() noexcept { return {data_.data(), data_.size()}; }
    float operator[](std::size_t index) const noexcept { return data_[index]; }
    float& operator[](std::size_t index) noexcept { return data_[index]; }
    float componentAtIndex(std::size_t index) const;
    void setComponent(float value, std::size_t index);
    void appendComponent(float value);
    void appendVector(const VELTRealVector& other);
    void appendVector(std::span<const float> other);
    VELTRealVector realVectorInRange(std::size_t location, std::size_t length) const;
    std::span<const float> realVectorInRangeNoCopy(std::size_t location, std::size_t length) const;
    void replaceComponentsInRange(std::size_t location, std::size_t length, const VELTRealVector& with);
    bool isAllZeroes() const noexcept; // -0.0 counts as zero, NaN does not
    bool isNAN() const noexcept;       // some component is NaN
    bool isFinite() const noexcept;    // every component is finite (the empty vector is)
    void swapFloatsBigToHostIfRequired() noexcept;
    void clear() noexcept;

    // Extremes, first location on ties; NaN components are skipped. The empty vector answers 0
    // and location 0; a vector of nothing but NaNs answers NaN and location 0.
    float max() const noexcept;
    float min() const noexcept;
    void getMaximum(float& value, std::size_t& location) const noexcept;
    void getMinimum(float& value, std::size_t& location) const noexcept;
    // Largest absolute value (returned as that absolute value) and its index; location may be null.
    void getMaximumMagnitude(float& value, std::size_t* location) const noexcept;
    float sumOfElements() const noexcept;
    float RMSAverage() const noexcept;
    float dotProductWithVector(const VELTRealVector& other) const;

    // In-place arithmetic.
    void scaleBy(float factor) noexcept;
    void addScalar(float value) noexcept;
    void add(const VELTRealVector& other);
    void subtract(const VELTRealVector& other);
    void multiplyBy(const VELTRealVector& other);
    void square() noexcept;
    void sqrt() noexcept;
    void abs() noexcept;
    void log() noexcept; // natural logarithm
    void exp() noexcept;
    // Divides by the largest magnitude, so that it becomes exactly 1.0; a vector whose largest
    // magnitude is 0, infinite or NaN is left unchanged.
    void normalize() noexcept;
    void normalizeDecibels() noexcept; // shift so that the largest value is 0.0 (if it is finite)
    void reverse() noexcept;
    // Rotates right by shift samples (negative: left): out[(i + shift) mod N] = in[i]. Any shift,
    // however large, is taken modulo N.
    void circularShiftBy(std::int64_t shift) noexcept;
    // Keeps components offset, offset + factor, offset + 2 factor, ... (factor >= 1).
    void downsampleBy(std::size_t factor, std::size_t offset);
    // Puts factor - 1 zeros after every component (factor >= 1); the length grows factor times.
    void upsampleBy(std::size_t factor);

    // Transforms. Forward is unscaled; bins 0 .. N/2 of the real transform (N/2 + 1 of them).
    // Requires a power-of-two length (TAVOLAR_PARAMETER_ASSERT). fft allocates the spectrum and
    // looks the plan up in the cache.
    VELTComplexVector fft() const;
    // The same into a caller's vector of at least N/2 + 1 components, with a prepared plan of length
    // N; components beyond N/2 are left alone. Takes no lock and no memory of its own (see VELTFFTSetup).
    void fftIntoComplexVector(VELTComplexVector& spectrum, const VELTFFTSetup& setup) const;

    bool operator==(const VELTRealVector&) const = default;

private:
    AlignedBuffer<float> data_;
};

using VELTMutableRealVector = VELTRealVector;

class VELTRealDoubleVector {
public:
    VELTRealDoubleVector() = default;
    explicit VELTRealDoubleVector(std::size_t length);
    VELTRealDoubleVector(std::initializer_list<double> components);
    explicit VELTRealDoubleVector(std::span<const double> components);
    static VELTRealDoubleVector realDoubleVectorWithComponents(std::initializer_list<double> components);
    static VELTRealDoubleVector realDoubleVectorWithComponents(std::span<const double> components);
    static VELTRealDoubleVector withRealVector(const VELTRealVector& floats);
    VELTRealVector realVector() const; // narrowed to float
    VELTRealDoubleVector mutableCopy() const { return *this; }

    std::size_t length() const noexcept { return data_.size(); }
    void setLength(std::size_t length);
    const double* components() const noexcept { return data_.data(); }
    double* mutableComponents() noexcept { return data_.data(); }
    std::span<const double> span() const noexcept { return {data_.data(), data_.size()}; }
    std::span<double> mutableSpan() noexcept { return {data_.data(), data_.size()}; }
    double operator[](std::size_t index) const noexcept { return data_[index]; }
    double& operator[](std::size_t index) noexcept { return data_[index]; }
    void scaleBy(double factor) noexcept;
    void clear() noexcept;
    bool isAllZeroes() const noexcept;
    bool isNAN() const noexcept;
    bool isFinite() const noexcept;
    void getMaximumMagnitude(double& value, std::size_t* location) const noexcept;
    void add(const VELTRealDoubleVector& other);
    void subtract(const VELTRealDoubleVector& other);
    void multiplyBy(const VELTRealDoubleVector& other);
    void circularShiftBy(std::int64_t shift) noexcept;

    // Forward real transform in double precision: bins 0 .. N/2, unscaled, of a power-of-two length.
    VELTMutableComplexDoubleVector fft() const;
    // The same into bins 0 .. N/2 of a caller's vector (at least N/2 + 1 long) with a plan of length
    // N; takes no lock and no memory of its own (see VELTFFTSetup).
    void fftIntoComplexDoubleVector(VELTMutableComplexDoubleVector& spectrum,
                                    const VELTFFTDoubleSetup& setup) const;

    bool operator==(const VELTRealDoubleVector&) const = default;

private:
    AlignedBuffer<double> data_;
};

} // namespace tavolar
