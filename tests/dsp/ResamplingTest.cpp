// Resampling: FFT filtering against a plain circular convolution, the stored low-pass filters
// against the pass and stop bands they promise, and decimation and interpolation at their edges.

#include "dsp/Resampling.h"

#include "platform/Assertions.h"

#include <cmath>
#include <complex>
#include <gtest/gtest.h>
#include <numbers>
#include <optional>
#include <random>
#include <vector>

namespace tavolar {
namespace {

VELTRealVector randomVector(std::size_t length, std::mt19937& generator) {
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    VELTRealVector vector(length);
    for (float& x : vector.mutableSpan())
        x = uniform(generator);
    return vector;
}

// |sum h[n] e^(-j 2 pi f n)| in double precision, f in cycles per sample.
double tapsGain(const VELTRealVector& taps, double f) {
    const std::complex<double> step = std::polar(1.0, -2.0 * std::numbers::pi * f);
    std::complex<double> sum = 0, phasor = 1;
    for (std::size_t n = 0; n < taps.length(); ++n, phasor *= step)
        sum += static_cast<double>(taps[n]) * phasor;
    return std::abs(sum);
}

TEST(Resampling, FFTFilteringIsCircularConvolutionAtThePowerOfTwoOfTheLargerLength) {
    struct Case {
        std::size_t signal, taps, transformLength;
    };
    const Case cases[] = {{0, 3, 4},     {1, 1, 1},       {3, 5, 8},      {15, 4, 16},
                          {65, 65, 128}, {999, 61, 1024}, {100, 300, 512}};
    std::mt19937 generator(5);
    for (const Case& c : cases) {
        const VELTRealVector x = randomVector(c.signal, generator), h = randomVector(c.taps, generator);
        const VELTRealVector y = fftFilteredVector(x, h);
        ASSERT_EQ(y.length(), c.signal);
        for (std::size_t n = 0; n < c.signal; ++n) {
            double expected = 0; // the tail wraps round onto the start; nothing is delayed back
            for (std::size_t j = 0; j < c.taps; ++j)
                if (const std::size_t i = (n + c.transformLength - j % c.transformLength) % c.transformLength;
                    i < c.signal)
                    expected += static_cast<double>(h[j]) * x[i];
            ASSERT_NEAR(y[n], expected, 2e-5 * std::sqrt(static_cast<double>(c.taps)))
                << c.signal << " " << n;
        }
    }
    EXPECT_EQ(fftFilteredVector(VELTRealVector{1.0f, 2.0f}, VELTRealVector()), (VELTRealVector{0.0f, 0.0f}));
}

TEST(Resampling, LowPassFiltersAreFlatInThePassBandAndStopFromTheOutputNyquistFrequency) {
    for (int exponent = 1; exponent <= 9; ++exponent) {
        const auto q = static_cast<float>(1 << exponent);
        std::optional<VELTRealVector> decimation, interpolation;
        VELTGetFIRLowpassDecimationFilter(&decimation, q);
        VELTGetFIRLowpassInterpolationFilter(&interpolation, q);
        ASSERT_TRUE(decimation && interpolation) << q;
        for (const auto& [taps, gain] : {std::pair{*decimation, 1.0 / q}, std::pair{*interpolation, 1.0}}) {
            const std::size_t length = taps.length();
            ASSERT_EQ(length % 2, 1u) << q;
            for (std::size_t n = 0; n < length / 2; ++n)
                ASSERT_EQ(taps[n], taps[length - 1 - n]) << q << " linear phase";
            // Flat to 0.0002 dB up to 0.28 / q of the input rate; 100 dB down from 0.5 / q on, sampled
            // densely near that edge and more sparsely up to the input Nyquist frequency.
            for (int i = 0; i <= 64; ++i)
                ASSERT_NEAR(20 * std::log10(tapsGain(taps, 0.28 / q * i / 64) / gain), 0.0, 2e-4)
                    << q << " " << i;
            for (int i = 0; i <= 320; ++i) {
                const double f =
                    i <= 64 ? 0.5 / q * (1 + i / 64.0) : 1.0 / q + (0.5 - 1.0 / q) * (i - 64) / 256;
                ASSERT_LT(20 * std::log10(tapsGain(taps, f) / gain), -100.0) << q << " at " << f;
            }
        }
    }
    for (const float q : {0.0f, 1.0f, 3.0f, 2.5f, 1024.0f}) {
        std::optional<VELTRealVector> taps = VELTRealVector{1.0f};
        VELTGetFIRLowpassDecimationFilter(&taps, q);
        EXPECT_FALSE(taps) << q;
        taps = VELTRealVector{1.0f};
        VELTGetFIRLowpassInterpolationFilter(&taps, q);
        EXPECT_FALSE(taps) << q;
    }
}

TEST(Resampling, DecimationAndInterpolationKeepLengthsLevelsAndWholeFactors) {
    EXPECT_EQ(decimate(VELTRealVector(), 2.0f).length(), 0u);

    // Away from the wrapped start, a constant keeps its length times the factor and its level
    // through interpolation.
    const VELTRealVector constant(std::vector<float>(4096, 0.75f));
    for (const float q : {2.0f, 16.0f}) {
        const VELTRealVector up = interpolate(constant, q);
        ASSERT_EQ(up.length(), 4096 * static_cast<std::size_t>(q));
        for (std::size_t n = up.length() / 4; n < up.length() * 3 / 4; ++n)
            ASSERT_NEAR(up[n], 0.75f, 1e-5f) << q << " " << n;
    }

    // Decimation keeps every q-th sample of the filtered signal, wrapped start included.
    std::mt19937 generator(9);
    for (const auto& [length, q] :
         {std::pair{1000, 2}, std::pair{4096, 4}, std::pair{100, 8}, std::pair{3000, 512}}) {
        const VELTRealVector x = randomVector(static_cast<std::size_t>(length), generator);
        std::optional<VELTRealVector> taps;
        VELTGetFIRLowpassDecimationFilter(&taps, static_cast<float>(q));
        VELTRealVector expected = fftFilteredVector(x, *taps);
        expected.downsampleBy(static_cast<std::size_t>(q), 0);
        const VELTRealVector decimated = decimate(x, static_cast<float>(q));
        ASSERT_EQ(decimated.length(), expected.length());
        for (std::size_t n = 0; n < expected.length(); ++n)
            ASSERT_NEAR(decimated[n], expected[n], 1e-6f) << length << " " << q << " " << n;
    }

    // A whole factor without taps only picks or stuffs samples.
    EXPECT_EQ(decimate(VELTRealVector{1, 2, 3, 4, 5, 6, 7}, 3.0f), (VELTRealVector{1, 4, 7}));
    EXPECT_EQ(interpolate(VELTRealVector{1, 2}, 3.0f), (VELTRealVector{3, 0, 0, 6, 0, 0}));

    for (const float q : {2.5f, 0.5f, 1.0001f})
        for (auto operation : {decimate, interpolate})
            EXPECT_THROW(operation(VELTRealVector(8), q), ParameterAssertion) << q;
}

} // namespace
} // namespace tavolar
