#include "dsp/Search.h"

#include <cstddef>

namespace tavolar {

namespace {

template <typename Test> std::uint64_t firstIndex(const VELTRealVector& vector, Test passes) noexcept {
    const float* x = vector.components();
    for (std::size_t i = 0; i < vector.length(); ++i)
        if (passes(x[i]))
            return i;
    return kNotFound;
}

template <typename Test> std::uint64_t lastIndex(const VELTRealVector& vector, Test passes) noexcept {
    const float* x = vector.components();
    for (std::size_t i = vector.length(); i-- > 0;)
        if (passes(x[i]))
            return i;
    return kNotFound;
}

} // namespace

std::uint64_t indexOfFirstComponentLessThan(const VELTRealVector& vector, float threshold) noexcept {
    return firstIndex(vector, [threshold](float x) { return x <= threshold; });
}

std::uint64_t indexOfFirstComponentLessThanOrEqualTo(const VELTRealVector& vector, float threshold) noexcept {
    return firstIndex(vector, [threshold](float x) { return x <= threshold; });
}

std::uint64_t indexOfFirstComponentGreaterThan(const VELTRealVector& vector, float threshold) noexcept {
    return firstIndex(vector, [threshold](float x) { return x > threshold; });
}

std::uint64_t indexOfFirstComponentGreaterThanOrEqualTo(const VELTRealVector& vector,
                                                        float threshold) noexcept {
    return firstIndex(vector, [threshold](float x) { return x >= threshold; });
}

std::uint64_t indexOfLastComponentLessThan(const VELTRealVector& vector, float threshold) noexcept {
    return lastIndex(vector, [threshold](float x) { return x < threshold; });
}

std::uint64_t indexOfLastComponentLessThanOrEqualTo(const VELTRealVector& vector, float threshold) noexcept {
    return lastIndex(vector, [threshold](float x) { return x <= threshold; });
}

std::uint64_t indexOfLastComponentGreaterThan(const VELTRealVector& vector, float threshold) noexcept {
    return lastIndex(vector, [threshold](float x) { return x > threshold; });
}

std::uint64_t indexOfLastComponentGreaterThanOrEqualTo(const VELTRealVector& vector,
                                                       float threshold) noexcept {
    return lastIndex(vector, [threshold](float x) { return x >= threshold; });
}

} // namespace tavolar
