#pragma once
// Threshold searches over a float vector. Each answers the index of the first component met with
// that passes its test, or kNotFound; a not-a-number component never passes, and an empty vector
// gives kNotFound.

#include "math/VELTRealVector.h"

#include <cstdint>
#include <limits>

namespace tavolar {

// The not-found marker of index searches and index sets: the largest signed 64-bit integer.
inline constexpr std::uint64_t kNotFound =
    static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

// Scanning upward from index 0. "LessThan" deliberately tests component <= threshold, exactly like
// "LessThanOrEqualTo"; callers that find band edges depend on it.
std::uint64_t indexOfFirstComponentLessThan(const VELTRealVector& vector, float threshold) noexcept;
std::uint64_t indexOfFirstComponentLessThanOrEqualTo(const VELTRealVector& vector, float threshold) noexcept;
std::uint64_t indexOfFirstComponentGreaterThan(const VELTRealVector& vector, float threshold) noexcept;
std::uint64_t indexOfFirstComponentGreaterThanOrEqualTo(const VELTRealVector& vector,
                                                        float threshold) noexcept;

// Scanning downward from the last index.
std::uint64_t indexOfLastComponentLessThan(const VELTRealVector& vector, float threshold) noexcept;
std::uint64_t indexOfLastComponentLessThanOrEqualTo(const VELTRealVector& vector, float threshold) noexcept;
std::uint64_t indexOfLastComponentGreaterThan(const VELTRealVector& vector, float threshold) noexcept;
std::uint64_t indexOfLastComponentGreaterThanOrEqualTo(const VELTRealVector& vector,
                                                       float threshold) noexcept;

} // namespace tavolar
