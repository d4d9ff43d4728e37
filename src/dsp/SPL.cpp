#include "dsp/SPL.h"

#include "dsp/Decibels.h"

namespace tavolar {

void convertAbsToMagnitudeWithReference(VELTMutableRealVector& vector, float referenceLevel) noexcept {
    constexpr float kCalibratorLevel = 94.0f; // 1 Pa in dB SPL
    convertAbsToMagnitude(vector);
    vector.addScalar(kCalibratorLevel - referenceLevel);
}

} // namespace tavolar
