#include "dsp/Cepstrum.h"

#include <cmath>
#include <complex>
#include <gtest/gtest.h>
#include <vector>

namespace tavolar {
namespace {

// The coefficients of prod (1 - z_i z^-1) over the given zeros (conjugate pairs listed once each and
// expanded here, so the result is real), scaled by gain.
std::vector<double> polynomialFromZeros(const std::vector<std::complex<double>>& pairedZeros, double gain) {
    std::vector<std::complex<double>> coefficients = {1.0};
    auto multiplyBy = [&](std::complex<double> zero) {
        coefficients.push_back(0.0);
        for (std::size_t i = coefficients.size() - 1; i > 0; --i)
            coefficients[i] -= zero * coefficients[i - 1];
    };
    for (std::complex<double> zero : pairedZeros) {
        multiplyBy(zero);
        if (zero.imag() != 0.0)
            multiplyBy(std::conj(zero));
    }
    std::vector<double> real;
    for (std::complex<double> c : coefficients)
        real.push_back(gain * c.real());
    return real;
}

TEST(Cepstrum, RealCepstrumOfAFirstOrderSectionIsItsLogSeries) {
    // ln(1 + a z^-1) = sum over n >= 1 of (-1)^(n+1) a^n / n z^-n; the real cepstrum is the even part
    // of that series: c[0] = 0, c[n] = c[N - n] = (-1)^(n+1) a^n / (2n).
    constexpr std::size_t kLength = 64;
    constexpr double a = 0.5;
    VELTRealVector signal(kLength);
    signal[0] = 1.0f;
    signal[1] = static_cast<float>(a);
    const VELTRealVector c = cepstrum(signal);
    ASSERT_EQ(c.length(), kLength);
    EXPECT_NEAR(c[0], 0.0, 1e-6);
    for (std::size_t n = 1; n < kLength / 2; ++n) {
        const double expected = (n % 2 == 1 ? 1.0 : -1.0) * std::pow(a, static_cast<double>(n)) / (2.0 * n);
        ASSERT_NEAR(c[n], expected, 1e-6) << n;
        ASSERT_NEAR(c[kLength - n], expected, 1e-6) << n;
    }
}

// A filter with zeros inside and outside the unit circle: its minimum-phase twin reflects the outer
// zeros inwards (z -> 1 / conj(z)) and scales by their radii, which keeps the magnitude.
TEST(Cepstrum, MinimumPhaseReconstructionReflectsZerosInsideTheUnitCircle) {
    const std::complex<double> inside1 = std::polar(0.5, 2.0);
    const std::complex<double> inside2 = 0.3;
    const std::complex<double> outside1 = std::polar(1.5, 0.7);
    const std::complex<double> outside2 = -1.8;
    const std::vector<double> mixed = polynomialFromZeros({inside1, inside2, outside1, outside2}, 0.25);
    const std::vector<double> minimum = polynomialFromZeros(
        {inside1, inside2, 1.0 / std::conj(outside1), 1.0 / std::conj(outside2)}, 0.25 * 1.5 * 1.5 * 1.8);

    VELTRealVector signal(1000); // processed at 1024
    for (std::size_t n = 0; n < mixed.size(); ++n)
        signal[n + 40] = static_cast<float>(mixed[n]); // a delay is excess phase too
    const VELTRealVector reconstruction = minimumPhaseReconstruction(signal);
    ASSERT_EQ(reconstruction.length(), 1024u);
    for (std::size_t n = 0; n < reconstruction.length(); ++n)
        ASSERT_NEAR(reconstruction[n], n < minimum.size() ? minimum[n] : 0.0, 1e-4) << n;
}

// The folding at the smallest sizes, where the middle term w[N/2] is most of the result.
TEST(Cepstrum, MinimumPhaseReconstructionOfTinySignals) {
    // N = 2 keeps w[0] = c[0] and w[1] = c[1]: a maximum-phase pair becomes its minimum-phase twin.
    const VELTRealVector pair = minimumPhaseReconstruction(VELTRealVector{0.5f, 1.0f});
    ASSERT_EQ(pair.length(), 2u);
    EXPECT_NEAR(pair[0], 1.0f, 1e-6f);
    EXPECT_NEAR(pair[1], 0.5f, 1e-6f);
    EXPECT_EQ(minimumPhaseReconstruction(VELTRealVector()).length(), 0u);
}

} // namespace
} // namespace tavolar
