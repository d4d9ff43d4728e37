// Fractional-octave smoothing against a plain transcription of its definition in double precision,
// its worked examples, and the logarithmic grid against the grid's closed form.

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

VELTRealVector randomVector(std::size_t length, unsigned seed, float offset) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    VELTRealVector vector(length);
    for (float& value : vector.mutableSpan())
        value = offset + 40.0f * uniform(generator);
    return vector;
}

// Bin i becomes the mean of bins trunc(i 2^-f) .. trunc(i 2^f) (float products, 0 read as 1, cut at
// the last bin), here summed directly in double precision.
std::vector<double> slowSmoothing(const VELTRealVector& x, float fraction) {
    const std::size_t last = x.length() - 1;
    auto limit = [&](float position) {
        const auto truncated = static_cast<std::size_t>(position);
        return std::min<std::size_t>(truncated == 0 ? 1 : truncated, last);
    };
    std::vector<double> means(x.length());
    for (std::size_t i = 0; i < x.length(); ++i) {
        const std::size_t low = limit(static_cast<float>(i) * std::exp2(-fraction));
        const std::size_t high = limit(static_cast<float>(i) * std::exp2(fraction));
        double sum = 0.0;
        for (std::size_t j = low; j <= high; ++j)
            sum += x[j];
        means[i] = sum / static_cast<double>(high - low + 1);
    }
    return means;
}

TEST(Smoothing, AgreesWithTheDefinitionInDoublePrecision) {
    for (std::size_t length : {2u, 3u, 15u, 65u, 999u, 4095u, 16384u})
        for (float fraction : {0.0f, 1.0f / 48, 1.0f / 12, 1.0f / 3, 1.0f, 3.0f}) {
            SCOPED_TRACE(testing::Message() << length << " bins, fraction " << fraction);
            // Levels of -100 to -20 dB, as a spectrum in decibels.
            const VELTRealVector input = randomVector(length, static_cast<unsigned>(length), -60.0f);
            VELTRealVector smoothed = input;
            smoothWithOctaveFraction(smoothed, fraction);
            const std::vector<double> expected = slowSmoothing(input, fraction);

            // The same arithmetic, step by step: float running sums of a double accumulation, the
            // difference in float, the division in double; the result must match bit for bit.
            std::vector<float> sums(length);
            double running = 0.0;
            for (std::size_t i = 0; i < length; ++i)
                sums[i] = static_cast<float>(running += input[i]);
            const std::size_t last = length - 1;
            auto limit = [&](float p) {
                return std::clamp<std::size_t>(static_cast<std::size_t>(p), 1, last);
            };
            for (std::size_t i = 0; i < length; ++i) {
                const std::size_t low = limit(static_cast<float>(i) * std::exp2(-fraction));
                const std::size_t high = limit(static_cast<float>(i) * std::exp2(fraction));
                const auto count = static_cast<double>(high - low + 1);
                const float difference = sums[high] - sums[low - 1];
                ASSERT_EQ(smoothed[i], static_cast<float>(static_cast<double>(difference) / count))
                    << "bin " << i;
                // The running sums reach at most 100 (high + 1) here, and a float holds them to 2^-24
                // of that: the bound of the mean's error.
                const double bound = 2.0 * 100.0 * static_cast<double>(high + 1) * 0x1p-24 / count;
                ASSERT_NEAR(smoothed[i], expected[i], bound + 1e-6 * std::abs(expected[i])) << "bin " << i;
            }
        }
}

TEST(Smoothing, WorkedExamplesAndEdges) {
    // 1/3 octave at bin 100: trunc(79.37) = 79 to trunc(125.99) = 125, 47 bins.
    VELTRealVector values = randomVector(400, 7, 0.0f);
    double sum = 0.0;
    for (std::size_t j = 79; j <= 125; ++j)
        sum += values[j];
    VELTRealVector smoothed = values;
    smoothWithOctaveFraction(smoothed, 1.0f / 3);
    EXPECT_NEAR(smoothed[100], sum / 47.0, 1e-5);
    // The top bin averages only up to itself: trunc(399 * 0.7937) = 316 .. 399.
    sum = 0.0;
    for (std::size_t j = 316; j <= 399; ++j)
        sum += values[j];
    EXPECT_NEAR(smoothed[399], sum / 84.0, 1e-5);

    // DC takes the value of bin 1 and never leaks into an average; a constant stays constant.
    VELTRealVector withDC{5.0f, 1.0f, 1.0f, 1.0f};
    smoothWithOctaveFraction(withDC, 1.0f / 3);
    EXPECT_EQ(withDC, (VELTRealVector{1.0f, 1.0f, 1.0f, 1.0f}));
    VELTRealVector constant(1000);
    for (float& value : constant.mutableSpan())
        value = -42.5f;
    smoothWithOctaveFraction(constant, 1.0f / 6);
    for (float value : constant.span())
        ASSERT_EQ(value, -42.5f);

    VELTRealVector empty;
    smoothWithOctaveFraction(empty, 1.0f / 3);
    EXPECT_EQ(empty.length(), 0u);
    VELTRealVector single{1.0f};
    EXPECT_THROW(smoothWithOctaveFraction(single, 1.0f / 3), ParameterAssertion);
    VELTRealVector pair{1.0f, 2.0f};
    EXPECT_THROW(smoothWithOctaveFraction(pair, -0.5f), ParameterAssertion);
}

// Powers span decades: a band 90 dB below a loud one keeps its level with double running sums,
// where float ones resolve it only to 2^-24 of the loud band's sum.
TEST(Smoothing, PowersKeepAQuietBandAfterALoudOne) {
    VELTRealVector powers(4096);
    for (std::size_t i = 0; i < powers.length(); ++i)
        powers[i] = i < 400 ? 1.0f : 1e-9f * (1.0f + 0.5f * std::sin(0.01f * static_cast<float>(i)));
    const std::vector<double> expected = slowSmoothing(powers, 1.0f / 12);
    VELTRealVector smoothed = powers, floatSums = powers;
    smoothPowersWithOctaveFraction(smoothed, 1.0f / 12);
    smoothWithOctaveFraction(floatSums, 1.0f / 12);
    for (std::size_t i = 0; i < powers.length(); ++i)
        ASSERT_NEAR(smoothed[i], expected[i], 1e-5 * expected[i]) << "bin " << i;
    EXPECT_GT(std::abs(floatSums[3000] - expected[3000]), 0.1 * expected[3000]);
}

// The grid's sizes from its closed form: U = ceil(log2(R / 2000) / f) points above 1000 Hz and
// D = ceil(log2(100) / f) below it (none of these cases lies near a boundary).
TEST(Smoothing, GridHasTheSizeAndPointsOfItsClosedForm) {
    struct Case {
        float fraction;
        std::uint32_t rate;
        std::int64_t up, down;
    };
    for (const Case& c : {Case{1.0f / 3, 48000, 14, 20}, Case{1.0f / 12, 44100, 54, 80},
                          Case{1.0f / 24, 192000, 159, 160}, Case{1.0f, 48000, 5, 7}}) {
        SCOPED_TRACE(testing::Message() << "1/" << 1.0f / c.fraction << " octave at " << c.rate);
        const VELTRealVector table = tableForSmoothedPointsWithFraction(c.fraction, c.rate);
        ASSERT_EQ(static_cast<std::int64_t>(table.length()), c.down + c.up);
        for (std::int64_t k = -(c.down - 1); k <= c.up; ++k)
            EXPECT_NEAR(table[static_cast<std::size_t>(k + c.down - 1)], 1000.0 * std::exp2(k * c.fraction),
                        1e-5 * 1000.0 * std::exp2(k * c.fraction));
        EXPECT_EQ(table[static_cast<std::size_t>(c.down - 1)], 1000.0f);
        EXPECT_GT(table[0], 10.0f);
        EXPECT_GE(table[table.length() - 1], c.rate / 2.0f);

        // Picking from a ramp answers the picked bin: the nearest to each frequency, the last bin
        // for the point beyond Nyquist. The indexes run over k = -D .. -1 and 1 .. U - 1.
        const std::size_t bins = 16384;
        const double binsPerHz = bins / (c.rate / 2.0);
        const VELTRealVector ramp = VELTRealVector::realVectorWithIntegersRangingFrom(0, bins);
        const VELTRealVector picked = smoothedPointsWithFraction(ramp, c.fraction, c.rate);
        ASSERT_EQ(picked.length(), table.length());
        for (std::size_t at = 0; at < table.length(); ++at)
            EXPECT_EQ(picked[at], std::min<double>(bins - 1, std::round(table[at] * binsPerHz))) << at;
        EXPECT_EQ(picked[picked.length() - 1], bins - 1);

        const std::vector<std::int64_t> indexes = smoothedPointIndexesForFraction(ramp, c.fraction, c.rate);
        ASSERT_EQ(static_cast<std::int64_t>(indexes.size()), c.down + c.up - 1);
        std::vector<std::int64_t> expected;
        for (std::int64_t k = -c.down; k <= c.up - 1; ++k)
            if (k != 0)
                expected.push_back(std::llround(1000.0 * std::exp2(k * c.fraction) * binsPerHz));
        EXPECT_EQ(indexes, expected);
    }
}

TEST(Smoothing, GridRefusesWhatItCannotCompute) {
    const VELTRealVector bins(1024);
    EXPECT_THROW(tableForSmoothedPointsWithFraction(0.0f, 48000), ParameterAssertion);
    EXPECT_THROW(smoothedPointIndexesForFraction(bins, NAN, 48000), ParameterAssertion);
    // A zero sample rate makes every index infinite: checked, not converted.
    EXPECT_THROW(smoothedPointIndexesForFraction(bins, 1.0f / 3, 0), AssertionFailure);
}

} // namespace
} // namespace tavolar
