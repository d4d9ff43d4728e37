#include "core/VELTSpline.h"

#include "platform/Assertions.h"
#include "platform/KeyedArchiver.h"

#include <cmath>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace tavolar {
namespace {

// The natural cubic spline in double precision, written from its definition: with h[i] = x[i+1] - x[i],
// the second derivatives M satisfy h[i-1] M[i-1] + 2 (h[i-1] + h[i]) M[i] + h[i] M[i+1] =
// 6 ((y[i+1] - y[i]) / h[i] - (y[i] - y[i-1]) / h[i-1]) for the inner knots, with M = 0 at both
// ends. Solved by the Thomas algorithm.
struct ReferenceSpline {
    std::vector<double> x, y, m;

    ReferenceSpline(std::vector<double> xs, std::vector<double> ys) : x(std::move(xs)), y(std::move(ys)) {
        const std::size_t n = x.size();
        m.assign(n, 0.0);
        if (n < 3)
            return;
        const std::size_t inner = n - 2;
        std::vector<double> lower(inner), diagonal(inner), upper(inner), rhs(inner);
        for (std::size_t k = 0; k < inner; ++k) {
            const std::size_t i = k + 1;
            const double hLeft = x[i] - x[i - 1];
            const double hRight = x[i + 1] - x[i];
            lower[k] = hLeft;
            diagonal[k] = 2.0 * (hLeft + hRight);
            upper[k] = hRight;
            rhs[k] = 6.0 * ((y[i + 1] - y[i]) / hRight - (y[i] - y[i - 1]) / hLeft);
        }
        for (std::size_t k = 1; k < inner; ++k) {
            const double factor = lower[k] / diagonal[k - 1];
            diagonal[k] -= factor * upper[k - 1];
            rhs[k] -= factor * rhs[k - 1];
        }
        m[inner] = rhs[inner - 1] / diagonal[inner - 1];
        for (std::size_t k = inner - 1; k-- > 0;)
            m[k + 1] = (rhs[k] - upper[k] * m[k + 2]) / diagonal[k];
    }

    // The cubic of interval i, also used beyond the ends.
    double valueInInterval(std::size_t i, double X) const {
        const double h = x[i + 1] - x[i];
        const double t = X - x[i];
        const double slope = (y[i + 1] - y[i]) / h - h * (2.0 * m[i] + m[i + 1]) / 6.0;
        return y[i] + slope * t + m[i] / 2.0 * t * t + (m[i + 1] - m[i]) / (6.0 * h) * t * t * t;
    }

    double value(double X) const {
        std::size_t i = 0;
        while (i + 2 < x.size() && X >= x[i + 1])
            ++i;
        return valueInInterval(i, X);
    }
};

VELTRealVector floats(const std::vector<double>& values) {
    VELTRealVector vector(values.size());
    for (std::size_t i = 0; i < values.size(); ++i)
        vector[i] = static_cast<float>(values[i]);
    return vector;
}

// Knots the float spline sees, as doubles, so the reference works from the same data.
std::vector<double> doubles(const VELTRealVector& vector) {
    return std::vector<double>(vector.components(), vector.components() + vector.length());
}

// A microphone-like response on logarithmically spaced, unevenly rounded frequencies, with its
// double-precision reference built from the very same float knots.
struct MicrophoneCurve {
    VELTRealVector x, y;
    ReferenceSpline reference;
};

MicrophoneCurve microphoneCurve() {
    std::vector<double> x, y;
    for (int i = 0; i < 31; ++i) {
        const double f = std::round(20.0 * std::pow(10.0, i / 10.0) * 10.0) / 10.0;
        x.push_back(f);
        y.push_back(2.0 * std::sin(std::log10(f) * 2.3) - 0.4 * std::log10(f));
    }
    VELTRealVector xf = floats(x), yf = floats(y);
    return {xf, yf, ReferenceSpline(doubles(xf), doubles(yf))};
}

TEST(VELTSpline, MatchesNaturalSplineComputedInDoublePrecision) {
    const MicrophoneCurve curve = microphoneCurve();
    const ReferenceSpline* reference = &curve.reference;
    VELTSpline spline(curve.x, curve.y);

    EXPECT_FALSE(spline.ready());
    ASSERT_EQ(spline.y2().length(), 31u);
    EXPECT_TRUE(spline.y2().isAllZeroes());

    // Knots are reproduced, and every point between them agrees with the double-precision spline to
    // float accuracy of a response of a few dB (1e-3 dB is far below anything audible or plotted).
    for (std::size_t i = 0; i < reference->x.size(); ++i)
        EXPECT_NEAR(spline.valueForX(static_cast<float>(reference->x[i])), reference->y[i], 1e-4)
            << "knot " << i;
    EXPECT_TRUE(spline.ready());
    double worst = 0.0;
    for (double f = 20.0; f <= 20000.0; f *= 1.0137) {
        worst = std::max(worst, std::fabs(spline.valueForX(static_cast<float>(f)) -
                                          reference->value(static_cast<float>(f))));
    }
    EXPECT_LT(worst, 1e-3);

    // The second derivatives themselves, relative to their own scale.
    double largest = 0.0;
    for (double m : reference->m)
        largest = std::max(largest, std::fabs(m));
    for (std::size_t i = 0; i < reference->m.size(); ++i)
        EXPECT_NEAR(spline.y2()[i], reference->m[i], 1e-4 * largest) << "knot " << i;
    EXPECT_EQ(spline.y2()[0], 0.0f);
    EXPECT_EQ(spline.y2()[30], 0.0f);

    // Beyond the ends the end cubics carry on.
    EXPECT_NEAR(spline.valueForX(10.0f), reference->valueInInterval(0, 10.0), 1e-3);
    EXPECT_NEAR(spline.valueForX(30000.0f), reference->valueInInterval(29, 30000.0), 1e-2);

    const VELTRealVector xs{15.0f, 20.0f, 1234.5f, 19999.0f, 25000.0f};
    const VELTRealVector values = spline.valuesForXVector(xs);
    ASSERT_EQ(values.length(), xs.length());
    for (std::size_t i = 0; i < xs.length(); ++i)
        EXPECT_EQ(values[i], spline.valueForX(xs[i]));
}

TEST(VELTSpline, ThreeKnotCurveAndLinearReproduction) {
    VELTSpline peak({100.0f, 1000.0f, 10000.0f}, {0.0f, 6.0f, 0.0f});
    EXPECT_FLOAT_EQ(peak.valueForX(1000.0f), 6.0f);
    EXPECT_FLOAT_EQ(peak.valueForX(100.0f), 0.0f);
    EXPECT_FLOAT_EQ(peak.valueForX(10000.0f), 0.0f);
    const ReferenceSpline reference({100.0, 1000.0, 10000.0}, {0.0, 6.0, 0.0});
    const float below = peak.valueForX(50.0f);
    EXPECT_NE(below, 0.0f);
    EXPECT_NEAR(below, reference.valueInInterval(0, 50.0), 1e-4);
    EXPECT_NEAR(peak.valueForX(5000.0f), reference.value(5000.0), 1e-4);

    // Two knots give a straight line (all second derivatives zero), also beyond the ends.
    VELTSpline line({10.0f, 20.0f}, {1.0f, 3.0f});
    EXPECT_FLOAT_EQ(line.valueForX(15.0f), 2.0f);
    EXPECT_FLOAT_EQ(line.valueForX(0.0f), -1.0f);
    EXPECT_FLOAT_EQ(line.valueForX(30.0f), 5.0f);
    EXPECT_TRUE(line.y2().isAllZeroes());

    // A natural spline reproduces any straight line through unevenly spaced knots.
    VELTSpline ramp({1.0f, 2.0f, 5.0f, 5.5f, 9.0f}, {3.0f, 5.0f, 11.0f, 12.0f, 19.0f});
    for (float X : {0.0f, 1.5f, 3.3f, 5.25f, 8.0f, 12.0f})
        EXPECT_NEAR(ramp.valueForX(X), 2.0f * X + 1.0f, 1e-5f) << X;
}

TEST(VELTSpline, ReadinessAndExplicitCalculation) {
    VELTSpline spline({0.0f, 1.0f, 3.0f}, {0.0f, 2.0f, 0.0f});
    spline.calculateSpline();
    // calculateSpline fills y2 but only evaluation marks the spline ready.
    EXPECT_FALSE(spline.ready());
    EXPECT_NE(spline.y2()[1], 0.0f);
    const ReferenceSpline reference({0.0, 1.0, 3.0}, {0.0, 2.0, 0.0});
    EXPECT_NEAR(spline.y2()[1], reference.m[1], 1e-6);
    spline.valueForX(0.5f);
    EXPECT_TRUE(spline.ready());

    // Editing y keeps ready: the old second derivatives stay in force.
    const VELTRealVector y2Before = spline.y2();
    spline.setY(VELTRealVector{0.0f, 4.0f, 0.0f});
    EXPECT_TRUE(spline.ready());
    spline.valueForX(2.0f);
    EXPECT_EQ(spline.y2(), y2Before);

    // Copies carry the calculated state.
    const VELTSpline copy = spline;
    EXPECT_TRUE(copy.ready());
    EXPECT_EQ(copy.y2(), spline.y2());

    EXPECT_FLOAT_EQ(spline.xMinimum(), 0.0f);
    EXPECT_FLOAT_EQ(spline.xMaximum(), 3.0f);
    const VELTSpline empty({}, {});
    EXPECT_EQ(empty.xMinimum(), 0.0f);
    EXPECT_EQ(empty.xMaximum(), 0.0f);
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

    // Fewer than two knots is a programming error, as are columns of different lengths.
    VELTSpline single({1.0f}, {1.0f});
    EXPECT_THROW(single.valueForX(1.0f), ParameterAssertion);
    EXPECT_THROW(VELTSpline({1.0f, 2.0f}, {1.0f}), ParameterAssertion);
}

TEST(VELTSpline, ConcurrentFirstEvaluationsAgree) {
    const MicrophoneCurve curve = microphoneCurve();
    const VELTSpline shared(curve.x, curve.y);
    const VELTSpline expected(curve.x, curve.y);
    std::vector<std::vector<float>> results(4);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < results.size(); ++t)
        threads.emplace_back([&, t] {
            for (float f = 20.0f; f < 20000.0f; f *= 1.1f)
                results[t].push_back(shared.valueForX(f));
        });
    for (auto& thread : threads)
        thread.join();
    std::vector<float> serial;
    for (float f = 20.0f; f < 20000.0f; f *= 1.1f)
        serial.push_back(expected.valueForX(f));
    for (const auto& result : results)
        EXPECT_EQ(result, serial);
}

// Writes a spline archive with whatever keys a test needs, to check the reader's rules.
struct HandWrittenSpline {
    static constexpr std::string_view className = "VELTSpline";
    std::optional<std::string> version;
    std::optional<std::vector<float>> x, y;
    void encodeWithCoder(KeyedArchiver& coder) const {
        if (version)
            coder.encodeString(*version, "VELTSplineVersion");
        if (x)
            coder.encodeFloatVector(*x, "X");
        if (y)
            coder.encodeFloatVector(*y, "Y");
    }
    static HandWrittenSpline initWithCoder(KeyedUnarchiver& coder) {
        return {coder.decodeString("VELTSplineVersion"), coder.decodeFloatVector("X"),
                coder.decodeFloatVector("Y")};
    }
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
        // Decoding rebuilds the spline: y2 is fresh and not ready until evaluated.
        EXPECT_FALSE(decoded->ready());
        EXPECT_TRUE(decoded->y2().isAllZeroes());
        EXPECT_EQ(decoded->y2().length(), 4u);
        EXPECT_EQ(decoded->valueForX(700.0f), value);

        auto written = KeyedUnarchiver::unarchivedObjectOfClass<HandWrittenSpline>(data, format);
        ASSERT_TRUE(written.has_value());
        EXPECT_EQ(written->version, "1.0");
    }

    // The version is not checked; absent columns give a spline without knots.
    const auto other = KeyedArchiver::archivedDataWithRootObject(
        HandWrittenSpline{"0.9", std::vector<float>{1.0f, 2.0f}, std::vector<float>{3.0f, 4.0f}});
    auto decodedOther = KeyedUnarchiver::unarchivedObjectOfClass<VELTSpline>(other);
    ASSERT_TRUE(decodedOther.has_value());
    EXPECT_FLOAT_EQ(decodedOther->valueForX(1.5f), 3.5f);
    auto bare = KeyedUnarchiver::unarchivedObjectOfClass<VELTSpline>(
        KeyedArchiver::archivedDataWithRootObject(HandWrittenSpline{}));
    ASSERT_TRUE(bare.has_value());
    EXPECT_EQ(bare->x().length(), 0u);
    EXPECT_EQ(bare->xMaximum(), 0.0f);

    // Columns of different lengths are a damaged archive, reported rather than crashing later.
    auto uneven =
        KeyedUnarchiver::unarchivedObjectOfClass<VELTSpline>(KeyedArchiver::archivedDataWithRootObject(
            HandWrittenSpline{"1.0", std::vector<float>{1.0f, 2.0f, 3.0f}, std::vector<float>{3.0f, 4.0f}}));
    EXPECT_FALSE(uneven.has_value());
}

} // namespace
} // namespace tavolar
