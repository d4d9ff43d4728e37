// Real vectors: every kernel against a plain double-precision loop at awkward sizes, and the
// creation, access, filtering and combination operations against values worked out by hand.

#include "math/ReferenceTransforms.h"
#include "math/VELTRealVector.h"
#include "platform/Assertions.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>

namespace tavolar {
namespace {

// Sizes around every vector width and block boundary, so that a remainder loop that is wrong or
// missing shows.
const std::size_t kAwkwardSizes[] = {0, 1, 2, 3, 15, 65, 999, 4095};

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

VELTRealVector randomVector(std::size_t n, unsigned seed, double low = -1.0, double high = 1.0) {
    return VELTRealVector(reference::randomFloats(n, seed, low, high));
}

// Positions at which to plant a single odd component: all of them for short vectors, the ends and
// a block boundary for long ones.
std::vector<std::size_t> plantingPositions(std::size_t n) {
    if (n <= 65) {
        std::vector<std::size_t> all(n);
        for (std::size_t i = 0; i < n; ++i)
            all[i] = i;
        return all;
    }
    std::vector<std::size_t> some = {0, 7, 8, n / 2, n - 9, n - 1};
    for (std::size_t blockEdge : {std::size_t{1023}, std::size_t{1024}})
        if (blockEdge < n)
            some.push_back(blockEdge);
    return some;
}

TEST(RealVector, ElementwiseKernelsMatchPlainLoopsAtAwkwardSizes) {
    struct Unary {
        void (*apply)(VELTRealVector&);
        double (*expected)(double);
        double low, high;
    };
    const Unary unary[] = {
        {[](VELTRealVector& v) { v.scaleBy(-2.5f); }, [](double x) { return -2.5 * x; }, -1, 1},
        {[](VELTRealVector& v) { v.addScalar(0.75f); }, [](double x) { return x + 0.75; }, -1, 1},
        {[](VELTRealVector& v) { v.square(); }, [](double x) { return x * x; }, -1, 1},
        {[](VELTRealVector& v) { v.abs(); }, [](double x) { return std::abs(x); }, -1, 1},
        {[](VELTRealVector& v) { v.sqrt(); }, [](double x) { return std::sqrt(x); }, 0, 4},
        {[](VELTRealVector& v) { v.log(); }, [](double x) { return std::log(x); }, 0.01, 100},
        {[](VELTRealVector& v) { v.exp(); }, [](double x) { return std::exp(x); }, -5, 5},
    };
    for (std::size_t n : kAwkwardSizes) {
        SCOPED_TRACE(n);
        for (const Unary& operation : unary) {
            const VELTRealVector input = randomVector(n, 1 + n, operation.low, operation.high);
            VELTRealVector result = input;
            operation.apply(result);
            ASSERT_EQ(result.length(), n);
            for (std::size_t i = 0; i < n; ++i) {
                const auto expected = static_cast<float>(operation.expected(input[i]));
                ASSERT_NEAR(result[i], expected, 2e-7 * std::max(1.0f, std::abs(expected))) << i;
            }
        }

        const VELTRealVector b = randomVector(n, 100 + n);
        const VELTRealVector a = randomVector(n, 1 + n);
        VELTRealVector sum = a, difference = a, product = a, twice = a;
        sum.add(b);
        difference.subtract(b);
        product.multiplyBy(b);
        twice.add(twice); // the receiver as its own argument
        for (std::size_t i = 0; i < n; ++i) {
            ASSERT_EQ(sum[i], a[i] + b[i]);
            ASSERT_EQ(difference[i], a[i] - b[i]);
            ASSERT_EQ(product[i], a[i] * b[i]);
            ASSERT_EQ(twice[i], 2 * a[i]);
        }

        double expectedSum = 0, expectedSquares = 0, expectedDot = 0;
        for (std::size_t i = 0; i < n; ++i) {
            expectedSum += a[i];
            expectedSquares += static_cast<double>(a[i]) * a[i];
            expectedDot += static_cast<double>(a[i]) * b[i];
        }
        EXPECT_NEAR(a.sumOfElements(), expectedSum, 1e-5);
        EXPECT_NEAR(a.dotProductWithVector(b), expectedDot, 1e-5);
        EXPECT_NEAR(a.RMSAverage(), n ? std::sqrt(expectedSquares / n) : 0.0, 1e-6);

        VELTRealVector reversed = a;
        reversed.reverse();
        for (std::size_t i = 0; i < n; ++i)
            ASSERT_EQ(reversed[i], a[n - 1 - i]);
    }
}

TEST(RealVector, SumsKeepTheirDigitsOverLongVectors) {
    // 2^24 + 1 ones: a float accumulator would stop counting at 2^24.
    const VELTRealVector ones = VELTRealVector::onesWithLength((1u << 24) + 8);
    EXPECT_EQ(ones.sumOfElements(), static_cast<float>((1u << 24) + 8));
    EXPECT_FLOAT_EQ(ones.RMSAverage(), 1.0f);
}

TEST(RealVector, ExtremesFindTheFirstLocationAtEveryPosition) {
    for (std::size_t n : kAwkwardSizes) {
        if (n == 0)
            continue;
        SCOPED_TRACE(n);
        for (std::size_t position : plantingPositions(n)) {
            VELTRealVector v = randomVector(n, 200 + n);
            v[position] = 3.0f;
            float value;
            std::size_t location;
            v.getMaximum(value, location);
            ASSERT_EQ(value, 3.0f);
            ASSERT_EQ(location, position);
            EXPECT_EQ(v.max(), 3.0f);

            v[position] = -3.0f;
            v.getMinimum(value, location);
            ASSERT_EQ(value, -3.0f);
            ASSERT_EQ(location, position);
            EXPECT_EQ(v.min(), -3.0f);
            v.getMaximumMagnitude(value, &location);
            ASSERT_EQ(value, 3.0f);
            ASSERT_EQ(location, position);
            v.getMaximumMagnitude(value, nullptr); // the location is optional
            ASSERT_EQ(value, 3.0f);
        }
    }

    // Ties answer the first; NaNs are skipped; -inf is a value like any other; nothing but NaN
    // answers NaN at 0, and nothing at all 0 at 0. Columns: maximum, minimum, largest magnitude.
    const std::tuple<VELTRealVector, float, std::size_t, float, std::size_t, float, std::size_t> cases[] = {
        {{kNaN, 1.0f, 5.0f, kNaN, -7.0f, 5.0f, 7.0f}, 7.0f, 6, -7.0f, 4, 7.0f, 4},
        {{kNaN, kNaN}, kNaN, 0, kNaN, 0, kNaN, 0},
        {{kNaN, -kInfinity}, -kInfinity, 1, -kInfinity, 1, kInfinity, 1},
        {{}, 0.0f, 0, 0.0f, 0, 0.0f, 0},
    };
    auto same = [](float a, float b) { return a == b || (std::isnan(a) && std::isnan(b)); };
    for (const auto& [v, maximum, maximumAt, minimum, minimumAt, magnitude, magnitudeAt] : cases) {
        SCOPED_TRACE(testing::PrintToString(std::vector<float>(v.span().begin(), v.span().end())));
        float value;
        std::size_t location;
        v.getMaximum(value, location);
        EXPECT_TRUE(same(value, maximum)) << value;
        EXPECT_EQ(location, maximumAt);
        v.getMinimum(value, location);
        EXPECT_TRUE(same(value, minimum)) << value;
        EXPECT_EQ(location, minimumAt);
        v.getMaximumMagnitude(value, &location);
        EXPECT_TRUE(same(value, magnitude)) << value;
        EXPECT_EQ(location, magnitudeAt);
    }
}

TEST(RealVector, ZeroNaNAndFiniteTestsSeeEveryComponent) {
    for (std::size_t n : kAwkwardSizes) {
        SCOPED_TRACE(n);
        VELTRealVector zeros(n);
        EXPECT_TRUE(zeros.isAllZeroes());
        EXPECT_FALSE(zeros.isNAN());
        EXPECT_TRUE(zeros.isFinite());
        for (std::size_t position : plantingPositions(n)) {
            VELTRealVector v = zeros;
            v[position] = -0.0f;
            ASSERT_TRUE(v.isAllZeroes());
            v[position] = std::numeric_limits<float>::denorm_min();
            ASSERT_FALSE(v.isAllZeroes());
            v[position] = kNaN;
            ASSERT_FALSE(v.isAllZeroes());
            ASSERT_TRUE(v.isNAN());
            ASSERT_FALSE(v.isFinite());
            v[position] = -kInfinity;
            ASSERT_FALSE(v.isNAN());
            ASSERT_FALSE(v.isFinite());
            v[position] = std::numeric_limits<float>::max();
            ASSERT_TRUE(v.isFinite());
        }
    }
    VELTRealDoubleVector d(70);
    d[69] = std::numeric_limits<double>::infinity();
    EXPECT_FALSE(d.isAllZeroes() || d.isFinite() || d.isNAN());
    d[3] = std::nan("");
    EXPECT_TRUE(d.isNAN());
}

TEST(RealVector, CircularShiftRotatesByAnySignedAmount) {
    for (std::size_t n : {std::size_t{1}, std::size_t{2}, std::size_t{15}, std::size_t{999}}) {
        const VELTRealVector original =
            VELTRealVector::realVectorWithIntegersRangingFrom(0, static_cast<std::int64_t>(n));
        const auto length = static_cast<std::int64_t>(n);
        for (std::int64_t shift :
             {std::int64_t{0}, std::int64_t{1}, std::int64_t{-1}, std::int64_t{3}, std::int64_t{-3}, length,
              -length, 3 * length + 2, -(5 * length) - 4, std::numeric_limits<std::int64_t>::min()}) {
            SCOPED_TRACE(testing::Message() << "n " << n << " shift " << shift);
            VELTRealVector shifted = original;
            shifted.circularShiftBy(shift);
            VELTRealDoubleVector shiftedDouble = VELTRealDoubleVector::withRealVector(original);
            shiftedDouble.circularShiftBy(shift);
            // out[(i + shift) mod n] = in[i], the modulus taken in 128 bits so it cannot overflow.
            for (std::size_t i = 0; i < n; ++i) {
                const auto target =
                    static_cast<std::size_t>(((static_cast<__int128>(i) + shift) % length + length) % length);
                ASSERT_EQ(shifted[target], original[i]);
                ASSERT_EQ(shiftedDouble[target], original[i]);
            }
        }
    }
    VELTRealVector empty;
    empty.circularShiftBy(5);
    EXPECT_EQ(empty.length(), 0u);
}

TEST(RealVector, LengthChangesZeroExtendAndRangesCopyOrView) {
    VELTRealVector v = VELTRealVector::onesWithLength(10);
    v.scaleBy(7.0f);
    v.setLength(3);
    v.setLength(12);
    ASSERT_EQ(v.length(), 12u);
    for (std::size_t i = 0; i < 12; ++i)
        EXPECT_EQ(v[i], i < 3 ? 7.0f : 0.0f);
    VELTRealDoubleVector d{1.5, 2.5};
    d.setLength(4);
    EXPECT_EQ(d, (VELTRealDoubleVector{1.5, 2.5, 0.0, 0.0}));

    VELTRealVector grown{1.0f, 2.0f};
    grown.appendComponent(3.0f);
    grown.appendVector(VELTRealVector{4.0f});
    grown.appendVector(grown.span()); // part of itself, which growing may move
    EXPECT_EQ(grown, (VELTRealVector{1, 2, 3, 4, 1, 2, 3, 4}));

    const VELTRealVector ramp = VELTRealVector::realVectorWithIntegersRangingFrom(0, 8);
    EXPECT_EQ(ramp.realVectorInRange(2, 3), (VELTRealVector{2, 3, 4}));
    const auto view = ramp.realVectorInRangeNoCopy(6, 2);
    EXPECT_EQ(view.data(), ramp.components() + 6);
    EXPECT_EQ(view.size(), 2u);
    // The range check must not wrap round: a location near the largest size is refused.
    EXPECT_THROW(ramp.realVectorInRangeNoCopy(std::numeric_limits<std::size_t>::max(), 2),
                 ParameterAssertion);

    VELTRealVector target(6);
    target.replaceComponentsInRange(1, 2, VELTRealVector{8, 9, 10});
    EXPECT_EQ(target, (VELTRealVector{0, 8, 9, 0, 0, 0}));
}

TEST(RealVector, CreationHelpers) {
    EXPECT_EQ(VELTRealVector::realVectorWithIntegersRangingFrom(-2, 2), (VELTRealVector{-2, -1, 0, 1}));
    EXPECT_EQ(VELTRealVector::realVectorWithFrequencyTable(48000, 8),
              (VELTRealVector{0, 6000, 12000, 18000, 24000}));
    const VELTRealVector table = VELTRealVector::realVectorWithFrequencyTable(44100, 65536);
    ASSERT_EQ(table.length(), 32769u);
    EXPECT_FLOAT_EQ(table[1], 44100.0f / 65536.0f);
    EXPECT_EQ(table[32768], 22050.0f);

    // Floats stored big-endian: 1.0 is 3f 80 00 00, -2.5 is c0 20 00 00; a trailing byte is ignored.
    const unsigned char bytes[] = {0x3f, 0x80, 0x00, 0x00, 0xc0, 0x20, 0x00, 0x00, 0x11};
    VELTRealVector fromData = VELTRealVector::realVectorWithData(std::as_bytes(std::span(bytes)));
    ASSERT_EQ(fromData.length(), 2u);
    fromData.swapFloatsBigToHostIfRequired();
    EXPECT_EQ(fromData, (VELTRealVector{1.0f, -2.5f}));
}

TEST(RealVector, NormalisationAndResamplingInPlace) {
    VELTRealVector v{0.5f, -4.0f, 2.0f};
    v.normalize();
    EXPECT_EQ(v, (VELTRealVector{0.125f, -1.0f, 0.5f}));
    // A largest magnitude of 0 or infinity leaves the vector as it is.
    VELTRealVector zeros(3), infinite{0.5f, -kInfinity};
    zeros.normalize();
    infinite.normalize();
    EXPECT_TRUE(zeros.isAllZeroes());
    EXPECT_EQ(infinite, (VELTRealVector{0.5f, -kInfinity}));
    // An awkward peak still becomes exactly 1.0.
    VELTRealVector awkward = randomVector(999, 5);
    awkward[500] = 3.3333333f;
    awkward.normalize();
    EXPECT_EQ(awkward.max(), 1.0f);

    VELTRealVector levels{-10.0f, 3.0f, -80.0f};
    levels.normalizeDecibels();
    EXPECT_EQ(levels, (VELTRealVector{-13.0f, 0.0f, -83.0f}));

    VELTRealVector ramp = VELTRealVector::realVectorWithIntegersRangingFrom(0, 10);
    ramp.downsampleBy(3, 1);
    EXPECT_EQ(ramp, (VELTRealVector{1, 4, 7}));
    ramp.upsampleBy(3);
    EXPECT_EQ(ramp, (VELTRealVector{1, 0, 0, 4, 0, 0, 7, 0, 0}));
    ramp.downsampleBy(3, 0);
    EXPECT_EQ(ramp, (VELTRealVector{1, 4, 7}));
    ramp.downsampleBy(2, 5);
    EXPECT_EQ(ramp.length(), 0u);
    // A last stride shorter than the factor still gives its first component.
    ramp = VELTRealVector::realVectorWithIntegersRangingFrom(0, 10);
    ramp.downsampleBy(3, 0);
    EXPECT_EQ(ramp, (VELTRealVector{0, 3, 6, 9}));
}

TEST(RealVector, CombinationsOfVectors) {
    const std::vector<VELTRealVector> vectors = {randomVector(65, 1), randomVector(65, 2),
                                                 randomVector(65, 3)};
    const VELTRealVector sum = VELTRealVector::sumOfVectors(vectors);
    const VELTRealVector difference = VELTRealVector::differenceOfVectors(vectors);
    const VELTRealVector average = VELTRealVector::averageOfVectors(vectors);
    const VELTRealVector rms = VELTRealVector::RMSAverageOfVectors(vectors);
    for (std::size_t i = 0; i < 65; ++i) {
        const double a = vectors[0][i], b = vectors[1][i], c = vectors[2][i];
        EXPECT_NEAR(sum[i], a + b + c, 1e-6);
        EXPECT_NEAR(difference[i], a - b - c, 1e-6);
        EXPECT_NEAR(average[i], (a + b + c) / 3, 1e-6);
        EXPECT_NEAR(rms[i], std::sqrt((a * a + b * b + c * c) / 3), 1e-6);
    }
    EXPECT_EQ(VELTRealVector::averageOfVectors({}).length(), 0u);
    EXPECT_EQ(VELTRealVector::RMSAverageOfVectors(std::span(vectors).first(1)), [&] {
        VELTRealVector magnitude = vectors[0];
        magnitude.abs();
        return magnitude;
    }());
}

// y[n] = (sum b[k] x[n-k] - sum_{k>=1} a[k] y[n-k]) / a[0], with the given history for negative n.
std::vector<double> plainRecursion(const std::vector<double>& b, const std::vector<double>& a,
                                   const std::vector<double>& x, const std::vector<double>& pastX = {},
                                   const std::vector<double>& pastY = {}) {
    std::vector<double> y(x.size());
    auto input = [&](std::int64_t n) {
        return n >= 0 ? x[n] : (-n <= std::ssize(pastX) ? pastX[-n - 1] : 0.0);
    };
    auto output = [&](std::int64_t n) {
        return n >= 0 ? y[n] : (-n <= std::ssize(pastY) ? pastY[-n - 1] : 0.0);
    };
    for (std::int64_t n = 0; n < std::ssize(x); ++n) {
        double value = 0;
        for (std::int64_t k = 0; k < std::ssize(b); ++k)
            value += b[k] * input(n - k);
        for (std::int64_t k = 1; k < std::ssize(a); ++k)
            value -= a[k] * output(n - k);
        y[n] = value / a[0];
    }
    return y;
}

TEST(RealVector, FilterMatchesPlainRecursionIncludingInitialState) {
    // A resonant fourth-order section pair (poles at radius 0.95 and 0.9) and a FIR-only case.
    const std::vector<double> b = {0.2, -0.1, 0.05, 0.3, -0.02}, a = {1.0, -1.5, 1.3, -0.6, 0.15};
    const auto xValues = reference::randomValues(999, 7);
    const VELTRealVector x(std::vector<float>(xValues.begin(), xValues.end()));
    const std::vector<double> xs(x.span().begin(), x.span().end());

    auto expectClose = [](const VELTRealVector& y, const std::vector<double>& expected) {
        ASSERT_EQ(y.length(), expected.size());
        for (std::size_t n = 0; n < expected.size(); ++n)
            ASSERT_NEAR(y[n], expected[n], 1e-6 * std::max(1.0, std::abs(expected[n]))) << "sample " << n;
    };

    expectClose(VELTRealVector::filteredVector(VELTRealDoubleVector(b), VELTRealDoubleVector(a), x),
                plainRecursion(b, a, xs));
    // A leading coefficient other than 1 divides every coefficient.
    std::vector<double> b2 = b, a2 = a;
    for (double& c : b2)
        c *= 4;
    for (double& c : a2)
        c *= 4;
    expectClose(VELTRealVector::filteredVector(VELTRealDoubleVector(b2), VELTRealDoubleVector(a2), x),
                plainRecursion(b, a, xs));
    // Numerator longer than denominator: a pure FIR.
    expectClose(VELTRealVector::filteredVector(VELTRealDoubleVector(b), VELTRealDoubleVector{1.0}, x),
                plainRecursion(b, {1.0}, xs));

    // The initial state of the transposed direct form that continues a history of inputs and
    // outputs: w[i] = sum_{k > i} (b[k] x[i-k] - a[k] y[i-k]).
    const std::vector<double> pastX = {0.3, -0.7, 0.2, 0.9},
                              pastY = {1.1, -0.4, 0.6, 0.2}; // x[-1], x[-2], ...
    const std::size_t order = a.size() - 1;
    VELTRealDoubleVector state(order);
    for (std::size_t i = 0; i < order; ++i)
        for (std::size_t k = i + 1; k <= order; ++k)
            state[i] += b[k] * pastX[k - i - 1] - a[k] * pastY[k - i - 1];
    expectClose(VELTRealVector::filteredVector(VELTRealDoubleVector(b), VELTRealDoubleVector(a), x, &state),
                plainRecursion(b, a, xs, pastX, pastY));
}

} // namespace
} // namespace tavolar
