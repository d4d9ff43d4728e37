// devices and measure on the simulated devices, in fast mode: what a measurement stores, how the
// device's delay shows in it, the capture settings' calibration reaching new records, and the
// failures that must leave no document behind.

#include "CliTestSupport.h"
#include "audio/devices/simulated/SimulatedDeviceConfiguration.h"

#include <algorithm>
#include <cmath>

namespace tavolar::testing {
namespace {

using DevicesCommand = CommandLineTest;
using MeasureCommand = CommandLineTest;

const Arguments kShortSweep{"--fast", "--length", "300", "--begin-silence", "20", "--end-silence", "300"};

TEST_F(DevicesCommand, ListsTheSimulatedDeviceAsTextAndJSON) {
    nlohmann::json devices = json({"devices", "--json"});
    ASSERT_TRUE(devices.is_array());
    auto simulated = std::find_if(devices.begin(), devices.end(), [](const nlohmann::json& device) {
        return device["uid"] == "sim:default";
    });
    ASSERT_NE(simulated, devices.end()) << devices;
    EXPECT_EQ((*simulated)["sampleRate"], 48000.0);
    EXPECT_EQ((*simulated)["inputs"].size(), 2u);
    EXPECT_EQ((*simulated)["outputs"].size(), 2u);
    EXPECT_EQ((*simulated)["inputs"][0]["channel"], 0);

    RunResult text = run({"devices"});
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_NE(text.out.find("sim:default"), std::string::npos);
    EXPECT_NE(text.out.find("48000 Hz"), std::string::npos);
}

TEST_F(MeasureCommand, MeasuresTheSimulatedLoudspeakerWithTheDocumentsCalibration) {
    std::ofstream(folder / "mic.txt") << "20 -2 0\n1000 0 0\n20000 1 0\n";
    const Arguments sweep{"--fast", "--length", "500", "--begin-silence", "50", "--end-silence", "400"};
    RunResult quiet = run(Arguments{"measure", "m.tavolar", "--quiet"} + sweep);
    ASSERT_EQ(quiet.exitCode, 0) << quiet.err;
    EXPECT_TRUE(quiet.out.empty()) << quiet.out;
    EXPECT_TRUE(quiet.err.empty()) << quiet.err;
    // The document's capture settings calibrate input 0 for the measurements that follow.
    ASSERT_TRUE(
        succeeds({"calibrate", "m.tavolar", "--capture-settings", "--channel", "0", "--file", "mic.txt",
                  "--sensitivity", "10", "--channel-sensitivity", "4", "--channel-unit", "dBu"}));

    // The same loudspeaker 96 samples (2 ms) further away, two sweeps averaged, through the
    // loop-back reference: its delay is 2 ms longer. Standard error is no terminal: no progress bar.
    RunResult far = run(Arguments{"measure", "-o", "m.tavolar", "--device", "sim:default?delay=96",
                                  "--averages", "2", "--loopback", "1:1", "--name", "Far", "--json"} +
                        sweep);
    ASSERT_EQ(far.exitCode, 0) << far.err;
    EXPECT_EQ(far.err.find('\r'), std::string::npos) << far.err;
    const nlohmann::json added = nlohmann::json::parse(far.out, nullptr, false)["added"];
    // What the loop-back was stays with the record when the record is changed.
    ASSERT_TRUE(succeeds({"set", "m.tavolar", "2", "--notes", "changed"}));

    nlohmann::json records = infoOfAll("m.tavolar");
    ASSERT_EQ(records.size(), 2u);
    const nlohmann::json &near = records[0], &farRecord = records[1];
    EXPECT_EQ(near["sampleRate"], 48000);
    EXPECT_EQ(near["averages"], 1);
    EXPECT_EQ(farRecord["averages"], 2);
    EXPECT_EQ(near["channel"]["channel"], 0);
    EXPECT_EQ(near["device"]["uid"], "sim:default?pace=fast");
    EXPECT_EQ(near["sweep"]["durationMilliseconds"], 500.0);
    EXPECT_EQ(near["sweep"]["fullRange"], true);
    EXPECT_EQ(farRecord["name"], "Far");
    ASSERT_EQ(added.size(), 1u) << far.out;
    EXPECT_EQ(added[0]["number"], 2);
    EXPECT_EQ(added[0]["uuid"], farRecord["uuid"]);
    EXPECT_TRUE(near["loopback"].is_null());
    EXPECT_EQ(farRecord["loopback"], (nlohmann::json{{"output", 1}, {"input", 1}}));

    // The built-in device's own impulse response peaks where the measured one does.
    std::vector<float> builtIn = defaultLoudspeakerRoomImpulseResponse(48000);
    const auto builtInPeak =
        std::distance(builtIn.begin(), std::max_element(builtIn.begin(), builtIn.end(), [](float a, float b) {
                          return std::abs(a) < std::abs(b);
                      }));
    EXPECT_NEAR(near["peak"]["samples"].get<double>(), static_cast<double>(builtInPeak), 2.0);
    EXPECT_EQ(farRecord["peak"]["samples"].get<std::int64_t>() - near["peak"]["samples"].get<std::int64_t>(),
              96);
    EXPECT_NEAR(farRecord["delayMilliseconds"].get<double>() - near["delayMilliseconds"].get<double>(), 2.0,
                1e-4);

    // Records measured before the calibration keep what they had.
    EXPECT_TRUE(near["calibration"].is_null());
    ASSERT_TRUE(farRecord["calibration"].is_object());
    EXPECT_EQ(farRecord["calibration"]["microphone"], "mic");
    EXPECT_EQ(farRecord["calibration"]["inUse"], true);
    // 10 mV/Pa into a channel whose full scale is 4 dBu (volts peak: 10^(4/20) x 0.774596669 x sqrt 2).
    const double fullScale = std::pow(10.0, 4.0 / 20.0) * 0.774596669 * std::sqrt(2.0);
    EXPECT_NEAR(farRecord["channel"]["splOffsetDecibels"].get<double>(), 20.0 * std::log10(0.010 / fullScale),
                1e-6);
    EXPECT_EQ(farRecord["channel"]["sensitivity"], "4 dBu");

    // The measured magnitude: the device scales the loudspeaker (0 dB at its loudest) by its input
    // gain of one half, so no bin of the band rises above -6 dB by more than the noise.
    ASSERT_TRUE(succeeds({"export", "m.tavolar", "1", "-o", "mag.csv", "--curves", "magnitude"}));
    double loudest = -1000.0;
    for (const std::vector<double>& row : readCSV(folder / "mag.csv").rows)
        if (row[0] >= 20.0 && row[0] <= 20000.0)
            loudest = std::max(loudest, row[1]);
    EXPECT_NEAR(loudest, 20.0 * std::log10(0.5), 0.5);

    // Settings made before the first measurement make the document that holds them.
    ASSERT_TRUE(succeeds({"calibrate", "new.tavolar", "--capture-settings", "--file", "mic.txt"}));
    ASSERT_TRUE(succeeds(Arguments{"measure", "-o", "new.tavolar", "--quiet"} + kShortSweep));
    nlohmann::json fresh = infoOfAll("new.tavolar");
    ASSERT_EQ(fresh.size(), 1u);
    EXPECT_EQ(fresh[0]["calibration"]["microphone"], "mic");
}

TEST_F(MeasureCommand, FailuresAreReportedAndLeaveNoDocument) {
    struct Case {
        Arguments arguments;
        int exitCode;
        std::string message;
    };
    for (const Case& bad :
         {Case{{"--device", "nosuch:thing"}, 1, "not present"},
          Case{{"--device", "no scheme here"}, 2, "not a device UID"},
          Case{{"--channels", "5"}, 2, "no input 5"}, Case{{"--channels", "0,,1"}, 2, "not a list"},
          Case{{"--output-channel", "2"}, 2, "no output 2"}, Case{{"--loopback", "1-1"}, 2, "OUTPUT:INPUT"},
          // A reference from the measured input divides the measurement by itself; an input named
          // twice makes two copies of one record; a misspelt device would be a new default one.
          Case{{"--loopback", "0:0"}, 2, "divided by itself"},
          Case{{"--channels", "0,1,0"}, 2, "input 0 twice"},
          Case{{"--device", "sim:defualt"}, 2, "no simulated device sim:defualt"},
          Case{{"--playback-device", "sim:x"}, 2, "the built-in one is sim:default"},
          Case{{"--loopback", "1:7"}, 2, "does not exist"}, Case{{"--averages", "0"}, 2, "--averages"},
          Case{{"--end", "30000"}, 2, "half the sample rate"},
          // JACK would overflow its own buffers on a name this long.
          Case{{"--device", "jack:" + std::string(300, 'x')}, 2, "a JACK server name has at most"},
          // A recording 60 dB down fails the level check, and the advice names the option; the
          // advice says which input and why: too low, silent beside a good one, or clipped.
          Case{{"--device", "sim:default?gain=-60"}, 1, "--no-level-check"},
          Case{{"--device", "sim:default?gain=-60"}, 1, "The loudest input, input 0, peaked at -6"},
          Case{{"--channels", "0,1"}, 1, ", while input 0 peaked at -"},
          Case{{"--device", "sim:default?gain=-200&noise=off"}, 1, "No sound reached any input"},
          Case{{"--device", "sim:default?gain=20"}, 1, "Input 0 reached full scale"}}) {
        expectRefused(Arguments{"measure", "-o", "f.tavolar"} + kShortSweep + bad.arguments, bad.exitCode,
                      bad.message);
        EXPECT_FALSE(std::filesystem::exists(folder / "f.tavolar")) << bad.arguments[1];
    }
    // With the check bypassed the quiet recording is kept.
    ASSERT_TRUE(succeeds(Arguments{"measure", "-o", "f.tavolar", "--device", "sim:default?gain=-60",
                                   "--no-level-check", "--quiet"} +
                         kShortSweep));
    EXPECT_EQ(infoOfAll("f.tavolar").size(), 1u);
}

} // namespace
} // namespace tavolar::testing
