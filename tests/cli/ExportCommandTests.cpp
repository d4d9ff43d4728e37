// export: the files it writes, parsed and compared with the response of a known system worked out
// here from its mathematics, and the harmonic distortion of a known nonlinearity, imported from a
// recorded sweep.

#include "CliTestSupport.h"

#include <cmath>
#include <sndfile.h>

namespace tavolar::testing {
namespace {

constexpr int kRate = 48000;
constexpr std::size_t kDelay = 12; // samples: 0.25 ms

// Each test starts from d.tavolar, holding record 1 "First one": 0.5 z^-12 in a 8192-sample response,
// a flat -6.02 dB, a phase of -2 pi f 12 / fs, 0.25 ms of group delay.
class ExportCommand : public CommandLineTest {
protected:
    void SetUp() override {
        writeSound(folder / "delay.wav", pureDelay(), kRate);
        ASSERT_TRUE(succeeds({"import", "delay.wav", "-o", "d.tavolar", "--name", "First one"}));
    }
    static std::vector<float> pureDelay() {
        std::vector<float> impulse(8192, 0.0f);
        impulse[kDelay] = 0.5f;
        return impulse;
    }
};

double wrappedDegrees(double degrees) {
    return std::remainder(degrees, 360.0);
}

TEST_F(ExportCommand, FrequencyCurvesMatchTheSystem) {
    // The default window ends at the response's last positive time, 4096 samples after time zero.
    const nlohmann::json window = info("d.tavolar", "1")["window"];
    EXPECT_NEAR(window["endMilliseconds"].get<double>(), 4096000.0 / kRate, 1e-4);
    EXPECT_NEAR(window["durationMilliseconds"].get<double>(), (4096 + 84) * 1000.0 / kRate, 1e-4);
    // The window begins 2 ms before the peak, at -1.75 ms; phase and group delay count from time zero.
    ASSERT_TRUE(succeeds({"set", "d.tavolar", "1", "--window-end", "40"}));
    RunResult written = run({"export", "d.tavolar", "1", "-o", "curves.csv", "--fft-length", "4096",
                             "--curves", "magnitude,phase,group-delay,excess-phase"});
    ASSERT_EQ(written.exitCode, 0) << written.err;
    EXPECT_EQ(written.out, "Wrote curves.csv\n");
    Table table = readCSV(folder / "curves.csv");
    EXPECT_EQ(table.headers, (std::vector<std::string>{"Frequency (Hz)", "Magnitude (dB)", "Phase (deg)",
                                                       "Excess phase (deg)", "Group delay (ms)"}));
    // Valid range 0 Hz to 24 kHz: every bin but the last (Nyquist).
    ASSERT_EQ(table.rows.size(), 2048u);
    for (std::size_t bin = 0; bin < table.rows.size(); ++bin) {
        const std::vector<double>& row = table.rows[bin];
        const double frequency = static_cast<double>(bin) * kRate / 4096.0;
        EXPECT_NEAR(row[0], frequency, 1e-3);
        EXPECT_NEAR(row[1], 20.0 * std::log10(0.5), 1e-3) << frequency;
        // Compare on the circle: 180 and -180 are the same phase.
        EXPECT_NEAR(wrappedDegrees(row[2] + 360.0 * frequency * kDelay / kRate), 0.0, 0.05) << frequency;
        EXPECT_GE(row[2], -180.0);
        EXPECT_LE(row[2], 180.0);
        EXPECT_NEAR(row[4], 1000.0 * kDelay / kRate, 1e-3) << frequency;
    }

    // Counted from the peak, the delay is gone; from the window's begin, 96 samples (2 ms) of it.
    for (const auto& [reference, delay] : {std::pair{"peak", 0.0}, std::pair{"window", 96.0}}) {
        ASSERT_TRUE(succeeds({"export", "d.tavolar", "1", "-o", "r.csv", "--fft-length", "4096", "--curves",
                              "phase,group-delay", "--phase-reference", reference}));
        const Table referenced = readCSV(folder / "r.csv");
        ASSERT_EQ(referenced.rows.size(), 2048u);
        for (std::size_t bin : {1u, 100u, 1000u, 2047u}) {
            const std::vector<double>& row = referenced.rows[bin];
            EXPECT_NEAR(wrappedDegrees(row[1] + 360.0 * row[0] * delay / kRate), 0.0, 0.05) << reference;
            EXPECT_NEAR(row[2], 1000.0 * delay / kRate, 1e-3) << reference;
        }
    }
    expectRefused(
        {"export", "d.tavolar", "-o", "x.csv", "--curves", "magnitude", "--phase-reference", "peak"}, 2,
        "--phase-reference");

    // FRD: the two header lines, then frequency, magnitude and wrapped phase of the same bins.
    ASSERT_TRUE(succeeds({"export", "d.tavolar", "-o", "d.frd", "--fft-length", "4096"}));
    std::vector<std::string> frd = lines(fileBytes(folder / "d.frd"));
    ASSERT_EQ(frd.size(), 2u + 2048u);
    EXPECT_EQ(frd[0], "* Response obtained using Tavolar (https://tavolarkit.org)");
    EXPECT_EQ(frd[1], "* Freq(Hz) Mag(dBFS) Phase(deg)");
    EXPECT_EQ(frd[2], "0.000000 -6.020600 0.000000");
    std::vector<std::string> fields = splitFields(frd[2 + 100], ' ');
    ASSERT_EQ(fields.size(), 3u);
    EXPECT_NEAR(std::stod(fields[0]), 100.0 * kRate / 4096.0, 1e-5);
    EXPECT_NEAR(wrappedDegrees(std::stod(fields[2]) + 360.0 * 100.0 * kDelay / 4096.0), 0.0, 0.05);

    // MATLAB: one statement per curve, and the record's SPL reference applies to "spl".
    ASSERT_TRUE(succeeds({"set", "d.tavolar", "1", "--spl-reference", "100"}));
    ASSERT_TRUE(
        succeeds({"export", "d.tavolar", "-o", "d.m", "--fft-length", "256", "--curves", "magnitude,spl"}));
    std::vector<std::string> statements = lines(fileBytes(folder / "d.m"));
    ASSERT_EQ(statements.size(), 3u);
    EXPECT_TRUE(statements[0].starts_with("frequency = [0.000000, 187.500000, ")) << statements[0];
    EXPECT_TRUE(statements[1].starts_with("magnitude = [-6.020600, ")) << statements[1];
    EXPECT_TRUE(statements[2].ends_with(", ];")) << statements[2];
    // SPL puts the reference level at 94 dB: 94 - 100 dB above the magnitude.
    EXPECT_NEAR(std::stod(splitFields(statements[2].substr(7), ',')[0]) + 6.0206, 94.0 - 100.0, 1e-3);
}

TEST_F(ExportCommand, TimeCurvesWavAndSeveralRecordsIntoAFolder) {
    // The second record has a tail sample far below the six decimals of the frequency curves, and an
    // odd length, whose time axis must still put the peak at sample 12.
    std::vector<float> tail = pureDelay();
    tail[kDelay + 24] = 3e-7f;
    tail.pop_back();
    writeSound(folder / "tail.wav", tail, kRate);
    ASSERT_TRUE(succeeds({"import", "tail.wav", "-o", "d.tavolar", "--name", "Second/one"}));
    // The impulse and its energy-time curve over -1 to +1 ms of the centred time axis.
    ASSERT_TRUE(succeeds({"export", "d.tavolar", "2", "-o", "t.csv", "--curves", "impulse,etc",
                          "--time-start", "-1.001", "--time-end", "1.001"}));
    Table time = readCSV(folder / "t.csv");
    EXPECT_EQ(time.headers, (std::vector<std::string>{"Time (ms)", "Impulse response", "ETC (dB)"}));
    ASSERT_EQ(time.rows.size(), 97u); // -48 to +48 samples
    EXPECT_NEAR(time.rows.front()[0], -1.0, 1e-6);
    auto peak = std::max_element(time.rows.begin(), time.rows.end(),
                                 [](const auto& a, const auto& b) { return a[2] < b[2]; });
    EXPECT_NEAR((*peak)[0], 0.25, 1e-6);
    EXPECT_NEAR((*peak)[1], 0.5, 1e-6);
    EXPECT_NEAR((*peak)[2], 20.0 * std::log10(0.5), 0.01);
    EXPECT_EQ(static_cast<float>(time.rows[48 + kDelay + 24][1]), 3e-7f) << "a time sample was rounded";
    ASSERT_TRUE(succeeds({"export", "d.tavolar", "2", "-o", "t.m", "--curves", "impulse", "--time-start", "0",
                          "--time-end", "1"}));
    EXPECT_NE(fileBytes(folder / "t.m").find(", 3.00000011e-07, "), std::string::npos) << "MATLAB rounded it";

    // WAV: the impulse response as stored, sample for sample; with --windowed, the window's part.
    ASSERT_TRUE(succeeds({"export", "d.tavolar", "1", "-o", "ir.wav"}));
    SoundFile wav = readSound(folder / "ir.wav");
    EXPECT_EQ(wav.format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    EXPECT_EQ(wav.sampleRate, kRate);
    EXPECT_EQ(wav.samples, pureDelay());
    ASSERT_TRUE(succeeds({"set", "d.tavolar", "1", "--window-begin", "0", "--window-end", "1"}));
    ASSERT_TRUE(succeeds({"export", "d.tavolar", "1", "-o", "win.wav", "--windowed"}));
    wav = readSound(folder / "win.wav");
    ASSERT_EQ(wav.samples.size(), 48u);
    EXPECT_EQ(wav.samples[kDelay], 0.5f);

    // Several files: -o names a folder, each file named after its record and curve group.
    RunResult both = run({"export", "d.tavolar", "-o", "out", "--curves", "magnitude,impulse", "--time-start",
                          "0", "--time-end", "0.1"});
    ASSERT_EQ(both.exitCode, 0) << both.err;
    for (const char* name : {"out/1-first-one.csv", "out/1-first-one-time.csv", "out/2-second-one.csv",
                             "out/2-second-one-time.csv"}) {
        EXPECT_TRUE(std::filesystem::exists(folder / name)) << name;
        EXPECT_NE(both.out.find(name), std::string::npos) << both.out;
    }

    // Curves a format cannot hold, and bad numbers, are usage errors; nothing is written.
    for (const Arguments& bad : {Arguments{"-o", "x.frd", "--curves", "group-delay"},
                                 {"-o", "x.frd", "--curves", "magnitude,spl"},
                                 {"-o", "x.wav", "--curves", "magnitude"},
                                 {"-o", "x.csv", "--fft-length", "1000"},
                                 {"-o", "x.csv", "--curves", "loudness"},
                                 {"-o", "x.xyz"},
                                 {"-o", "x.csv", "--curves", "harmonics", "--orders", "1"},
                                 {"-o", "x.csv", "--curves", "harmonics", "--orders", "9-3"},
                                 {"-o", "x.csv", "--curves", "harmonics", "--orders", "2-x"},
                                 {"-o", "x.frd", "--curves", "thd"}})
        expectRefused(Arguments{"export", "d.tavolar"} + bad, 2);
    expectRefused({"export", "d.tavolar", "-o", "x.csv", "--curves", "harmonics"}, 1);
    expectRefused({"export", "d.tavolar", "3", "-o", "x.csv"}, 1);
    for (const char* name : {"x.frd", "x.wav", "x.csv", "x.xyz"})
        EXPECT_FALSE(std::filesystem::exists(folder / name)) << name;
}

// A response recorded through y = x + a2 x^2 + a3 x^3, 40 samples late, imported once with its
// stimulus file and once with the stimulus rebuilt from the sweep options.
TEST_F(ExportCommand, HarmonicDistortionOfAKnownNonlinearity) {
    // Driven by a sine of amplitude A (the default level, -3 dBFS), the fundamental becomes
    // A + 3/4 a3 A^3, the second harmonic a2 A^2 / 2 and the third a3 A^3 / 4.
    const double a2 = 0.1, a3 = 0.08, A = std::pow(10.0, -3.0 / 20.0);
    const double fundamental = A + 0.75 * a3 * A * A * A;
    const double second = 100.0 * (a2 * A * A / 2.0) / fundamental;
    const double third = 100.0 * (a3 * A * A * A / 4.0) / fundamental;
    // The sweep stops at 2500 Hz so that no product up to the third lies above the Nyquist frequency.
    const Arguments sweep{"--start",         "20", "--end",         "2500", "--length", "2000",
                          "--begin-silence", "50", "--end-silence", "300"};
    ASSERT_TRUE(succeeds(Arguments{"sweep", "s.wav", "--rate", "16000"} + sweep));
    const std::vector<float> stimulus = readSound(folder / "s.wav").samples;
    std::vector<float> response(stimulus.size() + 200, 0.0f);
    for (std::size_t n = 0; n < stimulus.size(); ++n) {
        const double x = stimulus[n];
        response[n + 40] = static_cast<float>(x + a2 * x * x + a3 * x * x * x);
    }
    writeSound(folder / "r.wav", response, 16000);
    ASSERT_TRUE(succeeds(
        Arguments{"import", "r.wav", "--stimulus", "s.wav", "-o", "h.tavolar", "--lambda", "1e-6"} + sweep));
    ASSERT_TRUE(succeeds(Arguments{"import", "r.wav", "-o", "h.tavolar", "--lambda", "1e-7"} + sweep));
    for (const char* number : {"1", "2"}) {
        nlohmann::json record = info("h.tavolar", number);
        EXPECT_EQ(record["peak"]["samples"], 40) << number;
        EXPECT_EQ(record["sweep"]["startFrequency"], 20.0);
        EXPECT_EQ(record["sweep"]["endFrequency"], 2500.0);
        EXPECT_EQ(record["sweep"]["durationMilliseconds"], 2000.0);
        EXPECT_EQ(record["sweep"]["beginSilenceMilliseconds"], 50.0);
        EXPECT_NEAR(record["sweep"]["levelDecibels"].get<double>(), -3.0, 1e-5) << "as measure plays it";
        EXPECT_EQ(record["validRange"]["startFrequency"], 20.0);
        EXPECT_EQ(record["validRange"]["endFrequency"], 2500.0);
    }
    // A response at another rate than the stimulus is refused and nothing is added; a reference
    // without a recorded response is a usage error.
    writeSound(folder / "r22.wav", response, 22050);
    expectRefused({"import", "r22.wav", "--stimulus", "s.wav", "-o", "h.tavolar"}, 1, "22050 Hz");
    expectRefused({"import", "r.wav", "--reference", "s.wav", "-o", "h.tavolar"}, 2);
    EXPECT_EQ(json({"list", "h.tavolar", "--json"}).size(), 2u);

    ASSERT_TRUE(succeeds({"export", "h.tavolar", "1", "-o", "h.csv", "--curves", "harmonics,thd", "--orders",
                          "2-3", "--percent"}));
    Table table = readCSV(folder / "h.csv");
    EXPECT_EQ(table.headers,
              (std::vector<std::string>{"Frequency (Hz)", "H2 (%)", "H3 (%)", "THD H2-H9 (%)"}));
    ASSERT_FALSE(table.rows.empty());
    // Rows run from the sweep's start to where the third harmonic leaves the swept band.
    EXPECT_LE(table.rows.back()[0], 2500.0 / 3.0);
    EXPECT_GE(table.rows.back()[0], 2500.0 / 3.0 - 1.0);
    EXPECT_GE(table.rows.front()[0], 20.0);
    // Near the end of a band-limited sweep the stimulus spectrum ripples (the sweep stops abruptly),
    // so the third harmonic is checked where 3 f stays clear of the last 400 Hz of the band.
    std::size_t checked = 0;
    for (const auto& row : table.rows) {
        if (row[0] < 100.0 || row[0] > 700.0)
            continue;
        EXPECT_NEAR(row[1], second, 0.1) << row[0] << " Hz";
        EXPECT_NEAR(row[2], third, 0.1) << row[0] << " Hz";
        EXPECT_NEAR(row[3], std::hypot(second, third), 0.1) << row[0] << " Hz";
        ++checked;
    }
    EXPECT_GT(checked, 100u);

    // In dB, and as FRD files, one per order; levels in percent have no place in an FRD file.
    ASSERT_TRUE(succeeds({"export", "h.tavolar", "1", "-o", "hdb.csv", "--curves", "harmonics"}));
    Table decibels = readCSV(folder / "hdb.csv");
    ASSERT_EQ(decibels.rows.size(), table.rows.size());
    EXPECT_NEAR(decibels.rows[decibels.rows.size() / 2][1], 20.0 * std::log10(second / 100.0), 0.1);
    ASSERT_TRUE(succeeds({"export", "h.tavolar", "1", "-o", "frd", "-f", "frd", "--curves", "harmonics"}));
    EXPECT_EQ(lines(fileBytes(folder / "frd/1-r-h2.frd")).size(), 2u + table.rows.size());
    EXPECT_TRUE(std::filesystem::exists(folder / "frd/1-r-h3.frd"));
    expectRefused({"export", "h.tavolar", "1", "-o", "x.frd", "--curves", "harmonics", "--percent"}, 2);
}

// The delay's waterfall: the slices that still hold the impulse read 0 dB in every bin (it is the
// loudest part of the surface), the later ones silence.
TEST_F(ExportCommand, WaterfallAndSpectrogramSurfaces) {
    ASSERT_TRUE(succeeds({"export", "d.tavolar", "1", "-o", "w.csv", "--curves", "waterfall", "--fft-length",
                          "1024", "--slices", "4", "--duration", "0.5", "--window-type", "rectangular"}));
    Table table = readCSV(folder / "w.csv");
    ASSERT_EQ(table.headers.size(), 1u + 513u);
    EXPECT_EQ(table.headers[0], "Time (ms)");
    EXPECT_EQ(table.headers[2], "46.875000");
    ASSERT_EQ(table.rows.size(), 4u);
    for (std::size_t row = 0; row < 4; ++row) {
        EXPECT_NEAR(table.rows[row][0], double(row) * 8.0 / 48.0, 1e-6); // 24 samples over 3 gaps
        for (std::size_t column = 1; column < table.rows[row].size(); column += 64)
            if (row < 2) // slices from samples 0 and 8 hold the impulse at 12
                EXPECT_NEAR(table.rows[row][column], 0.0, 1e-4) << row;
            else
                EXPECT_LT(table.rows[row][column], -700.0) << row;
    }
    // Counted from the peak, the first slice starts at it and the next one after it.
    ASSERT_TRUE(succeeds({"export", "d.tavolar", "1", "-o", "p.csv", "--curves", "waterfall", "--fft-length",
                          "1024", "--slices", "2", "--duration", "0.5", "--start-at-peak"}));
    table = readCSV(folder / "p.csv");
    ASSERT_EQ(table.rows.size(), 2u);
    EXPECT_EQ(table.rows[1][0], 0.5);
    EXPECT_NEAR(table.rows[0][1], 0.0, 1e-4);
    EXPECT_LT(table.rows[1][1], -700.0);

    // The spectrogram in MATLAB text: slices of 1024 overlapping by half over the 4096 samples of
    // positive time, timed at their centres.
    ASSERT_TRUE(succeeds({"export", "d.tavolar", "1", "-o", "s.m", "--curves", "spectrogram", "--fft-length",
                          "1024", "--overlap", "0.5"}));
    std::vector<std::string> statements = lines(fileBytes(folder / "s.m"));
    ASSERT_EQ(statements.size(), 3u);
    EXPECT_TRUE(statements[0].starts_with("frequency = [0.000000, 46.875000, ")) << statements[0];
    EXPECT_EQ(statements[1], "time = [10.666667, 21.333334, 32.000000, 42.666668, 53.333332, 64.000000, "
                             "74.666664, ];");
    EXPECT_TRUE(statements[2].starts_with("spectrogram = [")) << statements[2];
    EXPECT_EQ(std::count(statements[2].begin(), statements[2].end(), ';'), 7 + 1);

    for (const auto& refused : std::vector<Arguments>{
             {"export", "d.tavolar", "-o", "x.csv", "--curves", "waterfall,magnitude"},
             {"export", "d.tavolar", "-o", "x.frd", "--curves", "waterfall"},
             {"export", "d.tavolar", "-o", "x.csv", "--curves", "magnitude", "--slices", "4"},
             {"export", "d.tavolar", "-o", "x.csv", "--curves", "spectrogram", "--slices", "4"},
             {"export", "d.tavolar", "-o", "x.csv", "--curves", "waterfall", "--slices", "0"}})
        expectRefused(refused, 2);
}

} // namespace
} // namespace tavolar::testing
