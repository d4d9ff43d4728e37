#include "dsp/Decibels.h"

#include <cmath>

namespace tavolar {

namespace {

void convertToDecibels(VELTMutableRealVector& vector, float factor) noexcept {
    constexpr float kReference = 1.0f;
    for (float& x : vector.mutableSpan())
        x = factor * std::log10((x + kDecibelFloor) / kReference);
}

void convertFromDecibels(VELTMutableRealVector& vector, float divisor) noexcept {
    for (float& x : vector.mutableSpan())
        x = std::pow(10.0f, x / divisor);
}

} // namespace

void convertAbsToMagnitude(VELTMutableRealVector& vector) noexcept {
    convertToDecibels(vector, 20.0f);
}
void convertAbsToPower(VELTMutableRealVector& vector) noexcept {
    convertToDecibels(vector, 10.0f);
}
void convertMagnitudeToAbs(VELTMutableRealVector& vector) noexcept {
    convertFromDecibels(vector, 20.0f);
}
void convertPowerToAbs(VELTMutableRealVector& vector) noexcept {
    convertFromDecibels(vector, 10.0f);
}

} // namespace tavolar
