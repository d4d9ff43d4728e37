// The per-component loops are maths kernels, vectorised with a remainder loop as the math layer's are.
// The option comes before the includes, so that the header functions inlined here are built alike.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC optimize("vect-cost-model=dynamic")
#endif

#include "dsp/Decibels.h"

#include <cmath>

namespace tavolar {

namespace {

// Built twice, for the x86-64 baseline and for processors with AVX2 and FMA (chosen when the program
// loads), as the waterfall's levels are; not in sanitizer builds, whose instrumented resolver would
// run before their runtime has started.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && !defined(__SANITIZE_THREAD__) &&      \
    !defined(__SANITIZE_ADDRESS__)
__attribute__((target_clones("arch=x86-64-v3", "default")))
#endif
void convertToDecibels(std::span<float> values, float factor) noexcept {
    // Reference 1.0: nothing to divide by.
    for (float& x : values)
        x = scaledLog10(x + kDecibelFloor, factor);
}

void convertFromDecibels(VELTMutableRealVector& vector, float divisor) noexcept {
    for (float& x : vector.mutableSpan())
        x = std::pow(10.0f, x / divisor);
}

} // namespace

void convertAbsToMagnitude(VELTMutableRealVector& vector) noexcept {
    convertToDecibels(vector.mutableSpan(), 20.0f);
}
void convertAbsToPower(VELTMutableRealVector& vector) noexcept {
    convertToDecibels(vector.mutableSpan(), 10.0f);
}
void convertMagnitudeToAbs(VELTMutableRealVector& vector) noexcept {
    convertFromDecibels(vector, 20.0f);
}
void convertPowerToAbs(VELTMutableRealVector& vector) noexcept {
    convertFromDecibels(vector, 10.0f);
}

} // namespace tavolar
