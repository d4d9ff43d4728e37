// A and C weighting against the sound level meter standard (IEC 61672-1:2013): its class 1
// acceptance limits at the nominal frequencies and its analogue curves (Annex E), and the filtering
// of signals with the tables; and what filtering does where a table has no filter.

#include "dsp/WeightingFilters.h"

#include "platform/Assertions.h"

#include <cmath>
#include <complex>
#include <cstdint>
#include <gtest/gtest.h>
#include <numbers>
#include <vector>

namespace tavolar {
namespace {

// A missing filter (both coefficient vectors empty) gives the one-component vector [0.0] that
// band levels read as silence; a numerator or a denominator alone is a programming error.
TEST(WeightingFilters, MissingFilterGivesOneZero) {
    const VELTRealVector signal{1.0f, -2.0f, 3.0f};
    EXPECT_EQ(VELTRealVector::filteredVector({}, {}, signal), VELTRealVector{0.0f});
    EXPECT_EQ(VELTRealVector::filteredVector({}, {}, VELTRealVector()), VELTRealVector{0.0f});
    EXPECT_THROW(VELTRealVector::filteredVector({}, {1.0}, signal), ParameterAssertion);
    EXPECT_THROW(VELTRealVector::filteredVector({1.0}, {}, signal), ParameterAssertion);
}

constexpr std::int64_t kRates[] = {44100, 48000, 88200, 96000, 176400, 192000};

enum class Weighting { A, C };

// Annex E: the analogue weightings from the pole frequencies its formulas define, each normalised by
// its constant at 1 kHz (A1000 = -2.000 dB, C1000 = -0.062 dB).
double analogueDecibels(Weighting weighting, double f) {
    const double fr = 1000, fl = std::pow(10.0, 1.5), fh = std::pow(10.0, 3.9), d = std::sqrt(0.5);
    const double fa = std::pow(10.0, 2.45);
    const double b = (fr * fr + fl * fl * fh * fh / (fr * fr) - d * (fl * fl + fh * fh)) / (1 - d);
    const double c = fl * fl * fh * fh;
    const double f1 = std::sqrt((-b - std::sqrt(b * b - 4 * c)) / 2),
                 f4 = std::sqrt((-b + std::sqrt(b * b - 4 * c)) / 2);
    const double f2 = (3 - std::sqrt(5.0)) / 2 * fa, f3 = (3 + std::sqrt(5.0)) / 2 * fa;
    const double f2s = f * f;
    if (weighting == Weighting::C)
        return 20 * std::log10(f4 * f4 * f2s / ((f2s + f1 * f1) * (f2s + f4 * f4))) + 0.062;
    return 20 * std::log10(f4 * f4 * f2s * f2s /
                           ((f2s + f1 * f1) * std::sqrt(f2s + f2 * f2) * std::sqrt(f2s + f3 * f3) *
                            (f2s + f4 * f4))) +
           2.000;
}

// |H(e^{j 2 pi f / fs})| in dB from the table's coefficients, evaluated in extended precision (the
// poles near z = 1 at high rates make double evaluation lose a few hundredths of a dB at 10 Hz).
double digitalDecibels(Weighting weighting, std::int64_t rate, double f) {
    std::optional<VELTRealDoubleVector> a, b;
    (weighting == Weighting::A ? VELTGetAWeightingFilter : VELTGetCWeightingFilter)(rate, &a, &b);
    const std::complex<long double> zInverse =
        std::polar(1.0L, -2.0L * std::numbers::pi_v<long double> * f / static_cast<long double>(rate));
    auto evaluate = [&](const VELTRealDoubleVector& p) {
        std::complex<long double> sum = 0;
        for (std::size_t k = p.length(); k-- > 0;)
            sum = sum * zInverse + static_cast<long double>(p[k]);
        return sum;
    };
    return static_cast<double>(20 * std::log10(std::abs(evaluate(*b) / evaluate(*a))));
}

// Table 3 of the standard: nominal frequency, the A and C design goals and the class 1 acceptance
// limits (NAN where the lower limit is minus infinity). The exact frequency of row n (from 10) is
// 1000 * 10^((n - 30) / 10) Hz.
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

TEST(WeightingFilters, MeetClass1AtEveryNominalFrequencyBelowNyquist) {
    for (std::int64_t rate : kRates)
        for (Weighting weighting : {Weighting::A, Weighting::C}) {
            SCOPED_TRACE(testing::Message() << (weighting == Weighting::A ? "A" : "C") << " at " << rate);
            for (std::size_t n = 0; n < std::size(kClass1); ++n) {
                const AcceptanceRow& row = kClass1[n];
                if (row.nominal >= rate / 2.0)
                    continue;
                const double exact = 1000 * std::pow(10.0, (static_cast<double>(n) - 20) / 10);
                const double deviation =
                    digitalDecibels(weighting, rate, exact) - (weighting == Weighting::A ? row.a : row.c);
                EXPECT_LE(deviation, row.upper) << row.nominal << " Hz";
                if (!std::isnan(row.lower)) {
                    EXPECT_GE(deviation, row.lower) << row.nominal << " Hz";
                }
            }
        }
}

// The tables are the bilinear transform of the analogue curves: the response at f is the curve's at
// (fs / pi) tan(pi f / fs), to within the normalisation's rounding. Unwarped, the curve is followed
// to within 0.05 dB up to the frequencies below, not up to a tenth of the sample rate: at fs / 10 the
// compression reaches 0.06 to 0.08 dB at 44100 and 48000, 0.2 dB at 88200 and 96000, and 0.4 dB at
// 176400 and 192000.
TEST(WeightingFilters, AreTheBilinearTransformOfTheAnalogueCurves) {
    const std::pair<std::int64_t, double> unwarpedLimits[] = {{44100, 4000}, {48000, 4000},  {88200, 5900},
                                                              {96000, 5900}, {176400, 8800}, {192000, 8800}};
    for (auto [rate, unwarpedLimit] : unwarpedLimits)
        for (Weighting weighting : {Weighting::A, Weighting::C}) {
            SCOPED_TRACE(testing::Message() << (weighting == Weighting::A ? "A" : "C") << " at " << rate);
            const double fs = static_cast<double>(rate);
            for (double f = 10; f < 0.45 * fs; f *= std::pow(2.0, 1.0 / 12)) {
                const double digital = digitalDecibels(weighting, rate, f);
                const double warped = fs / std::numbers::pi * std::tan(std::numbers::pi * f / fs);
                EXPECT_NEAR(digital, analogueDecibels(weighting, warped), 0.005) << f << " Hz";
                if (f <= unwarpedLimit) {
                    EXPECT_NEAR(digital, analogueDecibels(weighting, f), 0.05) << f << " Hz";
                }
            }
        }
}

// Filtering a signal uses the row of its rate: steady sines come out at the curve's level. The 48000
// rows are the ones the system has always had, to the last digit.
TEST(WeightingFilters, FilterSignalsWithTheRowOfTheirRate) {
    for (std::int64_t rate : kRates)
        for (Weighting weighting : {Weighting::A, Weighting::C})
            for (double f : {100.0, 1000.0}) {
                // Half a second for the poles near 20 Hz to settle, then a quarter of a second, whole
                // periods at every rate, to measure.
                const auto settle = static_cast<std::size_t>(rate / 2),
                           measured = static_cast<std::size_t>(rate / 4);
                VELTRealVector tone(settle + measured);
                for (std::size_t n = 0; n < tone.length(); ++n)
                    tone[n] = static_cast<float>(
                        std::sin(2 * std::numbers::pi * f * static_cast<double>(n) / rate));
                const VELTRealVector out =
                    weighting == Weighting::A
                        ? AWeightingFilteredVectorWithSampleRate(tone, static_cast<std::uint32_t>(rate))
                        : CWeightingFilteredVectorWithSampleRate(tone, static_cast<std::uint32_t>(rate));
                ASSERT_EQ(out.length(), tone.length());
                double inPhase = 0, quadrature = 0;
                for (std::size_t n = settle; n < out.length(); ++n) {
                    const double phase = 2 * std::numbers::pi * f * static_cast<double>(n) / rate;
                    inPhase += out[n] * std::sin(phase);
                    quadrature += out[n] * std::cos(phase);
                }
                const double gain =
                    20 * std::log10(2 * std::hypot(inPhase, quadrature) / static_cast<double>(measured));
                EXPECT_NEAR(gain, analogueDecibels(weighting, f), 0.01) << f << " Hz at " << rate;
            }

    std::optional<VELTRealDoubleVector> a, b;
    VELTGetAWeightingFilter(48000, &a, &b);
    const double g = 0.23430179229951353;
    EXPECT_EQ(*b, (VELTRealDoubleVector{g, -0.46860358459902707, -g, 0.9372071691980541, -g,
                                        -0.46860358459902707, g}));
    EXPECT_EQ(*a, (VELTRealDoubleVector{1.0, -4.113043408775873, 6.553121752655054, -4.990849294163391,
                                        1.7857373029375805, -0.2461905953194898, 0.011224250033231612}));
    VELTGetCWeightingFilter(48000, &a, nullptr);
    VELTGetCWeightingFilter(48000, nullptr, &b);
    EXPECT_EQ(
        *b, (VELTRealDoubleVector{0.19788712002639317, 0.0, -0.39577424005278633, 0.0, 0.19788712002639317}));
    EXPECT_EQ(*a, (VELTRealDoubleVector{1.0, -2.219172914052802, 1.4551358789471711, -0.2484960738877827,
                                        0.012538823147272456}));

    // No table at 32000: no coefficients, and filtering without a filter gives [0.0].
    VELTGetCWeightingFilter(32000, &a, &b);
    EXPECT_FALSE(a || b);
    const VELTRealVector tone{1.0f, 0.5f, -0.25f};
    EXPECT_EQ(AWeightingFilteredVectorWithSampleRate(tone, 32000), VELTRealVector{0.0f});
    EXPECT_EQ(CWeightingFilteredVectorWithSampleRate(tone, 32000), VELTRealVector{0.0f});
}

} // namespace
} // namespace tavolar
