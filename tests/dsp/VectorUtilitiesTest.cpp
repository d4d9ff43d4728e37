// Decibels, SPL, phase unwrapping and wrapping, threshold searches, zero crossings, line fitting,
// index sets and the logarithmic axis mapping.

#include "dsp/Decibels.h"
#include "dsp/Fitting.h"
#include "dsp/Indexing.h"
#include "dsp/LogMapping.h"
#include "dsp/Phase.h"
#include "dsp/SPL.h"
#include "dsp/Search.h"
#include "dsp/ZeroCrossing.h"
#include "platform/Assertions.h"

#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <random>

namespace tavolar {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

TEST(Decibels, LinearValuesToDecibelsAndBack) {
    // Zero reads as the smallest normal float: 20 log10(2^-126), not minus infinity; negative values
    // have no level.
    const VELTRealVector linear{1.0f, 10.0f, 0.5f, 1e-3f, 0.0f, -1.0f};
    const float decibels[] = {0.0f, 20.0f, -6.0206f, -60.0f, -758.5956f, kNaN};
    auto magnitudes = linear, powers = linear;
    convertAbsToMagnitude(magnitudes);
    convertAbsToPower(powers);
    auto linearFromMagnitudes = magnitudes, linearFromPowers = powers;
    convertMagnitudeToAbs(linearFromMagnitudes);
    convertPowerToAbs(linearFromPowers);
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_NEAR(magnitudes[i], decibels[i], 1e-3) << i;
        EXPECT_NEAR(powers[i], decibels[i] / 2, 1e-3) << i;
        EXPECT_NEAR(linearFromMagnitudes[i], linear[i], 1e-5 * linear[i]) << i;
        EXPECT_NEAR(linearFromPowers[i], linear[i], 1e-5 * linear[i]) << i;
    }
    EXPECT_NEAR(magnitudes[4], decibels[4], 1e-3);
    EXPECT_NEAR(powers[4], decibels[4] / 2, 1e-3);
    EXPECT_TRUE(std::isnan(magnitudes[5]) && std::isnan(powers[5]));
}

TEST(Decibels, SoundPressureLevelShiftsToTheCalibratorLevel) {
    VELTRealVector linear{1.0f, 0.1f, 0.0f};
    auto withoutReference = linear;
    convertAbsToMagnitudeWithReference(withoutReference, 0.0f);
    EXPECT_EQ(withoutReference[0], 94.0f);
    EXPECT_NEAR(withoutReference[1], 74.0, 1e-4);
    EXPECT_NEAR(withoutReference[2], 94.0 - 758.6, 0.01);
    // A signal at the reference level reads 94 dB.
    VELTRealVector atReference{std::pow(10.0f, -12.0f / 20.0f)};
    convertAbsToMagnitudeWithReference(atReference, -12.0f);
    EXPECT_NEAR(atReference[0], 94.0, 1e-4);
}

TEST(Phase, UnwrappingJudgesEachStepAgainstThePreviousUnwrappedValue) {
    auto unwrapped = unwrappedPhaseRadians(VELTRealVector{3.0f, -3.0f});
    ASSERT_EQ(unwrapped.length(), 2u);
    EXPECT_EQ(unwrapped[0], 3.0f);
    EXPECT_FLOAT_EQ(unwrapped[1], 3.2831855f);

    // Linear phases of a pure delay, wrapped by atan2, come back as the straight lines they were,
    // across many turns in either direction.
    for (double slope : {-0.7, 0.31, -2.9}) {
        const std::size_t length = 500;
        VELTRealVector wrapped(length);
        for (std::size_t i = 0; i < length; ++i) {
            const double phase = slope * static_cast<double>(i) + 0.2;
            wrapped[i] = static_cast<float>(std::atan2(std::sin(phase), std::cos(phase)));
        }
        unwrapped = unwrappedPhaseRadians(wrapped);
        // Float rounding of the accumulated turns grows with the value; a missed turn would be 2 pi.
        for (std::size_t i = 0; i < length; ++i) {
            const double expected = slope * static_cast<double>(i) + 0.2;
            ASSERT_NEAR(unwrapped[i], expected, 2e-3 + 2e-5 * std::fabs(expected)) << slope << " at " << i;
        }
    }

    EXPECT_EQ(unwrappedPhaseRadians(VELTRealVector()).length(), 0u);
    EXPECT_EQ(unwrappedPhaseRadians(VELTRealVector{-2.5f}), VELTRealVector{-2.5f});
    // Values that are no phases at all finish in bounded time and spoil nothing before them.
    unwrapped = unwrappedPhaseRadians(VELTRealVector{0.5f, 1e30f, kInfinity, kNaN, 0.25f});
    EXPECT_EQ(unwrapped[0], 0.5f);
    EXPECT_EQ(unwrapped.length(), 5u);
}

TEST(Phase, WrappingDegreesLeavesTheFirstComponentAndTheLimits) {
    VELTRealVector degrees{400.0f, 400.0f, -190.0f, 180.0f, -180.0f, 540.0f, -900.0f, 1000.5f, 179.0f};
    wrapPhaseDegrees(degrees);
    const VELTRealVector expected{400.0f, 40.0f, 170.0f, 180.0f, -180.0f, 180.0f, -180.0f, -79.5f, 179.0f};
    EXPECT_EQ(degrees, expected);

    VELTRealVector extreme{0.0f, 3.6e9f + 90.0f, -1e30f, kInfinity, kNaN};
    wrapPhaseDegrees(extreme);
    EXPECT_LE(std::fabs(extreme[1]), 180.0f);
    EXPECT_LE(std::fabs(extreme[2]), 180.0f);
    EXPECT_EQ(extreme[3], kInfinity);
    EXPECT_TRUE(std::isnan(extreme[4]));
}

TEST(Search, ThresholdSearchesInBothDirections) {
    const VELTRealVector falling{2.0f, 1.0f, 0.0f};
    // "Less than" is deliberately inclusive.
    EXPECT_EQ(indexOfFirstComponentLessThan(falling, 1.0f), 1u);
    EXPECT_EQ(indexOfFirstComponentLessThanOrEqualTo(falling, 1.0f), 1u);
    EXPECT_EQ(indexOfFirstComponentLessThan(falling, -1.0f), kNotFound);

    const VELTRealVector values{kNaN, 0.0f, 1.0f, 2.0f, 1.0f, kNaN};
    EXPECT_EQ(indexOfFirstComponentGreaterThan(values, 1.0f), 3u);
    EXPECT_EQ(indexOfFirstComponentGreaterThanOrEqualTo(values, 1.0f), 2u);
    EXPECT_EQ(indexOfFirstComponentGreaterThan(values, 2.0f), kNotFound);
    EXPECT_EQ(indexOfFirstComponentLessThanOrEqualTo(values, 5.0f), 1u);
    EXPECT_EQ(indexOfLastComponentLessThan(values, 1.0f), 1u);
    EXPECT_EQ(indexOfLastComponentLessThanOrEqualTo(values, 1.0f), 4u);
    EXPECT_EQ(indexOfLastComponentGreaterThan(values, 1.0f), 3u);
    EXPECT_EQ(indexOfLastComponentGreaterThanOrEqualTo(values, 1.0f), 4u);
    EXPECT_EQ(indexOfLastComponentLessThan(values, 0.0f), kNotFound);

    const VELTRealVector empty;
    for (auto search : {indexOfFirstComponentLessThan, indexOfFirstComponentLessThanOrEqualTo,
                        indexOfFirstComponentGreaterThan, indexOfFirstComponentGreaterThanOrEqualTo,
                        indexOfLastComponentLessThan, indexOfLastComponentLessThanOrEqualTo,
                        indexOfLastComponentGreaterThan, indexOfLastComponentGreaterThanOrEqualTo})
        EXPECT_EQ(search(empty, 0.0f), kNotFound);
}

TEST(ZeroCrossing, FirstChangeOfSideFromTheFirstComponent) {
    auto crossing = [](std::initializer_list<float> components) {
        std::int64_t index = 42;
        getZeroCrossingIndex(VELTRealVector(components), &index);
        return index;
    };
    EXPECT_EQ(crossing({0.0f, 0.0f, -1.0f}), 2);
    EXPECT_EQ(crossing({-1.0f, -2.0f}), -1);
    EXPECT_EQ(crossing({-1.0f, 0.0f}), 1); // zero is on the non-negative side
    EXPECT_EQ(crossing({1.0f, 2.0f, -0.0f, -3.0f}), 3);
    EXPECT_EQ(crossing({-1.0f, -2.0f, 3.0f}), 2);
    EXPECT_EQ(crossing({5.0f}), -1);
    EXPECT_EQ(crossing({}), -1);
}

TEST(Fitting, LeastSquaresLineAgainstADoublePrecisionFit) {
    float m = 0, b = 0, r = 0;
    // Exact lines, rising and falling (r is |Pearson r|), and a flat one, whose r divides zero by zero.
    struct Case {
        VELTRealVector x, y;
        float m, b, r;
    };
    const Case lines[] = {{{0, 1, 2, 3, 4}, {1, 3, 5, 7, 9}, 2.0f, 1.0f, 1.0f},
                          {{0, 1, 2, 3}, {4, 1, -2, -5}, -3.0f, 4.0f, 1.0f},
                          {{1, 2, 3}, {5, 5, 5}, 0.0f, 5.0f, kNaN}};
    for (const Case& c : lines) {
        getSlope(&m, &b, &r, c.x, c.y);
        EXPECT_FLOAT_EQ(m, c.m);
        EXPECT_FLOAT_EQ(b, c.b);
        EXPECT_TRUE(std::isnan(c.r) ? std::isnan(r) : r == c.r) << r;
    }

    // Noisy data: slope, intercept and |Pearson r| worked out in double.
    std::mt19937 generator(3);
    std::normal_distribution<double> noise(0.0, 2.0);
    const std::size_t n = 200;
    VELTRealVector x(n), y(n);
    double sx = 0, sy = 0, sxx = 0, sxy = 0, syy = 0;
    for (std::size_t i = 0; i < n; ++i) {
        x[i] = static_cast<float>(i) * 0.1f;
        y[i] = static_cast<float>(-0.75 * x[i] + 3.0 + noise(generator));
        sx += x[i], sy += y[i], sxx += double(x[i]) * x[i], sxy += double(x[i]) * y[i],
            syy += double(y[i]) * y[i];
    }
    const double slope = (n * sxy - sx * sy) / (n * sxx - sx * sx);
    const double pearson = (n * sxy - sx * sy) / std::sqrt((n * sxx - sx * sx) * (n * syy - sy * sy));
    getSlope(&m, &b, &r, x, y);
    EXPECT_NEAR(m, slope, 1e-4);
    EXPECT_NEAR(b, (sy - slope * sx) / n, 1e-3);
    EXPECT_NEAR(r, std::fabs(pearson), 1e-4);
    getSlope(&m, &b, nullptr, x, y); // r is optional
    EXPECT_NEAR(m, slope, 1e-4);
}

TEST(Indexing, PositionInAnIndexSet) {
    const IndexSet set{9, 3, 7};
    EXPECT_EQ(indexAtIndex(set, 0), 3u);
    EXPECT_EQ(indexAtIndex(set, 1), 7u);
    EXPECT_EQ(indexAtIndex(set, 2), 9u);
    EXPECT_EQ(indexAtIndex(set, 3), kNotFound);
}

TEST(LogMapping, FrequenciesOntoAxisPoints) {
    SLogMapping* mapping = SLogMappingCreate();
    ASSERT_NE(mapping, nullptr);
    // Points before values: the scale is recomputed by every setter.
    SLogMappingSetMinPoint(mapping, 0.0);
    SLogMappingSetMaxPoint(mapping, 300.0);
    SLogMappingSetMinValue(mapping, 20.0);
    SLogMappingSetMaxValue(mapping, 20000.0);
    EXPECT_NEAR(SLogMappingPointForValue(mapping, 200.0), 100.0, 1e-9);
    EXPECT_NEAR(SLogMappingPointForValue(mapping, 20000.0), 300.0, 1e-9);
    EXPECT_NEAR(SLogMappingValueForPoint(mapping, 200.0), 2000.0, 1e-9);

    // A shifted, reversed axis (points growing downward on screen).
    SLogMappingSetMinPoint(mapping, 500.0);
    SLogMappingSetMaxPoint(mapping, 200.0);
    EXPECT_NEAR(SLogMappingPointForValue(mapping, 2000.0), 300.0, 1e-9);

    // Equal logarithms give a scale of exactly 0.
    SLogMappingSetMaxValue(mapping, 20.0);
    EXPECT_EQ(mapping->scale, 0.0);
    SLogMappingDestroy(mapping);
    SLogMappingDestroy(nullptr);
}

} // namespace
} // namespace tavolar
