#include "dsp/Hilbert.h"

#include "platform/Assertions.h"

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
    EXPECT_EQ(hilbertTransformLength(1000), 1024u);
    EXPECT_EQ(hilbertTransformLength(1024), 1024u);
    EXPECT_EQ(hilbertTransformLength(1025), 2048u);
    EXPECT_EQ(hilbertTransformLength(3), 4u);
    EXPECT_EQ(hilbertTransformLength(1), 1u);
    EXPECT_EQ(hilbertTransformLength(0), 0u);
    EXPECT_THROW(hilbertTransformLength((std::size_t{1} << 31) + 1), ParameterAssertion);

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

TEST(Hilbert, CosineBecomesSineAndEnvelopesFollowTheAmplitude) {
    // A cosine over whole periods: its Hilbert transform is the matching sine, its envelope flat.
    constexpr std::size_t kLength = 1024;
    VELTRealVector cosine(kLength);
    for (std::size_t n = 0; n < kLength; ++n)
        cosine[n] = static_cast<float>(0.8 * std::cos(2.0 * std::numbers::pi * 37.0 * n / kLength));
    const VELTRealVector sine = doublet(cosine);
    const VELTRealVector flat = energyTimeCurve(cosine);
    for (std::size_t n = 0; n < kLength; ++n) {
        ASSERT_NEAR(sine[n], 0.8 * std::sin(2.0 * std::numbers::pi * 37.0 * n / kLength), 1e-5) << n;
        ASSERT_NEAR(flat[n], 0.8, 1e-5) << n;
    }

    // A unit impulse at time zero: the curve is exactly 1 there.
    VELTRealVector impulse(1000);
    impulse[0] = 1.0f;
    const VELTRealVector curve = energyTimeCurve(impulse);
    ASSERT_EQ(curve.length(), 1024u);
    EXPECT_NEAR(curve[0], 1.0f, 1e-6f);
    EXPECT_LT(curve[512], 0.01f);

    // A tone burst under a slow Gaussian: the energy-time curve traces the Gaussian.
    constexpr std::size_t kBurstLength = 4096;
    VELTRealVector burst(kBurstLength);
    auto gaussian = [](double n) { return std::exp(-0.5 * std::pow((n - 2048.0) / 300.0, 2.0)); };
    for (std::size_t n = 0; n < kBurstLength; ++n)
        burst[n] =
            static_cast<float>(gaussian(static_cast<double>(n)) * std::sin(0.9 * static_cast<double>(n)));
    const VELTRealVector burstEnvelope = energyTimeCurve(burst);
    for (std::size_t n = 0; n < kBurstLength; n += 16)
        ASSERT_NEAR(burstEnvelope[n], gaussian(static_cast<double>(n)), 1e-3) << n;
}

} // namespace
} // namespace tavolar
