#include "dsp/Hilbert.h"

#include <cmath>
#include <complex>
#include <gtest/gtest.h>
#include <numbers>
#include <random>
#include <vector>

namespace tavolar {
namespace {

// The analytic signal by its definition, in double precision: the DFT of the zero-padded signal
// with the negative frequencies removed and the positive ones doubled, transformed back directly.
std::vector<std::complex<double>> referenceAnalyticSignal(const VELTRealVector& signal, std::size_t length) {
    std::vector<std::complex<double>> spectrum(length);
    const double step = 2.0 * std::numbers::pi / static_cast<double>(length);
    for (std::size_t k = 0; k < length; ++k)
        for (std::size_t n = 0; n < signal.length(); ++n)
            spectrum[k] += static_cast<double>(signal[n]) *
                           std::polar(1.0, -step * static_cast<double>((k * n) % length));
    for (std::size_t k = 0; k < length; ++k) {
        const bool doubled = k > 0 && 2 * k < length;
        const bool kept = k == 0 || 2 * k == length;
        spectrum[k] *= doubled ? 2.0 : kept ? 1.0 : 0.0;
    }
    std::vector<std::complex<double>> analytic(length);
    for (std::size_t n = 0; n < length; ++n) {
        for (std::size_t k = 0; k < length; ++k)
            analytic[n] += spectrum[k] * std::polar(1.0, step * static_cast<double>((k * n) % length));
        analytic[n] /= static_cast<double>(length);
    }
    return analytic;
}

TEST(Hilbert, AnalyticSignalMatchesItsDefinitionAtAwkwardSizes) {
    const std::pair<std::size_t, std::size_t> lengths[] = {{1000, 1024}, {1024, 1024}, {1025, 2048},
                                                           {3, 4},       {1, 1},       {0, 0}};
    for (auto [length, rounded] : lengths)
        EXPECT_EQ(hilbertTransformLength(length), rounded) << length;

    std::mt19937 generator(3);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    for (std::size_t size : {1u, 2u, 3u, 15u, 65u, 999u, 1024u}) {
        VELTRealVector signal(size);
        for (float& x : signal.mutableSpan())
            x = uniform(generator);
        const std::size_t length = hilbertTransformLength(size);
        const VELTComplexVector analytic = hilbertTransformedVector(signal);
        const std::vector<std::complex<double>> expected = referenceAnalyticSignal(signal, length);
        ASSERT_EQ(analytic.length(), length) << size;
        const VELTRealVector hilbert = doublet(signal);
        const VELTRealVector envelope = energyTimeCurve(signal);
        ASSERT_EQ(hilbert.length(), length);
        ASSERT_EQ(envelope.length(), length);
        for (std::size_t n = 0; n < length; ++n) {
            ASSERT_NEAR(analytic.realComponents()[n], expected[n].real(), 2e-5) << size << " sample " << n;
            ASSERT_NEAR(analytic.imaginaryComponents()[n], expected[n].imag(), 2e-5)
                << size << " sample " << n;
            ASSERT_NEAR(hilbert[n], expected[n].imag(), 2e-5) << size << " sample " << n;
            const double x = n < size ? signal[n] : 0.0;
            ASSERT_NEAR(envelope[n], std::hypot(x, expected[n].imag()), 2e-5) << size << " sample " << n;
        }
    }

    EXPECT_EQ(hilbertTransformedVector(VELTRealVector()).length(), 0u);
    EXPECT_EQ(energyTimeCurve(VELTRealVector()).length(), 0u);
    EXPECT_EQ(doublet(VELTRealVector()).length(), 0u);
}

} // namespace
} // namespace tavolar
