#pragma once
// Straight-line least-squares fit in 32-bit floats.

#include "math/VELTRealVector.h"

namespace tavolar {

// Fits y = m x + b. r, when not null, receives sqrt(1 - SSres / SStot), never negative whatever the
// sign of the slope; a flat y (SStot = 0) gives not-a-number. Unequal lengths or a null m or b
// raise ParameterAssertion ("xVec.length == yVec.length", "m != NULL", "b != NULL").
void getSlope(float* m, float* b, float* r, const VELTRealVector& xVec, const VELTRealVector& yVec);

} // namespace tavolar
