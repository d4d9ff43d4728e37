#include "dsp/SweptSine.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace tavolar {

namespace {

// A sample count truncated toward zero; counts that are not positive (or not numbers) become 0.
std::int64_t truncatedSampleCount(double samples) noexcept {
    if (!(samples >= 1.0))
        return 0;
    if (samples >= static_cast<double>(std::numeric_limits<std::int64_t>::max()))
        return std::numeric_limits<std::int64_t>::max();
    return static_cast<std::int64_t>(samples);
}

} // namespace

VELTMutableRealVector realVectorWithLogSweepFrom(float startFrequency, float endFrequency, float duration,
                                                 float amplitude, float startSilence, float endSilence,
                                                 float leadIn, float leadOut, float sampleRate) {
    constexpr double kPi = 3.141592653589793;
    const double seconds = static_cast<double>(duration) / 1000.0;
    const double fs = sampleRate;
    const std::int64_t sweepLength = truncatedSampleCount(seconds * fs);

    auto sweep = VELTMutableRealVector::realVectorWithLength(static_cast<std::size_t>(sweepLength));
    if (sweepLength > 0) {
        // The frequency ratio is formed in single precision, as the stored stimuli were.
        const double rate = std::log(static_cast<double>(endFrequency / startFrequency));
        const double phaseScale = static_cast<double>(startFrequency) * (2.0 * seconds * kPi) / rate;
        float* x = sweep.mutableComponents();
        for (std::int64_t n = 0; n < sweepLength; ++n) {
            const double phase = phaseScale * (std::exp(static_cast<double>(n) / fs * rate / seconds) - 1.0);
            x[n] = amplitude * static_cast<float>(std::sin(phase));
        }
    }

    const std::int64_t leadingSilence = truncatedSampleCount(static_cast<double>(startSilence) / 1000.0 * fs);
    const std::int64_t trailingSilence = truncatedSampleCount(static_cast<double>(endSilence) / 1000.0 * fs);
    sweep.setLength(static_cast<std::size_t>(sweepLength + leadingSilence + trailingSilence));
    // The zero tail added by setLength is rotated round to the front to form the leading silence.
    sweep.circularShiftBy(static_cast<std::int32_t>(leadingSilence));
    return sweep;
}

} // namespace tavolar
