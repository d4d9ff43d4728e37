// The per-sample loops are maths kernels, vectorised with a remainder loop as the math layer's are.
// The option comes before the includes, so that the header functions inlined here are built alike.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC optimize("vect-cost-model=dynamic")
#endif

#include "graphcalc/FFTWaterfallWorkingSet.h"

#include "dsp/Decibels.h"
#include "dsp/Windowing.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <limits>
#include <mutex>

namespace tavolar {

namespace {

// The taper of a length and window type. The last one made is kept (only that one, so that the
// memory held stays one taper): a graph redrawn with the same settings makes its working sets again
// for every calculation, and the window's cosines cost as much as a few of its slices' transforms.
std::shared_ptr<const VELTRealVector> taperOf(std::size_t length, std::int64_t windowType) {
    static std::mutex mutex;
    static std::shared_ptr<const VELTRealVector> last;
    static std::int64_t lastType = 0;
    std::lock_guard lock(mutex);
    if (!last || last->length() != length || lastType != windowType) {
        VELTRealVector taper = VELTRealVector::onesWithLength(length);
        applyWindowWithType(taper, windowType);
        last = std::make_shared<const VELTRealVector>(std::move(taper));
        lastType = windowType;
    }
    return last;
}

} // namespace

FFTWaterfallWorkingSet::FFTWaterfallWorkingSet(std::size_t fftLength, std::int64_t windowType)
    : fftSetup_(VELTFFTInterleavedSetup::FFTSetupWithLength(fftLength)), windowType_(windowType),
      tapered_(windowType >= 1 && windowType <= 6), workingTD_(fftLength), workingFD_(fftLength / 2 + 1) {
    if (tapered_)
        taper_ = taperOf(fftLength, windowType);
}

void FFTWaterfallWorkingSet::loadTapered(std::span<const std::span<const float>> runs) noexcept {
    float* samples = workingTD_.mutableComponents();
    const std::size_t length = workingTD_.length();
    std::size_t at = 0;
    for (std::span<const float> run : runs) {
        const std::size_t count = std::min(run.size(), length - at);
        const float* from = run.data();
        if (tapered_) {
            const float* taper = taper_->components() + at;
            for (std::size_t i = 0; i < count; ++i)
                samples[at + i] = from[i] * taper[i];
        } else {
            std::copy_n(from, count, samples + at);
        }
        at += count;
    }
    std::fill(samples + at, samples + length, 0.0f);
}

// Built three times, for the x86-64 baseline, for processors with AVX2 and FMA and for those with
// AVX-512 (chosen when the program loads): twice the lanes of the baseline for the logarithm, and
// with AVX-512 mask registers for its selections, which halve its cost again. Not in sanitizer builds: the
// sanitizers' instrumented resolver would run while the program is loaded, before the sanitizer runtime has
// started, and crash.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && !defined(__SANITIZE_THREAD__) &&      \
    !defined(__SANITIZE_ADDRESS__)
__attribute__((target_clones("arch=x86-64-v4", "arch=x86-64-v3", "default")))
#endif
float FFTWaterfallWorkingSet::spectrumToLevels(std::span<float> levels) const noexcept {
    const float* spectrum = reinterpret_cast<const float*>(workingFD_.data()); // re, im, re, im, ...
    float* out = levels.data();
    // The loudest level is kept as an integer whose order is the floats' (the sign bit set flips the
    // other bits), not-a-number as the smallest: a maximum of integers vectorises, one of floats does
    // not (it is not associative where not-a-number may occur).
    constexpr std::int32_t kNone = std::numeric_limits<std::int32_t>::min();
    std::int32_t loudest = kNone;
    for (std::size_t k = 0, bins = fftLength() / 2 + 1; k < bins; ++k) {
        const float level =
            decibelsOfPower(spectrum[2 * k] * spectrum[2 * k] + spectrum[2 * k + 1] * spectrum[2 * k + 1]);
        out[k] = level;
        const auto bits = std::bit_cast<std::int32_t>(level);
        const std::int32_t nan = -static_cast<std::int32_t>((bits & 0x7FFFFFFF) > 0x7F800000);
        const std::int32_t ordered = ((bits ^ ((bits >> 31) & 0x7FFFFFFF)) & ~nan) | (kNone & nan);
        loudest = ordered > loudest ? ordered : loudest;
    }
    return loudest == kNone ? -std::numeric_limits<float>::infinity()
                            : std::bit_cast<float>(loudest ^ ((loudest >> 31) & 0x7FFFFFFF));
}

} // namespace tavolar
