// Window tapers against their closed forms worked out in double precision, and the cutting of
// window segments out of circular impulse responses.

#include "dsp/Windowing.h"

#include "core/VELTWindow.h"
#include "dsp/Sampling.h"
#include "platform/Assertions.h"

#include <cmath>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <numbers>

namespace tavolar {
namespace {

constexpr double kPi = std::numbers::pi;

// The gain of each taper at index i of a vector of length n, from the textbook formulas.
double cosineWindowGain(double a, std::size_t i, std::size_t n) {
    return a - (1.0 - a) * std::cos(2.0 * kPi * static_cast<double>(i) / static_cast<double>(n - 1));
}

double halfCosineWindowGain(double a, std::size_t i, std::size_t n) {
    // Index i of the vector is index n + i of a symmetric window of length 2n.
    return cosineWindowGain(a, n + i, 2 * n);
}

// Cosine-tapered flat top with taper width W = (L + 1) * 0.2 and m = floor(0.1 L) taper samples at
// each end; the half window is the tail of one of length 2n.
double binghamGain(std::size_t index, std::size_t windowLength, std::size_t offset) {
    const std::size_t position = index + offset;
    const auto m = static_cast<std::size_t>(std::floor(0.1 * static_cast<double>(windowLength)));
    const double width = (static_cast<double>(windowLength) + 1.0) * 0.2;
    auto raisedCosine = [&](std::size_t k) { return 0.5 * (1.0 - std::cos(2.0 * kPi * double(k) / width)); };
    if (position < m && offset == 0)
        return raisedCosine(position + 1);
    if (position >= windowLength - m)
        return raisedCosine(windowLength - position);
    return 1.0;
}

VELTRealVector ramp(std::size_t length) {
    return VELTRealVector::realVectorWithIntegersRangingFrom(0, static_cast<std::int64_t>(length));
}

// Every taper, through its own function and through the type dispatch, against its closed form.
TEST(Windowing, TapersMatchTheirClosedForms) {
    using Apply = void (*)(VELTMutableRealVector&);
    struct Taper {
        VELTWindowType type;
        Apply apply;
        std::function<double(std::size_t i, std::size_t n)> gain;
    };
    const Taper tapers[] = {
        {VELTWindowType::Hamming, applyHammingWindow,
         [](auto i, auto n) { return cosineWindowGain(0.54, i, n); }},
        {VELTWindowType::HalfHamming, applyHalfHammingWindow,
         [](auto i, auto n) { return halfCosineWindowGain(0.54, i, n); }},
        {VELTWindowType::Hanning, applyHanningWindow,
         [](auto i, auto n) { return cosineWindowGain(0.5, i, n); }},
        {VELTWindowType::HalfHanning, applyHalfHanningWindow,
         [](auto i, auto n) { return halfCosineWindowGain(0.5, i, n); }},
        {VELTWindowType::Bingham, applyBinghamWindow, [](auto i, auto n) { return binghamGain(i, n, 0); }},
        {VELTWindowType::HalfBingham, applyHalfBinghamWindow,
         [](auto i, auto n) { return binghamGain(i, 2 * n, n); }},
    };
    // Lengths either side of where the Bingham tapers gain their first sample (10, and 5 for the half).
    for (std::size_t length : {2u, 3u, 4u, 5u, 9u, 10u, 11u, 19u, 20u, 100u, 101u, 257u, 1024u}) {
        const auto input = ramp(length);
        for (const Taper& taper : tapers) {
            SCOPED_TRACE(testing::Message()
                         << "type " << static_cast<int>(taper.type) << ", length " << length);
            auto gains = VELTRealVector::onesWithLength(length);
            taper.apply(gains);
            for (std::size_t i = 0; i < length; ++i)
                ASSERT_NEAR(gains[i], taper.gain(i, length), 2e-6) << i;
            auto windowed = input;
            applyWindowWithType(windowed, static_cast<std::int64_t>(taper.type));
            for (std::size_t i = 0; i < length; ++i)
                ASSERT_EQ(windowed[i], input[i] * gains[i]) << i;
        }
    }
    // The oracle against hand-worked values: the symmetric windows end at 2a - 1, and on 100
    // components the Bingham taper sample 5 (indices 4 and 95) and the half taper's last are known.
    auto ones = VELTRealVector::onesWithLength(100);
    applyHammingWindow(ones);
    EXPECT_NEAR(ones[99], 0.08, 1e-6);
    EXPECT_NEAR(binghamGain(95, 100, 0), 0.5 * (1.0 - std::cos(2 * kPi * 5 / 20.2)), 1e-12);
    EXPECT_NEAR(binghamGain(99, 200, 100), 0.5 * (1.0 - std::cos(2 * kPi / 40.2)), 1e-12);
    EXPECT_EQ(binghamGain(79, 200, 100), 1.0);

    // Rectangular and every unknown stored value leave the data untouched, without error.
    const auto input = ramp(333);
    for (std::int64_t type : {std::int64_t{0}, std::int64_t{7}, std::int64_t{-1}, INT64_MAX, INT64_MIN}) {
        auto untouched = input;
        applyWindowWithType(untouched, type);
        EXPECT_EQ(untouched, input) << type;
    }
}

TEST(Windowing, EmptyVectorsAreLeftAlone) {
    // Every taper leaves an empty vector as it is (and must not touch memory).
    for (std::int64_t type = 0; type <= 6; ++type) {
        VELTRealVector empty;
        applyWindowWithType(empty, type);
        EXPECT_EQ(empty.length(), 0u);
    }
}

TEST(Windowing, CuttingWindowsOutOfCircularImpulseResponses) {
    const auto response = ramp(65536);
    // Across time zero: the last 100 samples, then the first 400.
    auto segment = realVectorInWindow(response, VELTWindow(-100, 400));
    ASSERT_EQ(segment.length(), 500u);
    for (std::size_t i = 0; i < 100; ++i)
        ASSERT_EQ(segment[i], static_cast<float>(65436 + i));
    for (std::size_t i = 100; i < 500; ++i)
        ASSERT_EQ(segment[i], static_cast<float>(i - 100));

    // Wholly after and wholly before time zero.
    segment = realVectorInWindow(response, VELTWindow(10, 20));
    ASSERT_EQ(segment.length(), 10u);
    EXPECT_EQ(segment[0], 10.0f);
    EXPECT_EQ(segment[9], 19.0f);
    segment = realVectorInWindow(response, VELTWindow(-300, -100));
    ASSERT_EQ(segment.length(), 200u);
    EXPECT_EQ(segment[0], 65236.0f);
    EXPECT_EQ(segment[199], 65435.0f);

    // The end may reach half the vector, not beyond; empty and inverted windows give nothing.
    EXPECT_EQ(realVectorInWindow(response, VELTWindow(0, 32768)).length(), 32768u);
    EXPECT_EQ(realVectorInWindow(response, VELTWindow(0, 32769)).length(), 0u);
    EXPECT_EQ(realVectorInWindow(response, VELTWindow(-10, 32769)).length(), 0u);
    EXPECT_EQ(realVectorInWindow(response, VELTWindow(5, 5)).length(), 0u);
    EXPECT_EQ(realVectorInWindow(response, VELTWindow(9, 5)).length(), 0u);
    // Half of an odd length rounds down.
    const auto odd = ramp(101);
    EXPECT_EQ(realVectorInWindow(odd, VELTWindow(0, 50)).length(), 50u);
    EXPECT_EQ(realVectorInWindow(odd, VELTWindow(0, 51)).length(), 0u);

    // The segment is tapered by the window's type.
    segment = realVectorInWindow(response,
                                 VELTWindow(-50, 150, static_cast<std::int64_t>(VELTWindowType::Hanning)));
    auto expected = response.realVectorInRange(65486, 50);
    expected.appendVector(response.realVectorInRange(0, 150));
    applyHanningWindow(expected);
    EXPECT_EQ(segment, expected);
}

TEST(Windowing, ImpossibleWindowRangesAreProgrammingErrors) {
    // A begin further before time zero than the vector is long cannot be cut out.
    const auto response = ramp(100);
    for (const VELTWindow& window : {VELTWindow(-150, -120), VELTWindow(-101, 10)})
        EXPECT_THROW(realVectorInWindow(response, window), AssertionFailure) << window.begin();
    EXPECT_THROW(realVectorInWindow(VELTRealVector(), VELTWindow(-1, 0)), AssertionFailure);
}

TEST(Sampling, SampleIndicesBecomeMilliseconds) {
    VELTRealVector indices{0.0f, 48.0f, 480.0f, -24.0f, 48000.0f};
    convertSampleIndicesToMillisecondsUsingSampleRate(indices, 48000);
    const float expected[] = {0.0f, 1.0f, 10.0f, -0.5f, 1000.0f};
    for (std::size_t i = 0; i < 5; ++i)
        EXPECT_NEAR(indices[i], expected[i], 1e-4f * (1.0f + std::fabs(expected[i]))) << i;
}

} // namespace
} // namespace tavolar
