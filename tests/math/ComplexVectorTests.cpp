// Split-complex vectors against std::complex<double> at awkward sizes, with the edge values the
// deconvolution relies on: division by zero passes NaN on, and extreme magnitudes neither overflow
// nor underflow.

#include "math/ReferenceTransforms.h"
#include "math/VELTComplexVector.h"

#include <complex>
#include <gtest/gtest.h>
#include <numbers>

namespace tavolar {
namespace {

using reference::Complex;

template <typename Vector> Complex at(const Vector& z, std::size_t i) {
    return {z.realComponents()[i], z.imaginaryComponents()[i]};
}

// The operations both precisions share, against the double result: within a few units in the last
// place of the larger of the value and 1 (float), or of double rounding of a quotient (double).
template <typename Vector, typename RealVector> void expectComponentwiseOperations(double tolerance) {
    using Scalar = std::remove_cvref_t<decltype(*Vector().realComponents())>;
    for (std::size_t n : {0, 1, 2, 3, 15, 65, 999, 4095}) {
        SCOPED_TRACE(n);
        Vector a(n), b(n);
        const auto values = reference::randomValues(5 * n, static_cast<unsigned>(n));
        for (std::size_t i = 0; i < n; ++i) {
            a.mutableRealComponents()[i] = static_cast<Scalar>(values[i]);
            a.mutableImaginaryComponents()[i] = static_cast<Scalar>(values[n + i]);
            b.mutableRealComponents()[i] = static_cast<Scalar>(values[2 * n + i]);
            b.mutableImaginaryComponents()[i] = static_cast<Scalar>(values[3 * n + i]);
        }
        RealVector r(n);
        for (std::size_t i = 0; i < n; ++i)
            r[i] = static_cast<Scalar>(1.25 + 0.75 * values[4 * n + i]);

        Vector product = a, quotient = a, conjugate = a, scaled = a, added = a, weighted = a, squared = a;
        product.complexMultiplyBy(b);
        quotient.complexDivideBy(b);
        conjugate.conjugate();
        scaled.scaleBy(-3);
        added.add(r);
        weighted.multiplyBy(r);
        squared.complexMultiplyBy(squared); // the receiver as its own argument
        const RealVector magnitude = a.abs(), real = a.real(), imag = a.imag();
        ASSERT_EQ(magnitude.length(), n);
        auto expectNear = [&](const Vector& computed, std::size_t i, Complex expected) {
            const double limit = tolerance * std::max(1.0, std::abs(expected));
            ASSERT_NEAR(computed.realComponents()[i], expected.real(), limit) << "component " << i;
            ASSERT_NEAR(computed.imaginaryComponents()[i], expected.imag(), limit) << "component " << i;
        };
        for (std::size_t i = 0; i < n; ++i) {
            const Complex x = at(a, i), y = at(b, i);
            expectNear(product, i, x * y);
            expectNear(quotient, i, x / y);
            expectNear(conjugate, i, std::conj(x));
            expectNear(scaled, i, -3.0 * x);
            expectNear(added, i, x + static_cast<double>(r[i]));
            expectNear(weighted, i, x * static_cast<double>(r[i]));
            expectNear(squared, i, x * x);
            ASSERT_NEAR(magnitude[i], std::abs(x), tolerance / 2);
            ASSERT_EQ(real[i], x.real());
            ASSERT_EQ(imag[i], x.imag());
        }
    }
}

TEST(ComplexVector, ComponentwiseOperationsMatchStdComplexAtAwkwardSizes) {
    expectComponentwiseOperations<VELTComplexVector, VELTRealVector>(4e-7);
    expectComponentwiseOperations<VELTMutableComplexDoubleVector, VELTRealDoubleVector>(1e-13);

    // The float vectors' own exponential and phase.
    const auto values = reference::randomFloats(2 * 999, 3);
    VELTComplexVector z(999);
    std::ranges::copy(std::span(values).first(999), z.mutableRealComponents());
    std::ranges::copy(std::span(values).last(999), z.mutableImaginaryComponents());
    VELTComplexVector exponential = z;
    exponential.exp();
    const VELTRealVector phase = z.phaseInRadians();
    ASSERT_EQ(phase.length(), 999u);
    for (std::size_t i = 0; i < 999; ++i) {
        const Complex expected = std::exp(at(z, i));
        ASSERT_NEAR(exponential.realComponents()[i], expected.real(), 4e-7 * std::abs(expected));
        ASSERT_NEAR(exponential.imaginaryComponents()[i], expected.imag(), 4e-7 * std::abs(expected));
        ASSERT_NEAR(phase[i], std::arg(at(z, i)), 4e-7);
    }
}

TEST(ComplexVector, EdgeValuesOfDivisionMagnitudeAndPhase) {
    VELTComplexVector numerator(4), divisor(4);
    const float big = 1e30f, tiny = 3e-30f;
    // (1e30 + 1e30 i) / 1e30 = 1 + i: the squared divisor 1e60 is beyond float but not double.
    numerator.mutableRealComponents()[0] = big;
    numerator.mutableImaginaryComponents()[0] = big;
    divisor.mutableRealComponents()[0] = big;
    // (2 - i) / 0 and 0 / 0: NaN, passed on for the caller to detect.
    numerator.mutableRealComponents()[1] = 2;
    numerator.mutableImaginaryComponents()[1] = -1;
    // 1 / (tiny i) = -i / tiny.
    numerator.mutableRealComponents()[3] = 1;
    divisor.mutableImaginaryComponents()[3] = tiny;
    numerator.complexDivideBy(divisor);
    EXPECT_FLOAT_EQ(numerator.realComponents()[0], 1.0f);
    EXPECT_FLOAT_EQ(numerator.imaginaryComponents()[0], 1.0f);
    EXPECT_TRUE(std::isnan(numerator.realComponents()[1]) || std::isinf(numerator.realComponents()[1]));
    EXPECT_TRUE(std::isnan(numerator.realComponents()[2]));
    EXPECT_FLOAT_EQ(numerator.imaginaryComponents()[3], -1.0f / tiny);

    // |3e-30 + 4e-30 i| = 5e-30, whose squares underflow in float.
    VELTComplexVector small(1);
    small.mutableRealComponents()[0] = 3 * 1e-30f;
    small.mutableImaginaryComponents()[0] = 4 * 1e-30f;
    EXPECT_FLOAT_EQ(small.abs()[0], 5e-30f);

    VELTComplexVector axes(4);
    const float re[] = {-1, 0, 0, 1}, im[] = {0, -1, 1, 0};
    std::ranges::copy(re, axes.mutableRealComponents());
    std::ranges::copy(im, axes.mutableImaginaryComponents());
    EXPECT_EQ(axes.phaseInRadians(),
              (VELTRealVector{std::numbers::pi_v<float>, -std::numbers::pi_v<float> / 2,
                              std::numbers::pi_v<float> / 2, 0.0f}));
}

} // namespace
} // namespace tavolar
