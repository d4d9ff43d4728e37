// A and C weighting against the sound level meter standard (IEC 61672-1:2013): its class 1
// acceptance limits at the nominal frequencies and its analogue curves (Annex E); the filtering of
// signals with the tables, and what filtering does where a table has no filter.

#include "dsp/WeightingFilters.h"

#include "platform/Assertions.h"

#include <cmath>
#include <complex>
#include <cstdint>
#include <gtest/gtest.h>
#include <numbers>

namespace tavolar {
namespace {

constexpr std::int64_t kRates[] = {44100, 48000, 88200, 96000, 176400, 192000};

// Annex E: the curves from the pole frequencies its formulas define (f_L = 10^1.5, f_H = 10^3.9,
// D = sqrt(1/2), f_A = 10^2.45 Hz), normalised by A1000 = -2.000 dB and C1000 = -0.062 dB.
double analogueDecibels(char weighting, double f) {
    const double fl2 = 1e3, fh2 = std::pow(10.0, 7.8), d = std::sqrt(0.5), fa = std::pow(10.0, 2.45);
    const double b = (1e6 + fl2 * fh2 / 1e6 - d * (fl2 + fh2)) / (1 - d), c = fl2 * fh2;
    const double f1s = (-b - std::sqrt(b * b - 4 * c)) / 2, f4s = (-b + std::sqrt(b * b - 4 * c)) / 2;
    const double f2 = (3 - std::sqrt(5.0)) / 2 * fa, f3 = (3 + std::sqrt(5.0)) / 2 * fa, s = f * f;
    if (weighting == 'C')
        return 20 * std::log10(f4s * s / ((s + f1s) * (s + f4s))) + 0.062;
    return 20 * std::log10(f4s * s * s / ((s + f1s) * std::sqrt((s + f2 * f2) * (s + f3 * f3)) * (s + f4s))) +
           2.0;
}

// |H| in dB at f from the table's coefficients, in extended precision (at high rates the poles near
// z = 1 cost double evaluation a few hundredths of a dB at 10 Hz).
double digitalDecibels(char weighting, std::int64_t rate, double f) {
    std::optional<VELTRealDoubleVector> a, b;
    (weighting == 'A' ? VELTGetAWeightingFilter : VELTGetCWeightingFilter)(rate, &a, &b);
    const auto zInverse = std::polar(1.0L, -2.0L * std::numbers::pi_v<long double> * f / rate);
    auto evaluate = [&](const VELTRealDoubleVector& p) {
        std::complex<long double> sum = 0;
        for (std::size_t k = p.length(); k-- > 0;)
            sum = sum * zInverse + static_cast<long double>(p[k]);
        return sum;
    };
    return static_cast<double>(20 * std::log10(std::abs(evaluate(*b) / evaluate(*a))));
}

// Table 3 of the standard: nominal frequency, the A and C design goals and the class 1 acceptance
// limits (NAN for minus infinity). Row n has the exact frequency 1000 * 10^((n - 20) / 10) Hz.
struct AcceptanceRow {
    double nominal, a, c, upper, lower;
};
constexpr AcceptanceRow kClass1[] = {
    {10, -70.4, -14.3, 3.5, NAN},   {12.5, -63.4, -11.2, 3.0, NAN}, {16, -56.7, -8.5, 2.5, -4.5},
    {20, -50.5, -6.2, 2.5, -2.5},   {25, -44.7, -4.4, 2.5, -2.0},   {31.5, -39.4, -3.0, 2.0, -2.0},
    {40, -34.6, -2.0, 1.5, -1.5},   {50, -30.2, -1.3, 1.5, -1.5},   {63, -26.2, -0.8, 1.5, -1.5},
    {80, -22.5, -0.5, 1.5, -1.5},   {100, -19.1, -0.3, 1.5, -1.5},  {125, -16.1, -0.2, 1.5, -1.5},
    {160, -13.4, -0.1, 1.5, -1.5},  {200, -10.9, 0.0, 1.5, -1.5},   {250, -8.6, 0.0, 1.4, -1.4},
    {315, -6.6, 0.0, 1.4, -1.4},    {400, -4.8, 0.0, 1.4, -1.4},    {500, -3.2, 0.0, 1.4, -1.4},
    {630, -1.9, 0.0, 1.4, -1.4},    {800, -0.8, 0.0, 1.4, -1.4},    {1000, 0.0, 0.0, 1.1, -1.1},
    {1250, 0.6, 0.0, 1.4, -1.4},    {1600, 1.0, -0.1, 1.6, -1.6},   {2000, 1.2, -0.2, 1.6, -1.6},
    {2500, 1.3, -0.3, 1.6, -1.6},   {3150, 1.2, -0.5, 1.6, -1.6},   {4000, 1.0, -0.8, 1.6, -1.6},
    {5000, 0.5, -1.3, 2.1, -2.1},   {6300, -0.1, -2.0, 2.1, -2.6},  {8000, -1.1, -3.0, 2.1, -3.1},
    {10000, -2.5, -4.4, 2.6, -3.6}, {12500, -4.3, -6.2, 3.0, -6.0}, {16000, -6.6, -8.5, 3.5, -17.0},
    {20000, -9.3, -11.2, 4.0, NAN},
};

// Class 1 at every nominal frequency below Nyquist. The tables are the bilinear transform of the
// analogue curves: the response at f is the curve's at (fs / pi) tan(pi f / fs). Unwarped, the curve
// is followed to within 0.05 dB only up to the frequencies below, not to a tenth of the sample rate:
// there the compression reaches 0.06 to 0.08 dB at 44100 and 48000, 0.2 dB at 88200 and 96000, and
// 0.4 dB at 176400 and 192000.
TEST(WeightingFilters, MeetClass1AndAreTheBilinearTransformOfTheAnalogueCurves) {
    const double unwarpedLimits[] = {4000, 4000, 5900, 5900, 8800, 8800};
    for (std::size_t r = 0; r < std::size(kRates); ++r)
        for (char weighting : {'A', 'C'}) {
            const auto rate = static_cast<double>(kRates[r]);
            SCOPED_TRACE(testing::Message() << weighting << " at " << rate);
            for (std::size_t n = 0; n < std::size(kClass1) && kClass1[n].nominal < rate / 2; ++n) {
                const AcceptanceRow& row = kClass1[n];
                const double exact = 1000 * std::pow(10.0, (static_cast<double>(n) - 20) / 10);
                const double deviation =
                    digitalDecibels(weighting, kRates[r], exact) - (weighting == 'A' ? row.a : row.c);
                EXPECT_LE(deviation, row.upper) << row.nominal << " Hz";
                EXPECT_FALSE(deviation < row.lower) << row.nominal << " Hz";
            }
            for (double f = 10; f < 0.45 * rate; f *= std::pow(2.0, 1.0 / 12)) {
                const double digital = digitalDecibels(weighting, kRates[r], f);
                const double warped = rate / std::numbers::pi * std::tan(std::numbers::pi * f / rate);
                EXPECT_NEAR(digital, analogueDecibels(weighting, warped), 0.005) << f << " Hz";
                EXPECT_TRUE(f > unwarpedLimits[r] ||
                            std::abs(digital - analogueDecibels(weighting, f)) <= 0.05)
                    << f;
            }
        }
}

// Signals are filtered with the row of their rate, which the test above holds to the standard.
// Without a filter, the result is [0.0].
TEST(WeightingFilters, FilterSignalsWithTheRowOfTheirRate) {
    VELTRealVector noise(4096);
    for (std::size_t n = 0; n < noise.length(); ++n)
        noise[n] = static_cast<float>(std::sin(0.37 * static_cast<double>(n * n % 1013)));
    for (std::int64_t rate : kRates) {
        std::optional<VELTRealDoubleVector> a, b, c, d;
        VELTGetAWeightingFilter(rate, &a, &b);
        VELTGetCWeightingFilter(rate, &c, &d);
        const auto r = static_cast<std::uint32_t>(rate);
        EXPECT_EQ(AWeightingFilteredVectorWithSampleRate(noise, r),
                  VELTRealVector::filteredVector(*b, *a, noise));
        EXPECT_EQ(CWeightingFilteredVectorWithSampleRate(noise, r),
                  VELTRealVector::filteredVector(*d, *c, noise));
    }

    // No table at 32000; filtering without a filter (both coefficient vectors empty) gives [0.0],
    // which band levels read as silence.
    std::optional<VELTRealDoubleVector> a, b;
    VELTGetCWeightingFilter(32000, &a, &b);
    EXPECT_FALSE(a || b);
    const VELTRealVector signal{1.0f, 0.5f, -0.25f};
    EXPECT_EQ(AWeightingFilteredVectorWithSampleRate(signal, 32000), VELTRealVector{0.0f});
    EXPECT_EQ(CWeightingFilteredVectorWithSampleRate(signal, 32000), VELTRealVector{0.0f});
    EXPECT_EQ(VELTRealVector::filteredVector({}, {}, VELTRealVector()), VELTRealVector{0.0f});
}

} // namespace
} // namespace tavolar
