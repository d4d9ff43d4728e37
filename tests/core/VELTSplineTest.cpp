#include "core/VELTSpline.h"

#include "core/ArchivedRealVector.h"
#include "platform/Assertions.h"
#include "platform/KeyedArchiver.h"

#include <atomic>
#include <cmath>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace tavolar {
namespace {

// The natural cubic spline by its definition, in double precision. With h[i] = x[i+1] - x[i] and
// s[i] = (y[i+1] - y[i]) / h[i], the second derivatives M at the knots satisfy, at every inner knot,
//   h[i-1] M[i-1] + 2 (h[i-1] + h[i]) M[i] + h[i] M[i+1] = 6 (s[i] - s[i-1]),
// with M = 0 at both ends; between (and beyond) the knots the value is the cubic of the interval.
double residualOfSecondDerivatives(const VELTRealVector& x, const VELTRealVector& y, const VELTRealVector& m,
                                   std::size_t i) {
    const double hLeft = double(x[i]) - x[i - 1], hRight = double(x[i + 1]) - x[i];
    const double rhs = 6.0 * ((double(y[i + 1]) - y[i]) / hRight - (double(y[i]) - y[i - 1]) / hLeft);
    return hLeft * m[i - 1] + 2.0 * (hLeft + hRight) * m[i] + hRight * m[i + 1] - rhs;
}

double cubicValue(const VELTRealVector& x, const VELTRealVector& y, const VELTRealVector& m, double X) {
    std::size_t i = 0;
    while (i + 2 < x.length() && X >= x[i + 1])
        ++i;
    const double h = double(x[i + 1]) - x[i], t = X - x[i];
    const double slope = (double(y[i + 1]) - y[i]) / h - h * (2.0 * m[i] + m[i + 1]) / 6.0;
    return y[i] + slope * t + m[i] / 2.0 * t * t + (double(m[i + 1]) - m[i]) / (6.0 * h) * t * t * t;
}

// A microphone-like response on logarithmically spaced, unevenly rounded frequencies.
struct MicrophoneCurve {
    VELTRealVector x, y;
};

MicrophoneCurve microphoneCurve() {
    MicrophoneCurve curve;
    for (int i = 0; i < 31; ++i) {
        const double f = std::round(20.0 * std::pow(10.0, i / 10.0) * 10.0) / 10.0;
        curve.x.appendComponent(static_cast<float>(f));
        curve.y.appendComponent(
            static_cast<float>(2.0 * std::sin(std::log10(f) * 2.3) - 0.4 * std::log10(f)));
    }
    return curve;
}

TEST(VELTSpline, IsTheNaturalSplineThroughItsKnots) {
    const MicrophoneCurve curve = microphoneCurve();
    VELTSpline spline(curve.x, curve.y);
    // Knots are reproduced; evaluation calculates the second derivatives.
    for (std::size_t i = 0; i < 31; ++i)
        EXPECT_NEAR(spline.valueForX(curve.x[i]), curve.y[i], 1e-4) << "knot " << i;
    const VELTRealVector& m = spline.y2();
    EXPECT_EQ(m[0], 0.0f);
    EXPECT_EQ(m[30], 0.0f);
    double largest = 0.0;
    for (std::size_t i = 0; i < 31; ++i)
        largest = std::max(largest, std::fabs(double(m[i])));
    for (std::size_t i = 1; i < 30; ++i)
        EXPECT_NEAR(residualOfSecondDerivatives(curve.x, curve.y, m, i), 0.0, 1e-4 * largest) << "knot " << i;

    // Between the knots and beyond the ends, the cubics of those second derivatives, to float accuracy
    // of a response of a few dB.
    for (double f = 10.0; f <= 30000.0; f *= 1.0137)
        ASSERT_NEAR(spline.valueForX(static_cast<float>(f)),
                    cubicValue(curve.x, curve.y, m, static_cast<float>(f)), 1e-3 + 1e-5 * f / 1000.0)
            << f;

    // Two knots give a straight line (no inner knot), also beyond the ends.
    VELTSpline line({10.0f, 20.0f}, {1.0f, 3.0f});
    EXPECT_FLOAT_EQ(line.valueForX(15.0f), 2.0f);
    EXPECT_FLOAT_EQ(line.valueForX(0.0f), -1.0f);
    EXPECT_FLOAT_EQ(line.valueForX(30.0f), 5.0f);
    EXPECT_TRUE(line.y2().isAllZeroes());
}

TEST(VELTSpline, ReadinessAndExplicitCalculation) {
    // For knots (0, 0), (1, 2), (3, 0): 2 (1 + 2) M1 = 6 ((0 - 2) / 2 - (2 - 0) / 1), so M1 = -3.
    VELTSpline spline({0.0f, 1.0f, 3.0f}, {0.0f, 2.0f, 0.0f});
    spline.calculateSpline();
    EXPECT_FLOAT_EQ(spline.y2()[1], -3.0f);
    spline.valueForX(0.5f);

    // Editing y after evaluation keeps the old second derivatives in force.
    spline.setY(VELTRealVector{0.0f, 4.0f, 0.0f});
    spline.valueForX(2.0f);
    EXPECT_FLOAT_EQ(spline.y2()[1], -3.0f);
}

TEST(VELTSpline, BadDataIsReportedWhenEvaluated) {
    // Coincident knots are accepted at creation and raise the named exception on evaluation.
    VELTSpline coincident({0.0f, 0.0f, 1.0f}, {1.0f, 2.0f, 3.0f});
    try {
        coincident.valueForX(-1.0f);
        FAIL() << "expected BadSplineData";
    } catch (const NamedException& exception) {
        EXPECT_EQ(exception.name(), "BadSplineData");
        EXPECT_EQ(exception.reason(), "Bad x data given in the spline");
    }
    VELTSpline flat({5.0f, 5.0f}, {0.0f, 1.0f});
    EXPECT_THROW(flat.valueForX(5.0f), NamedException);
}

// Threads released together onto fresh splines of many knots, round after round: every first
// evaluation waits for the one calculation of the second derivatives, or some thread reads them half
// made (and a sanitizer build sees the race itself).
TEST(VELTSpline, ConcurrentFirstEvaluationsAgree) {
    VELTRealVector x, y;
    for (int i = 0; i < 4000; ++i) {
        x.appendComponent(static_cast<float>(i));
        y.appendComponent(std::sin(0.01f * static_cast<float>(i)) + 0.001f * static_cast<float>(i % 7));
    }
    const VELTSpline reference(x, y);
    std::vector<float> points, expected;
    for (float f = 0.5f; f < 3999.0f; f += 97.3f) {
        points.push_back(f);
        expected.push_back(reference.valueForX(f));
    }
    std::atomic<int> mismatches{0};
    for (int round = 0; round < 200; ++round) {
        const VELTSpline shared(x, y);
        std::atomic<int> waiting{4};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&] {
                for (--waiting; waiting.load() > 0;)
                    std::this_thread::yield();
                for (std::size_t i = 0; i < points.size(); ++i)
                    mismatches += shared.valueForX(points[i]) != expected[i];
            });
        for (auto& thread : threads)
            thread.join();
    }
    EXPECT_EQ(mismatches.load(), 0);
}

// Writes a spline archive with whatever keys a test needs, its columns as vector objects or as bare
// float vectors, to check the reader's rules.
struct HandWrittenSpline {
    static constexpr std::string_view className = "VELTSpline";
    std::optional<std::string> version;
    std::optional<std::vector<float>> x, y;
    bool bare = false;
    void encodeWithCoder(KeyedArchiver& coder) const {
        if (version)
            coder.encodeString(*version, "VELTSplineVersion");
        for (const auto& [column, key] : {std::pair{&x, "X"}, std::pair{&y, "Y"}}) {
            if (!*column)
                continue;
            if (bare)
                coder.encodeFloatVector(**column, key);
            else
                coder.encodeObject(ArchivedRealVector(VELTRealVector(std::span<const float>(**column))), key);
        }
    }
    static HandWrittenSpline initWithCoder(KeyedUnarchiver&) { return {}; }
};

TEST(VELTSpline, ArchiveRoundTripAndDecodingRules) {
    VELTSpline spline({20.0f, 200.0f, 2000.0f, 20000.0f}, {-1.5f, 0.25f, 0.0f, 3.0f});
    const float value = spline.valueForX(700.0f);
    for (ArchiveFormat format : {ArchiveFormat::CBOR, ArchiveFormat::JSON}) {
        const auto data = KeyedArchiver::archivedDataWithRootObject(spline, format);
        auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<VELTSpline>(data, format);
        ASSERT_TRUE(decoded.has_value()) << decoded.error().localizedDescription;
        EXPECT_EQ(decoded->x(), spline.x());
        EXPECT_EQ(decoded->y(), spline.y());
        EXPECT_EQ(decoded->valueForX(700.0f), value);
    }

    // Both forms of the columns are read, and the version is not checked; absent columns give a
    // spline without knots.
    for (bool bare : {false, true}) {
        const auto other = KeyedArchiver::archivedDataWithRootObject(
            HandWrittenSpline{"0.9", std::vector<float>{1.0f, 2.0f}, std::vector<float>{3.0f, 4.0f}, bare});
        auto decodedOther = KeyedUnarchiver::unarchivedObjectOfClass<VELTSpline>(other);
        ASSERT_TRUE(decodedOther.has_value()) << "bare " << bare;
        EXPECT_FLOAT_EQ(decodedOther->valueForX(1.5f), 3.5f) << "bare " << bare;
    }
    auto bare = KeyedUnarchiver::unarchivedObjectOfClass<VELTSpline>(
        KeyedArchiver::archivedDataWithRootObject(HandWrittenSpline{}));
    ASSERT_TRUE(bare.has_value());
    EXPECT_EQ(bare->x().length(), 0u);

    // Columns of different lengths are a damaged archive, reported rather than crashing later.
    auto uneven = KeyedUnarchiver::unarchivedObjectOfClass<VELTSpline>(
        KeyedArchiver::archivedDataWithRootObject(HandWrittenSpline{
            "1.0", std::vector<float>{1.0f, 2.0f, 3.0f}, std::vector<float>{3.0f, 4.0f}, true}));
    EXPECT_FALSE(uneven.has_value());
}

} // namespace
} // namespace tavolar
