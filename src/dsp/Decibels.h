#pragma once
// Conversion between linear values and decibels, in place, in 32-bit floats. Reference 1.0 (0 dB
// full scale). The smallest normal float is added before the logarithm so that a zero component
// gives about -758.6 dB (magnitude) or -379.3 dB (power) rather than minus infinity; negative
// components give not-a-number.

#include "math/VELTRealVector.h"

#include <bit>
#include <cstdint>

namespace tavolar {

// The smallest normal float, added to linear values before taking their logarithm.
inline constexpr float kDecibelFloor = 1.17549435e-38f;

// factor × log10(value), written with bit operations and a polynomial so that a loop over a vector
// vectorises (the library's logarithm is a call per component, and costs as much as the transform
// the values came from). Within a few units in the last place of the float result; zero gives minus
// infinity, negative values not-a-number, and infinity and not-a-number pass through.
inline float scaledLog10(float value, float factor) noexcept {
    // v = 2^e m with m in [sqrt(1/2), sqrt(2)); ln m = 2 atanh(s), s = (m - 1) / (m + 1), |s| < 0.172,
    // by its series up to s^9 (the next term is below 1e-9). Selections are made on the bits, with
    // masks: comparisons of floats that may be not-a-number keep the compiler from vectorising.
    const auto raw = std::bit_cast<std::uint32_t>(value);
    // Subnormal values are brought into the normal range by 2^64 first.
    const std::uint32_t subnormal = 0u - static_cast<std::uint32_t>((raw & 0x7F800000u) == 0u);
    const std::uint32_t bits = (std::bit_cast<std::uint32_t>(value * 0x1p64f) & subnormal) | (raw & ~subnormal);
    const std::uint32_t upper = ((bits & 0x007FFFFFu) + 0x004AFB0Cu) >> 23; // mantissa above sqrt(2)
    const float mantissa = std::bit_cast<float>((bits & 0x007FFFFFu) | (0x3F800000u - (upper << 23)));
    const auto exponent = static_cast<std::int32_t>(((bits >> 23) & 0xFFu) + upper) - 127 -
                          static_cast<std::int32_t>(subnormal & 64u);
    const float s = (mantissa - 1.0f) / (mantissa + 1.0f), s2 = s * s;
    const float logarithm =
        2.0f * s * (1.0f + s2 * (1.0f / 3.0f + s2 * (1.0f / 5.0f + s2 * (1.0f / 7.0f + s2 * (1.0f / 9.0f)))));
    constexpr float kLog10Of2 = 0.301029996f;
    constexpr float kLog10OfE = 0.434294482f;
    const float result = factor * (kLog10Of2 * static_cast<float>(exponent) + kLog10OfE * logarithm);
    const std::uint32_t zero = 0u - static_cast<std::uint32_t>((raw & 0x7FFFFFFFu) == 0u);
    const std::uint32_t special = 0u - static_cast<std::uint32_t>((raw & 0x7F800000u) == 0x7F800000u);
    const std::uint32_t negative = 0u - static_cast<std::uint32_t>(raw > 0x80000000u);
    constexpr std::uint32_t kMinusInfinity = 0xFF800000u, kNotANumber = 0x7FC00000u;
    const std::uint32_t finite = (std::bit_cast<std::uint32_t>(result) & ~(zero | special | negative)) |
                                 (kMinusInfinity & zero) | (raw & special & ~negative);
    return std::bit_cast<float>((finite & ~negative) | (kNotANumber & negative));
}

// x = 20 log10(x + floor)
void convertAbsToMagnitude(VELTMutableRealVector& vector) noexcept;
// x = 10 log10(x + floor)
void convertAbsToPower(VELTMutableRealVector& vector) noexcept;
// x = 10^(x / 20)
void convertMagnitudeToAbs(VELTMutableRealVector& vector) noexcept;
// x = 10^(x / 10)
void convertPowerToAbs(VELTMutableRealVector& vector) noexcept;

} // namespace tavolar
