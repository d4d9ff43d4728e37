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
constexpr std::size_t kBins = 4096, kEcho = 480; // of an 8192-point transform at 48 kHz; echo delay

class ExportAnalysis : public CommandLineTest {
protected:
    // Record 1: 0.5 z^-12, and 0.25 z^-492 with the echo, without window taper.
    void SetUp() override {
        std::vector<float> impulse(2 * kBins, 0.0f), slow(4096, 0.0f);
        impulse[12] = 0.5f;
        writeSound(folder / "direct.wav", impulse, 48000);
        impulse[12 + kEcho] = 0.25f;
        writeSound(folder / "echo.wav", impulse, 48000);
        writeSound(folder / "slow.wav", slow, 32000);
        for (const char* file : {"echo.wav", "direct.wav", "slow.wav"})
            ASSERT_TRUE(succeeds({"import", file, "-o", "e.tavolar"}));
        ASSERT_TRUE(succeeds({"set", "e.tavolar", "1", "2", "--window-begin", "0", "--window-end", "80",
                              "--window-type", "none"}));
    }
    Table exported(const std::string& record, const Arguments& options) const {
        EXPECT_TRUE(succeeds(Arguments{"export", "e.tavolar", record, "-o", "x.csv", "--fft-length", "8192"} +
                             options));
        return readCSV(folder / "x.csv");
    }
};

// |0.5 + 0.25 e^(-j 2 pi k D / N)| in dB at bin k.
double echoDecibels(std::size_t k) {
    return 20 *
           std::log10(std::abs(0.5 + 0.25 * std::polar(1.0, -std::numbers::pi * double(k * kEcho) / kBins)));
}

// Over the many periods of the echo's ripple in a third of an octave, decibels average to the
// direct sound's (Jensen's formula) and powers to the sum of both paths' powers, 1 dB apart. The
// arithmetic itself is the smoothing tests' concern.
TEST_F(ExportAnalysis, SmoothingAveragesDecibelsOrPowers) {
    for (const auto& [domain, level] :
         {std::pair{"db", 20 * std::log10(0.5)}, std::pair{"power", 10 * std::log10(0.3125)}}) {
        const Table table =
            exported("1", {"--curves", "magnitude", "--smoothing", "3", "--smoothing-domain", domain});
        ASSERT_EQ(table.rows.size(), kBins);
        for (std::size_t bin = 1000; bin < 3000; ++bin)
            ASSERT_NEAR(table.rows[bin][1], level, 0.1) << domain << ", bin " << bin;
        // Bin 100 is the mean of bins 79 to 125.
        double sum = 0;
        for (std::size_t bin = 79; bin <= 125; ++bin)
            sum += domain == std::string("db") ? echoDecibels(bin) : std::pow(10.0, echoDecibels(bin) / 10);
        EXPECT_NEAR(table.rows[100][1], domain == std::string("db") ? sum / 47 : 10 * std::log10(sum / 47),
                    0.01);
    }
    // Without a value, a twelfth of an octave, as the graphs smooth by default.
    EXPECT_EQ(exported("1", {"--smoothing"}).rows, exported("1", {"--smoothing", "12"}).rows);
    EXPECT_NE(run({"export", "--help"}).out.find("averaging the decibels as the graphs do"),
              std::string::npos);
}

// Annex E of the standard, normalised at 1 kHz (A1000 = -2.000 dB, C1000 = -0.062 dB).
double analogueWeighting(const std::string& weighting, double f) {
    const double f1 = 20.598997, f2 = 107.65265, f3 = 737.86223, f4 = 12194.217, s = f * f;
    if (weighting == "c")
        return 20 * std::log10(f4 * f4 * s / ((s + f1 * f1) * (s + f4 * f4))) + 0.062;
    return 20 * std::log10(f4 * f4 * s * s /
                           ((s + f1 * f1) * std::sqrt((s + f2 * f2) * (s + f3 * f3)) * (s + f4 * f4))) +
           2.0;
}

// Grid point 1000 * 2^(k/N) holds the nearest bin, from the first point above 10 Hz to the last
// within the top bin (24 kHz less one bin); weighting adds the curve at that bin's frequency.
TEST_F(ExportAnalysis, GridPicksTheNearestBinsAndWeightingFollowsTheStandard) {
    const Table echo = exported("1", {"--curves", "magnitude,phase", "--points-per-octave", "12"});
    ASSERT_EQ(echo.rows.size(), 79u + 1 + 55); // k = -79 (10.07 Hz) to 55 (23.97 kHz)
    for (std::size_t at = 0; at < echo.rows.size(); ++at) {
        const double frequency = 1000 * std::exp2((static_cast<double>(at) - 79) / 12);
        EXPECT_NEAR(echo.rows[at][0], frequency, 1e-5 * frequency);
        EXPECT_NEAR(echo.rows[at][1], echoDecibels(std::lround(frequency * 2 * kBins / 48000)), 0.001)
            << frequency;
    }
    for (const auto& [weighting, curve, level] :
         {std::tuple{"a", "magnitude", -6.0206}, std::tuple{"c", "spl", 87.9794}}) {
        const Table table =
            exported("2", {"--curves", curve, "--points-per-octave", "3", "--weighting", weighting});
        EXPECT_EQ(table.headers[1], weighting == std::string("a") ? "Magnitude (dBA)" : "SPL (dBC)");
        ASSERT_EQ(table.rows.size(), 19u + 1 + 13); // k = -19 (12.4 Hz) to 13 (20.2 kHz)
        for (const auto& row : table.rows) {
            const double bin = std::round(row[0] * 2 * kBins / 48000) * 48000 / (2 * kBins);
            if (bin <= 4000) {
                EXPECT_NEAR(row[1], level + analogueWeighting(weighting, bin), 0.05)
                    << weighting << " " << row[0];
            }
        }
    }
    ASSERT_TRUE(succeeds(
        {"export", "e.tavolar", "1", "-o", "g.frd", "--fft-length", "8192", "--points-per-octave", "3"}));
    EXPECT_EQ(lines(fileBytes(folder / "g.frd"))[2].substr(0, 10), "12.401569 ") << "no 0 Hz line";
}

TEST_F(ExportAnalysis, RefusesOptionsThatDoNotApply) {
    for (const auto& [options, message] : std::initializer_list<std::pair<Arguments, std::string>>{
             {{"--smoothing", "49"}, "Smoothing runs from 1/1 to 1/48 octave"},
             {{"--points-per-octave", "0"}, "1 to 96 points per octave"},
             {{"--curves", "phase", "--weighting", "a"}, "--weighting applies to magnitude"},
             {{"--curves", "impulse", "--smoothing"}, "--smoothing applies to magnitude"},
             {{"--curves", "etc", "--points-per-octave", "3"}, "applies to frequency curves"},
             {{"--smoothing-domain", "power"}, "requires --smoothing"}})
        expectRefused(Arguments{"export", "e.tavolar", "1", "-o", "x.csv"} + options, 2, message);
    expectRefused({"export", "e.tavolar", "3", "-o", "x.csv", "--weighting", "a"}, 1,
                  "32000 Hz, for which there is no A-weighting filter");
}

} // namespace
} // namespace tavolar::testing
