// import, list, info, set and calibrate on real documents: what they store is read back through the
// command line's JSON and through the document itself, and bad input leaves documents untouched.

#include "CliTestSupport.h"
#include "core/VELTMeasurementRecord.h"
#include "platform/KeyedArchiver.h"

#include <cmath>

namespace tavolar::testing {
namespace {

// Each test starts from ir.wav: an impulse response of 4096 samples at 48000 Hz whose peak (0.8)
// lies 24 samples (0.5 ms) after time zero.
class DocumentCommandTest : public CommandLineTest {
protected:
    void SetUp() override { writeSound(folder / "ir.wav", delayedImpulse(), 48000); }
    static std::vector<float> delayedImpulse() {
        std::vector<float> impulse(4096, 0.0f);
        impulse[24] = 0.8f;
        impulse[60] = 0.1f;
        return impulse;
    }
};
using ImportCommand = DocumentCommandTest;
using SetCommand = DocumentCommandTest;
using CalibrateCommand = DocumentCommandTest;
using Documents = DocumentCommandTest;

TEST_F(ImportCommand, StoresImpulseResponsesThatListAndInfoDescribe) {
    // The document as the first positional, or after -o as scripts give it.
    ASSERT_TRUE(succeeds({"import", "ir.wav", "-o", "room.tavolar", "--name", "Left speaker"}));
    const nlohmann::json added = json({"import", "room.tavolar", "ir.wav", "--json"});

    nlohmann::json list = json({"list", "room.tavolar", "--json"});
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0]["number"], 1);
    EXPECT_EQ(list[0]["name"], "Left speaker");
    EXPECT_EQ(list[1]["name"], "ir") << "named after the file by default";
    EXPECT_EQ(list[0]["sampleRate"], 48000);
    EXPECT_EQ(list[0]["impulseLength"], 4096);
    const std::string uuid = list[0]["uuid"];
    EXPECT_EQ(added, (nlohmann::json{{"document", "room.tavolar"},
                                     {"added",
                                      {{{"number", 2},
                                        {"uuid", list[1]["uuid"]},
                                        {"name", "ir"},
                                        {"channel", 0},
                                        {"peakMilliseconds", 0.5}}}}}));

    nlohmann::json first = info("room.tavolar", "1");
    EXPECT_EQ(first["uuid"], uuid);
    EXPECT_EQ(first["peak"]["samples"], 24);
    EXPECT_DOUBLE_EQ(first["peak"]["milliseconds"].get<double>(), 0.5);
    // 0.5 ms at 340.29 m/s (the single-precision default widened).
    EXPECT_NEAR(first["distanceMetres"].get<double>(), 0.5 * 340.29 / 1000.0, 1e-6);
    // The default window: 2 ms before the peak (96 samples, limited by the response's start at
    // -2048) to 500 ms after it (limited by the response's midpoint, 2048).
    EXPECT_EQ(first["window"]["beginSample"], 24 - 96);
    EXPECT_EQ(first["window"]["endSample"], 2048);
    EXPECT_EQ(first["window"]["type"], "none");
    EXPECT_TRUE(first["sweep"].is_null());
    EXPECT_TRUE(first["calibration"].is_null());

    // The same record by UUID, by a UUID prefix in another case, and all by default.
    EXPECT_EQ(info("room.tavolar", uuid)["number"], 1);
    std::string prefix = uuid.substr(0, 6);
    std::transform(prefix.begin(), prefix.end(), prefix.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    EXPECT_EQ(info("room.tavolar", prefix)["uuid"], uuid);
    EXPECT_EQ(infoOfAll("room.tavolar").size(), 2u);
    RunResult text = run({"info", "room.tavolar", "2"});
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_NE(text.out.find("Record 2: ir"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("0.500 ms"), std::string::npos) << text.out;

    // The document holds the samples themselves, and the record's archive does not repeat them.
    auto document = openDocument(folder / "room.tavolar", MeasurementDocument::Access::ReadOnly);
    ASSERT_TRUE(document);
    auto stored = document->impulseResponse(uuid);
    ASSERT_TRUE(stored && *stored);
    EXPECT_EQ((*stored)->samples, delayedImpulse());
    EXPECT_EQ((*stored)->sampleRate, 48000);
    auto archive = document->recordArchive(uuid);
    ASSERT_TRUE(archive && *archive);
    auto record = KeyedUnarchiver::unarchivedObjectOfClass<VELTMeasurementRecord>(**archive);
    ASSERT_TRUE(record);
    EXPECT_FALSE(record->impulseResponse());

    for (const char* missing : {"3", "0", "ZZZZ", "12345678901"})
        expectRefused({"info", "room.tavolar", missing}, 1, "no record");
}

TEST_F(ImportCommand, StoresNamesFromOtherEncodingsAsUTF8) {
    // A Latin-1 name and a calibration file named in Latin-1: their bad bytes become U+FFFD.
    ASSERT_TRUE(succeeds({"import", "ir.wav", "-o", "u.tavolar", "--name", "Caf\xE9"}));
    std::ofstream(folder / "mic\xE9.txt") << "20 -1 0\n1000 0 0\n20000 2 0\n";
    ASSERT_TRUE(succeeds({"calibrate", "u.tavolar", "1", "--file", "mic\xE9.txt"}));
    EXPECT_EQ(sql(folder / "u.tavolar", "SELECT name FROM records")[0][0], "Caf\uFFFD");
    const nlohmann::json described = info("u.tavolar", "1");
    EXPECT_EQ(described["comment"], "Caf\uFFFD");
    EXPECT_EQ(described["calibration"]["microphone"], "mic\uFFFD");
    expectRefused({"rename", "u.tavolar", "1", "Caf\xE9"}, 2, "not valid UTF-8");

    // Text stored by older versions or other programs: every JSON answer still reads.
    auto record = VELTMeasurementRecord::record();
    record->setSampleRate(48000);
    record->setImpulseResponse(VELTRealVector(std::span<const float>(delayedImpulse())));
    record->setImpulseResponseWindow(VELTWindow(0, 1000, 0));
    record->setComment("L\xFF"
                       "ft");
    {
        auto document = openDocument(folder / "u.tavolar");
        ASSERT_TRUE(document);
        ASSERT_TRUE(document->putRecord(record->impulseUUID(),
                                        KeyedArchiver::archivedDataWithRootObject(*record),
                                        {"L\xFF"
                                         "ft",
                                         std::nullopt}));
    }
    EXPECT_EQ(json({"list", "u.tavolar", "--json"})[1]["name"], "L\uFFFDft");
    EXPECT_EQ(info("u.tavolar", "2")["name"], "L\uFFFDft");
    EXPECT_EQ(json({"bands", "u.tavolar", "2", "--json"})[0]["name"], "L\uFFFDft");
}

TEST_F(SetCommand, ChangesRecordsAndRefusesWindowsOutsideTheResponse) {
    ASSERT_TRUE(succeeds({"import", "ir.wav", "-o", "d.tavolar"}));
    ASSERT_TRUE(succeeds({"import", "ir.wav", "-o", "d.tavolar"}));

    const nlohmann::json changed =
        json({"set",          "d.tavolar",     "all",          "--window-begin",  "-1",  "--window-end",
              "20",           "--window-type", "half-hanning", "--comment",       "Mid", "--notes",
              "tweeter axis", "--color",       "#1F77B4",      "--spl-reference", "90",  "--speed-of-sound",
              "343",          "--json"})["changed"];
    ASSERT_EQ(changed.size(), 2u);
    EXPECT_EQ(changed[1]["number"], 2);
    EXPECT_EQ(changed[1]["name"], "Mid");
    for (const char* number : {"1", "2"}) {
        nlohmann::json record = info("d.tavolar", number);
        EXPECT_EQ(record["window"]["beginSample"], -48);
        EXPECT_EQ(record["window"]["endSample"], 960);
        EXPECT_EQ(record["window"]["type"], "half-hanning");
        EXPECT_EQ(record["name"], "Mid");
        EXPECT_EQ(record["notes"], "tweeter axis");
        EXPECT_EQ(record["color"], "#1F77B4");
        EXPECT_EQ(record["splReference"]["inUse"], true);
        EXPECT_EQ(record["splReference"]["levelDecibels"], 90.0);
        EXPECT_EQ(record["speedOfSound"], 343.0);
        // The peak was found before the speed changed; the distance follows the new speed.
        EXPECT_NEAR(record["distanceMetres"].get<double>(), 0.5 * 0.343, 1e-6);
    }
    // --quiet prints nothing but errors, on every command.
    for (const Arguments& command :
         {Arguments{"set", "d.tavolar", "2", "--no-spl-reference", "--window-end", "30"},
          {"list", "d.tavolar"},
          {"info", "d.tavolar", "1"},
          {"export", "d.tavolar", "1", "-o", "q.csv"}}) {
        RunResult quiet = run(command + Arguments{"--quiet"});
        EXPECT_EQ(quiet.exitCode, 0) << command[0];
        EXPECT_EQ(quiet.out + quiet.err, "") << command[0];
    }
    EXPECT_EQ(info("d.tavolar", "2")["splReference"]["inUse"], false);
    EXPECT_EQ(info("d.tavolar", "2")["window"]["endSample"], 1440);
    EXPECT_EQ(info("d.tavolar", "1")["window"]["endSample"], 960) << "record 1 is left alone";

    // Refused without touching either record: windows outside the response (it runs from -2048 to
    // 2048 samples, -42.667 to 42.667 ms), inverted windows, unknown records, bad values.
    const nlohmann::json before = infoOfAll("d.tavolar");
    struct Case {
        Arguments arguments;
        int exitCode;
        std::string message;
    };
    for (const Case& bad :
         {Case{{"all", "--window-end", "50"}, 1, "outside the impulse response"},
          Case{{"1", "--window-begin", "-43"}, 1, "outside the impulse response"},
          Case{{"1", "--window-begin", "25", "--window-end", "10"}, 1, "before it begins"},
          Case{{"1", "3", "--comment", "x"}, 1, "no record 3"},
          Case{{"1", "--color", "#12345"}, 2, "not a colour"},
          Case{{"1", "--window-type", "triangle"}, 2, ""},
          Case{{"1", "--speed-of-sound", "0"}, 2, "speed of sound"},
          Case{{"1", "--spl-reference", "80", "--no-spl-reference"}, 2, ""},
          Case{{"1", "--notes", "bad \xFF"}, 2, "not valid UTF-8"}, Case{{"1"}, 2, "Nothing to change"}})
        expectRefused(Arguments{"set", "d.tavolar"} + bad.arguments, bad.exitCode, bad.message);
    EXPECT_EQ(infoOfAll("d.tavolar"), before);
    // The edge of the response itself is allowed.
    EXPECT_TRUE(
        succeeds({"set", "d.tavolar", "1", "--window-begin", "-42.666667", "--window-end", "42.666667"}));
}

TEST_F(CalibrateCommand, AttachesCalibrationFilesAndSensitivities) {
    ASSERT_TRUE(succeeds({"import", "ir.wav", "-o", "c.tavolar"}));
    // Carriage returns, a heading and a comma-separated line, as calibration files come.
    std::ofstream(folder / "ECM8000.txt", std::ios::binary)
        << "\"Sens Factor =-38.5dB, SN 1234\"\r* Freq(Hz) Mag(dB) Phase(deg)\r20 -1.5 0\r"
           "1000, 0\r10000 2.0 -5\r20000 3.0 -10\r";
    std::ofstream(folder / "notes.txt") << "just some words\nand more words\n";
    std::ofstream(folder / "repeated.txt") << "20 -1 0\n1000 0 0\n1000 0.5 0\n";
    ASSERT_TRUE(succeeds({"calibrate", "c.tavolar", "1", "--file", "ECM8000.txt", "--sensitivity", "12.5",
                          "--channel-sensitivity", "0", "--channel-unit", "dBV"}));
    nlohmann::json record = info("c.tavolar", "1");
    ASSERT_TRUE(record["calibration"].is_object());
    EXPECT_EQ(record["calibration"]["microphone"], "ECM8000");
    EXPECT_EQ(record["calibration"]["points"], 4);
    EXPECT_EQ(record["calibration"]["sensitivity"], 12.5);
    EXPECT_EQ(record["calibration"]["sensitivityUnit"], "mV/Pa");
    EXPECT_EQ(record["calibration"]["inUse"], true);
    // 12.5 mV/Pa into a channel whose full scale is 0 dBV (1 V): 20 log10(0.0125 / 1).
    EXPECT_NEAR(record["channel"]["splOffsetDecibels"].get<double>(), 20.0 * std::log10(0.0125), 1e-9);
    EXPECT_EQ(record["channel"]["sensitivity"], "0 dBV");

    // A file that does not parse, or is missing: an error, and the calibration stays as it was.
    expectRefused({"calibrate", "c.tavolar", "1", "--file", "notes.txt"}, 1,
                  "Failed to parse calibration file");
    expectRefused({"calibrate", "c.tavolar", "1", "--file", "absent.txt"}, 1);
    // What is wrong with a file is told down to its lines.
    expectRefused({"calibrate", "c.tavolar", "1", "--file", "repeated.txt"}, 1,
                  "Lines 2 and 3 both give the frequency 1000 Hz.");
    EXPECT_EQ(info("c.tavolar", "1")["calibration"], record["calibration"]);

    // A new sensitivity for the calibration already attached; then removal.
    ASSERT_TRUE(
        succeeds({"calibrate", "c.tavolar", "1", "--sensitivity", "-20", "--sensitivity-unit", "dBFS"}));
    record = info("c.tavolar", "1");
    EXPECT_EQ(record["calibration"]["microphone"], "ECM8000");
    EXPECT_EQ(record["calibration"]["sensitivityUnit"], "dBFS");
    EXPECT_EQ(record["channel"]["splOffsetDecibels"], -20.0) << "a dBFS microphone's offset is its own value";
    ASSERT_TRUE(succeeds({"calibrate", "c.tavolar", "1", "--remove"}));
    EXPECT_TRUE(info("c.tavolar", "1")["calibration"].is_null());
    // A sensitivity with no calibration to give it to, and nothing to do at all, are usage errors.
    expectRefused({"calibrate", "c.tavolar", "1", "--sensitivity", "10"}, 2);
    expectRefused({"calibrate", "c.tavolar", "1"}, 2);
}

TEST_F(Documents, DamagedOrForeignFilesAreReportedAndLeftAsTheyAre) {
    ASSERT_TRUE(succeeds({"import", "ir.wav", "-o", "good.tavolar"}));
    const std::string good = fileBytes(folder / "good.tavolar");
    std::string flipped = good;
    for (std::size_t at = flipped.size() / 2; at < flipped.size(); at += 97)
        flipped[at] = static_cast<char>(flipped[at] ^ 0x5A);
    std::ofstream(folder / "text.tavolar", std::ios::binary) << "not a measurement document at all";
    std::ofstream(folder / "half.tavolar", std::ios::binary) << good.substr(0, good.size() / 2);
    std::ofstream(folder / "flipped.tavolar", std::ios::binary) << flipped;
    for (const std::string name : {"text.tavolar", "half.tavolar", "flipped.tavolar"}) {
        const std::string before = fileBytes(folder / name);
        // Listing reads only the table of records, which may have survived the damage; everything
        // that reads the damaged record, or writes into a damaged file, is refused, naming the
        // document. Damage within one record's data (flipped) leaves the file writable.
        std::vector<Arguments> commands{{"info", name},
                                        {"export", name, "-o", "out.csv"},
                                        {"set", name, "1", "--comment", "x"},
                                        {"calibrate", name, "1", "--remove"},
                                        {"rename", name, "1", "x"},
                                        {"copy", name, "1", "-o", "copy.tavolar"}};
        if (name != "flipped.tavolar")
            commands.insert(commands.end(), {{"list", name}, {"import", "ir.wav", "-o", name}});
        for (const Arguments& arguments : commands)
            expectRefused(arguments, 1, name);
        EXPECT_TRUE(fileBytes(folder / name) == before) << name << " was changed";
    }
    EXPECT_FALSE(std::filesystem::exists(folder / "copy.tavolar"));
    EXPECT_FALSE(std::filesystem::exists(folder / "out.csv"));
    expectRefused({"list", "nowhere.tavolar"}, 1, "does not exist");
    EXPECT_FALSE(std::filesystem::exists(folder / "nowhere.tavolar"));
}

TEST_F(Documents, ADamagedRecordBlocksOnlyItselfAndRecordsAreRenamedCopiedAndDeleted) {
    for (const char* name : {"Left", "Right", "Centre"})
        ASSERT_TRUE(succeeds({"import", "ir.wav", "-o", "d.tavolar", "--name", name}));
    ASSERT_TRUE(succeeds({"set", "d.tavolar", "1", "--notes", "on axis", "--window-end", "20"}));
    const nlohmann::json left = info("d.tavolar", "1");
    sql(folder / "d.tavolar", "UPDATE records SET checksum = checksum + 1 WHERE name = 'Right'");

    // The damaged record is refused, with a way out that exists; the others read and change.
    expectRefused({"set", "d.tavolar", "2", "--notes", "x"}, 1, "tavolar delete d.tavolar 2");
    ASSERT_TRUE(succeeds({"rename", "d.tavolar", "3", "Centre fill"}));
    RunResult all = run({"info", "d.tavolar", "--json"});
    EXPECT_EQ(all.exitCode, 1);
    EXPECT_NE(all.err.find("Record 2"), std::string::npos) << all.err;
    nlohmann::json shown = nlohmann::json::parse(all.out, nullptr, false);
    ASSERT_EQ(shown.size(), 2u) << all.out;
    EXPECT_EQ(shown[1]["name"], "Centre fill");

    // Copies keep everything a record carries; a damaged record, one already there and copying into
    // the same document are refused.
    expectRefused({"copy", "d.tavolar", "all", "-o", "new.tavolar"}, 1, "Record 2");
    EXPECT_FALSE(std::filesystem::exists(folder / "new.tavolar"));
    EXPECT_EQ(json({"copy", "d.tavolar", "3", "1", "-o", "new.tavolar", "--json"})["copied"][1],
              (nlohmann::json{{"number", 1}, {"uuid", left["uuid"]}, {"newNumber", 2}}));
    nlohmann::json copied = info("new.tavolar", "2");
    copied["number"] = 1;
    EXPECT_EQ(copied, left);
    expectRefused({"copy", "d.tavolar", "1", "-o", "new.tavolar"}, 1, "already");
    expectRefused({"copy", "d.tavolar", "1", "-o", "./d.tavolar"}, 2);

    // Deleting takes the damaged record too; the others move up.
    EXPECT_EQ(json({"delete", "d.tavolar", "2", "--json"})["deleted"][0]["number"], 2);
    EXPECT_EQ(info("d.tavolar", "2")["name"], "Centre fill");
    EXPECT_EQ(infoOfAll("d.tavolar").size(), 2u);
    expectRefused({"delete", "d.tavolar", "3"}, 1, "no record 3");
    expectRefused({"rename", "d.tavolar", "1", ""}, 2);
}

TEST_F(CalibrateCommand, InfoShowsTheCaptureSettings) {
    ASSERT_TRUE(succeeds({"import", "ir.wav", "-o", "c.tavolar"}));
    EXPECT_TRUE(json({"info", "c.tavolar", "--capture-settings", "--json"}).is_null());
    std::ofstream(folder / "mic.txt") << "20 -1 0\n1000 0 0\n20000 2 0\n";
    ASSERT_TRUE(succeeds({"calibrate", "c.tavolar", "--capture-settings", "--channel", "1", "--file",
                          "mic.txt", "--channel-sensitivity", "0"}));
    nlohmann::json settings = json({"info", "c.tavolar", "--capture-settings", "--json"});
    // Input 0 is there from the start; input 1 is the one calibrated.
    ASSERT_EQ(settings["inputs"].size(), 2u);
    const nlohmann::json& input = settings["inputs"][1];
    EXPECT_EQ(input["channel"], 1);
    EXPECT_EQ(input["calibration"]["microphone"], "mic");
    EXPECT_EQ(input["sensitivity"], "0 dBV");
    EXPECT_NE(run({"info", "c.tavolar", "--capture-settings"}).out.find("Input 1"), std::string::npos);
    expectRefused({"info", "c.tavolar", "1", "--capture-settings"}, 2);

    // Damaged settings block every measurement until they are removed, as the message says.
    sql(folder / "c.tavolar", "UPDATE named_archives SET checksum = checksum + 1");
    expectRefused({"calibrate", "c.tavolar", "--capture-settings", "--file", "mic.txt"}, 1,
                  "tavolar delete c.tavolar --capture-settings");
    ASSERT_TRUE(succeeds({"delete", "c.tavolar", "--capture-settings"}));
    EXPECT_TRUE(json({"info", "c.tavolar", "--capture-settings", "--json"}).is_null());
}

} // namespace
} // namespace tavolar::testing
