#include "dsp/Smoothing.h"

#include "math/AlignedBuffer.h"
#include "platform/Assertions.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace tavolar {

namespace {

// The means are averaged in a loop that the compiler vectorises (its limits and differences are
// independent from bin to bin; only the running sum before it is a chain). GCC's default cost model
// at -O2 leaves a loop with indexed loads alone, hence the option; on x86-64 the loop is also built
// for AVX2 and chosen when the processor has it, with its divisions four at a time. Neither build
// contracts anything, so both give the same bits. ThreadSanitizer instruments the clones' resolver,
// which runs before its runtime is up, so that build keeps the plain loop.
#if defined(__GNUC__) && !defined(__clang__)
#if defined(__x86_64__) && !defined(__SANITIZE_THREAD__)
#define TAVOLAR_SMOOTHING_LOOP                                                                               \
    __attribute__((target_clones("avx2", "default"), optimize("vect-cost-model=dynamic")))
#else
#define TAVOLAR_SMOOTHING_LOOP __attribute__((optimize("vect-cost-model=dynamic")))
#endif
#else
#define TAVOLAR_SMOOTHING_LOOP
#endif

// Bin i of out becomes the mean of its window: limits trunc(i * low) and trunc(i * high) of float
// products, at least 1 and at most the last bin, the difference of the running sums taken as Sum and
// the division in double. Positions are clamped below the index type's range before the
// conversion (the NaN of 0 * infinity included), which changes no limit as the last bin lies below.
// Written out in one body: the compiler would not inline a helper into a function of other options.
template <typename Index, typename Sum>
TAVOLAR_SMOOTHING_LOOP void averageWindows(float* __restrict out, const Sum* __restrict sums, Index length,
                                           float lowFactor, float highFactor) {
    constexpr float guard = sizeof(Index) == 4 ? 0x1p30f : 0x1p62f;
    const Index last = length - 1;
    for (Index i = 0; i < length; ++i) {
        const float position = static_cast<float>(i);
        float lowPosition = position * lowFactor, highPosition = position * highFactor;
        lowPosition = lowPosition < guard ? lowPosition : guard;
        highPosition = highPosition < guard ? highPosition : guard;
        auto low = static_cast<Index>(lowPosition), high = static_cast<Index>(highPosition);
        low = low < 1 ? 1 : low;
        high = high < 1 ? 1 : high;
        low = low < last ? low : last;
        high = high < last ? high : last;
        const Sum difference = sums[high] - sums[low - 1];
        out[i] = static_cast<float>(static_cast<double>(difference) / static_cast<double>(high - low + 1));
    }
}

// The means of every bin's window, in place, from running sums stored as Sum (float: the sums the
// stored analyses were made with; double: for values of a wide dynamic range).
template <typename Sum> void smoothInPlace(VELTMutableRealVector& vector, float fraction) {
    const std::size_t length = vector.length();
    if (length == 0)
        return;
    TAVOLAR_PARAMETER_ASSERT(length >= 2);
    TAVOLAR_PARAMETER_ASSERT(fraction >= 0.0f);
    const float lowFactor = std::exp2(-fraction);
    const float highFactor = std::exp2(fraction);
    float* x = vector.mutableComponents();
    AlignedBuffer<Sum> runningSums(length);
    Sum* sums = runningSums.data();
    // A chain of dependent double additions: it sets the pace, at one addition's latency per bin.
    double running = 0.0;
    for (std::size_t k = 0; k < length; ++k) {
        running += static_cast<double>(x[k]);
        sums[k] = static_cast<Sum>(running);
    }
    if (length <= (std::size_t{1} << 30))
        averageWindows<std::int32_t, Sum>(x, sums, static_cast<std::int32_t>(length), lowFactor, highFactor);
    else
        averageWindows<std::int64_t, Sum>(x, sums, static_cast<std::int64_t>(length), lowFactor, highFactor);
}

} // namespace

void smoothWithOctaveFraction(VELTMutableRealVector& vector, float fraction) {
    smoothInPlace<float>(vector, fraction);
}

void smoothPowersWithOctaveFraction(VELTMutableRealVector& vector, float fraction) {
    smoothInPlace<double>(vector, fraction);
}

namespace {

// Grid point k of fraction f, in float arithmetic throughout.
inline float gridFrequency(std::int64_t k, float fraction) noexcept {
    return 1000.0f * std::exp2(static_cast<float>(k) * fraction);
}

std::int64_t checkedIncrement(std::int64_t k) {
    TAVOLAR_ASSERT(k < std::numeric_limits<std::int64_t>::max(), "Smoothing grid counter overflow");
    return k + 1;
}

struct GridBounds {
    std::int64_t up;   // the first k >= 1 whose point lies at or above R / 2
    std::int64_t down; // the first k >= 1 whose point 1000 * 2^(-k f) lies at or below 10 Hz
};

GridBounds gridBounds(float fraction, float sampleRate) {
    TAVOLAR_PARAMETER_ASSERT(fraction > 0.0f && std::isfinite(fraction));
    const float nyquist = sampleRate * 0.5f;
    GridBounds bounds{1, 1};
    while (!(gridFrequency(bounds.up, fraction) >= nyquist))
        bounds.up = checkedIncrement(bounds.up);
    while (!(gridFrequency(-bounds.down, fraction) <= 10.0f))
        bounds.down = checkedIncrement(bounds.down);
    return bounds;
}

inline float binsPerHz(std::size_t length, float sampleRate) noexcept {
    return static_cast<float>(length) / (sampleRate * 0.5f);
}

} // namespace

VELTRealVector tableForSmoothedPointsWithFraction(float fraction, std::uint32_t sampleRate) {
    const GridBounds bounds = gridBounds(fraction, static_cast<float>(sampleRate));
    VELTRealVector table(static_cast<std::size_t>(bounds.down + bounds.up));
    float* out = table.mutableComponents();
    for (std::int64_t k = -(bounds.down - 1); k <= bounds.up; ++k)
        *out++ = gridFrequency(k, fraction);
    return table;
}

VELTRealVector smoothedPointsWithFraction(const VELTRealVector& vector, float fraction,
                                          std::uint32_t sampleRate) {
    TAVOLAR_PARAMETER_ASSERT(vector.length() > 0);
    VELTRealVector points = tableForSmoothedPointsWithFraction(fraction, sampleRate);
    const std::size_t last = vector.length() - 1;
    const float scale = binsPerHz(vector.length(), static_cast<float>(sampleRate));
    const float lastAsFloat = static_cast<float>(last);
    for (float& point : points.mutableSpan()) {
        const float index = std::rint(point * scale);
        // Compared as floats first, so that an index beyond the last bin (or the infinity of a zero
        // sample rate) never reaches the integer conversion.
        point = vector[index < lastAsFloat ? std::min(static_cast<std::size_t>(index), last) : last];
    }
    return points;
}

std::vector<std::int64_t> smoothedPointIndexesForFraction(const VELTRealVector& vector, float fraction,
                                                          std::int64_t sampleRate) {
    const GridBounds bounds = gridBounds(fraction, static_cast<float>(sampleRate));
    const auto last = static_cast<std::int64_t>(vector.length()) - 1;
    const float scale = binsPerHz(vector.length(), static_cast<float>(sampleRate));
    auto indexOf = [&](std::int64_t k) {
        const float index = std::rint(gridFrequency(k, fraction) * scale);
        TAVOLAR_ASSERT(std::isfinite(index) && index >= -0x1p63f && index < 0x1p63f,
                       "Smoothing grid index outside the signed 64-bit range");
        return std::min(last, static_cast<std::int64_t>(index));
    };
    std::vector<std::int64_t> indexes;
    indexes.reserve(static_cast<std::size_t>(bounds.down + bounds.up - 1));
    for (std::int64_t k = -bounds.down; k <= -1; ++k)
        indexes.push_back(indexOf(k));
    for (std::int64_t k = 1; k <= bounds.up - 1; ++k)
        indexes.push_back(indexOf(k));
    return indexes;
}

} // namespace tavolar
