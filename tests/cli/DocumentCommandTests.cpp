// import, list, info, set and calibrate on real documents: what they store is read back through the
// command line's JSON and through the document itself, and bad input leaves documents untouched.

#include "CliTestSupport.h"
#include "core/VELTMeasurementRecord.h"
#include "document/MeasurementDocument.h"
#include "platform/KeyedArchiver.h"

#include <cmath>
#include <fstream>
#include <gtest/gtest.h>

namespace tavolar::testing {
namespace {

// An impulse response of 4096 samples at 48000 Hz whose peak (0.8) lies 24 samples after time zero.
std::vector<float> delayedImpulse() {
    std::vector<float> impulse(4096, 0.0f);
    impulse[24] = 0.8f;
    impulse[60] = 0.1f;
    return impulse;
}

nlohmann::json infoOf(const ScratchFolder& folder, const std::string& document, const std::string& record) {
    RunResult run = runTavolar(folder, {"info", document, record, "--json"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    nlohmann::json json = parseJSON(run);
    return json.is_array() && json.size() == 1 ? json[0] : nlohmann::json();
}

TEST(ImportCommand, StoresImpulseResponsesThatListAndInfoDescribe) {
    ScratchFolder folder;
    writeFloatWav(folder / "ir.wav", delayedImpulse(), 48000);
    RunResult imported =
        runTavolar(folder, {"import", "ir.wav", "-o", "room.tavolar", "--name", "Left speaker"});
    ASSERT_EQ(imported.exitCode, 0) << imported.err;
    ASSERT_EQ(runTavolar(folder, {"import", "ir.wav", "-o", "room.tavolar"}).exitCode, 0);

    RunResult listed = runTavolar(folder, {"list", "room.tavolar", "--json"});
    ASSERT_EQ(listed.exitCode, 0) << listed.err;
    nlohmann::json list = parseJSON(listed);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0]["number"], 1);
    EXPECT_EQ(list[0]["name"], "Left speaker");
    EXPECT_EQ(list[1]["name"], "ir") << "named after the file by default";
    EXPECT_EQ(list[0]["sampleRate"], 48000);
    EXPECT_EQ(list[0]["impulseLength"], 4096);
    const std::string uuid = list[0]["uuid"];

    nlohmann::json info = infoOf(folder, "room.tavolar", "1");
    EXPECT_EQ(info["uuid"], uuid);
    EXPECT_EQ(info["peak"]["samples"], 24);
    EXPECT_DOUBLE_EQ(info["peak"]["milliseconds"].get<double>(), 0.5);
    // 0.5 ms at 340.29 m/s (the single-precision default widened).
    EXPECT_NEAR(info["distanceMetres"].get<double>(), 0.5 * 340.29 / 1000.0, 1e-6);
    // The default window: 2 ms before the peak (96 samples, limited by the response's start at
    // -2048) to 500 ms after it (limited by the response's midpoint, 2048).
    EXPECT_EQ(info["window"]["beginSample"], 24 - 96);
    EXPECT_EQ(info["window"]["endSample"], 2048);
    EXPECT_EQ(info["window"]["type"], "none");
    EXPECT_TRUE(info["sweep"].is_null());
    EXPECT_TRUE(info["calibration"].is_null());

    // The same record by UUID, by a UUID prefix in another case, and "all".
    EXPECT_EQ(infoOf(folder, "room.tavolar", uuid)["number"], 1);
    std::string prefix = uuid.substr(0, 6);
    std::transform(prefix.begin(), prefix.end(), prefix.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    EXPECT_EQ(infoOf(folder, "room.tavolar", prefix)["uuid"], uuid);
    RunResult all = runTavolar(folder, {"info", "room.tavolar", "--json"});
    EXPECT_EQ(parseJSON(all).size(), 2u);
    RunResult text = runTavolar(folder, {"info", "room.tavolar", "2"});
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_NE(text.out.find("Record 2: ir"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("0.500 ms"), std::string::npos) << text.out;

    // The document holds the samples themselves, and the record's archive does not repeat them.
    auto document = MeasurementDocument::open(folder / "room.tavolar", MeasurementDocument::Access::ReadOnly);
    ASSERT_TRUE(document);
    auto stored = (*document)->impulseResponse(uuid);
    ASSERT_TRUE(stored && *stored);
    EXPECT_EQ((*stored)->samples, delayedImpulse());
    EXPECT_EQ((*stored)->sampleRate, 48000);
    auto archive = (*document)->recordArchive(uuid);
    ASSERT_TRUE(archive && *archive);
    auto record = KeyedUnarchiver::unarchivedObjectOfClass<VELTMeasurementRecord>(**archive);
    ASSERT_TRUE(record);
    EXPECT_FALSE(record->impulseResponse());

    // Records that do not exist.
    for (const char* missing : {"3", "0", "ZZZZ", "12345678901"}) {
        RunResult run = runTavolar(folder, {"info", "room.tavolar", missing});
        EXPECT_EQ(run.exitCode, 1) << missing;
        EXPECT_NE(run.err.find("no record"), std::string::npos) << run.err;
    }
}

TEST(ImportCommand, DeconvolvesARecordedResponseAndKeepsItsSweep) {
    ScratchFolder folder;
    ASSERT_EQ(runTavolar(folder, {"sweep", "s.wav", "--rate", "16000", "--start", "20", "--end", "7000",
                                  "--length", "300", "--begin-silence", "20", "--end-silence", "100"})
                  .exitCode,
              0);
    std::vector<float> stimulus = readSound(folder / "s.wav").samples;
    std::vector<float> response(stimulus.size() + 200, 0.0f);
    for (std::size_t n = 0; n < stimulus.size(); ++n)
        response[n + 40] = 0.25f * stimulus[n];
    writeFloatWav(folder / "r.wav", response, 16000);

    // Without a stimulus file, the sweep options rebuild the stimulus.
    RunResult run = runTavolar(folder, {"import", "r.wav", "-o", "doc.tavolar", "--start", "20", "--end",
                                        "7000", "--length", "300", "--begin-silence", "20", "--end-silence",
                                        "100", "--lambda", "1e-7"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    nlohmann::json info = infoOf(folder, "doc.tavolar", "1");
    EXPECT_EQ(info["peak"]["samples"], 40);
    EXPECT_EQ(info["sweep"]["startFrequency"], 20.0);
    EXPECT_EQ(info["sweep"]["endFrequency"], 7000.0);
    EXPECT_EQ(info["sweep"]["durationMilliseconds"], 300.0);
    EXPECT_EQ(info["sweep"]["beginSilenceMilliseconds"], 20.0);
    EXPECT_EQ(info["validRange"]["startFrequency"], 20.0);
    EXPECT_EQ(info["validRange"]["endFrequency"], 7000.0);

    // With the stimulus file, and the response at another rate: refused, nothing added.
    writeFloatWav(folder / "r22.wav", response, 22050);
    RunResult mismatch =
        runTavolar(folder, {"import", "r22.wav", "--stimulus", "s.wav", "-o", "doc.tavolar"});
    EXPECT_EQ(mismatch.exitCode, 1);
    EXPECT_NE(mismatch.err.find("22050 Hz"), std::string::npos) << mismatch.err;
    EXPECT_EQ(parseJSON(runTavolar(folder, {"list", "doc.tavolar", "--json"})).size(), 1u);
    // --reference without a recorded response is a usage error.
    EXPECT_EQ(runTavolar(folder, {"import", "r.wav", "--reference", "s.wav", "-o", "doc.tavolar"}).exitCode,
              2);
}

TEST(SetCommand, ChangesRecordsAndRefusesWindowsOutsideTheResponse) {
    ScratchFolder folder;
    writeFloatWav(folder / "ir.wav", delayedImpulse(), 48000);
    ASSERT_EQ(runTavolar(folder, {"import", "ir.wav", "-o", "d.tavolar"}).exitCode, 0);
    ASSERT_EQ(runTavolar(folder, {"import", "ir.wav", "-o", "d.tavolar"}).exitCode, 0);

    RunResult set =
        runTavolar(folder, {"set", "d.tavolar", "all", "--window-begin", "-1", "--window-end", "20",
                            "--window-type", "half-hanning", "--comment", "Mid", "--notes", "tweeter axis",
                            "--color", "#1F77B4", "--spl-reference", "90", "--speed-of-sound", "343"});
    ASSERT_EQ(set.exitCode, 0) << set.err;
    for (const char* number : {"1", "2"}) {
        nlohmann::json info = infoOf(folder, "d.tavolar", number);
        EXPECT_EQ(info["window"]["beginSample"], -48);
        EXPECT_EQ(info["window"]["endSample"], 960);
        EXPECT_EQ(info["window"]["type"], "half-hanning");
        EXPECT_EQ(info["name"], "Mid");
        EXPECT_EQ(info["notes"], "tweeter axis");
        EXPECT_EQ(info["color"], "#1F77B4");
        EXPECT_EQ(info["splReference"]["inUse"], true);
        EXPECT_EQ(info["splReference"]["levelDecibels"], 90.0);
        EXPECT_EQ(info["speedOfSound"], 343.0);
        // The peak was found before the speed changed; the distance follows the new speed.
        EXPECT_NEAR(info["distanceMetres"].get<double>(), 0.5 * 0.343, 1e-6);
    }
    ASSERT_EQ(
        runTavolar(folder, {"set", "d.tavolar", "2", "--no-spl-reference", "--window-end", "30"}).exitCode,
        0);
    EXPECT_EQ(infoOf(folder, "d.tavolar", "2")["splReference"]["inUse"], false);
    EXPECT_EQ(infoOf(folder, "d.tavolar", "2")["window"]["endSample"], 1440);
    EXPECT_EQ(infoOf(folder, "d.tavolar", "1")["window"]["endSample"], 960) << "record 1 is left alone";

    // Refused without touching either record: windows outside the response (it runs from -2048 to
    // 2048 samples, -42.667 to 42.667 ms), inverted windows, unknown records, bad values.
    const nlohmann::json before = parseJSON(runTavolar(folder, {"info", "d.tavolar", "--json"}));
    struct Case {
        std::vector<std::string> arguments;
        int exitCode;
        std::string message;
    };
    for (const Case& bad : {Case{{"all", "--window-end", "50"}, 1, "outside the impulse response"},
                            Case{{"1", "--window-begin", "-43"}, 1, "outside the impulse response"},
                            Case{{"1", "--window-begin", "25", "--window-end", "10"}, 1, "before it begins"},
                            Case{{"1", "3", "--comment", "x"}, 1, "no record 3"},
                            Case{{"1", "--color", "#12345"}, 2, "not a colour"},
                            Case{{"1", "--window-type", "triangle"}, 2, ""},
                            Case{{"1", "--speed-of-sound", "0"}, 2, "speed of sound"},
                            Case{{"1", "--spl-reference", "80", "--no-spl-reference"}, 2, ""},
                            Case{{"1"}, 2, "Nothing to change"}}) {
        std::vector<std::string> arguments{"set", "d.tavolar"};
        arguments.insert(arguments.end(), bad.arguments.begin(), bad.arguments.end());
        RunResult run = runTavolar(folder, arguments);
        EXPECT_EQ(run.exitCode, bad.exitCode) << bad.arguments.back();
        EXPECT_NE(run.err.find(bad.message), std::string::npos) << run.err;
    }
    EXPECT_EQ(parseJSON(runTavolar(folder, {"info", "d.tavolar", "--json"})), before);
    // The edge of the response itself is allowed.
    EXPECT_EQ(runTavolar(folder, {"set", "d.tavolar", "1", "--window-begin", "-42.666667", "--window-end",
                                  "42.666667"})
                  .exitCode,
              0);
}

TEST(CalibrateCommand, AttachesCalibrationFilesAndSensitivities) {
    ScratchFolder folder;
    writeFloatWav(folder / "ir.wav", delayedImpulse(), 48000);
    ASSERT_EQ(runTavolar(folder, {"import", "ir.wav", "-o", "c.tavolar"}).exitCode, 0);
    {
        // Carriage returns, a heading and a comma-separated line, as calibration files come.
        std::ofstream file(folder / "ECM8000.txt", std::ios::binary);
        file << "\"Sens Factor =-38.5dB, SN 1234\"\r* Freq(Hz) Mag(dB) Phase(deg)\r20 -1.5 0\r"
                "1000, 0\r10000 2.0 -5\r20000 3.0 -10\r";
        std::ofstream bad(folder / "notes.txt");
        bad << "just some words\nand more words\n";
    }
    RunResult run =
        runTavolar(folder, {"calibrate", "c.tavolar", "1", "--file", "ECM8000.txt", "--sensitivity", "12.5",
                            "--channel-sensitivity", "0", "--channel-unit", "dBV"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    nlohmann::json info = infoOf(folder, "c.tavolar", "1");
    ASSERT_TRUE(info["calibration"].is_object());
    EXPECT_EQ(info["calibration"]["microphone"], "ECM8000");
    EXPECT_EQ(info["calibration"]["points"], 4);
    EXPECT_EQ(info["calibration"]["sensitivity"], 12.5);
    EXPECT_EQ(info["calibration"]["sensitivityUnit"], "mV/Pa");
    EXPECT_EQ(info["calibration"]["inUse"], true);
    // 12.5 mV/Pa into a channel whose full scale is 0 dBV (1 V): 20 log10(0.0125 / 1).
    EXPECT_NEAR(info["channel"]["splOffsetDecibels"].get<double>(), 20.0 * std::log10(0.0125), 1e-9);
    EXPECT_EQ(info["channel"]["sensitivity"], "0 dBV");

    // A file that does not parse, or is missing: an error, and the calibration stays as it was.
    RunResult bad = runTavolar(folder, {"calibrate", "c.tavolar", "1", "--file", "notes.txt"});
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_NE(bad.err.find("Failed to parse calibration file"), std::string::npos) << bad.err;
    EXPECT_EQ(runTavolar(folder, {"calibrate", "c.tavolar", "1", "--file", "absent.txt"}).exitCode, 1);
    EXPECT_EQ(infoOf(folder, "c.tavolar", "1")["calibration"], info["calibration"]);

    // A new sensitivity for the calibration already attached; then removal.
    ASSERT_EQ(runTavolar(folder, {"calibrate", "c.tavolar", "1", "--sensitivity", "-20", "--sensitivity-unit",
                                  "dBFS"})
                  .exitCode,
              0);
    info = infoOf(folder, "c.tavolar", "1");
    EXPECT_EQ(info["calibration"]["microphone"], "ECM8000");
    EXPECT_EQ(info["calibration"]["sensitivityUnit"], "dBFS");
    EXPECT_EQ(info["channel"]["splOffsetDecibels"], -20.0) << "a dBFS microphone's offset is its own value";
    ASSERT_EQ(runTavolar(folder, {"calibrate", "c.tavolar", "1", "--remove"}).exitCode, 0);
    EXPECT_TRUE(infoOf(folder, "c.tavolar", "1")["calibration"].is_null());
    // A sensitivity with no calibration to give it to, and nothing to do at all, are usage errors.
    EXPECT_EQ(runTavolar(folder, {"calibrate", "c.tavolar", "1", "--sensitivity", "10"}).exitCode, 2);
    EXPECT_EQ(runTavolar(folder, {"calibrate", "c.tavolar", "1"}).exitCode, 2);
}

TEST(Documents, DamagedOrForeignFilesAreReportedAndLeftAsTheyAre) {
    ScratchFolder folder;
    writeFloatWav(folder / "ir.wav", delayedImpulse(), 48000);
    ASSERT_EQ(runTavolar(folder, {"import", "ir.wav", "-o", "good.tavolar"}).exitCode, 0);
    const std::string good = readText(folder / "good.tavolar");
    {
        std::ofstream(folder / "text.tavolar", std::ios::binary) << "not a measurement document at all";
        std::ofstream(folder / "half.tavolar", std::ios::binary) << good.substr(0, good.size() / 2);
        std::string flipped = good;
        for (std::size_t at = flipped.size() / 2; at < flipped.size(); at += 97)
            flipped[at] = static_cast<char>(flipped[at] ^ 0x5A);
        std::ofstream(folder / "flipped.tavolar", std::ios::binary) << flipped;
    }
    for (const char* name : {"text.tavolar", "half.tavolar", "flipped.tavolar"}) {
        const std::string before = readText(folder / name);
        // Listing reads only the table of records, which may have survived the damage; everything
        // that reads the records or writes is refused.
        std::vector<std::vector<std::string>> commands{{"info", name},
                                                       {"export", name, "-o", "out.csv"},
                                                       {"set", name, "1", "--comment", "x"},
                                                       {"calibrate", name, "1", "--remove"},
                                                       {"import", "ir.wav", "-o", name}};
        if (std::string_view(name) != "flipped.tavolar")
            commands.push_back({"list", name});
        for (const std::vector<std::string>& arguments : commands) {
            RunResult run = runTavolar(folder, arguments);
            EXPECT_EQ(run.exitCode, 1) << name << " " << arguments[0] << "\n" << run.out;
            EXPECT_NE(run.err.find(name), std::string::npos) << run.err.substr(0, 500);
        }
        EXPECT_TRUE(readText(folder / name) == before) << name << " was changed";
    }
    EXPECT_FALSE(std::filesystem::exists(folder / "out.csv"));
    RunResult missing = runTavolar(folder, {"list", "nowhere.tavolar"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.err.find("does not exist"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(folder / "nowhere.tavolar"));
}

} // namespace
} // namespace tavolar::testing
