// Sweep settings: effective values behind the full-range and default-silence switches, change
// notification of dependent keys, copies, the archive and its older version, and the stimulus.

#include "engine/VELTLogSweepSettings.h"

#include "dsp/SweptSine.h"
#include "engine/ArchiveJSON.h"
#include "platform/KeyedArchiver.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tavolar {
namespace {

VELTLogSweepSettings roundTrip(const VELTLogSweepSettings& settings) {
    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<VELTLogSweepSettings>(
        KeyedArchiver::archivedDataWithRootObject(settings));
    EXPECT_TRUE(decoded.has_value()) << decoded.error().localizedDescription;
    return decoded ? std::move(*decoded) : VELTLogSweepSettings();
}

VELTLogSweepSettings customSettings() {
    VELTLogSweepSettings settings;
    settings.setFullRangeSweep(false);
    settings.setDefaultSilence(false);
    settings.setStartFreq(20.0f);
    settings.setEndFreq(16000.0f);
    settings.setBeginSilence(100.0f);
    settings.setEndSilence(750.5f);
    settings.setDuration(2500.0f);
    settings.setAmplitude(0.5f);
    settings.setLeadIn(10.0f);
    settings.setLeadOut(20.0f);
    settings.setName("Living room");
    return settings;
}

TEST(VELTLogSweepSettings, ObserversOfEffectiveValuesHearTheSwitches) {
    VELTLogSweepSettings settings;
    std::vector<std::string> changes;
    for (const char* key : {"startFreq", "endFreq", "beginSilence", "endSilence", "amplitude", "name"})
        settings.addObserver(key, [&changes](std::string_view keyPath) { changes.emplace_back(keyPath); });

    auto sorted = [](std::vector<std::string> keys) {
        std::sort(keys.begin(), keys.end());
        return keys;
    };
    settings.setFullRangeSweep(false);
    EXPECT_EQ(sorted(changes), (std::vector<std::string>{"endFreq", "startFreq"}));
    changes.clear();
    settings.setDefaultSilence(false);
    EXPECT_EQ(sorted(changes), (std::vector<std::string>{"beginSilence", "endSilence"}));
    changes.clear();
    settings.setAmplitude(0.25f);
    settings.setEndSilence(3.0f);
    settings.setName("Car");
    settings.setDuration(10.0f); // not observed
    EXPECT_EQ(changes, (std::vector<std::string>{"amplitude", "endSilence", "name"}));

    // A copy starts with no observers.
    changes.clear();
    VELTLogSweepSettings copy = settings;
    copy.setFullRangeSweep(true);
    copy.setAmplitude(1.0f);
    EXPECT_TRUE(changes.empty());
}

// The defaults' values are pinned by the archive and stimulus tests; here the switches that hide
// the stored values, copies that store the effective ones, and the short preset's stimulus.
TEST(VELTLogSweepSettings, SwitchesHideTheStoredValuesAndCopiesStoreTheEffectiveOnes) {
    VELTLogSweepSettings preset;
    preset.setStartFreq(50.0f);
    preset.setEndFreq(5000.0f);
    preset.setBeginSilence(10.0f);
    preset.setEndSilence(20.0f);
    preset.setLeadIn(3.0f);
    preset.setAmplitude(0.7f);
    EXPECT_EQ(preset.startFreq(), 1.0f);
    EXPECT_EQ(preset.beginSilence(), 500.0f);

    VELTLogSweepSettings copy(preset);
    for (VELTLogSweepSettings* settings : {&preset, &copy}) {
        settings->setFullRangeSweep(false);
        settings->setDefaultSilence(false);
    }
    // The stored values show once the switches are off, whatever was set while they were on.
    EXPECT_EQ(preset.startFreq(), 50.0f);
    EXPECT_EQ(preset.endFreq(), 5000.0f);
    EXPECT_EQ(preset.beginSilence(), 10.0f);
    EXPECT_EQ(preset.endSilence(), 20.0f);
    // The copy stored the effective values.
    EXPECT_EQ(copy.startFreq(), 1.0f);
    EXPECT_EQ(copy.endFreq(), 0.0f);
    EXPECT_EQ(copy.beginSilence(), 500.0f);
    EXPECT_EQ(copy.endSilence(), 2000.0f);
    EXPECT_EQ(copy.leadIn(), 3.0f);
    EXPECT_EQ(copy.amplitude(), 0.7f);
    EXPECT_EQ(copy.name(), preset.name());

    // Settings without either switch copy unchanged.
    EXPECT_EQ(VELTLogSweepSettings(customSettings()), customSettings());
    EXPECT_EQ(VELTLogSweepSettings::shortLogSweepSettings().stimulusSignalWithSampleRate(8000),
              VELTLogSweepSettings().stimulusSignalWithSampleRate(8000));
}

TEST(VELTLogSweepSettings, ArchiveKeysAndRoundTrip) {
    const VELTLogSweepSettings custom = customSettings();
    EXPECT_EQ(roundTrip(custom), custom);

    // A full-range, default-silence preset stores its effective values, "amplitude" in lower case.
    VELTLogSweepSettings preset = VELTLogSweepSettings::longLogSweepSettings();
    preset.setStartFreq(50.0f);
    preset.setEndFreq(5000.0f);
    preset.setAmplitude(0.25f);
    preset.setLeadOut(12.0f);
    EXPECT_EQ(testing::archivedKeys(preset), nlohmann::json::parse(R"({"$class": "VELTLogSweepSettings",
        "version": 1, "Duration": 10000, "StartFreq": 1, "EndFreq": 0, "BeginSilence": 500,
        "EndSilence": 2000, "LeadIn": 0, "LeadOut": 12, "Name": "Long (10s) Sweep",
        "FullRangeSweep": true, "DefaultSilence": true, "amplitude": 0.25})"));

    // After decoding, the end frequency stays 0 once full range is turned off.
    VELTLogSweepSettings decoded = roundTrip(preset);
    EXPECT_EQ(decoded.amplitude(), 0.25f);
    EXPECT_EQ(decoded.leadOut(), 12.0f);
    decoded.setFullRangeSweep(false);
    decoded.setDefaultSilence(false);
    EXPECT_EQ(decoded.startFreq(), 1.0f);
    EXPECT_EQ(decoded.endFreq(), 0.0f);
    EXPECT_EQ(decoded.beginSilence(), 500.0f);
}

TEST(VELTLogSweepSettings, OlderArchives) {
    auto decode = [](const std::string& members) {
        auto decoded = testing::unarchivedFromKeys<VELTLogSweepSettings>(members);
        EXPECT_TRUE(decoded.has_value()) << members;
        return decoded ? std::move(*decoded) : VELTLogSweepSettings();
    };
    const std::string old = R"("Duration": 3000, "StartFreq": 10, "EndFreq": 12000, "Name": "Old preset")";
    // Version 0, as a missing key or a number 0: the amplitude is not read and keeps its default.
    for (const std::string version : {"", R"("version": 0, )"}) {
        const VELTLogSweepSettings decoded = decode(version + old + R"(, "amplitude": 0.25)");
        EXPECT_EQ(decoded.amplitude(), 1.0f);
        EXPECT_EQ(decoded.duration(), 3000.0f);
        EXPECT_EQ(decoded.startFreq(), 10.0f);
        EXPECT_EQ(decoded.endFreq(), 12000.0f);
        EXPECT_FALSE(decoded.fullRangeSweep());
        EXPECT_FALSE(decoded.defaultSilence());
        EXPECT_EQ(decoded.name(), "Old preset");
    }
    EXPECT_EQ(decode(R"("version": 1, )" + old + R"(, "amplitude": 0.25)").amplitude(), 0.25f);
    // Version 1 without the key reads 0, like every missing value.
    const VELTLogSweepSettings sparse = decode(R"("version": 1, "Duration": 3000)");
    EXPECT_EQ(sparse.amplitude(), 0.0f);

    // A value of the wrong kind fails the whole archive.
    EXPECT_FALSE(testing::unarchivedFromKeys<VELTLogSweepSettings>(R"("Duration": "long")").has_value());
}

TEST(VELTLogSweepSettings, StimulusAtTheDeviceRate) {
    // Defaults at 44100 Hz: 500 ms, one second of sweep up to 22050 Hz, 2000 ms.
    const VELTLogSweepSettings defaults;
    const auto stimulus = defaults.stimulusSignalWithSampleRate(44100);
    ASSERT_EQ(stimulus.length(), 154350u);
    EXPECT_EQ(stimulus,
              realVectorWithLogSweepFrom(1.0f, 22050.0f, 1000.0f, 1.0f, 500.0f, 2000.0f, 0, 0, 44100.0f));
    EXPECT_EQ(stimulus[22050], 0.0f);

    // Full range sweeps to half the rate whatever end frequency is stored.
    VELTLogSweepSettings fullRange;
    fullRange.setEndFreq(1000.0f);
    fullRange.setStartFreq(300.0f);
    fullRange.setDefaultSilence(false);
    EXPECT_EQ(fullRange.stimulusSignalWithSampleRate(8000),
              realVectorWithLogSweepFrom(1.0f, 4000.0f, 1000.0f, 1.0f, 0, 0, 0, 0, 8000.0f));

    // Otherwise the stored range, silences, amplitude; lead-in and lead-out change nothing.
    VELTLogSweepSettings custom = customSettings();
    const auto expected =
        realVectorWithLogSweepFrom(20.0f, 16000.0f, 2500.0f, 0.5f, 100.0f, 750.5f, 0, 0, 32000.0f);
    EXPECT_EQ(custom.stimulusSignalWithSampleRate(32000), expected);
    custom.setLeadIn(500.0f);
    custom.setLeadOut(500.0f);
    EXPECT_EQ(custom.stimulusSignalWithSampleRate(32000), expected);
    EXPECT_EQ(expected.length(), 3200u + 80000u + 24016u);
}

} // namespace
} // namespace tavolar
