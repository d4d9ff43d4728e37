// The command line without documents: exit statuses, the sweep stimulus it writes, and the
// deconvolution of recorded responses, checked against signals worked out here in double precision.

#include "CliTestSupport.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <sndfile.h>

namespace tavolar::testing {
namespace {

using CommandLine = CommandLineTest;
using SweepCommand = CommandLineTest;
using DeconvolveCommand = CommandLineTest;
using TuneCommand = CommandLineTest;

// The exponential sweep written from its mathematics in double precision: f1 to f2 over duration
// seconds, peak amplitude, after and before silences of the given sample counts.
std::vector<double> referenceSweep(double f1, double f2, double duration, double amplitude, double sampleRate,
                                   std::size_t leadingZeros, std::size_t trailingZeros) {
    const auto count = static_cast<std::size_t>(duration * sampleRate);
    const double rate = std::log(f2 / f1);
    std::vector<double> samples(leadingZeros, 0.0);
    for (std::size_t n = 0; n < count; ++n) {
        const double t = static_cast<double>(n) / sampleRate;
        samples.push_back(amplitude * std::sin(2.0 * std::numbers::pi * f1 * duration / rate *
                                               (std::exp(t * rate / duration) - 1.0)));
    }
    samples.resize(samples.size() + trailingZeros, 0.0);
    return samples;
}

TEST_F(CommandLine, ExitStatusesTellSuccessFromFailureFromMisuse) {
    // No subcommand, an unknown subcommand or option, a missing required option: usage, status 2.
    for (const Arguments& misuse : {Arguments{},
                                    {"frobnicate"},
                                    {"sweep", "s.wav", "--no-such-option"},
                                    {"measure"},
                                    {"sweep", "s.wav", "--preset", "medium"},
                                    // The document (or file written) once: the first positional or -o.
                                    {"measure", "a.tavolar", "-o", "b.tavolar"},
                                    {"sweep", "a.wav", "-o", "b.wav"},
                                    {"import", "ir.wav"},
                                    {"list", "a.tavolar", "--quiet", "--json"}})
        expectRefused(misuse, 2);
    // Help for the program and for every subcommand: status 0, on standard output.
    RunResult help = run({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    for (const char* subcommand : {"devices", "measure", "sweep", "deconvolve", "import", "list", "info",
                                   "set", "calibrate", "export", "tune"}) {
        EXPECT_NE(help.out.find(subcommand), std::string::npos) << subcommand;
        RunResult sub = run({subcommand, "--help"});
        EXPECT_EQ(sub.exitCode, 0) << subcommand;
        EXPECT_NE(sub.out.find("Usage"), std::string::npos) << subcommand;
    }
}

TEST_F(SweepCommand, WritesTheExponentialSweepAsFloatWav) {
    const Arguments sweep{"--rate",        "8000", "--start", "50", "--end",           "3000",
                          "--length",      "250",  "--level", "-6", "--begin-silence", "10",
                          "--end-silence", "20"};
    ASSERT_TRUE(succeeds(Arguments{"sweep", "s.wav"} + sweep));
    SoundFile sound = readSound(folder / "s.wav");
    EXPECT_EQ(sound.format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    EXPECT_EQ(sound.channels, 1);
    EXPECT_EQ(sound.sampleRate, 8000);
    const double amplitude = std::pow(10.0, -6.0 / 20.0);
    std::vector<double> expected = referenceSweep(50.0, 3000.0, 0.25, amplitude, 8000.0, 80, 160);
    ASSERT_EQ(sound.samples.size(), expected.size());
    double worst = 0.0;
    for (std::size_t n = 0; n < expected.size(); ++n)
        worst = std::max(worst, std::abs(static_cast<double>(sound.samples[n]) - expected[n]));
    // Single-precision samples of a double-precision phase: a few units in the last place.
    EXPECT_LT(worst, 2e-6);
    EXPECT_EQ(sound.samples[79], 0.0f);
    EXPECT_EQ(sound.samples[80], 0.0f) << "the sweep starts at a zero crossing";
    // The file may also be named with -o, as for the other commands that write one.
    ASSERT_TRUE(succeeds(Arguments{"sweep", "-o", "same.wav"} + sweep));
    EXPECT_EQ(readSound(folder / "same.wav").samples, sound.samples);

    // Ranges the sweep cannot have are refused before anything is written.
    for (const Arguments& bad : {Arguments{"--end", "5000"},
                                 {"--start", "0"},
                                 {"--start", "900", "--end", "800"},
                                 {"--level", "3"},
                                 {"--level", "-6000"},
                                 {"--length", "-5"},
                                 {"--begin-silence", "-1"}})
        expectRefused(Arguments{"sweep", "bad.wav", "--rate", "8000"} + bad, 2);
    // Every command knows the same sample rates.
    expectRefused({"sweep", "bad.wav", "--rate", "500"}, 2, "--rate: 500 Hz is outside the sample rates");
    expectRefused({"tune", "--rates", "800000"}, 2, "--rates: 800000 Hz is outside the sample rates");
    EXPECT_FALSE(std::filesystem::exists(folder / "bad.wav"));
}

// A response: the stimulus through 0.5 z^-delay - 0.2 z^-(delay + 11), summed in double precision.
std::vector<float> throughSystem(const std::vector<float>& stimulus, std::size_t delay, std::size_t extra) {
    std::vector<float> response(stimulus.size() + extra, 0.0f);
    for (std::size_t n = 0; n < response.size(); ++n) {
        double value = 0.0;
        if (n >= delay && n - delay < stimulus.size())
            value += 0.5 * stimulus[n - delay];
        if (n >= delay + 11 && n - delay - 11 < stimulus.size())
            value -= 0.2 * stimulus[n - delay - 11];
        response[n] = static_cast<float>(value);
    }
    return response;
}

TEST_F(DeconvolveCommand, RecoversTheSystemAndDividesOutTheLoopBackChain) {
    ASSERT_TRUE(succeeds({"sweep", "s.wav", "--rate", "8000", "--length", "500", "--begin-silence", "50",
                          "--end-silence", "200"}));
    std::vector<float> stimulus = readSound(folder / "s.wav").samples;
    writeSound(folder / "r.wav", throughSystem(stimulus, 37, 100), 8000);

    const nlohmann::json written =
        json({"deconvolve", "s.wav", "r.wav", "-o", "ir.wav", "--json"})["written"];
    ASSERT_EQ(written.size(), 1u);
    EXPECT_EQ(written[0]["file"], "ir.wav");
    EXPECT_EQ(written[0]["channels"][0]["peakMilliseconds"], 1000.0 * 37 / 8000);
    SoundFile impulse = readSound(folder / "ir.wav");
    EXPECT_EQ(impulse.format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    // The transform length: the power of two that holds response and stimulus together.
    EXPECT_EQ(impulse.samples.size(), 16384u);
    EXPECT_NEAR(impulse.samples[37], 0.5, 1e-3);
    EXPECT_NEAR(impulse.samples[48], -0.2, 1e-3);
    float elsewhere = 0.0f;
    for (std::size_t n = 0; n < impulse.samples.size(); ++n)
        if (n != 37 && n != 48)
            elsewhere = std::max(elsewhere, std::abs(impulse.samples[n]));
    EXPECT_LT(elsewhere, 1e-3f);

    // A loop-back reference that heard the stimulus 5 samples late: its chain is divided out, so the
    // system appears 5 samples earlier.
    std::vector<float> reference(stimulus.size() + 100, 0.0f);
    std::copy(stimulus.begin(), stimulus.end(), reference.begin() + 5);
    writeSound(folder / "ref.wav", reference, 8000);
    ASSERT_TRUE(succeeds({"deconvolve", "s.wav", "r.wav", "--reference", "ref.wav", "-o", "ir2.wav"}));
    SoundFile referenced = readSound(folder / "ir2.wav");
    EXPECT_NEAR(referenced.samples[32], 0.5, 2e-3);
    EXPECT_NEAR(referenced.samples[43], -0.2, 2e-3);
}

TEST_F(DeconvolveCommand, RefusesSoundFilesOfTheWrongKindWithoutWritingAnything) {
    ASSERT_TRUE(succeeds({"sweep", "s.wav", "--rate", "8000", "--length", "200"}));
    std::vector<float> response = throughSystem(readSound(folder / "s.wav").samples, 3, 10);
    std::vector<float> stereo;
    for (float sample : response)
        stereo.insert(stereo.end(), {sample, 0.0f});
    writeSound(folder / "stereo.wav", stereo, 8000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 2);
    writeSound(folder / "rate.wav", response, 16000);
    writeSound(folder / "1hz.wav", response, 1);
    writeSound(folder / "silent.wav", std::vector<float>(response.size(), 0.0f), 8000);
    writeSound(folder / "truncated.wav", response, 8000);
    std::filesystem::resize_file(folder / "truncated.wav", 44);
    std::ofstream(folder / "text.wav") << "this is not a sound file\n";

    for (const auto& [file, message] :
         std::vector<std::pair<std::string, std::string>>{{"stereo.wav", "Channel 1 of the response"},
                                                          {"rate.wav", "sampled at 16000 Hz"},
                                                          {"1hz.wav", "1 Hz is outside the sample rates"},
                                                          {"silent.wav", "silent"},
                                                          {"truncated.wav", "truncated.wav"},
                                                          {"text.wav", "not a sound file"},
                                                          {"missing.wav", "does not exist"}})
        expectRefused({"deconvolve", "s.wav", file, "-o", "ir.wav"}, 1, message);
    // A stimulus is one signal; a channel the response does not have is not guessed at.
    expectRefused({"deconvolve", "stereo.wav", "s.wav", "-o", "ir.wav"}, 1, "has 2 channels");
    expectRefused({"deconvolve", "s.wav", "stereo.wav", "--channel", "2", "-o", "ir.wav"}, 1,
                  "channels 0 to 1");
    EXPECT_FALSE(std::filesystem::exists(folder / "ir.wav"));
    // An output that cannot be written: a folder that does not exist.
    expectRefused({"deconvolve", "s.wav", "s.wav", "-o", "no/such/folder/ir.wav"}, 1, "does not exist");
    expectRefused({"deconvolve", "s.wav", "s.wav", "-o", "ir.wav", "--lambda", "-1"}, 2);
}

// What recorders write, in every sample format and container, mono or multichannel: each channel
// gives its own impulse response (channel c here is the system delayed by 20 + 7c samples).
TEST_F(DeconvolveCommand, ReadsWhatRecordersWriteAndDeconvolvesEachChannel) {
    ASSERT_TRUE(succeeds({"sweep", "s.wav", "--rate", "8000", "--length", "500", "--end-silence", "200"}));
    const std::vector<float> stimulus = readSound(folder / "s.wav").samples;
    struct Case {
        std::string file;
        int format;
        int channels;
    };
    for (const Case& row : std::vector<Case>{{"i16.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1},
                                             {"i24.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_24, 2},
                                             {"i32.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_32, 1},
                                             {"f64.wav", SF_FORMAT_WAV | SF_FORMAT_DOUBLE, 1},
                                             {"ext.wav", SF_FORMAT_WAVEX | SF_FORMAT_FLOAT, 3},
                                             {"w.w64", SF_FORMAT_W64 | SF_FORMAT_PCM_24, 2},
                                             {"a.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 2},
                                             {"f.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 8},
                                             {"c.caf", SF_FORMAT_CAF | SF_FORMAT_FLOAT, 2}}) {
        SCOPED_TRACE(row.file);
        std::vector<float> interleaved;
        for (int channel = 0; channel < row.channels; ++channel) {
            std::vector<float> response = throughSystem(stimulus, 20 + 7 * channel, 100);
            interleaved.resize(response.size() * static_cast<std::size_t>(row.channels));
            for (std::size_t n = 0; n < response.size(); ++n)
                interleaved[n * static_cast<std::size_t>(row.channels) + static_cast<std::size_t>(channel)] =
                    response[n];
        }
        writeSound(folder / row.file, interleaved, 8000, row.format, row.channels);
        // Each channel's peak is reported against its own channel, whichever thread made it.
        const nlohmann::json written = json({"deconvolve", "s.wav", row.file, "-o", "ir.wav", "--json"});
        for (int channel = 0; channel < row.channels; ++channel)
            EXPECT_EQ(written["written"][0]["channels"][channel]["peakMilliseconds"],
                      (20 + 7 * channel) / 8.0);
        SF_INFO info{};
        SNDFILE* file = sf_open((folder / "ir.wav").c_str(), SFM_READ, &info);
        ASSERT_NE(file, nullptr);
        std::vector<float> impulses(static_cast<std::size_t>(info.frames * info.channels));
        sf_readf_float(file, impulses.data(), info.frames);
        sf_close(file);
        ASSERT_EQ(info.channels, row.channels);
        for (int channel = 0; channel < row.channels; ++channel)
            EXPECT_NEAR(impulses[static_cast<std::size_t>((20 + 7 * channel) * row.channels + channel)], 0.5,
                        2e-3)
                << "channel " << channel;
    }
    // --channel picks one: a mono impulse response, or one record.
    ASSERT_TRUE(succeeds({"deconvolve", "s.wav", "ext.wav", "--channel", "2", "-o", "one.wav"}));
    SoundFile one = readSound(folder / "one.wav");
    EXPECT_EQ(one.channels, 1);
    EXPECT_NEAR(one.samples[34], 0.5, 2e-3);
    RunResult imported = run({"import", "c.caf", "--stimulus", "s.wav", "-o", "d.tavolar"});
    EXPECT_EQ(lines(imported.out).size(), 2u) << imported.out;
    EXPECT_NE(imported.out.find("c.caf channel 1 into d.tavolar as record 2"), std::string::npos)
        << imported.out;
    EXPECT_EQ(json({"import", "d.tavolar", "c.caf", "--stimulus", "s.wav", "--json"})["added"][1]["name"],
              "c channel 1");
    ASSERT_TRUE(succeeds({"import", "ext.wav", "--stimulus", "s.wav", "--channel", "1", "-o", "e.tavolar"}));
    EXPECT_NE(run({"list", "e.tavolar"}).out.find("ext channel 1"), std::string::npos);
}

// Tuning keeps FFTW's measurements in the file every later run loads; a damaged file is reported
// and ignored, and nothing else changes.
TEST_F(TuneCommand, KeepsMeasuredPlansForLaterRunsAndSurvivesADamagedFile) {
    const std::filesystem::path wisdom = folder / ".fft-wisdom";
    expectRefused({"tune", "--rates", "8000", "--preset", "nonsense"}, 2);
    EXPECT_FALSE(std::filesystem::exists(wisdom));

    // The short preset at 8 kHz: 28000 samples, transforms of 65536 points.
    RunResult tuned = run({"tune", "--rates", "8000", "--preset", "short"});
    ASSERT_EQ(tuned.exitCode, 0) << tuned.err;
    EXPECT_NE(tuned.err.find("65536 points"), std::string::npos) << tuned.err;
    EXPECT_TRUE(fileBytes(wisdom).starts_with("(fftw-3")) << "not FFTW wisdom";

    ASSERT_TRUE(succeeds({"sweep", "s.wav", "--rate", "8000"}));
    RunResult measured = run({"deconvolve", "s.wav", "s.wav", "-o", "measured.wav"});
    ASSERT_EQ(measured.exitCode, 0) << measured.err;
    EXPECT_EQ(measured.err, "");

    std::ofstream(wisdom, std::ios::trunc) << "not wisdom";
    RunResult damaged = run({"deconvolve", "s.wav", "s.wav", "-o", "estimated.wav"});
    ASSERT_EQ(damaged.exitCode, 0) << damaged.err;
    EXPECT_NE(damaged.err.find("ignoring the damaged FFT tuning file"), std::string::npos) << damaged.err;
    // Measured and estimated plans differ in rounding only: the impulse is the same within float
    // precision, peaking at 0 with 1.
    const SoundFile a = readSound(folder / "measured.wav"), b = readSound(folder / "estimated.wav");
    ASSERT_EQ(a.samples.size(), b.samples.size());
    for (std::size_t n = 0; n < a.samples.size(); ++n)
        ASSERT_NEAR(a.samples[n], b.samples[n], 1e-5f) << n;
    EXPECT_NEAR(a.samples[0], 1.0f, 1e-4f);
}

} // namespace
} // namespace tavolar::testing
