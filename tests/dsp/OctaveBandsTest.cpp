// Octave and third-octave bands against IEC 61260-1:2014: the class 1 acceptance limits of relative
// attenuation measured through the band operations themselves (decimation, filtering, scaling), the
// base-2 exact and the nominal mid-band frequencies, sine and pink-noise levels; and the walks and
// decompositions at supported and unsupported rates.

#include "dsp/OctaveBands.h"

#include "math/VELTComplexVector.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <gtest/gtest.h>
#include <numbers>
#include <random>
#include <vector>

namespace tavolar {
namespace {

constexpr double kPi = std::numbers::pi;
constexpr std::int64_t kRates[] = {44100, 48000, 88200, 96000, 176400, 192000};

// Nominal mid-band frequencies of third octaves 25 Hz to 20 kHz (IEC 61260-1:2014, Annex E), bands -16..13.
constexpr double kNominal[] = {25,   31.5, 40,   50,   63,   80,   100,   125,   160,   200,
                               250,  315,  400,  500,  630,  800,  1000,  1250,  1600,  2000,
                               2500, 3150, 4000, 5000, 6300, 8000, 10000, 12500, 16000, 20000};
double nominal(int band) {
    return kNominal[band + 16];
}
double exactCentre(int band) {
    return 1000.0 * std::exp2(band / 3.0); // base-2 mid-band frequencies
}

// Class 1 acceptance limits on relative attenuation of octave-band filters (IEC 61260-1:2014,
// Table 1) at the normalized frequencies G^x, G = 2: {x, minimum dB, maximum dB}. At G^(1/2) both
// rows of the table apply.
struct Limit {
    double exponent, minimum, maximum;
};
constexpr Limit kOctaveLimits[] = {{0, -0.4, 0.4},       {1.0 / 8, -0.4, 0.5}, {1.0 / 4, -0.4, 0.7},
                                   {3.0 / 8, -0.4, 1.4}, {1.0 / 2, 1.2, 5.3},  {1, 16.6, INFINITY},
                                   {2, 40.5, INFINITY},  {3, 60.0, INFINITY},  {4, 70.0, INFINITY}};

struct Breakpoint {
    double omega, minimum, maximum;
};
// Breakpoints of a 1/b-octave filter: Omega_b = 1 + (G^(1/2b) - 1) / (G^(1/2) - 1) (Omega_1 - 1)
// above the mid-band frequency, and the reciprocals below it.
std::vector<Breakpoint> breakpoints(int b) {
    std::vector<Breakpoint> points;
    for (const Limit& limit : kOctaveLimits) {
        const double omega =
            1 + (std::exp2(0.5 / b) - 1) / (std::sqrt(2.0) - 1) * (std::exp2(limit.exponent) - 1);
        points.push_back({omega, limit.minimum, limit.maximum});
        if (limit.exponent > 0)
            points.push_back({1 / omega, limit.minimum, limit.maximum});
    }
    return points;
}

struct Bank {
    const char* name;
    int fraction;     // b: 1 octave, 3 third octave
    int lowestDirect; // bands filtered at the full rate reach down to this index
    int reusedTop;    // the highest full-rate band whose filter serves the octaves below
    std::optional<VELTRealVector> (*filteredBand)(const VELTRealVector&, float, std::int64_t, std::int64_t*);
    BandDecomposition (*decomposition)(const VELTRealVector&, std::int64_t);
    std::vector<int> indexes(std::int64_t rate) const {
        std::vector<int> result;
        const int top = fraction == 1 ? 12 : rate < 88200 ? 11 : 13;
        for (int band = top; band >= -15; band -= 3 / fraction)
            result.push_back(band);
        return result;
    }
};
const Bank kThird{"third octave", 3, 2, 4, thirdOctaveFilteredBand, thirdOctaveBandsWithSampleRate};
const Bank kOctave{"octave", 1, 9, 9, octaveFilteredBand, octaveBandsWithSampleRate};

// Sines of amplitude 1 and random phases, summed in double precision.
VELTRealVector sumOfSines(const std::vector<double>& frequencies, double rate, std::size_t length,
                          std::mt19937& generator) {
    std::vector<double> sum(length);
    for (const double f : frequencies) {
        const std::complex<double> step = std::polar(1.0, 2 * kPi * f / rate);
        std::complex<double> phasor =
            std::polar(1.0, std::uniform_real_distribution<double>(0, 2 * kPi)(generator));
        for (std::size_t n = 0; n < length; ++n, phasor *= step)
            sum[n] += phasor.real();
    }
    const std::vector<float> samples(sum.begin(), sum.end());
    return VELTRealVector(std::span<const float>(samples));
}

// Amplitudes of sinusoids of known frequencies (cycles per sample) in y[start .. start + count), by
// least squares over e^(+-i w n); the Gram matrix is formed in closed form.
std::vector<double> fittedAmplitudes(const VELTRealVector& y, std::size_t start, std::size_t count,
                                     const std::vector<double>& frequencies) {
    std::vector<double> w; // the frequencies, then their negatives, in radians per sample
    for (const double sign : {1.0, -1.0})
        for (const double f : frequencies)
            w.push_back(sign * 2 * kPi * f);
    const std::size_t size = w.size();
    const auto length = static_cast<double>(count);
    auto sumOfPhasors = [&](double x) { // sum of e^(i x n), n = 0 .. count - 1
        const double half = std::sin(x / 2);
        return std::fabs(half) < 1e-12 ? std::complex<double>(length)
                                       : std::polar(std::sin(x * length / 2) / half, x * (length - 1) / 2);
    };
    std::vector<std::vector<std::complex<double>>> system(size, std::vector<std::complex<double>>(size + 1));
    for (std::size_t p = 0; p < size; ++p) {
        for (std::size_t q = 0; q < size; ++q)
            system[p][q] = sumOfPhasors(w[q] - w[p]);
        const std::complex<double> step = std::polar(1.0, -w[p]);
        std::complex<double> phasor = 1;
        for (std::size_t n = 0; n < count; ++n, phasor *= step)
            system[p][size] += static_cast<double>(y[start + n]) * phasor;
    }
    for (std::size_t column = 0; column < size; ++column) { // Gauss-Jordan, partial pivoting
        std::size_t pivot = column;
        for (std::size_t row = column + 1; row < size; ++row)
            if (std::abs(system[row][column]) > std::abs(system[pivot][column]))
                pivot = row;
        std::swap(system[column], system[pivot]);
        for (std::size_t row = 0; row < size; ++row)
            if (const std::complex<double> factor = system[row][column] / system[column][column];
                row != column)
                for (std::size_t k = column; k <= size; ++k)
                    system[row][k] -= factor * system[column][k];
    }
    std::vector<double> amplitudes;
    for (std::size_t i = 0; i < frequencies.size(); ++i)
        amplitudes.push_back(2 * std::abs(system[i][size] / system[i][i]));
    return amplitudes;
}

// Relative attenuation at each breakpoint of a band below 0.95 times the Nyquist frequency, sines at
// all of them sent through the band operation together with one at the centre, and each read at the
// frequency that the halvings fold it to once the filter has settled; checked against the limits.
// Sines that would fold onto one another (within 1 % of the centre) go in separate runs.
void expectClass1(const Bank& bank, std::int64_t rate, int band, std::mt19937& generator) {
    const double centre = exactCentre(band);
    const int halvings = band >= bank.lowestDirect ? 0 : (bank.reusedTop - band) / 3;
    const double bandRate = static_cast<double>(rate) / (1 << halvings);
    auto folded = [&](double f) {
        for (double r = rate, m = 0; m < halvings; ++m)
            if (r /= 2; f > r / 2)
                f = r - f;
        return f;
    };
    std::vector<std::vector<Breakpoint>> runs;
    for (const Breakpoint& point : breakpoints(bank.fraction)) {
        if (centre * point.omega >= 0.95 * rate / 2.0 || point.omega == 1)
            continue;
        auto apart = [&](const std::vector<Breakpoint>& run) {
            return std::ranges::all_of(run, [&](const Breakpoint& other) {
                return std::fabs(folded(centre * point.omega) - folded(centre * other.omega)) > 0.01 * centre;
            });
        };
        if (auto run = std::ranges::find_if(runs, apart); run != runs.end())
            run->push_back(point);
        else
            runs.push_back({{1, 0, 0}, point}); // the centre leads every run
    }
    for (const std::vector<Breakpoint>& run : runs) {
        std::vector<double> frequencies, atBandRate;
        double closest = 0.5; // to another sine or to a mirror at 0 or half the band's rate
        for (const Breakpoint& point : run) {
            const double f = folded(centre * point.omega) / bandRate;
            for (const double other : atBandRate)
                closest = std::min(closest, std::fabs(f - other));
            closest = std::min({closest, 2 * f, 1 - 2 * f});
            frequencies.push_back(centre * point.omega);
            atBandRate.push_back(f);
        }
        const double width =
            centre * (std::exp2(0.5 / bank.fraction) - std::exp2(-0.5 / bank.fraction)) / bandRate;
        const auto settle = static_cast<std::size_t>(16 / width) + 256;
        const auto count = std::max<std::size_t>(1024, static_cast<std::size_t>(4 / closest));
        std::int64_t actualRate = 0;
        const std::optional<VELTRealVector> output = bank.filteredBand(
            sumOfSines(frequencies, static_cast<double>(rate), (settle + count) << halvings, generator),
            static_cast<float>(nominal(band)), rate, &actualRate);
        EXPECT_EQ(actualRate, rate / (std::int64_t{1} << halvings));
        ASSERT_TRUE(output && output->length() >= settle + count) << bank.name << " " << rate << " " << band;
        const std::vector<double> amplitudes = fittedAmplitudes(*output, settle, count, atBandRate);
        for (std::size_t i = 1; i < run.size(); ++i) {
            const double relative = 20 * std::log10(amplitudes[0] / amplitudes[i]);
            EXPECT_TRUE(relative >= run[i].minimum && relative <= run[i].maximum)
                << bank.name << " " << rate << " band " << band << " at " << run[i].omega << ": " << relative;
        }
    }
}

TEST(OctaveBands, EveryBandAtEveryRateMeetsClass1ThroughTheWholeChain) {
    std::mt19937 generator(61260);
    for (const Bank* bank : {&kThird, &kOctave})
        for (const std::int64_t rate : kRates)
            for (const int band : bank->indexes(rate))
                expectClass1(*bank, rate, band, generator);
}

TEST(OctaveBands, TablesHoldEveryBandWithItsBase2AndNominalCentres) {
    for (const std::int64_t rate : {44100, 48000, 88200, 96000, 176400, 192000, 32000})
        for (const Bank* bank : {&kThird, &kOctave})
            for (int band = -17; band <= 14; ++band) {
                const std::vector<int> indexes = bank->indexes(rate);
                const bool present = rate != 32000 && (std::ranges::count(indexes, band) == 1 ||
                                                       (bank == &kThird && band == -16));
                std::optional<VELTRealDoubleVector> a, b;
                float exact = -1, nominalCentre = -1;
                (bank == &kThird ? VELTGetThirdOctaveFilter : VELTGetOctaveFilter)(rate, band, &a, &b, &exact,
                                                                                   &nominalCentre);
                ASSERT_EQ(a && b, present) << bank->name << " " << rate << " " << band;
                EXPECT_EQ(exact, present ? static_cast<float>(exactCentre(band)) : 0.0f);
                EXPECT_EQ(nominalCentre, present ? static_cast<float>(nominal(band)) : 0.0f);
                if (!present)
                    continue;
                ASSERT_TRUE(a->length() == b->length() &&
                            (a->length() == 7 || (bank == &kOctave && a->length() == 17)));
                EXPECT_EQ((*a)[0], 1.0);
            }

    // Descending nominal lists; at 44100 and 48000 the two top third octaves are missing.
    std::vector<float> thirds(2, 0.0f);
    for (int band = 11; band >= -15; --band)
        thirds.push_back(static_cast<float>(nominal(band)));
    EXPECT_EQ(thirdOctaveBandCenterFrequenciesForSampleRate(48000), thirds);
    EXPECT_EQ(thirdOctaveBandCenterFrequenciesForSampleRate(96000)[0], 20000.0f);
    EXPECT_EQ(octaveBandCenterFrequenciesForSampleRate(44100),
              (std::vector<float>{16000, 8000, 4000, 2000, 1000, 500, 250, 125, 63, 31.5}));
    EXPECT_EQ(octaveBandCenterFrequenciesForSampleRate(32000), std::vector<float>(10, 0.0f));
}

// Levels in dB, highest band first as Bank::indexes lists them.
std::vector<double> descendingLevels(const BandDecomposition& result) {
    std::vector<double> levels;
    for (std::size_t i = result.powerValues().length(); i-- > 0;)
        levels.push_back(20 * std::log10(result.powerValues()[i]));
    return levels;
}

// Decompositions of a sine at the exact centre of every band, eleven seconds long (the lowest band
// takes a few tenths of a second to fill), in two groups of every other band, so that neighbours of
// a sine's band lie at least two thirds of an octave away.
TEST(OctaveBands, SineAtABandsExactCentreReadsItsRMSLevelInThatBand) {
    std::mt19937 generator(3);
    for (const std::int64_t rate : kRates)
        for (const Bank* bank : {&kThird, &kOctave}) {
            const std::vector<int> indexes = bank->indexes(rate);
            for (std::size_t group = 0; group < 2; ++group) {
                std::vector<double> centres;
                for (std::size_t i = group; i < indexes.size(); i += 2)
                    centres.push_back(exactCentre(indexes[i]));
                const std::vector<double> levels = descendingLevels(
                    bank->decomposition(sumOfSines(centres, static_cast<double>(rate),
                                                   static_cast<std::size_t>(rate) * 11, generator),
                                        rate));
                ASSERT_EQ(levels.size(), indexes.size());
                for (std::size_t i = group; i < indexes.size(); i += 2)
                    EXPECT_NEAR(levels[i], 20 * std::log10(std::sqrt(0.5)), 0.1)
                        << bank->name << " " << rate << " " << indexes[i];
            }
        }
}

TEST(OctaveBands, DecompositionsWalkTheBanksAndFilteredBandsMatchThem) {
    struct Case {
        const Bank* bank;
        std::int64_t rate;
        std::size_t bands;
    };
    const Case cases[] = {{&kThird, 44100, 27},  {&kThird, 96000, 29},   {&kThird, 32000, 17},
                          {&kOctave, 48000, 10}, {&kOctave, 192000, 10}, {&kOctave, 32000, 8}};
    std::mt19937 generator(2);
    const VELTRealVector signal = sumOfSines({100, 1000, 5000}, 48000, 20000, generator);
    for (const Case& c : cases) {
        const BandDecomposition result = c.bank->decomposition(signal, c.rate);
        ASSERT_EQ(result.bandDecompositions().size(), c.bands) << c.bank->name << " " << c.rate;
        ASSERT_TRUE(result.powerValues().length() == c.bands && result.displayBands().length() == c.bands &&
                    result.bands().length() == c.bands);
        const bool supported = c.rate != 32000;
        for (std::size_t i = 0; i < c.bands; ++i) {
            const int band = -15 + static_cast<int>(i) * 3 / c.bank->fraction; // ascending from -15
            const int halvings = band < c.bank->lowestDirect ? (c.bank->reusedTop - band) / 3 : 0;
            const Band& entry = result.bandDecompositions()[i];
            EXPECT_EQ(entry.band().RMSAverage(), result.powerValues()[i]);
            EXPECT_EQ(entry.sampleRate(), c.rate / (1 << halvings)) << band;
            EXPECT_EQ(result.bands()[i], supported ? static_cast<float>(exactCentre(band)) : 0.0f);
            EXPECT_EQ(result.displayBands()[i], supported ? static_cast<float>(nominal(band)) : 0.0f);
            // The single-band walk gives the same signal at the same rate; [0.0] without filters.
            std::int64_t actualRate = 0;
            const std::optional<VELTRealVector> single =
                c.bank->filteredBand(signal, result.displayBands()[i], c.rate, &actualRate);
            EXPECT_EQ(single, supported ? std::optional(entry.band()) : std::optional(VELTRealVector{0.0f}))
                << band;
            EXPECT_EQ(actualRate, supported ? entry.sampleRate() : c.rate / 2);
        }
    }
    // No band matches 25 Hz (below the walk), 1001 Hz, or an exact rather than nominal centre.
    for (const float requested : {25.0f, 1001.0f, 31.25f, 0.0f})
        EXPECT_FALSE(thirdOctaveFilteredBand(signal, requested, 48000, nullptr)) << requested;
    EXPECT_FALSE(octaveFilteredBand(signal, 1250.0f, 48000, nullptr));
}

} // namespace
} // namespace tavolar
