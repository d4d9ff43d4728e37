// devices and measure on the simulated devices, in fast mode: what a measurement stores, how the
// device's delay shows in it, the capture settings' calibration reaching new records, and the
// failures that must leave no document behind.

#include "CliTestSupport.h"
#include "audio/devices/simulated/SimulatedDeviceConfiguration.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <gtest/gtest.h>

namespace tavolar::testing {
namespace {

TEST(DevicesCommand, ListsTheSimulatedDeviceAsTextAndJSON) {
    ScratchFolder folder;
    RunResult json = runTavolar(folder, {"devices", "--json"});
    ASSERT_EQ(json.exitCode, 0) << json.err;
    nlohmann::json devices = parseJSON(json);
    ASSERT_TRUE(devices.is_array());
    auto simulated = std::find_if(devices.begin(), devices.end(), [](const nlohmann::json& device) {
        return device["uid"] == "sim:default";
    });
    ASSERT_NE(simulated, devices.end()) << json.out;
    EXPECT_EQ((*simulated)["sampleRate"], 48000.0);
    EXPECT_EQ((*simulated)["inputs"].size(), 2u);
    EXPECT_EQ((*simulated)["outputs"].size(), 2u);
    EXPECT_EQ((*simulated)["inputs"][0]["channel"], 0);

    RunResult text = runTavolar(folder, {"devices"});
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_NE(text.out.find("sim:default"), std::string::npos);
    EXPECT_NE(text.out.find("48000 Hz"), std::string::npos);
}

nlohmann::json infoOf(const ScratchFolder& folder, const std::string& document) {
    RunResult run = runTavolar(folder, {"info", document, "--json"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    return parseJSON(run);
}

TEST(MeasureCommand, MeasuresTheSimulatedLoudspeakerIntoADocument) {
    ScratchFolder folder;
    const std::vector<std::string> sweep{"--fast", "--length",      "500", "--begin-silence",
                                         "50",     "--end-silence", "400"};
    std::vector<std::string> arguments{"measure", "-o", "m.tavolar", "--quiet"};
    arguments.insert(arguments.end(), sweep.begin(), sweep.end());
    RunResult quiet = runTavolar(folder, arguments);
    ASSERT_EQ(quiet.exitCode, 0) << quiet.err;
    EXPECT_TRUE(quiet.out.empty()) << quiet.out;
    EXPECT_TRUE(quiet.err.empty()) << quiet.err;

    // The same loudspeaker 96 samples (2 ms) further away, two sweeps averaged, through the
    // loop-back reference: its delay is 2 ms longer.
    arguments = {"measure",    "-o",  "m.tavolar", "--device", "sim:default?delay=96", "--averages", "2",
                 "--loopback", "1:1", "--name",    "Far"};
    arguments.insert(arguments.end(), sweep.begin(), sweep.end());
    RunResult far = runTavolar(folder, arguments);
    ASSERT_EQ(far.exitCode, 0) << far.err;
    EXPECT_NE(far.out.find("Record 2: Far"), std::string::npos) << far.out;

    nlohmann::json records = infoOf(folder, "m.tavolar");
    ASSERT_EQ(records.size(), 2u);
    const nlohmann::json& near = records[0];
    EXPECT_EQ(near["sampleRate"], 48000);
    EXPECT_EQ(near["averages"], 1);
    EXPECT_EQ(records[1]["averages"], 2);
    EXPECT_EQ(near["channel"]["channel"], 0);
    EXPECT_EQ(near["device"]["uid"], "sim:default?pace=fast");
    EXPECT_EQ(near["sweep"]["durationMilliseconds"], 500.0);
    EXPECT_EQ(near["sweep"]["fullRange"], true);
    EXPECT_EQ(records[1]["name"], "Far");

    // The built-in device's own impulse response peaks where the measured one does.
    std::vector<float> builtIn = defaultLoudspeakerRoomImpulseResponse(48000);
    const auto builtInPeak =
        std::distance(builtIn.begin(), std::max_element(builtIn.begin(), builtIn.end(), [](float a, float b) {
                          return std::abs(a) < std::abs(b);
                      }));
    EXPECT_NEAR(near["peak"]["samples"].get<double>(), static_cast<double>(builtInPeak), 2.0);
    EXPECT_EQ(records[1]["peak"]["samples"].get<std::int64_t>() - near["peak"]["samples"].get<std::int64_t>(),
              96);
    EXPECT_NEAR(records[1]["delayMilliseconds"].get<double>() - near["delayMilliseconds"].get<double>(), 2.0,
                1e-4);

    // The measured magnitude: the device scales the loudspeaker (0 dB at its loudest) by its input
    // gain of one half, so no bin of the band rises above -6 dB by more than the noise.
    ASSERT_EQ(
        runTavolar(folder, {"export", "m.tavolar", "1", "-o", "mag.csv", "--curves", "magnitude"}).exitCode,
        0);
    std::vector<std::string> rows = lines(readText(folder / "mag.csv"));
    double loudest = -1000.0;
    for (std::size_t at = 1; at < rows.size(); ++at) {
        std::vector<std::string> fields = splitFields(rows[at], ',');
        if (std::stod(fields[0]) >= 20.0 && std::stod(fields[0]) <= 20000.0)
            loudest = std::max(loudest, std::stod(fields[1]));
    }
    EXPECT_NEAR(loudest, 20.0 * std::log10(0.5), 0.5);
}

TEST(MeasureCommand, CaptureSettingsCalibrationReachesNewRecords) {
    ScratchFolder folder;
    {
        std::ofstream file(folder / "mic.txt");
        file << "20 -2 0\n1000 0 0\n20000 1 0\n";
    }
    const std::vector<std::string> measure{"measure",  "-o",  "c.tavolar",       "--fast", "--quiet",
                                           "--length", "300", "--begin-silence", "20",     "--end-silence",
                                           "300"};
    ASSERT_EQ(runTavolar(folder, measure).exitCode, 0);
    RunResult calibrated = runTavolar(folder, {"calibrate", "c.tavolar", "--capture-settings", "--channel",
                                               "0", "--file", "mic.txt", "--sensitivity", "10",
                                               "--channel-sensitivity", "4", "--channel-unit", "dBu"});
    ASSERT_EQ(calibrated.exitCode, 0) << calibrated.err;
    ASSERT_EQ(runTavolar(folder, measure).exitCode, 0);
    // Settings made before the first measurement make the document that holds them.
    ASSERT_EQ(
        runTavolar(folder, {"calibrate", "new.tavolar", "--capture-settings", "--file", "mic.txt"}).exitCode,
        0);
    std::vector<std::string> first = measure;
    first[2] = "new.tavolar";
    ASSERT_EQ(runTavolar(folder, first).exitCode, 0);
    nlohmann::json fresh = infoOf(folder, "new.tavolar");
    ASSERT_EQ(fresh.size(), 1u);
    EXPECT_EQ(fresh[0]["calibration"]["microphone"], "mic");
    nlohmann::json records = infoOf(folder, "c.tavolar");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_TRUE(records[0]["calibration"].is_null()) << "records measured before keep what they had";
    ASSERT_TRUE(records[1]["calibration"].is_object());
    EXPECT_EQ(records[1]["calibration"]["microphone"], "mic");
    EXPECT_EQ(records[1]["calibration"]["inUse"], true);
    // 10 mV/Pa into a channel whose full scale is 4 dBu (volts peak: 10^(4/20) x 0.774596669 x sqrt 2).
    const double fullScale = std::pow(10.0, 4.0 / 20.0) * 0.774596669 * std::sqrt(2.0);
    EXPECT_NEAR(records[1]["channel"]["splOffsetDecibels"].get<double>(),
                20.0 * std::log10(0.010 / fullScale), 1e-6);
    EXPECT_EQ(records[1]["channel"]["sensitivity"], "4 dBu");
}

TEST(MeasureCommand, FailuresAreReportedAndLeaveNoDocument) {
    ScratchFolder folder;
    struct Case {
        std::vector<std::string> arguments;
        int exitCode;
        std::string message;
    };
    for (const Case& bad :
         {Case{{"--device", "nosuch:thing"}, 1, "not present"},
          Case{{"--device", "no scheme here"}, 2, "not a device UID"},
          Case{{"--channels", "5"}, 2, "no input 5"}, Case{{"--channels", "0,,1"}, 2, "not a list"},
          Case{{"--output-channel", "2"}, 2, "no output 2"}, Case{{"--loopback", "1-1"}, 2, "OUTPUT:INPUT"},
          Case{{"--loopback", "1:7"}, 2, "does not exist"}, Case{{"--averages", "0"}, 2, "--averages"},
          Case{{"--end", "30000"}, 2, "half the sample rate"},
          // A recording 60 dB down fails the level check, and the advice names the option.
          Case{{"--device", "sim:default?gain=-60"}, 1, "--no-level-check"}}) {
        std::vector<std::string> arguments{"measure",       "-o",  "f.tavolar",       "--fast",
                                           "--length",      "200", "--begin-silence", "10",
                                           "--end-silence", "200"};
        arguments.insert(arguments.end(), bad.arguments.begin(), bad.arguments.end());
        RunResult run = runTavolar(folder, arguments);
        EXPECT_EQ(run.exitCode, bad.exitCode) << bad.arguments[1] << "\n" << run.err;
        EXPECT_NE(run.err.find(bad.message), std::string::npos) << run.err;
        EXPECT_FALSE(std::filesystem::exists(folder / "f.tavolar")) << bad.arguments[1];
    }
    // With the check bypassed the quiet recording is kept.
    RunResult bypassed = runTavolar(folder, {"measure", "-o", "f.tavolar", "--fast", "--length", "200",
                                             "--begin-silence", "10", "--end-silence", "200", "--device",
                                             "sim:default?gain=-60", "--no-level-check", "--quiet"});
    EXPECT_EQ(bypassed.exitCode, 0) << bypassed.err;
    EXPECT_EQ(infoOf(folder, "f.tavolar").size(), 1u);
}

} // namespace
} // namespace tavolar::testing
