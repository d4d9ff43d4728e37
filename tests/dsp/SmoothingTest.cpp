// Fractional-octave smoothing against its arithmetic and against means taken directly in double
// precision, and the logarithmic grid against its closed form.

#include "dsp/Smoothing.h"

#include "platform/Assertions.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace tavolar {
namespace {

// The window of bin i: trunc(i 2^-f) to trunc(i 2^f), float products, at least bin 1, at most the last.
std::pair<std::size_t, std::size_t> window(std::size_t i, float fraction, std::size_t length) {
    auto limit = [&](float p) { return std::clamp<std::size_t>(static_cast<std::size_t>(p), 1, length - 1); };
    return {limit(static_cast<float>(i) * std::exp2(-fraction)),
            limit(static_cast<float>(i) * std::exp2(fraction))};
}

double directMean(const VELTRealVector& x, std::pair<std::size_t, std::size_t> window) {
    double sum = 0.0;
    for (std::size_t j = window.first; j <= window.second; ++j)
        sum += x[j];
    return sum / static_cast<double>(window.second - window.first + 1);
}

TEST(Smoothing, FollowsItsArithmeticAndTheMeansOfItsWindows) {
    EXPECT_EQ(window(100, 1.0f / 3, 400), (std::pair<std::size_t, std::size_t>(79, 125))); // 47 bins
    std::mt19937 generator(1);
    std::uniform_real_distribution<float> levels(-100.0f, -20.0f); // a spectrum in dB
    for (std::size_t length : {2u, 3u, 15u, 65u, 999u, 4095u, 16384u})
        for (float fraction : {0.0f, 1.0f / 48, 1.0f / 12, 1.0f / 3, 1.0f, 3.0f}) {
            SCOPED_TRACE(testing::Message() << length << " bins, fraction " << fraction);
            VELTRealVector input(length);
            for (float& value : input.mutableSpan())
                value = levels(generator);
            VELTRealVector smoothed = input;
            smoothWithOctaveFraction(smoothed, fraction);
            // Float running sums of a double accumulation, the difference in float, the division in
            // double: bit for bit. And the mean within what float sums of up to 100 (high + 1) hold.
            std::vector<float> sums(length);
            double running = 0.0;
            for (std::size_t i = 0; i < length; ++i)
                sums[i] = static_cast<float>(running += input[i]);
            for (std::size_t i = 0; i < length; ++i) {
                const auto [low, high] = window(i, fraction, length);
                const auto count = static_cast<double>(high - low + 1);
                const float difference = sums[high] - sums[low - 1];
                ASSERT_EQ(smoothed[i], static_cast<float>(static_cast<double>(difference) / count)) << i;
                const double mean = directMean(input, {low, high});
                ASSERT_NEAR(smoothed[i], mean,
                            200.0 * static_cast<double>(high + 1) * 0x1p-24 / count + 1e-6 * -mean)
                    << i;
            }
        }

    // DC takes the value of bin 1; an empty vector is left alone.
    VELTRealVector withDC{5.0f, 1.0f, 1.0f, 1.0f}, empty;
    smoothWithOctaveFraction(withDC, 1.0f / 3);
    EXPECT_EQ(withDC, (VELTRealVector{1.0f, 1.0f, 1.0f, 1.0f}));
    smoothWithOctaveFraction(empty, 1.0f / 3);
}

// Powers span decades: a band 90 dB below a loud one keeps its level with double running sums,
// where float ones resolve it only to 2^-24 of the loud band's sum.
TEST(Smoothing, PowersKeepAQuietBandAfterALoudOne) {
    VELTRealVector powers(4096);
    for (std::size_t i = 0; i < powers.length(); ++i)
        powers[i] = i < 400 ? 1.0f : 1e-9f * (1.0f + 0.5f * std::sin(0.01f * static_cast<float>(i)));
    VELTRealVector smoothed = powers;
    smoothPowersWithOctaveFraction(smoothed, 1.0f / 12);
    for (std::size_t i = 0; i < powers.length(); ++i) {
        const double mean = directMean(powers, window(i, 1.0f / 12, powers.length()));
        ASSERT_NEAR(smoothed[i], mean, 1e-5 * mean) << i;
    }
}

// U = ceil(log2(R / 2000) / f) points above 1000 Hz and D = ceil(log2(100) / f) below it (no case
// near a boundary); picks and indexes are the nearest bins of 16384 spanning 0 Hz to R / 2.
TEST(Smoothing, GridFollowsItsClosedForm) {
    struct Case {
        float fraction;
        std::uint32_t rate;
        std::int64_t up, down;
    };
    const std::size_t bins = 16384;
    const VELTRealVector ramp = VELTRealVector::realVectorWithIntegersRangingFrom(0, bins);
    for (const Case& c : {Case{1.0f / 3, 48000, 14, 20}, Case{1.0f / 12, 44100, 54, 80},
                          Case{1.0f / 24, 192000, 159, 160}, Case{1.0f, 48000, 5, 7}}) {
        SCOPED_TRACE(testing::Message() << "1/" << 1.0f / c.fraction << " octave at " << c.rate);
        const double binsPerHz = bins / (c.rate / 2.0);
        auto nearestBin = [&](std::int64_t k) {
            return std::min<double>(bins - 1, std::round(1000.0 * std::exp2(k * c.fraction) * binsPerHz));
        };
        const VELTRealVector table = tableForSmoothedPointsWithFraction(c.fraction, c.rate);
        const VELTRealVector picked = smoothedPointsWithFraction(ramp, c.fraction, c.rate);
        ASSERT_EQ(static_cast<std::int64_t>(table.length()),
                  c.down + c.up); // 1000 Hz, not the point below 10 Hz
        ASSERT_EQ(picked.length(), table.length());
        for (std::int64_t k = -(c.down - 1); k <= c.up; ++k) {
            const auto at = static_cast<std::size_t>(k + c.down - 1);
            EXPECT_NEAR(table[at], 1000.0 * std::exp2(k * c.fraction), 1e-5 * table[at]);
            EXPECT_EQ(picked[at], nearestBin(k)) << k;
        }
        // The indexes include the point below 10 Hz and leave out 1000 Hz and the one beyond Nyquist.
        std::vector<std::int64_t> expected;
        for (std::int64_t k = -c.down; k < c.up; ++k)
            if (k != 0)
                expected.push_back(static_cast<std::int64_t>(nearestBin(k)));
        EXPECT_EQ(smoothedPointIndexesForFraction(ramp, c.fraction, c.rate), expected);
    }
    // A zero sample rate makes every index infinite: checked, not converted.
    EXPECT_THROW(smoothedPointIndexesForFraction(ramp, 1.0f / 3, 0), AssertionFailure);
}

} // namespace
} // namespace tavolar
