#pragma once
// Applying a correction curve held as a spline to a frequency-domain vector.

#include "core/VELTSpline.h"
#include "math/VELTRealVector.h"

namespace tavolar {

// Subtracts the spline, evaluated at each bin's frequency, from the bins of vector whose frequency
// lies inside the spline's knot range; frequencyTable holds the frequency of every bin and is as
// long as vector (TAVOLAR_PARAMETER_ASSERT). The range runs from the first bin at or above the first
// knot up to, but not including, the last bin at or below the last knot: that bin is deliberately
// left uncorrected. Bins outside are unchanged; nothing is extrapolated. In place.
void applyFrequencyDomainCorrectionFromSpline(VELTMutableRealVector& vector, const VELTSpline& spline,
                                              const VELTRealVector& frequencyTable);

} // namespace tavolar
