#pragma once
// Conversion between linear values and decibels, in place, in 32-bit floats. Reference 1.0 (0 dB
// full scale). The smallest normal float is added before the logarithm so that a zero component
// gives about -758.6 dB (magnitude) or -379.3 dB (power) rather than minus infinity; negative
// components give not-a-number.

#include "math/VELTRealVector.h"

namespace tavolar {

// The smallest normal float, added to linear values before taking their logarithm.
inline constexpr float kDecibelFloor = 1.17549435e-38f;

// x = 20 log10(x + floor)
void convertAbsToMagnitude(VELTMutableRealVector& vector) noexcept;
// x = 10 log10(x + floor)
void convertAbsToPower(VELTMutableRealVector& vector) noexcept;
// x = 10^(x / 20)
void convertMagnitudeToAbs(VELTMutableRealVector& vector) noexcept;
// x = 10^(x / 10)
void convertPowerToAbs(VELTMutableRealVector& vector) noexcept;

} // namespace tavolar
