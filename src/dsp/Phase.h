#pragma once
// Phase unwrapping (radians) and wrapping (degrees), in 32-bit floats.

#include "math/VELTRealVector.h"

namespace tavolar {

// The phase made continuous: each step is judged against the previous unwrapped value and brought
// within pi of it by whole turns, which accumulate. The first component is kept.
VELTMutableRealVector unwrappedPhaseRadians(const VELTRealVector& phase);

// Brings every component except the first into -180 to 180 degrees (the limits stay as they are).
// The first component is deliberately left alone.
void wrapPhaseDegrees(VELTMutableRealVector& phase) noexcept;

} // namespace tavolar
