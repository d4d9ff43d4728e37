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
#include <random>
#include <vector>

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

VELTRealVector windowOfOnes(std::size_t length, const std::function<void(VELTRealVector&)>& apply) {
    auto vector = VELTRealVector::onesWithLength(length);
    apply(vector);
    return vector;
}

VELTRealVector randomVector(std::size_t length, unsigned seed) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> distribution(-1.0f, 1.0f);
    VELTRealVector vector(length);
    for (std::size_t i = 0; i < length; ++i)
        vector[i] = distribution(generator);
    return vector;
}

VELTRealVector ramp(std::size_t length) {
    VELTRealVector vector(length);
    for (std::size_t i = 0; i < length; ++i)
        vector[i] = static_cast<float>(i);
    return vector;
}

TEST(Windowing, CosineWindowsMatchTheirClosedForms) {
    for (std::size_t length : {2u, 3u, 100u, 101u, 1024u}) {
        SCOPED_TRACE(length);
        const auto hamming = windowOfOnes(length, [](auto& v) { applyHammingWindow(v); });
        const auto hanning = windowOfOnes(length, [](auto& v) { applyHanningWindow(v); });
        const auto halfHamming = windowOfOnes(length, [](auto& v) { applyHalfHammingWindow(v); });
        const auto halfHanning = windowOfOnes(length, [](auto& v) { applyHalfHanningWindow(v); });
        for (std::size_t i = 0; i < length; ++i) {
            EXPECT_NEAR(hamming[i], cosineWindowGain(0.54, i, length), 2e-6) << i;
            EXPECT_NEAR(hanning[i], cosineWindowGain(0.5, i, length), 2e-6) << i;
            EXPECT_NEAR(halfHamming[i], halfCosineWindowGain(0.54, i, length), 2e-6) << i;
            EXPECT_NEAR(halfHanning[i], halfCosineWindowGain(0.5, i, length), 2e-6) << i;
        }
        // Symmetric full windows, ends at 2a - 1; the half windows fall to 2a - 1 at their last sample.
        EXPECT_NEAR(hamming[0], 0.08, 1e-6);
        EXPECT_NEAR(hamming[length - 1], 0.08, 1e-6);
        EXPECT_NEAR(hanning[length - 1], 0.0, 1e-6);
        EXPECT_NEAR(halfHamming[length - 1], 0.08, 1e-6);
        EXPECT_EQ(halfHanning[length - 1], 0.0f);
        EXPECT_NEAR(halfHanning[0], 0.5 - 0.5 * std::cos(2 * kPi * length / (2.0 * length - 1)), 1e-6);
        EXPECT_GT(halfHanning[0], halfHanning[length - 1]);
    }
}

TEST(Windowing, DegenerateLengths) {
    // Length 0: every taper leaves the vector as it is (and must not touch memory).
    for (std::int64_t type = 0; type <= 6; ++type) {
        VELTRealVector empty;
        applyWindowWithType(empty, type);
        EXPECT_EQ(empty.length(), 0u);
    }
    // A single component: 0/0 in the full cosine windows' phase gives not-a-number, kept unguarded;
    // the half windows are well defined (the last sample of a length-2 window).
    auto single = windowOfOnes(1, [](auto& v) { applyHammingWindow(v); });
    EXPECT_TRUE(std::isnan(single[0]));
    single = windowOfOnes(1, [](auto& v) { applyHalfHanningWindow(v); });
    EXPECT_EQ(single[0], 0.0f);
    // Two components: Hamming scales both by 0.08, Hanning zeroes both.
    auto two = windowOfOnes(2, [](auto& v) { applyHammingWindow(v); });
    EXPECT_NEAR(two[0], 0.08f, 1e-6);
    EXPECT_NEAR(two[1], 0.08f, 1e-6);
    two = windowOfOnes(2, [](auto& v) { applyHanningWindow(v); });
    EXPECT_NEAR(two[0], 0.0f, 1e-7);
    EXPECT_NEAR(two[1], 0.0f, 1e-7);
}

TEST(Windowing, BinghamTapersTenPercentAtEachEnd) {
    for (std::size_t length : {10u, 11u, 19u, 20u, 100u, 257u, 4096u}) {
        SCOPED_TRACE(length);
        const auto bingham = windowOfOnes(length, [](auto& v) { applyBinghamWindow(v); });
        for (std::size_t i = 0; i < length; ++i)
            EXPECT_NEAR(bingham[i], binghamGain(i, length, 0), 2e-6) << i;
    }
    // Fewer than 10 components: no taper samples at all.
    for (std::size_t length : {1u, 2u, 9u}) {
        const auto input = randomVector(length, 7);
        auto output = input;
        applyBinghamWindow(output);
        EXPECT_EQ(output, input) << length;
    }
    // On 100 components indices 0-9 and 90-99 are tapered; 4 and 95 are the same taper sample.
    const auto bingham = windowOfOnes(100, [](auto& v) { applyBinghamWindow(v); });
    const double expected = 0.5 * (1.0 - std::cos(2 * kPi * 5 / 20.2));
    EXPECT_NEAR(bingham[4], expected, 1e-6);
    EXPECT_NEAR(bingham[95], expected, 1e-6);
    EXPECT_LT(bingham[9], 1.0f);
    EXPECT_EQ(bingham[10], 1.0f);
    EXPECT_EQ(bingham[89], 1.0f);
    EXPECT_LT(bingham[90], 1.0f);
}

TEST(Windowing, HalfBinghamTapersOnlyTheEnd) {
    for (std::size_t length : {5u, 6u, 100u, 1001u}) {
        SCOPED_TRACE(length);
        const auto half = windowOfOnes(length, [](auto& v) { applyHalfBinghamWindow(v); });
        for (std::size_t i = 0; i < length; ++i)
            EXPECT_NEAR(half[i], binghamGain(i, 2 * length, length), 2e-6) << i;
    }
    // 100 components: the last 20 (a 10 % taper of a window of 200) fall, the first 80 are untouched.
    const auto half = windowOfOnes(100, [](auto& v) { applyHalfBinghamWindow(v); });
    EXPECT_EQ(half[79], 1.0f);
    EXPECT_LT(half[80], 1.0f);
    EXPECT_NEAR(half[99], 0.5 * (1.0 - std::cos(2 * kPi / 40.2)), 1e-7);
    // Four components: floor(0.1 * 8) = 0 taper samples.
    auto four = VELTRealVector::onesWithLength(4);
    applyHalfBinghamWindow(four);
    EXPECT_EQ(four, VELTRealVector::onesWithLength(4));
}

TEST(Windowing, WindowTypeDispatchMultipliesTheData) {
    const std::vector<std::function<void(VELTRealVector&)>> tapers = {
        [](auto& v) { applyHammingWindow(v); }, [](auto& v) { applyHalfHammingWindow(v); },
        [](auto& v) { applyHanningWindow(v); }, [](auto& v) { applyHalfHanningWindow(v); },
        [](auto& v) { applyBinghamWindow(v); }, [](auto& v) { applyHalfBinghamWindow(v); }};
    const auto input = randomVector(333, 42);
    for (std::int64_t type = 1; type <= 6; ++type) {
        SCOPED_TRACE(type);
        const auto gains = windowOfOnes(input.length(), tapers[type - 1]);
        auto windowed = input;
        applyWindowWithType(windowed, type);
        auto byEnumeration = input;
        applyWindowWithType(byEnumeration, static_cast<VELTWindowType>(type));
        EXPECT_EQ(windowed, byEnumeration);
        for (std::size_t i = 0; i < input.length(); ++i)
            ASSERT_EQ(windowed[i], input[i] * gains[i]) << i;
    }
    // Rectangular and every unknown stored value leave the data untouched, without error.
    for (std::int64_t type : {std::int64_t{0}, std::int64_t{7}, std::int64_t{-1}, INT64_MAX, INT64_MIN}) {
        auto untouched = input;
        applyWindowWithType(untouched, type);
        EXPECT_EQ(untouched, input) << type;
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
    for (const VELTWindow& window : {VELTWindow(-150, -120), VELTWindow(-101, 10)}) {
        try {
            realVectorInWindow(response, window);
            ADD_FAILURE() << "no assertion for begin " << window.begin();
        } catch (const AssertionFailure& failure) {
            EXPECT_STREQ(failure.what(), "Impossible window range encountered.");
        }
    }
    EXPECT_THROW(realVectorInWindow(VELTRealVector(), VELTWindow(-1, 0)), AssertionFailure);
}

TEST(Sampling, SampleIndicesBecomeMilliseconds) {
    VELTRealVector indices{0.0f, 48.0f, 480.0f, -24.0f, 48000.0f};
    convertSampleIndicesToMillisecondsUsingSampleRate(indices, 48000);
    const float expected[] = {0.0f, 1.0f, 10.0f, -0.5f, 1000.0f};
    for (std::size_t i = 0; i < 5; ++i)
        EXPECT_NEAR(indices[i], expected[i], 1e-4f * (1.0f + std::fabs(expected[i]))) << i;
    // The factor is formed in float: 1000 / 44100 rounded once, then every index multiplied by it.
    VELTRealVector one{1.0f};
    convertSampleIndicesToMillisecondsUsingSampleRate(one, 44100);
    EXPECT_EQ(one[0], 1000.0f / 44100.0f);
}

} // namespace
} // namespace tavolar
