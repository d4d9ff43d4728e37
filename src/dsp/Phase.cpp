#include "dsp/Phase.h"

#include <cmath>
#include <cstddef>

namespace tavolar {

VELTMutableRealVector unwrappedPhaseRadians(const VELTRealVector& phase) {
    constexpr float kPi = 3.1415927f;
    constexpr float kTwoPi = 6.2831855f;
    constexpr float kLargeStep = 1.0e4f;
    const std::size_t length = phase.length();
    VELTMutableRealVector unwrapped(length);
    if (length == 0)
        return unwrapped;
    const float* in = phase.components();
    float* out = unwrapped.mutableComponents();
    out[0] = in[0];
    float offset = 0.0f;
    float previous = in[0];
    for (std::size_t i = 1; i < length; ++i) {
        float step = offset + in[i] - previous;
        if (std::isfinite(step) && std::fabs(step) > kLargeStep) {
            // Not a phase from an argument: take the whole turns at once so the loops below end.
            const float turns = std::floor((step + kPi) / kTwoPi);
            offset -= turns * kTwoPi;
            step -= turns * kTwoPi;
        }
        // A step that is still huge (or not finite) has lost its fraction of a turn; leave it.
        if (std::fabs(step) <= kLargeStep) {
            while (step > kPi) {
                offset -= kTwoPi;
                step -= kTwoPi;
            }
            while (step < -kPi) {
                offset += kTwoPi;
                step += kTwoPi;
            }
        }
        previous = in[i] + offset;
        out[i] = previous;
    }
    return unwrapped;
}

void wrapPhaseDegrees(VELTMutableRealVector& phase) noexcept {
    // Beyond this, subtracting turns one at a time would take long or stop changing the value.
    constexpr float kLargeAngle = 1.0e6f;
    float* x = phase.mutableComponents();
    for (std::size_t i = 1; i < phase.length(); ++i) {
        if (!std::isfinite(x[i]))
            continue;
        if (std::fabs(x[i]) > kLargeAngle)
            x[i] = std::fmod(x[i], 360.0f); // so that the turn-by-turn loops below end
        if (x[i] > 180.0f) {
            while (x[i] > 180.0f)
                x[i] -= 360.0f;
        } else {
            while (x[i] < -180.0f)
                x[i] += 360.0f;
        }
    }
}

} // namespace tavolar
