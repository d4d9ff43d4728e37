#include "dsp/Smoothing.h"

#include "math/AlignedBuffer.h"
#include "platform/Assertions.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

namespace tavolar {

namespace {

// Window limit of a bin: trunc(position), 0 replaced by 1, at most the last bin. Positions at or
// beyond 2^63 (and the NaN of 0 * infinity) never reach the conversion and give the last bin.
inline std::size_t windowLimit(float position, std::size_t last) noexcept {
    if (!(position < 0x1p63f))
        return last;
    const auto truncated = static_cast<std::size_t>(position);
    return std::min(truncated == 0 ? std::size_t{1} : truncated, last);
}

// Counts from which a mean divides by a cached reciprocal instead: below it, the quotient of a float
// by a count rounds to the same float either way, since it lies at least 2^-25 / count (relative)
// from any midpoint between floats, far more than the reciprocal's error of 2^-52.
constexpr std::size_t kLargestReciprocalCount = std::size_t{1} << 26;

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
    const std::size_t last = length - 1;
    float* x = vector.mutableComponents();
    AlignedBuffer<Sum> runningSums(length);
    Sum* sums = runningSums.data();

    // One pass: the running sum advances bin by bin (a chain of dependent double additions that
    // sets the pace), and every bin whose window has just been summed is averaged in its shadow.
    // A bin is averaged only once the sum has also passed the bin itself, so the value it
    // overwrites has been read.
    double running = 0.0;
    std::size_t next = 0;
    std::size_t nextHigh = windowLimit(0.0f * highFactor, last);
    std::size_t cachedCount = 0;
    double cachedReciprocal = 0.0;
    for (std::size_t k = 0; k < length; ++k) {
        running += static_cast<double>(x[k]);
        sums[k] = static_cast<Sum>(running);
        while (nextHigh <= k) {
            const float position = static_cast<float>(next);
            const std::size_t low = windowLimit(position * lowFactor, last);
            const std::size_t high = windowLimit(position * highFactor, last);
            const Sum difference = sums[high] - sums[low - 1];
            const std::size_t count = high - low + 1;
            if (count < kLargestReciprocalCount) {
                if (count != cachedCount) {
                    cachedCount = count;
                    cachedReciprocal = 1.0 / static_cast<double>(count);
                }
                x[next] = static_cast<float>(static_cast<double>(difference) * cachedReciprocal);
            } else {
                x[next] = static_cast<float>(static_cast<double>(difference) / static_cast<double>(count));
            }
            if (++next == length)
                break;
            nextHigh = std::max(windowLimit(static_cast<float>(next) * highFactor, last), next);
        }
    }
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
