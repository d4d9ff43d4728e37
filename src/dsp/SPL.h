#pragma once
// Sound pressure level: decibel magnitudes shifted so that a signal at the reference level reads 94 dB.

#include "math/VELTRealVector.h"

namespace tavolar {

// convertAbsToMagnitude, then adds 94.0 - referenceLevel (dB) to every component.
void convertAbsToMagnitudeWithReference(VELTMutableRealVector& vector, float referenceLevel) noexcept;

} // namespace tavolar
