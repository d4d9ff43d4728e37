#include "math/VELTRealVector.h"

#include "math/VELTComplexVector.h"
#include "math/VELTFFTSetup.h"
#include "math/VectorKernels.h"
#include "platform/Assertions.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

namespace tavolar {

namespace {

bool rangeFits(std::size_t location, std::size_t length, std::size_t total) {
    return location <= total && length <= total - location;
}

} // namespace

// VELTRealVector creation

VELTRealVector::VELTRealVector(std::size_t length) : data_(length) {}

VELTRealVector::VELTRealVector(std::initializer_list<float> components) : data_(components) {}

VELTRealVector::VELTRealVector(std::span<const float> components)
    : data_(components.begin(), components.end()) {}

VELTRealVector VELTRealVector::realVectorWithLength(std::size_t length) {
    return VELTRealVector(length);
}

VELTRealVector VELTRealVector::realVectorWithComponents(std::span<const float> components) {
    return VELTRealVector(components);
}

VELTRealVector VELTRealVector::realVectorWithComponents(std::initializer_list<float> components) {
    return VELTRealVector(components);
}

VELTRealVector VELTRealVector::realVectorWithData(std::span<const std::byte> data) {
    VELTRealVector vector(data.size() / sizeof(float));
    if (vector.length() > 0)
        std::memcpy(vector.mutableComponents(), data.data(), vector.length() * sizeof(float));
    return vector;
}

VELTRealVector VELTRealVector::onesWithLength(std::size_t length) {
    VELTRealVector vector(length);
    std::fill(vector.data_.begin(), vector.data_.end(), 1.0f);
    return vector;
}

VELTRealVector VELTRealVector::realVectorWithIntegersRangingFrom(std::int64_t first, std::int64_t last) {
    if (last <= first)
        return {};
    VELTRealVector vector(static_cast<std::size_t>(last - first));
    float* p = vector.mutableComponents();
    for (std::size_t i = 0; i < vector.length(); ++i)
        p[i] = static_cast<float>(first + static_cast<std::int64_t>(i));
    return vector;
}

VELTRealVector VELTRealVector::realVectorWithFrequencyTable(std::uint64_t sampleRate, std::size_t fftLength) {
    if (fftLength == 0)
        return {};
    VELTRealVector vector(fftLength / 2 + 1);
    const double binWidth = static_cast<double>(sampleRate) / static_cast<double>(fftLength);
    float* p = vector.mutableComponents();
    for (std::size_t k = 0; k < vector.length(); ++k)
        p[k] = static_cast<float>(static_cast<double>(k) * binWidth);
    return vector;
}

VELTRealVector VELTRealVector::filteredVector(const VELTRealDoubleVector& b, const VELTRealDoubleVector& a,
                                              const VELTRealVector& x, const VELTRealDoubleVector* w) {
    if (a.length() == 0 && b.length() == 0)
        return VELTRealVector{0.0f};
    TAVOLAR_PARAMETER_ASSERT(a.length() > 0 && b.length() > 0);
    TAVOLAR_PARAMETER_ASSERT(a[0] != 0.0);
    const std::size_t order = std::max(a.length(), b.length()) - 1;
    TAVOLAR_PARAMETER_ASSERT(w == nullptr || w->length() == order);

    // Coefficients normalised by a[0] and padded with zeros to a common length.
    AlignedBuffer<double> numerator(order + 1), denominator(order + 1), state(order + 1);
    for (std::size_t i = 0; i < b.length(); ++i)
        numerator[i] = b[i] / a[0];
    for (std::size_t i = 1; i < a.length(); ++i)
        denominator[i] = a[i] / a[0];
    if (w)
        std::copy(w->span().begin(), w->span().end(), state.begin());

    // Direct form II transposed: y = b0 x + s0, then s[i] = b[i+1] x - a[i+1] y + s[i+1]; the
    // state has one spare zero at the end so that the update needs no special last step.
    VELTRealVector y(x.length());
    const float* in = x.components();
    float* out = y.mutableComponents();
    const double* bk = numerator.data();
    const double* ak = denominator.data();
    double* s = state.data();
    for (std::size_t n = 0; n < x.length(); ++n) {
        const double input = in[n];
        const double output = bk[0] * input + s[0];
        for (std::size_t i = 0; i < order; ++i)
            s[i] = bk[i + 1] * input - ak[i + 1] * output + s[i + 1];
        out[n] = static_cast<float>(output);
    }
    return y;
}

namespace {

void assertEqualLengths(std::span<const VELTRealVector> vectors) {
    for (const auto& vector : vectors)
        TAVOLAR_PARAMETER_ASSERT(vector.length() == vectors.front().length());
}

} // namespace

VELTRealVector VELTRealVector::sumOfVectors(std::span<const VELTRealVector> vectors) {
    if (vectors.empty())
        return {};
    assertEqualLengths(vectors);
    VELTRealVector sum = vectors.front();
    for (std::size_t v = 1; v < vectors.size(); ++v)
        sum.add(vectors[v]);
    return sum;
}

VELTRealVector VELTRealVector::differenceOfVectors(std::span<const VELTRealVector> vectors) {
    if (vectors.empty())
        return {};
    assertEqualLengths(vectors);
    VELTRealVector difference = vectors.front();
    for (std::size_t v = 1; v < vectors.size(); ++v)
        difference.subtract(vectors[v]);
    return difference;
}

VELTRealVector VELTRealVector::averageOfVectors(std::span<const VELTRealVector> vectors) {
    VELTRealVector average = sumOfVectors(vectors);
    if (!vectors.empty())
        average.scaleBy(1.0f / static_cast<float>(vectors.size()));
    return average;
}

VELTRealVector VELTRealVector::RMSAverageOfVectors(std::span<const VELTRealVector> vectors) {
    if (vectors.empty())
        return {};
    assertEqualLengths(vectors);
    const std::size_t n = vectors.front().length();
    VELTRealVector result(n);
    float* sum = result.mutableComponents();
    for (const auto& vector : vectors) {
        const float* p = vector.components();
        for (std::size_t i = 0; i < n; ++i)
            sum[i] += p[i] * p[i];
    }
    const float scale = 1.0f / static_cast<float>(vectors.size());
    for (std::size_t i = 0; i < n; ++i)
        sum[i] = std::sqrt(sum[i] * scale);
    return result;
}

// Access

void VELTRealVector::setLength(std::size_t length) {
    data_.resize(length);
}

float VELTRealVector::componentAtIndex(std::size_t index) const {
    TAVOLAR_PARAMETER_ASSERT(index < length());
    return data_[index];
}

void VELTRealVector::setComponent(float value, std::size_t index) {
    TAVOLAR_PARAMETER_ASSERT(index < length());
    data_[index] = value;
}

void VELTRealVector::appendComponent(float value) {
    data_.push_back(value);
}

void VELTRealVector::appendVector(const VELTRealVector& other) {
    appendVector(other.span());
}

void VELTRealVector::appendVector(std::span<const float> other) {
    if (other.data() >= data_.data() && other.data() < data_.data() + data_.size()) {
        // Appending part of itself: growing may move the storage the span points into.
        const VELTRealVector copy(other);
        data_.insert(data_.end(), copy.data_.begin(), copy.data_.end());
        return;
    }
    data_.insert(data_.end(), other.begin(), other.end());
}

VELTRealVector VELTRealVector::realVectorInRange(std::size_t location, std::size_t length) const {
    return VELTRealVector(realVectorInRangeNoCopy(location, length));
}

std::span<const float> VELTRealVector::realVectorInRangeNoCopy(std::size_t location,
                                                               std::size_t length) const {
    TAVOLAR_PARAMETER_ASSERT(rangeFits(location, length, this->length()));
    return span().subspan(location, length);
}

void VELTRealVector::replaceComponentsInRange(std::size_t location, std::size_t length,
                                              const VELTRealVector& with) {
    TAVOLAR_PARAMETER_ASSERT(rangeFits(location, length, this->length()));
    TAVOLAR_PARAMETER_ASSERT(with.length() >= length);
    std::copy_n(with.components(), length, data_.data() + location);
}

bool VELTRealVector::isAllZeroes() const noexcept {
    return !kernels::anyNonZero(components(), length());
}

bool VELTRealVector::isNAN() const noexcept {
    return kernels::anyNaN(components(), length());
}

bool VELTRealVector::isFinite() const noexcept {
    return kernels::allFinite(components(), length());
}

void VELTRealVector::swapFloatsBigToHostIfRequired() noexcept {
    if constexpr (std::endian::native == std::endian::little) {
        for (float& value : data_)
            value = std::bit_cast<float>(std::byteswap(std::bit_cast<std::uint32_t>(value)));
    }
}

void VELTRealVector::clear() noexcept {
    std::fill(data_.begin(), data_.end(), 0.0f);
}

// Extremes and sums

float VELTRealVector::max() const noexcept {
    float value;
    std::size_t location;
    getMaximum(value, location);
    return value;
}

float VELTRealVector::min() const noexcept {
    float value;
    std::size_t location;
    getMinimum(value, location);
    return value;
}

void VELTRealVector::getMaximum(float& value, std::size_t& location) const noexcept {
    if (length() == 0) {
        value = 0;
        location = 0;
        return;
    }
    value = kernels::largestOf(components(), length(), kernels::identity);
    location = kernels::firstIndexOf(components(), length(), value, kernels::identity);
}

void VELTRealVector::getMinimum(float& value, std::size_t& location) const noexcept {
    if (length() == 0) {
        value = 0;
        location = 0;
        return;
    }
    const float negatedLargest = kernels::largestOf(components(), length(), kernels::negated);
    location = kernels::firstIndexOf(components(), length(), negatedLargest, kernels::negated);
    value = -negatedLargest;
}

void VELTRealVector::getMaximumMagnitude(float& value, std::size_t* location) const noexcept {
    if (length() == 0) {
        value = 0;
        if (location)
            *location = 0;
        return;
    }
    value = kernels::largestOf(components(), length(), kernels::magnitude);
    if (location)
        *location = kernels::firstIndexOf(components(), length(), value, kernels::magnitude);
}

float VELTRealVector::sumOfElements() const noexcept {
    return static_cast<float>(kernels::sumOf(components(), length(), kernels::identity));
}

float VELTRealVector::RMSAverage() const noexcept {
    if (length() == 0)
        return 0;
    const double sumOfSquares = kernels::sumOf(components(), length(), kernels::squared);
    return static_cast<float>(std::sqrt(sumOfSquares / static_cast<double>(length())));
}

float VELTRealVector::dotProductWithVector(const VELTRealVector& other) const {
    TAVOLAR_PARAMETER_ASSERT(other.length() == length());
    return static_cast<float>(kernels::dotProduct(components(), other.components(), length()));
}

// In-place arithmetic

void VELTRealVector::scaleBy(float factor) noexcept {
    float* p = data_.data();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] *= factor;
}

void VELTRealVector::addScalar(float value) noexcept {
    float* p = data_.data();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] += value;
}

void VELTRealVector::add(const VELTRealVector& other) {
    TAVOLAR_PARAMETER_ASSERT(other.length() == length());
    float* p = data_.data();
    const float* q = other.components();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] += q[i];
}

void VELTRealVector::subtract(const VELTRealVector& other) {
    TAVOLAR_PARAMETER_ASSERT(other.length() == length());
    float* p = data_.data();
    const float* q = other.components();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] -= q[i];
}

void VELTRealVector::multiplyBy(const VELTRealVector& other) {
    TAVOLAR_PARAMETER_ASSERT(other.length() == length());
    float* p = data_.data();
    const float* q = other.components();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] *= q[i];
}

void VELTRealVector::square() noexcept {
    float* p = data_.data();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] *= p[i];
}

void VELTRealVector::sqrt() noexcept {
    float* p = data_.data();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] = std::sqrt(p[i]);
}

void VELTRealVector::abs() noexcept {
    float* p = data_.data();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] = std::abs(p[i]);
}

void VELTRealVector::log() noexcept {
    float* p = data_.data();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] = std::log(p[i]);
}

void VELTRealVector::exp() noexcept {
    float* p = data_.data();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] = std::exp(p[i]);
}

void VELTRealVector::normalize() noexcept {
    float peak;
    getMaximumMagnitude(peak, nullptr);
    if (!(peak > 0.0f) || !std::isfinite(peak))
        return;
    // Dividing, not multiplying by the reciprocal, makes the peak exactly 1.0.
    float* p = data_.data();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] /= peak;
}

void VELTRealVector::normalizeDecibels() noexcept {
    if (length() == 0)
        return;
    const float peak = max();
    if (std::isfinite(peak))
        addScalar(-peak);
}

void VELTRealVector::reverse() noexcept {
    std::reverse(data_.begin(), data_.end());
}

void VELTRealVector::circularShiftBy(std::int64_t shift) noexcept {
    kernels::rotateRight(data_.data(), length(), shift);
}

void VELTRealVector::downsampleBy(std::size_t factor, std::size_t offset) {
    TAVOLAR_PARAMETER_ASSERT(factor >= 1);
    if (offset >= length()) {
        data_.clear();
        return;
    }
    const std::size_t kept = (length() - offset + factor - 1) / factor;
    float* p = data_.data();
    for (std::size_t i = 0; i < kept; ++i)
        p[i] = p[offset + i * factor];
    data_.resize(kept);
}

void VELTRealVector::upsampleBy(std::size_t factor) {
    TAVOLAR_PARAMETER_ASSERT(factor >= 1);
    const std::size_t n = length();
    data_.resize(n * factor);
    float* p = data_.data();
    // From the end backwards, so that no component is overwritten before it has moved.
    for (std::size_t i = n; i-- > 0;) {
        const float value = p[i];
        std::fill_n(p + i * factor + 1, factor - 1, 0.0f);
        p[i * factor] = value;
    }
}

// Transforms

VELTComplexVector VELTRealVector::fft() const {
    TAVOLAR_PARAMETER_ASSERT(std::has_single_bit(length()));
    VELTComplexVector spectrum(length() / 2 + 1);
    fftIntoComplexVector(spectrum, VELTFFTSetup::FFTSetupWithLength(length()));
    return spectrum;
}

void VELTRealVector::fftIntoComplexVector(VELTComplexVector& spectrum, const VELTFFTSetup& setup) const {
    TAVOLAR_PARAMETER_ASSERT(setup.length() == length());
    TAVOLAR_PARAMETER_ASSERT(spectrum.length() >= length() / 2 + 1);
    setup.forwardReal(components(), spectrum.mutableRealComponents(), spectrum.mutableImaginaryComponents());
}

// VELTRealDoubleVector

VELTRealDoubleVector::VELTRealDoubleVector(std::size_t length) : data_(length) {}

VELTRealDoubleVector::VELTRealDoubleVector(std::initializer_list<double> components) : data_(components) {}

VELTRealDoubleVector::VELTRealDoubleVector(std::span<const double> components)
    : data_(components.begin(), components.end()) {}

VELTRealDoubleVector
VELTRealDoubleVector::realDoubleVectorWithComponents(std::initializer_list<double> components) {
    return VELTRealDoubleVector(components);
}

VELTRealDoubleVector
VELTRealDoubleVector::realDoubleVectorWithComponents(std::span<const double> components) {
    return VELTRealDoubleVector(components);
}

VELTRealDoubleVector VELTRealDoubleVector::withRealVector(const VELTRealVector& floats) {
    VELTRealDoubleVector vector(floats.length());
    std::copy(floats.span().begin(), floats.span().end(), vector.data_.begin());
    return vector;
}

VELTRealVector VELTRealDoubleVector::realVector() const {
    VELTRealVector vector(length());
    float* p = vector.mutableComponents();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] = static_cast<float>(data_[i]);
    return vector;
}

void VELTRealDoubleVector::setLength(std::size_t length) {
    data_.resize(length);
}

void VELTRealDoubleVector::scaleBy(double factor) noexcept {
    double* p = data_.data();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] *= factor;
}

void VELTRealDoubleVector::clear() noexcept {
    std::fill(data_.begin(), data_.end(), 0.0);
}

bool VELTRealDoubleVector::isAllZeroes() const noexcept {
    return !kernels::anyNonZero(components(), length());
}

bool VELTRealDoubleVector::isNAN() const noexcept {
    return kernels::anyNaN(components(), length());
}

bool VELTRealDoubleVector::isFinite() const noexcept {
    return kernels::allFinite(components(), length());
}

void VELTRealDoubleVector::getMaximumMagnitude(double& value, std::size_t* location) const noexcept {
    if (length() == 0) {
        value = 0;
        if (location)
            *location = 0;
        return;
    }
    value = kernels::largestOf(components(), length(), kernels::magnitude);
    if (location)
        *location = kernels::firstIndexOf(components(), length(), value, kernels::magnitude);
}

void VELTRealDoubleVector::add(const VELTRealDoubleVector& other) {
    TAVOLAR_PARAMETER_ASSERT(other.length() == length());
    double* p = data_.data();
    const double* q = other.components();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] += q[i];
}

void VELTRealDoubleVector::subtract(const VELTRealDoubleVector& other) {
    TAVOLAR_PARAMETER_ASSERT(other.length() == length());
    double* p = data_.data();
    const double* q = other.components();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] -= q[i];
}

void VELTRealDoubleVector::multiplyBy(const VELTRealDoubleVector& other) {
    TAVOLAR_PARAMETER_ASSERT(other.length() == length());
    double* p = data_.data();
    const double* q = other.components();
    for (std::size_t i = 0, n = length(); i < n; ++i)
        p[i] *= q[i];
}

void VELTRealDoubleVector::circularShiftBy(std::int64_t shift) noexcept {
    kernels::rotateRight(data_.data(), length(), shift);
}

VELTMutableComplexDoubleVector VELTRealDoubleVector::fft() const {
    TAVOLAR_PARAMETER_ASSERT(std::has_single_bit(length()));
    VELTMutableComplexDoubleVector spectrum(length() / 2 + 1);
    fftIntoComplexDoubleVector(spectrum, VELTFFTDoubleSetup::FFTSetupWithLength(length()));
    return spectrum;
}

void VELTRealDoubleVector::fftIntoComplexDoubleVector(VELTMutableComplexDoubleVector& spectrum,
                                                      const VELTFFTDoubleSetup& setup) const {
    TAVOLAR_PARAMETER_ASSERT(setup.length() == length());
    TAVOLAR_PARAMETER_ASSERT(spectrum.length() >= length() / 2 + 1);
    setup.forwardReal(components(), spectrum.mutableRealComponents(), spectrum.mutableImaginaryComponents());
}

} // namespace tavolar
