// The analysis commands on documents whose responses are known exactly.

#include "CliTestSupport.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <fstream>
#include <numbers>
#include <tuple>

namespace tavolar::testing {
namespace {

// A flat response: 0.5 at sample 100 of one second at 48 kHz, analysed through a 400 ms window
// without taper. The RMS value of a band of it is 0.5 sqrt(2 B / (fs L)) for a window of L samples
// and a band of noise bandwidth B; a third-order Butterworth band-pass has B = (pi/6) / sin(pi/6)
// times its -3 dB width.
class BandsCommand : public CommandLineTest {
protected:
    void SetUp() override {
        std::vector<float> impulse(48000, 0.0f);
        impulse[100] = 0.5f;
        writeSound(folder / "flat.wav", impulse, 48000);
        writeSound(folder / "low.wav", impulse, 32000);
        ASSERT_TRUE(succeeds({"import", "flat.wav", "-o", "d.tavolar", "--name", "Flat"}));
        ASSERT_TRUE(succeeds({"set", "d.tavolar", "1", "--window-begin", "0", "--window-end", "400"}));
    }
    static double flatLevel(double centre, double halfWidthOctaves) {
        const double noiseBandwidth = centre * (std::exp2(halfWidthOctaves) - std::exp2(-halfWidthOctaves)) *
                                      (std::numbers::pi / 6) / 0.5;
        return 20 * std::log10(0.5 * std::sqrt(2 * noiseBandwidth / (48000.0 * 19200.0)));
    }
    // Levels by nominal centre, from --json.
    std::map<double, nlohmann::json> bands(const Arguments& options) const {
        const nlohmann::json records = json(Arguments{"bands", "d.tavolar", "1", "--json"} + options);
        std::map<double, nlohmann::json> result;
        if (records.size() == 1)
            for (const auto& band : records[0]["bands"])
                result[band["nominal"].get<double>()] = band;
        return result;
    }
};

TEST_F(BandsCommand, LevelsOfAFlatResponseFollowTheBandwidths) {
    const auto thirds = bands({});
    ASSERT_EQ(thirds.size(), 27u);
    EXPECT_EQ(thirds.begin()->first, 31.5);
    EXPECT_EQ(thirds.rbegin()->first, 12500);
    EXPECT_NEAR(thirds.at(1000)["level"].get<double>(), flatLevel(1000, 1.0 / 6), 0.1);
    EXPECT_FALSE(thirds.at(1000).contains("spl"));
    // Each third octave a third of an octave wider: 10 log10(2^(1/3)) dB more, to 8 kHz.
    for (auto band = thirds.begin(); std::next(band)->first <= 8000; ++band)
        EXPECT_NEAR(std::next(band)->second["level"].get<double>() - band->second["level"].get<double>(),
                    10 * std::log10(std::cbrt(2.0)), 0.03)
            << band->first;

    const auto octaves = bands({"--octave"});
    ASSERT_EQ(octaves.size(), 10u);
    EXPECT_NEAR(octaves.at(1000)["level"].get<double>(), flatLevel(1000, 0.5), 0.1);
    EXPECT_NEAR(octaves.at(31.5)["exact"].get<double>(), 31.25, 1e-4);

    // A and C weighting at their tabled values (IEC 61672-1): A -19.1 dB at 100 Hz, C -3.0 dB at 31.5 Hz
    // and both 0 at 1 kHz; a third octave averages the curve over its width.
    const auto a = bands({"--weighting", "A"}), c = bands({"--weighting", "c"});
    for (const auto& [weighted, centre, expected] :
         {std::tuple{&a, 100.0, -19.1}, std::tuple{&a, 1000.0, 0.0}, std::tuple{&c, 31.5, -3.0},
          std::tuple{&c, 1000.0, 0.0}})
        EXPECT_NEAR(weighted->at(centre)["level"].get<double>() - thirds.at(centre)["level"].get<double>(),
                    expected, 0.3)
            << centre;
}

TEST_F(BandsCommand, SPLFollowsTheReferenceAndTheCalibration) {
    ASSERT_TRUE(succeeds({"set", "d.tavolar", "1", "--spl-reference", "-20"}));
    const auto referenced = bands({"--octave"});
    for (const auto& [centre, band] : referenced)
        EXPECT_NEAR(band["spl"].get<double>(), band["level"].get<double>() + 114.0, 1e-3) << centre;

    // A microphone 2 dB hot at 1 kHz reads 2 dB less there.
    std::ofstream(folder / "mic.txt") << "20 0 0\n500 0 0\n1000 2 0\n2000 0 0\n20000 0 0\n";
    ASSERT_TRUE(succeeds({"calibrate", "d.tavolar", "1", "--file", "mic.txt"}));
    const auto calibrated = bands({"--octave"});
    EXPECT_NEAR(calibrated.at(1000)["spl"].get<double>(), referenced.at(1000)["spl"].get<double>() - 2.0,
                1e-3);

    ASSERT_TRUE(succeeds({"bands", "d.tavolar", "1", "--octave", "-o", "bands.csv"}));
    const Table table = readCSV(folder / "bands.csv");
    EXPECT_EQ(table.headers, (std::vector<std::string>{"Band (Hz)", "Exact (Hz)", "Level (dB)", "SPL (dB)"}));
    ASSERT_EQ(table.rows.size(), 10u);
    EXPECT_EQ(table.rows[5][0], 1000.0);
    EXPECT_NEAR(table.rows[5][2], calibrated.at(1000)["level"].get<double>(), 1e-5);
    EXPECT_NEAR(table.rows[5][3], calibrated.at(1000)["spl"].get<double>(), 1e-5);
}

TEST_F(BandsCommand, RefusesRatesWithoutFiltersAndConflictingOptions) {
    ASSERT_TRUE(succeeds({"import", "low.wav", "-o", "d.tavolar"}));
    expectRefused({"bands", "d.tavolar", "2"}, 1,
                  "sample rate of 32000 Hz, for which there are no band filters");
    expectRefused({"bands", "d.tavolar", "1", "--octave", "--third-octave"}, 2);
    expectRefused({"bands", "d.tavolar", "1", "--weighting", "b"}, 2);
    expectRefused({"bands", "d.tavolar", "1", "--json", "-o", "x.csv"}, 2);
}

// export with smoothing, the logarithmic grid and weighting: a direct sound and an echo, whose
// transform is known exactly at every bin, and the analogue weighting curves of the standard.
constexpr int kExportRate = 48000;
constexpr std::size_t kExportFFTLength = 8192;
constexpr std::size_t kEcho = 480; // samples after the direct sound

class ExportAnalysis : public CommandLineTest {
protected:
    // One record: 0.5 z^-12, and 0.25 z^-492 with the echo; no window taper.
    void importResponse(bool echo, int rate = kExportRate) const {
        std::vector<float> impulse(kExportFFTLength, 0.0f);
        impulse[12] = 0.5f;
        if (echo)
            impulse[12 + kEcho] = 0.25f;
        writeSound(folder / "response.wav", impulse, rate);
        ASSERT_TRUE(succeeds({"import", "response.wav", "-o", "e.tavolar"}));
        ASSERT_TRUE(succeeds(
            {"set", "e.tavolar", "1", "--window-begin", "0", "--window-end", "80", "--window-type", "none"}));
    }
    Table exported(const Arguments& options) const {
        EXPECT_TRUE(
            succeeds(Arguments{"export", "e.tavolar", "-o", "x.csv", "--fft-length", "8192"} + options));
        return readCSV(folder / "x.csv");
    }
};

// |0.5 + 0.25 e^(-j 2 pi k D / N)| in dB at bin k.
double echoDecibels(std::size_t bin) {
    const double phase = 2 * std::numbers::pi * static_cast<double>(bin * kEcho) / kExportFFTLength;
    return 20 * std::log10(std::abs(0.5 + 0.25 * std::polar(1.0, -phase)));
}

// Bin i smoothed over 1/N octave: the mean over bins trunc(i 2^(-1/N)) .. trunc(i 2^(1/N)) (float
// products, at least bin 1, at most the last) of the decibels, or of the powers.
double smoothedEcho(std::size_t bin, int denominator, bool powers) {
    const float fraction = 1.0f / static_cast<float>(denominator);
    auto limit = [](float position) {
        return std::clamp<std::size_t>(static_cast<std::size_t>(position), 1, kExportFFTLength / 2 - 1);
    };
    const std::size_t low = limit(static_cast<float>(bin) * std::exp2(-fraction));
    const std::size_t high = limit(static_cast<float>(bin) * std::exp2(fraction));
    double sum = 0;
    for (std::size_t j = low; j <= high; ++j)
        sum += powers ? std::pow(10.0, echoDecibels(j) / 10) : echoDecibels(j);
    const double mean = sum / static_cast<double>(high - low + 1);
    return powers ? 10 * std::log10(mean) : mean;
}

TEST_F(ExportAnalysis, SmoothingAveragesDecibelsOrPowersOverFractionsOfAnOctave) {
    importResponse(true);
    struct Case {
        Arguments options;
        int denominator;
        bool powers;
    };
    for (const Case& c : {Case{{"--smoothing"}, 12, false}, Case{{"--smoothing", "3"}, 3, false},
                          Case{{"--smoothing=6", "--smoothing-domain", "power"}, 6, true}}) {
        SCOPED_TRACE(c.options[0]);
        const Table table = exported(Arguments{"--curves", "magnitude"} + c.options);
        ASSERT_EQ(table.rows.size(), kExportFFTLength / 2);
        for (std::size_t bin = 0; bin < table.rows.size(); ++bin)
            ASSERT_NEAR(table.rows[bin][1],
                        smoothedEcho(std::max<std::size_t>(bin, 1), c.denominator, c.powers), 0.01)
                << "bin " << bin;
    }
    // Over many periods of the ripple, decibels average to those of the direct sound (Jensen's formula)
    // and powers to the sum of both paths' powers: the domains differ by 1 dB.
    EXPECT_NEAR(smoothedEcho(3000, 3, false), 20 * std::log10(0.5), 0.05);
    EXPECT_NEAR(smoothedEcho(3000, 3, true), 10 * std::log10(0.25 + 0.0625), 0.05);
    EXPECT_NE(run({"export", "--help"}).out.find("averaging the decibels as the graphs do"),
              std::string::npos);
}

TEST_F(ExportAnalysis, GridPicksTheNearestBinsWithinTheValidRange) {
    importResponse(true);
    const Table table = exported({"--curves", "magnitude,phase", "--points-per-octave", "12"});
    // 1000 * 2^(k/12) from the first point above 10 Hz to the last within the top bin (24 kHz less
    // one bin): k = -79 (10.07 Hz) to 55 (23.97 kHz).
    ASSERT_EQ(table.rows.size(), 79u + 1 + 55);
    for (std::size_t at = 0; at < table.rows.size(); ++at) {
        const double frequency = 1000 * std::exp2((static_cast<double>(at) - 79) / 12);
        EXPECT_NEAR(table.rows[at][0], frequency, 1e-5 * frequency);
        const auto bin = static_cast<std::size_t>(std::lround(frequency * kExportFFTLength / kExportRate));
        EXPECT_NEAR(table.rows[at][1], echoDecibels(bin), 0.001) << frequency << " Hz";
    }
    ASSERT_TRUE(
        succeeds({"export", "e.tavolar", "-o", "g.frd", "--fft-length", "8192", "--points-per-octave", "3"}));
    EXPECT_EQ(lines(fileBytes(folder / "g.frd"))[2].substr(0, 10), "12.401569 ") << "no 0 Hz line";
}

// Annex E of the standard, normalised at 1 kHz (A1000 = -2.000 dB, C1000 = -0.062 dB).
double analogueWeighting(char weighting, double f) {
    const double f1 = 20.598997, f2 = 107.65265, f3 = 737.86223, f4 = 12194.217, s = f * f;
    if (weighting == 'c')
        return 20 * std::log10(f4 * f4 * s / ((s + f1 * f1) * (s + f4 * f4))) + 0.062;
    return 20 * std::log10(f4 * f4 * s * s /
                           ((s + f1 * f1) * std::sqrt((s + f2 * f2) * (s + f3 * f3)) * (s + f4 * f4))) +
           2.0;
}

// Each grid point holds its nearest bin: the direct sound's level (94 dB more for SPL without a
// reference) plus the weighting at that bin's frequency.
TEST_F(ExportAnalysis, WeightingFollowsTheStandardsCurves) {
    importResponse(false);
    for (auto [weighting, curve, header] :
         {std::tuple{"a", "magnitude", "Magnitude (dBA)"}, std::tuple{"c", "spl", "SPL (dBC)"}}) {
        SCOPED_TRACE(weighting);
        const Table table =
            exported({"--curves", curve, "--points-per-octave", "3", "--weighting", weighting});
        EXPECT_EQ(table.headers, (std::vector<std::string>{"Frequency (Hz)", header}));
        ASSERT_EQ(table.rows.size(), 19u + 1 + 13); // k = -19 (12.4 Hz) to 13 (20.2 kHz)
        const double level = 20 * std::log10(0.5) + (std::string(curve) == "spl" ? 94.0 : 0.0);
        for (const auto& row : table.rows) {
            const double bin =
                std::round(row[0] * kExportFFTLength / kExportRate) * kExportRate / kExportFFTLength;
            if (bin <= 4000) {
                EXPECT_NEAR(row[1], level + analogueWeighting(weighting[0], bin), 0.05) << row[0];
            }
        }
    }
}

TEST_F(ExportAnalysis, RefusesOptionsThatDoNotApply) {
    importResponse(false);
    for (const auto& [options, message] : std::initializer_list<std::pair<Arguments, std::string>>{
             {{"--smoothing", "49"}, "Smoothing runs from 1/1 to 1/48 octave"},
             {{"--points-per-octave", "0"}, "1 to 96 points per octave"},
             {{"--curves", "phase", "--weighting", "a"}, "--weighting applies to magnitude"},
             {{"--curves", "impulse", "--smoothing"}, "--smoothing applies to magnitude"},
             {{"--curves", "etc", "--points-per-octave", "3"}, "applies to frequency curves"},
             {{"--smoothing-domain", "power"}, "requires --smoothing"},
         })
        expectRefused(Arguments{"export", "e.tavolar", "-o", "x.csv"} + options, 2, message);
    expectRefused({"export", "e.tavolar", "-o", "x.wav", "--weighting", "c"}, 2,
                  "--weighting applies to magnitude");
    // No weighting filter at 32 kHz: a failure that says so.
    importResponse(false, 32000);
    expectRefused({"export", "e.tavolar", "2", "-o", "x.csv", "--weighting", "a"}, 1,
                  "32000 Hz, for which there is no A-weighting filter");
}

} // namespace
} // namespace tavolar::testing
