#include "dsp/Windowing.h"

#include "core/VELTWindow.h"
#include "platform/Assertions.h"

#include <cmath>
#include <cstddef>

namespace tavolar {

namespace {

constexpr float kTwoPi = 6.2831855f;

// Generalised cosine window a - (1 - a) cos(2 pi i / (N - 1)), the symmetric form.
void applyCosineWindow(VELTMutableRealVector& vector, float a) {
    const std::size_t length = vector.length();
    if (length == 0)
        return;
    float* x = vector.mutableComponents();
    const float denominator = static_cast<float>(length - 1);
    const float b = 1.0f - a;
    for (std::size_t i = 0; i < length; ++i)
        x[i] = x[i] * (a - b * std::cos(kTwoPi * static_cast<float>(i) / denominator));
}

// The second, falling half of the symmetric cosine window of length 2N.
void applyHalfCosineWindow(VELTMutableRealVector& vector, float a) {
    const std::size_t length = vector.length();
    if (length == 0)
        return;
    float* x = vector.mutableComponents();
    const float denominator = static_cast<float>(2 * length - 1);
    const float b = 1.0f - a;
    for (std::size_t i = 0; i < length; ++i)
        x[i] = x[i] * (a - b * std::cos(kTwoPi * static_cast<float>(length + i) / denominator));
}

// Raised-cosine gain of the j-th taper sample of a Bingham window of taper width W.
inline float binghamGain(std::int64_t j, float width) {
    return 0.5f * (1.0f - std::cos(kTwoPi * static_cast<float>(j) / width));
}

// Multiplies the last m components; the last one gets taper index 1.
void applyBinghamFallingTaper(float* x, std::int64_t length, std::int64_t m, float width) {
    for (std::int64_t j = m; j >= 1; --j)
        x[length - j] *= binghamGain(j, width);
}

void applyBinghamWindow(VELTMutableRealVector& vector, float fraction) {
    const auto length = static_cast<std::int64_t>(vector.length());
    const float lengthAsFloat = static_cast<float>(length);
    const auto m = static_cast<std::int64_t>(std::floor(0.5f * fraction * lengthAsFloat));
    if (m <= 0)
        return;
    const float width = (lengthAsFloat + 1.0f) * fraction;
    float* x = vector.mutableComponents();
    for (std::int64_t k = 0; k < m; ++k)
        x[k] *= binghamGain(k + 1, width);
    applyBinghamFallingTaper(x, length, m, width);
}

// The taper of a Bingham window of length 2N, of which only the falling end lies in the vector.
void applyHalfBinghamWindow(VELTMutableRealVector& vector, float fraction) {
    const auto length = static_cast<std::int64_t>(vector.length());
    const float doubledLength = static_cast<float>(2 * length);
    const auto m = static_cast<std::int64_t>(std::floor(0.5f * fraction * doubledLength));
    if (m <= 0)
        return;
    const float width = (doubledLength + 1.0f) * fraction;
    applyBinghamFallingTaper(vector.mutableComponents(), length, m, width);
}

constexpr float kHammingCoefficient = 0.54f;
constexpr float kHanningCoefficient = 0.5f;
constexpr float kBinghamFraction = 0.2f;

} // namespace

void applyHammingWindow(VELTMutableRealVector& vector) {
    applyCosineWindow(vector, kHammingCoefficient);
}
void applyHalfHammingWindow(VELTMutableRealVector& vector) {
    applyHalfCosineWindow(vector, kHammingCoefficient);
}
void applyHanningWindow(VELTMutableRealVector& vector) {
    applyCosineWindow(vector, kHanningCoefficient);
}
void applyHalfHanningWindow(VELTMutableRealVector& vector) {
    applyHalfCosineWindow(vector, kHanningCoefficient);
}
void applyBinghamWindow(VELTMutableRealVector& vector) {
    applyBinghamWindow(vector, kBinghamFraction);
}
void applyHalfBinghamWindow(VELTMutableRealVector& vector) {
    applyHalfBinghamWindow(vector, kBinghamFraction);
}

void applyWindowWithType(VELTMutableRealVector& vector, std::int64_t type) {
    switch (type) {
    case static_cast<std::int64_t>(VELTWindowType::Hamming):
        applyHammingWindow(vector);
        break;
    case static_cast<std::int64_t>(VELTWindowType::HalfHamming):
        applyHalfHammingWindow(vector);
        break;
    case static_cast<std::int64_t>(VELTWindowType::Hanning):
        applyHanningWindow(vector);
        break;
    case static_cast<std::int64_t>(VELTWindowType::HalfHanning):
        applyHalfHanningWindow(vector);
        break;
    case static_cast<std::int64_t>(VELTWindowType::Bingham):
        applyBinghamWindow(vector);
        break;
    case static_cast<std::int64_t>(VELTWindowType::HalfBingham):
        applyHalfBinghamWindow(vector);
        break;
    default: // rectangular, and any unknown stored value
        break;
    }
}

void applyWindowWithType(VELTMutableRealVector& vector, VELTWindowType type) {
    applyWindowWithType(vector, static_cast<std::int64_t>(type));
}

VELTMutableRealVector realVectorInWindow(const VELTRealVector& impulseResponse, const VELTWindow& window) {
    const auto length = static_cast<std::int64_t>(impulseResponse.length());
    const std::int64_t begin = window.begin();
    const std::int64_t end = window.end();
    if (begin >= end || end > length / 2)
        return VELTMutableRealVector();

    // A begin before the start of the circular vector cannot be cut out of it.
    constexpr const char* kImpossibleRange = "Impossible window range encountered.";
    VELTMutableRealVector segment;
    if (begin >= 0 && end >= 0 && begin + end <= length) {
        segment = impulseResponse.realVectorInRange(static_cast<std::size_t>(begin),
                                                    static_cast<std::size_t>(end - begin));
    } else if (begin < 0 && end < 0) {
        TAVOLAR_ASSERT(length + begin >= 0, kImpossibleRange);
        segment = impulseResponse.realVectorInRange(static_cast<std::size_t>(length + begin),
                                                    static_cast<std::size_t>(end - begin));
    } else if (begin < 0) {
        // Runs across time zero: the pre-arrival part from the end of the vector, then the start.
        TAVOLAR_ASSERT(length + begin >= 0, kImpossibleRange);
        segment = impulseResponse.realVectorInRange(static_cast<std::size_t>(length + begin),
                                                    static_cast<std::size_t>(-begin));
        segment.appendVector(impulseResponse.realVectorInRangeNoCopy(0, static_cast<std::size_t>(end)));
    } else {
        TAVOLAR_ASSERT(false, kImpossibleRange);
    }
    applyWindowWithType(segment, window.type());
    return segment;
}

} // namespace tavolar
