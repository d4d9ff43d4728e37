// Split-complex vectors against std::complex<double> at awkward sizes, with the edge values the
// deconvolution relies on: division by zero passes NaN on, and extreme magnitudes neither overflow
// nor underflow.

#include "math/ReferenceTransforms.h"
#include "math/VELTComplexVector.h"
#include "platform/Assertions.h"

#include <complex>
#include <gtest/gtest.h>
#include <limits>
#include <numbers>

namespace tavolar {
namespace {

using reference::Complex;

const std::size_t kAwkwardSizes[] = {0, 1, 2, 3, 15, 65, 999, 4095};

VELTComplexVector randomComplex(std::size_t n, unsigned seed) {
    VELTComplexVector z(n);
    std::ranges::copy(reference::randomFloats(n, seed), z.mutableRealComponents());
    std::ranges::copy(reference::randomFloats(n, seed + 1000), z.mutableImaginaryComponents());
    return z;
}

Complex at(const VELTComplexVector& z, std::size_t i) {
    return {z.realComponents()[i], z.imaginaryComponents()[i]};
}

// Float results of an operation on float inputs, compared with the double result: a few units in
// the last place of the larger of the value and 1.
void expectNear(const VELTComplexVector& computed, std::size_t i, Complex expected) {
    const double tolerance = 4e-7 * std::max(1.0, std::abs(expected));
    ASSERT_NEAR(computed.realComponents()[i], expected.real(), tolerance) << "component " << i;
    ASSERT_NEAR(computed.imaginaryComponents()[i], expected.imag(), tolerance) << "component " << i;
}

TEST(ComplexVector, ComponentwiseOperationsMatchStdComplexAtAwkwardSizes) {
    for (std::size_t n : kAwkwardSizes) {
        SCOPED_TRACE(n);
        const VELTComplexVector a = randomComplex(n, 1 + n), b = randomComplex(n, 2 + n);
        const VELTRealVector r(reference::randomFloats(n, 3 + n, 0.5, 2.0));

        VELTComplexVector product = a, quotient = a, conjugate = a, scaled = a, added = a, weighted = a,
                          exponential = a, squared = a;
        product.complexMultiplyBy(b);
        quotient.complexDivideBy(b);
        conjugate.conjugate();
        scaled.scaleBy(-3.0f);
        added.add(r);
        weighted.multiplyBy(r);
        exponential.exp();
        squared.complexMultiplyBy(squared); // the receiver as its own argument
        const VELTRealVector magnitude = a.abs(), phase = a.phaseInRadians();
        ASSERT_EQ(magnitude.length(), n);
        ASSERT_EQ(phase.length(), n);

        for (std::size_t i = 0; i < n; ++i) {
            const Complex x = at(a, i), y = at(b, i);
            expectNear(product, i, x * y);
            expectNear(quotient, i, x / y);
            expectNear(conjugate, i, std::conj(x));
            expectNear(scaled, i, -3.0 * x);
            expectNear(added, i, x + static_cast<double>(r[i]));
            expectNear(weighted, i, x * static_cast<double>(r[i]));
            expectNear(exponential, i, std::exp(x));
            expectNear(squared, i, x * x);
            ASSERT_NEAR(magnitude[i], std::abs(x), 2e-7);
            ASSERT_NEAR(phase[i], std::arg(x), 4e-7);
        }
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
    EXPECT_TRUE(numerator.real().isNAN());

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
    VELTComplexVector halfTurn(1);
    halfTurn.mutableImaginaryComponents()[0] = std::numbers::pi_v<float>;
    halfTurn.exp();
    EXPECT_FLOAT_EQ(halfTurn.realComponents()[0], -1.0f);
    EXPECT_NEAR(halfTurn.imaginaryComponents()[0], 0.0f, 1e-7f);
}

TEST(ComplexVector, CreationAccessAndLengthChecks) {
    const VELTComplexVector fromReal =
        VELTComplexVector::complexVectorWithRealVector(VELTRealVector{1, -2, 3});
    EXPECT_EQ(fromReal.real(), (VELTRealVector{1, -2, 3}));
    EXPECT_TRUE(fromReal.imag().isAllZeroes());
    VELTComplexVector grown = fromReal;
    grown.setLength(5);
    EXPECT_EQ(grown.real(), (VELTRealVector{1, -2, 3, 0, 0}));
    EXPECT_EQ(grown.imag().length(), 5u);
    EXPECT_TRUE(VELTComplexVector::complexVectorWithLength(7).abs().isAllZeroes());

    VELTComplexVector three(3);
    EXPECT_THROW(three.complexMultiplyBy(VELTComplexVector(4)), ParameterAssertion);
    EXPECT_THROW(three.complexDivideBy(VELTComplexVector(2)), ParameterAssertion);
    EXPECT_THROW(three.multiplyBy(VELTRealVector(4)), ParameterAssertion);
    EXPECT_THROW(three.add(VELTRealVector(2)), ParameterAssertion);
}

TEST(ComplexDoubleVector, OperationsInDoublePrecision) {
    const std::size_t n = 65;
    VELTMutableComplexDoubleVector a = VELTMutableComplexDoubleVector::complexDoubleVectorWithLength(n), b(n);
    const auto values = reference::randomValues(4 * n, 9);
    for (std::size_t i = 0; i < n; ++i) {
        a.mutableRealComponents()[i] = values[i];
        a.mutableImaginaryComponents()[i] = values[n + i];
        b.mutableRealComponents()[i] = values[2 * n + i];
        b.mutableImaginaryComponents()[i] = values[3 * n + i];
    }
    const VELTRealDoubleVector r(std::span<const double>(values).first(n));
    VELTMutableComplexDoubleVector product = a, quotient = a, conjugate = a, added = a, weighted = a,
                                   scaled = a;
    product.complexMultiplyBy(b);
    quotient.complexDivideBy(b);
    conjugate.conjugate();
    added.add(r);
    weighted.multiplyBy(r);
    scaled.scaleBy(0.25);
    const VELTRealDoubleVector magnitude = a.abs();
    auto value = [](const VELTMutableComplexDoubleVector& z, std::size_t i) {
        return Complex(z.realComponents()[i], z.imaginaryComponents()[i]);
    };
    for (std::size_t i = 0; i < n; ++i) {
        const Complex x = value(a, i), y = value(b, i);
        EXPECT_LT(std::abs(value(product, i) - x * y), 1e-15);
        EXPECT_LT(std::abs(value(quotient, i) - x / y), 1e-13 * std::abs(x / y));
        EXPECT_EQ(value(conjugate, i), std::conj(x));
        EXPECT_EQ(value(added, i), x + r[i]);
        EXPECT_EQ(value(weighted, i), x * r[i]);
        EXPECT_EQ(value(scaled, i), 0.25 * x);
        EXPECT_NEAR(magnitude[i], std::abs(x), 1e-15);
        EXPECT_EQ(a.real()[i], x.real());
        EXPECT_EQ(a.imag()[i], x.imag());
    }
    EXPECT_THROW(a.complexDivideBy(VELTMutableComplexDoubleVector(n + 1)), ParameterAssertion);
    EXPECT_THROW(a.add(VELTRealDoubleVector(n - 1)), ParameterAssertion);
}

} // namespace
} // namespace tavolar
