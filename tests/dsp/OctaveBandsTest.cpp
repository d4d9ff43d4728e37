// Octave and third-octave bands against IEC 61260-1:2014: the class 1 acceptance limits of relative
// attenuation measured through the band operations themselves (decimation, filtering, scaling), the
// base-2 exact and the nominal mid-band frequencies, sine and pink-noise levels; and the walks and
// decompositions at supported and unsupported rates.

#include "dsp/OctaveBands.h"

#include "math/VELTComplexVector.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
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

// Amplitudes of sinusoids of known frequencies (cycles per sample) in y[start .. start + count), by
// least squares; the Gram matrix of the cosines and sines is formed in closed form.
std::vector<double> fittedAmplitudes(const VELTRealVector& y, std::size_t start, std::size_t count,
                                     const std::vector<double>& frequencies) {
    const std::size_t unknowns = 2 * frequencies.size();
    auto sumOfPhasors = [&](double x) { // sum of e^(i x n), n = 0 .. count - 1
        const double half = std::sin(x / 2);
        if (std::fabs(half) < 1e-12)
            return std::complex<double>(static_cast<double>(count), 0.0);
        return std::polar(std::sin(x * static_cast<double>(count) / 2) / half,
                          x * (static_cast<double>(count) - 1) / 2);
    };
    std::vector<std::vector<double>> system(unknowns, std::vector<double>(unknowns + 1));
    for (std::size_t i = 0; i < frequencies.size(); ++i) {
        const double a = 2 * kPi * frequencies[i];
        for (std::size_t j = 0; j < frequencies.size(); ++j) {
            const double b = 2 * kPi * frequencies[j];
            const std::complex<double> difference = sumOfPhasors(a - b), sum = sumOfPhasors(a + b);
            system[2 * i][2 * j] = 0.5 * (difference.real() + sum.real());         // cos a, cos b
            system[2 * i + 1][2 * j + 1] = 0.5 * (difference.real() - sum.real()); // sin a, sin b
            system[2 * i][2 * j + 1] = 0.5 * (sum.imag() - difference.imag());     // cos a, sin b
            system[2 * i + 1][2 * j] = 0.5 * (sum.imag() + difference.imag());     // sin a, cos b
        }
        const std::complex<double> step = std::polar(1.0, a);
        std::complex<double> phasor = 1, projection = 0;
        for (std::size_t n = 0; n < count; ++n, phasor *= step)
            projection += static_cast<double>(y[start + n]) * phasor;
        system[2 * i][unknowns] = projection.real();
        system[2 * i + 1][unknowns] = projection.imag();
    }
    for (std::size_t column = 0; column < unknowns; ++column) { // Gaussian elimination, partial pivoting
        std::size_t pivot = column;
        for (std::size_t row = column + 1; row < unknowns; ++row)
            if (std::fabs(system[row][column]) > std::fabs(system[pivot][column]))
                pivot = row;
        std::swap(system[column], system[pivot]);
        for (std::size_t row = 0; row < unknowns; ++row)
            if (row != column) {
                const double factor = system[row][column] / system[column][column];
                for (std::size_t k = column; k <= unknowns; ++k)
                    system[row][k] -= factor * system[column][k];
            }
    }
    std::vector<double> amplitudes;
    for (std::size_t i = 0; i < frequencies.size(); ++i)
        amplitudes.push_back(std::hypot(system[2 * i][unknowns] / system[2 * i][2 * i],
                                        system[2 * i + 1][unknowns] / system[2 * i + 1][2 * i + 1]));
    return amplitudes;
}

// Sines of the given frequencies (Hz) together through a band operation; the amplitude of each in
// the band's output, read at the frequency that the halvings fold it to once the filter has settled.
std::vector<double> amplitudesThroughBand(const Bank& bank, std::int64_t rate, int band,
                                          const std::vector<double>& frequencies, std::mt19937& generator) {
    const int halvings = band >= bank.lowestDirect ? 0 : (bank.reusedTop - band) / 3;
    const double bandRate = static_cast<double>(rate) / (1 << halvings);
    std::vector<double> folded; // cycles per sample at the band's rate
    for (double f : frequencies) {
        for (double r = rate, m = 0; m < halvings; ++m)
            if (r /= 2; f > r / 2)
                f = r - f;
        folded.push_back(f / bandRate);
    }
    double closest = 0.5; // to another sine or to a mirror at 0 or half the rate
    for (std::size_t i = 0; i < folded.size(); ++i) {
        closest = std::min({closest, 2 * folded[i], 1 - 2 * folded[i]});
        for (std::size_t j = 0; j < i; ++j)
            closest = std::min(closest, std::fabs(folded[i] - folded[j]));
    }
    const double bandwidth =
        exactCentre(band) * (std::exp2(0.5 / bank.fraction) - std::exp2(-0.5 / bank.fraction)) / bandRate;
    const auto settle = static_cast<std::size_t>(16 / bandwidth) + 256;
    const auto count = std::max<std::size_t>(1024, static_cast<std::size_t>(4 / closest));
    const std::size_t length = (settle + count) << halvings;

    std::uniform_real_distribution<double> phase(0, 2 * kPi);
    std::vector<double> sum(length);
    for (const double f : frequencies) {
        const std::complex<double> step = std::polar(1.0, 2 * kPi * f / static_cast<double>(rate));
        std::complex<double> phasor = std::polar(1.0, phase(generator));
        for (std::size_t n = 0; n < length; ++n, phasor *= step)
            sum[n] += phasor.real();
    }
    const std::vector<float> samples(sum.begin(), sum.end());
    std::int64_t actualRate = 0;
    const std::optional<VELTRealVector> output =
        bank.filteredBand(VELTRealVector(std::span<const float>(samples)), static_cast<float>(nominal(band)),
                          rate, &actualRate);
    EXPECT_EQ(actualRate, rate / (std::int64_t{1} << halvings));
    if (!output || output->length() < settle + count)
        return std::vector<double>(frequencies.size(), NAN);
    return fittedAmplitudes(*output, settle, count, folded);
}

// Relative attenuation at each breakpoint of a band below 0.95 times the Nyquist frequency, checked
// against the limits; the least margin to them (dB). Sines that the halvings would fold onto one
// another (within 1 % of the centre) are measured in separate runs.
double measuredClass1Margin(const Bank& bank, std::int64_t rate, int band, std::mt19937& generator) {
    const double centre = exactCentre(band);
    std::vector<Breakpoint> points;
    for (const Breakpoint& point : breakpoints(bank.fraction))
        if (centre * point.omega < 0.95 * rate / 2.0 && point.omega != 1)
            points.push_back(point);
    const int halvings = band >= bank.lowestDirect ? 0 : (bank.reusedTop - band) / 3;
    auto folded = [&](double f) {
        for (double r = rate, m = 0; m < halvings; ++m)
            if (r /= 2; f > r / 2)
                f = r - f;
        return f;
    };
    std::vector<std::vector<std::size_t>> runs; // indexes into points; the centre leads every run
    for (std::size_t i = 0; i < points.size(); ++i) {
        auto apart = [&](const std::vector<std::size_t>& run) {
            const double f = folded(centre * points[i].omega);
            return std::fabs(f - folded(centre)) > 0.01 * centre &&
                   std::ranges::all_of(run, [&](std::size_t j) {
                       return std::fabs(f - folded(centre * points[j].omega)) > 0.01 * centre;
                   });
        };
        if (auto run = std::ranges::find_if(runs, apart); run != runs.end())
            run->push_back(i);
        else
            runs.push_back({i});
    }
    double margin = INFINITY;
    for (const std::vector<std::size_t>& run : runs) {
        std::vector<double> frequencies{centre};
        for (std::size_t i : run)
            frequencies.push_back(centre * points[i].omega);
        const std::vector<double> amplitudes =
            amplitudesThroughBand(bank, rate, band, frequencies, generator);
        for (std::size_t r = 0; r < run.size(); ++r) {
            const Breakpoint& point = points[run[r]];
            const double relative = 20 * std::log10(amplitudes[0] / amplitudes[r + 1]);
            EXPECT_GE(relative, point.minimum)
                << bank.name << " " << rate << " band " << band << " at " << point.omega;
            EXPECT_LE(relative, point.maximum)
                << bank.name << " " << rate << " band " << band << " at " << point.omega;
            margin = std::min({margin, relative - point.minimum, point.maximum - relative});
        }
    }
    return margin;
}

TEST(OctaveBands, EveryBandAtEveryRateMeetsClass1ThroughTheWholeChain) {
    std::mt19937 generator(61260);
    for (const Bank* bank : {&kThird, &kOctave})
        for (const std::int64_t rate : kRates) {
            double worst = INFINITY;
            int worstBand = 0;
            for (const int band : bank->indexes(rate))
                if (const double margin = measuredClass1Margin(*bank, rate, band, generator);
                    margin < worst) {
                    worst = margin;
                    worstBand = band;
                }
            std::printf("class 1, %s bands at %lld: least margin %.3f dB (band %d)\n", bank->name,
                        static_cast<long long>(rate), worst, worstBand);
        }
}

TEST(OctaveBands, TablesHoldEveryBandWithItsBase2AndNominalCentres) {
    for (const std::int64_t rate : kRates)
        for (const Bank* bank : {&kThird, &kOctave}) {
            auto getter = bank == &kThird ? VELTGetThirdOctaveFilter : VELTGetOctaveFilter;
            const int top = bank == &kOctave ? 12 : rate < 88200 ? 11 : 13;
            const int bottom = bank == &kOctave ? -15 : -16;
            for (int band = -17; band <= 14; ++band) {
                std::optional<VELTRealDoubleVector> a, b;
                float exact = -1, nominalCentre = -1;
                getter(rate, band, &a, &b, &exact, &nominalCentre);
                const bool present =
                    band <= top && band >= bottom && (band - bottom) % (3 / bank->fraction) == 0;
                ASSERT_EQ(a.has_value(), present) << bank->name << " " << rate << " " << band;
                if (!present) {
                    EXPECT_TRUE(!b && exact == 0 && nominalCentre == 0);
                    continue;
                }
                EXPECT_EQ(exact, static_cast<float>(exactCentre(band)));
                EXPECT_EQ(nominalCentre, static_cast<float>(nominal(band)));
                ASSERT_EQ(a->length(), b->length());
                EXPECT_TRUE(a->length() == 7 || (bank == &kOctave && a->length() == 17));
                EXPECT_EQ((*a)[0], 1.0);
                if (bank == &kThird) { // (b, ~0, -3b, 0, 3b, ~0, -b)
                    const double g = (*b)[0];
                    EXPECT_NEAR((*b)[2], -3 * g, 1e-12 * g);
                    EXPECT_NEAR((*b)[4], 3 * g, 1e-12 * g);
                    EXPECT_NEAR((*b)[6], -g, 1e-12 * g);
                    EXPECT_NEAR((*b)[1] + (*b)[3] + (*b)[5], 0, 1e-12 * g);
                }
            }
        }
    // The row kept as the system has always had it.
    std::optional<VELTRealDoubleVector> a, b;
    VELTGetThirdOctaveFilter(44100, -16, &a, &b, nullptr, nullptr);
    EXPECT_EQ(*b, (VELTRealDoubleVector{1.6942885740009727e-9, -4.1359031e-25, -5.082865722002919e-9, 0.0,
                                        5.082865722002919e-9, 4.1359031e-25, -1.694288574e-9}));
    EXPECT_EQ(*a, (VELTRealDoubleVector{1.0, -5.9951901940350565, 14.975999905110239, -19.95209754640584,
                                        14.95219514951714, -5.976146310081674, 0.995238995895197}));
    float exact = -1, nominalCentre = -1;
    VELTGetOctaveFilter(32000, 0, &a, &b, &exact, &nominalCentre);
    EXPECT_TRUE(!a && !b && exact == 0 && nominalCentre == 0);

    // Descending nominal lists; at 44100 and 48000 the two top third octaves are missing.
    const std::vector<float> thirds = thirdOctaveBandCenterFrequenciesForSampleRate(48000);
    ASSERT_EQ(thirds.size(), 29u);
    EXPECT_EQ(thirds[0], 0.0f);
    EXPECT_EQ(thirds[1], 0.0f);
    EXPECT_EQ(thirds[2], 12500.0f);
    EXPECT_EQ(thirds[28], 31.5f);
    EXPECT_EQ(thirdOctaveBandCenterFrequenciesForSampleRate(96000)[0], 20000.0f);
    EXPECT_EQ(octaveBandCenterFrequenciesForSampleRate(44100),
              (std::vector<float>{16000, 8000, 4000, 2000, 1000, 500, 250, 125, 63, 31.5}));
    EXPECT_EQ(octaveBandCenterFrequenciesForSampleRate(32000), std::vector<float>(10, 0.0f));
}

// Decompositions of a sine at the exact centre of every band, eleven seconds long (the lowest band
// takes a few tenths of a second to fill); the bands are read together in two groups, so that
// neighbours of a sine's band lie at least two thirds of an octave away.
TEST(OctaveBands, SineAtABandsExactCentreReadsItsRMSLevelInThatBand) {
    for (const std::int64_t rate : kRates)
        for (const Bank* bank : {&kThird, &kOctave}) {
            const std::vector<int> indexes = bank->indexes(rate);
            const auto length = static_cast<std::size_t>(rate) * 11;
            const std::size_t groups = 2;
            double worst = 0;
            for (std::size_t group = 0; group < groups; ++group) {
                std::vector<double> sum(length);
                for (std::size_t i = group; i < indexes.size(); i += groups) {
                    const std::complex<double> step =
                        std::polar(1.0, 2 * kPi * exactCentre(indexes[i]) / rate);
                    std::complex<double> phasor = std::polar(0.5, 0.3 * i);
                    for (std::size_t n = 0; n < length; ++n, phasor *= step)
                        sum[n] += phasor.real();
                }
                const std::vector<float> samples(sum.begin(), sum.end());
                const BandDecomposition result =
                    bank->decomposition(VELTRealVector(std::span<const float>(samples)), rate);
                ASSERT_EQ(result.powerValues().length(), indexes.size());
                for (std::size_t i = group; i < indexes.size(); i += groups) {
                    const float level = result.powerValues()[indexes.size() - 1 - i]; // ascending order
                    const double error = 20 * std::log10(level / (0.5 / std::sqrt(2.0)));
                    EXPECT_NEAR(error, 0.0, 0.1) << bank->name << " " << rate << " band " << indexes[i];
                    worst = std::max(worst, std::fabs(error));
                }
            }
            std::printf("sine at the centres, %s bands at %lld: within %.3f dB\n", bank->name,
                        static_cast<long long>(rate), worst);
        }
}

// Periodic pink noise: every bin from 1 Hz up with the power 1/f and a random phase, so that each
// band's power is the sum over its bins (no statistical spread), about eleven seconds long.
TEST(OctaveBands, PinkNoiseGivesEqualThirdOctaveLevelsOverTheBank) {
    std::mt19937 generator(1);
    std::uniform_real_distribution<double> phase(0, 2 * kPi);
    for (const std::int64_t rate : kRates) {
        const std::size_t length = std::size_t{1} << static_cast<int>(std::round(std::log2(rate * 11.0)));
        VELTComplexVector spectrum(length / 2 + 1);
        for (std::size_t k = 1; k < length / 2; ++k)
            if (const double f = static_cast<double>(k) * rate / length; f >= 1) {
                const std::complex<double> bin = std::polar(1e3 / std::sqrt(f), phase(generator));
                spectrum.mutableRealComponents()[k] = static_cast<float>(bin.real());
                spectrum.mutableImaginaryComponents()[k] = static_cast<float>(bin.imag());
            }
        const BandDecomposition result = thirdOctaveBandsWithSampleRate(spectrum.ifft(), rate);
        float lowest = INFINITY, highest = -INFINITY;
        for (std::size_t i = 0; i < result.powerValues().length(); ++i) {
            const float level = 20 * std::log10(result.powerValues()[i]);
            lowest = std::min(lowest, level);
            highest = std::max(highest, level);
        }
        EXPECT_LT(highest - lowest, 0.5) << rate;
        std::printf("pink noise at %lld: third-octave levels within %.3f dB\n", static_cast<long long>(rate),
                    highest - lowest);
    }
}

TEST(OctaveBands, DecompositionsWalkTheBanksAndFilteredBandsMatchThem) {
    struct Case {
        const Bank* bank;
        std::int64_t rate;
        std::size_t bands;
        float lowest, highest;
    };
    const Case cases[] = {{&kThird, 44100, 27, 31.5f, 12500},  {&kThird, 48000, 27, 31.5f, 12500},
                          {&kThird, 96000, 29, 31.5f, 20000},  {&kThird, 32000, 17, 0, 0},
                          {&kOctave, 44100, 10, 31.5f, 16000}, {&kOctave, 192000, 10, 31.5f, 16000},
                          {&kOctave, 32000, 8, 0, 0}};
    std::mt19937 generator(2);
    std::normal_distribution<float> noise;
    VELTRealVector signal(20000);
    for (float& x : signal.mutableSpan())
        x = noise(generator);
    for (const Case& c : cases) {
        const BandDecomposition result = c.bank->decomposition(signal, c.rate);
        const std::size_t count = result.bandDecompositions().size();
        ASSERT_EQ(count, c.bands) << c.bank->name << " " << c.rate;
        ASSERT_EQ(result.powerValues().length(), count);
        ASSERT_EQ(result.displayBands().length(), count);
        ASSERT_EQ(result.bands().length(), count);
        EXPECT_EQ(result.displayBands()[0], c.lowest);
        EXPECT_EQ(result.displayBands()[count - 1], c.highest);
        for (std::size_t i = 0; i < count; ++i) {
            const int band = -15 + static_cast<int>(i) * 3 / c.bank->fraction; // ascending from -15
            const int halvings = band < c.bank->lowestDirect ? (c.bank->reusedTop - band) / 3 : 0;
            const Band& entry = result.bandDecompositions()[i];
            EXPECT_EQ(entry.band().RMSAverage(), result.powerValues()[i]);
            EXPECT_EQ(entry.sampleRate(), c.rate / (1 << halvings)) << band;
            if (c.rate == 32000) {
                EXPECT_EQ(entry.band(), VELTRealVector{0.0f});
                EXPECT_EQ(result.bands()[i], 0.0f);
                continue;
            }
            EXPECT_EQ(result.bands()[i], static_cast<float>(exactCentre(band)));
            EXPECT_EQ(result.displayBands()[i], static_cast<float>(nominal(band)));
            // The single-band walk gives the same signal at the same rate.
            std::int64_t actualRate = 0;
            const std::optional<VELTRealVector> single =
                c.bank->filteredBand(signal, static_cast<float>(nominal(band)), c.rate, &actualRate);
            ASSERT_TRUE(single) << band;
            EXPECT_EQ(*single, entry.band()) << band;
            EXPECT_EQ(actualRate, entry.sampleRate());
        }
    }
    // No band matches 25 Hz (below the walk), 1001 Hz, or an exact rather than nominal centre.
    for (const float requested : {25.0f, 1001.0f, 31.25f, 0.0f})
        EXPECT_FALSE(thirdOctaveFilteredBand(signal, requested, 48000, nullptr)) << requested;
    EXPECT_FALSE(octaveFilteredBand(signal, 1250.0f, 48000, nullptr));
    // At an unsupported rate every centre is 0, so 0 matches the first decimated band, which has no filter.
    std::int64_t actualRate = 0;
    EXPECT_EQ(octaveFilteredBand(signal, 0.0f, 32000, &actualRate), VELTRealVector{0.0f});
    EXPECT_EQ(actualRate, 16000);
}

} // namespace
} // namespace tavolar
