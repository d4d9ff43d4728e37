// Sweep settings: effective values behind the full-range and default-silence switches, change
// notification of dependent keys, copies, the archive and its older version, and the stimulus.

#include "engine/VELTLogSweepSettings.h"

#include "dsp/SweptSine.h"
#include "platform/Assertions.h"
#include "platform/KeyedArchiver.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace tavolar {
namespace {

// The raw keys of a sweep-settings archive: read to check what is stored, written to make archives
// of the older version.
struct StoredSweepKeys {
    static constexpr std::string_view className = "VELTLogSweepSettings";
    std::optional<double> version;
    float duration = 0, startFreq = 0, endFreq = 0, beginSilence = 0, endSilence = 0, leadIn = 0, leadOut = 0;
    std::optional<std::string> name;
    bool fullRangeSweep = false, defaultSilence = false;
    std::optional<float> amplitude;
    bool hasCapitalisedAmplitude = false;

    void encodeWithCoder(KeyedArchiver& coder) const {
        if (version)
            coder.encodeNumber(*version, "version");
        coder.encodeFloat(duration, "Duration");
        coder.encodeFloat(startFreq, "StartFreq");
        coder.encodeFloat(endFreq, "EndFreq");
        coder.encodeFloat(beginSilence, "BeginSilence");
        coder.encodeFloat(endSilence, "EndSilence");
        coder.encodeFloat(leadIn, "LeadIn");
        coder.encodeFloat(leadOut, "LeadOut");
        if (name)
            coder.encodeString(*name, "Name");
        coder.encodeBool(fullRangeSweep, "FullRangeSweep");
        coder.encodeBool(defaultSilence, "DefaultSilence");
        if (amplitude)
            coder.encodeFloat(*amplitude, "amplitude");
    }
    static StoredSweepKeys initWithCoder(KeyedUnarchiver& coder) {
        StoredSweepKeys keys;
        keys.version = coder.decodeNumber("version");
        keys.duration = coder.decodeFloat("Duration");
        keys.startFreq = coder.decodeFloat("StartFreq");
        keys.endFreq = coder.decodeFloat("EndFreq");
        keys.beginSilence = coder.decodeFloat("BeginSilence");
        keys.endSilence = coder.decodeFloat("EndSilence");
        keys.leadIn = coder.decodeFloat("LeadIn");
        keys.leadOut = coder.decodeFloat("LeadOut");
        keys.name = coder.decodeString("Name");
        keys.fullRangeSweep = coder.decodeBool("FullRangeSweep");
        keys.defaultSilence = coder.decodeBool("DefaultSilence");
        if (coder.containsValueForKey("amplitude"))
            keys.amplitude = coder.decodeFloat("amplitude");
        keys.hasCapitalisedAmplitude = coder.containsValueForKey("Amplitude");
        return keys;
    }
};

template <typename T> std::vector<std::byte> archive(const T& object) {
    return KeyedArchiver::archivedDataWithRootObject(object);
}

template <typename T> T unarchive(const std::vector<std::byte>& data) {
    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<T>(data);
    EXPECT_TRUE(decoded.has_value()) << decoded.error().localizedDescription;
    return decoded ? std::move(*decoded) : T{};
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

// The defaults' values are pinned by the archive and stimulus tests; here the switches that hide
// the stored values, and the presets' names and lengths.
TEST(VELTLogSweepSettings, DefaultsAndEffectiveValues) {
    VELTLogSweepSettings settings;
    EXPECT_EQ(settings.name(), "Untitled");
    EXPECT_EQ(settings.leadIn(), 0.0f);
    EXPECT_EQ(settings.leadOut(), 0.0f);

    // The stored values show once the switches are off, whatever was set while they were on.
    settings.setStartFreq(50.0f);
    settings.setEndFreq(5000.0f);
    settings.setBeginSilence(10.0f);
    EXPECT_EQ(settings.startFreq(), 1.0f);
    EXPECT_EQ(settings.beginSilence(), 500.0f);
    settings.setFullRangeSweep(false);
    settings.setDefaultSilence(false);
    EXPECT_EQ(settings.startFreq(), 50.0f);
    EXPECT_EQ(settings.endFreq(), 5000.0f);
    EXPECT_EQ(settings.beginSilence(), 10.0f);
    EXPECT_EQ(settings.endSilence(), 0.0f);

    const auto shortSweep = VELTLogSweepSettings::shortLogSweepSettings();
    EXPECT_EQ(shortSweep.name(), "Short (1s) Sweep");
    EXPECT_EQ(shortSweep.stimulusSignalWithSampleRate(8000),
              VELTLogSweepSettings().stimulusSignalWithSampleRate(8000));
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

TEST(VELTLogSweepSettings, CopiesStoreTheEffectiveValues) {
    VELTLogSweepSettings preset;
    preset.setStartFreq(50.0f);
    preset.setEndFreq(5000.0f);
    preset.setBeginSilence(10.0f);
    preset.setEndSilence(20.0f);
    preset.setLeadIn(3.0f);
    preset.setAmplitude(0.7f);

    VELTLogSweepSettings copy(preset);
    copy.setFullRangeSweep(false);
    copy.setDefaultSilence(false);
    EXPECT_EQ(copy.startFreq(), 1.0f);
    EXPECT_EQ(copy.endFreq(), 0.0f);
    EXPECT_EQ(copy.beginSilence(), 500.0f);
    EXPECT_EQ(copy.endSilence(), 2000.0f);
    EXPECT_EQ(copy.leadIn(), 3.0f);
    EXPECT_EQ(copy.amplitude(), 0.7f);
    EXPECT_EQ(copy.name(), preset.name());

    // Assignment copies the same way, also onto itself; moving keeps what is stored.
    VELTLogSweepSettings assigned = customSettings();
    assigned = preset;
    assigned.setFullRangeSweep(false);
    EXPECT_EQ(assigned.endFreq(), 0.0f);
    VELTLogSweepSettings source = preset;
    VELTLogSweepSettings& alias = source;
    source = alias;
    source.setFullRangeSweep(false);
    EXPECT_EQ(source.startFreq(), 1.0f);
    VELTLogSweepSettings moved = std::move(preset);
    moved.setFullRangeSweep(false);
    EXPECT_EQ(moved.startFreq(), 50.0f);
    EXPECT_EQ(moved.endFreq(), 5000.0f);

    // Settings without either switch copy unchanged.
    EXPECT_EQ(VELTLogSweepSettings(customSettings()), customSettings());
}

TEST(VELTLogSweepSettings, NilThroughKeyValueCodingStoresZero) {
    VELTLogSweepSettings settings = customSettings();
    const std::pair<const char*, float (VELTLogSweepSettings::*)() const noexcept> keys[] = {
        {"startFreq", &VELTLogSweepSettings::startFreq},
        {"endFreq", &VELTLogSweepSettings::endFreq},
        {"beginSilence", &VELTLogSweepSettings::beginSilence},
        {"endSilence", &VELTLogSweepSettings::endSilence},
        {"amplitude", &VELTLogSweepSettings::amplitude},
        {"duration", &VELTLogSweepSettings::duration},
        {"leadIn", &VELTLogSweepSettings::leadIn},
        {"leadOut", &VELTLogSweepSettings::leadOut}};
    for (const auto& [key, getter] : keys) {
        settings.setNilValueForKey(key);
        EXPECT_EQ((settings.*getter)(), 0.0f) << key;
    }
    VELTLogSweepSettings switches;
    switches.setNilValueForKey("fullRangeSweep");
    switches.setNilValueForKey("defaultSilence");
    EXPECT_FALSE(switches.fullRangeSweep());
    EXPECT_FALSE(switches.defaultSilence());
    EXPECT_THROW(settings.setNilValueForKey("loudness"), ParameterAssertion);
}

TEST(VELTLogSweepSettings, ArchiveKeysAndRoundTrip) {
    const VELTLogSweepSettings custom = customSettings();
    auto decoded = unarchive<VELTLogSweepSettings>(archive(custom));
    EXPECT_EQ(decoded, custom);

    // A full-range, default-silence preset stores its effective values, "amplitude" in lower case.
    VELTLogSweepSettings preset = VELTLogSweepSettings::longLogSweepSettings();
    preset.setStartFreq(50.0f);
    preset.setEndFreq(5000.0f);
    preset.setAmplitude(0.25f);
    preset.setLeadOut(12.0f);
    const auto data = archive(preset);
    const auto stored = unarchive<StoredSweepKeys>(data);
    EXPECT_EQ(stored.version, 1.0);
    EXPECT_EQ(stored.duration, 10000.0f);
    EXPECT_EQ(stored.startFreq, 1.0f);
    EXPECT_EQ(stored.endFreq, 0.0f);
    EXPECT_EQ(stored.beginSilence, 500.0f);
    EXPECT_EQ(stored.endSilence, 2000.0f);
    EXPECT_EQ(stored.leadOut, 12.0f);
    EXPECT_EQ(stored.name, "Long (10s) Sweep");
    EXPECT_TRUE(stored.fullRangeSweep);
    EXPECT_TRUE(stored.defaultSilence);
    EXPECT_EQ(stored.amplitude, 0.25f);
    EXPECT_FALSE(stored.hasCapitalisedAmplitude);

    // After decoding, the end frequency stays 0 once full range is turned off.
    decoded = unarchive<VELTLogSweepSettings>(data);
    EXPECT_EQ(decoded.amplitude(), 0.25f);
    EXPECT_EQ(decoded.leadOut(), 12.0f);
    decoded.setFullRangeSweep(false);
    decoded.setDefaultSilence(false);
    EXPECT_EQ(decoded.startFreq(), 1.0f);
    EXPECT_EQ(decoded.endFreq(), 0.0f);
    EXPECT_EQ(decoded.beginSilence(), 500.0f);
}

TEST(VELTLogSweepSettings, OlderArchives) {
    StoredSweepKeys old;
    old.duration = 3000.0f;
    old.startFreq = 10.0f;
    old.endFreq = 12000.0f;
    old.name = "Old preset";
    old.amplitude = 0.25f; // not read without version 1

    // Version 0, as a missing key or a number 0: the amplitude keeps its default.
    for (std::optional<double> version : {std::optional<double>(), std::optional<double>(0.0)}) {
        old.version = version;
        const auto decoded = unarchive<VELTLogSweepSettings>(archive(old));
        EXPECT_EQ(decoded.amplitude(), 1.0f);
        EXPECT_EQ(decoded.duration(), 3000.0f);
        EXPECT_EQ(decoded.startFreq(), 10.0f);
        EXPECT_EQ(decoded.endFreq(), 12000.0f);
        EXPECT_FALSE(decoded.fullRangeSweep());
        EXPECT_FALSE(decoded.defaultSilence());
        EXPECT_EQ(decoded.name(), "Old preset");
    }
    old.version = 1.0;
    EXPECT_EQ(unarchive<VELTLogSweepSettings>(archive(old)).amplitude(), 0.25f);
    // Version 1 without the key reads 0, like every missing value.
    old.amplitude.reset();
    old.name.reset();
    const auto sparse = unarchive<VELTLogSweepSettings>(archive(old));
    EXPECT_EQ(sparse.amplitude(), 0.0f);
    EXPECT_EQ(sparse.name(), "");
    EXPECT_EQ(sparse.leadIn(), 0.0f);

    // A value of the wrong kind fails the whole archive.
    KeyedArchiver wrongKind(VELTLogSweepSettings::className);
    wrongKind.encodeString("long", "Duration");
    EXPECT_FALSE(
        KeyedUnarchiver::unarchivedObjectOfClass<VELTLogSweepSettings>(wrongKind.finish(ArchiveFormat::CBOR))
            .has_value());
}

TEST(VELTLogSweepSettings, StimulusAtTheDeviceRate) {
    // Defaults at 44100 Hz: 500 ms, one second of sweep up to 22050 Hz, 2000 ms.
    const VELTLogSweepSettings defaults;
    const auto stimulus = defaults.stimulusSignalWithSampleRate(44100);
    ASSERT_EQ(stimulus.length(), 154350u);
    EXPECT_EQ(stimulus,
              realVectorWithLogSweepFrom(1.0f, 22050.0f, 1000.0f, 1.0f, 500.0f, 2000.0f, 0, 0, 44100.0f));
    EXPECT_EQ(stimulus[22050], 0.0f);

    EXPECT_EQ(VELTLogSweepSettings::longLogSweepSettings().stimulusSignalWithSampleRate(48000).length(),
              600000u);

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
