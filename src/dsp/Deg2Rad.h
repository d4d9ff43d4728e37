#pragma once
// Degree and radian conversion in place, by the float factors the stored analyses were made with.

#include "math/VELTRealVector.h"

namespace tavolar {

// Scales by 0.017453292.
void convertDegreesToRadians(VELTMutableRealVector& vector) noexcept;
// Scales by 57.29578.
void convertRadiansToDegrees(VELTMutableRealVector& vector) noexcept;

} // namespace tavolar
