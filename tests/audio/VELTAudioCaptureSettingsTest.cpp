#include "audio/VELTAudioCaptureSettings.h"

#include "audio/VELTAudioDeviceRegistry.h"
#include "audio/devices/VELTAudioDevice.h"
#include "dsp/Search.h"
#include "engine/ArchiveJSON.h"
#include "platform/KeyedArchiver.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>

namespace tavolar {
namespace {

std::shared_ptr<const MicrophoneCalibrationRecord> microphone(std::string name) {
    return std::make_shared<const MicrophoneCalibrationRecord>(std::move(name), std::nullopt, nullptr,
                                                               nullptr);
}

// Settings with every archived value away from its default, and a reference level.
VELTAudioCaptureSettings configuredSettings(std::shared_ptr<const MicrophoneCalibrationRecord> mic) {
    VELTAudioCaptureSettings settings;
    settings.setRecordDeviceUID("jack");
    settings.setPlaybackDeviceUID("jack:studio");
    settings.setCorrectionPlaybackDeviceUID("sim:loop");
    settings.setRecordChannelEntries(
        {RecordChannelEntry(2, std::move(mic),
                            AudioChannelSensitivity(4.0, AudioChannelSensitivityUnit::dBu)),
         RecordChannelEntry(0, nullptr, std::nullopt)});
    settings.setPlaybackChannels(IndexSet{0, 3});
    settings.setCorrectionEnabled(true);
    settings.setCorrectionRecordChannel(1);
    settings.setCorrectionPlaybackChannel(-1);
    settings.setReferenceLevel(0.5f, 2);
    return settings;
}

std::vector<std::byte> archived(const VELTAudioCaptureSettings& settings,
                                ArchiveFormat format = ArchiveFormat::CBOR) {
    return KeyedArchiver::archivedDataWithRootObject(settings, format);
}

TEST(VELTAudioCaptureSettings, FreshSettingsRecordAndPlayOnChannelZero) {
    const VELTAudioCaptureSettings settings;
    EXPECT_EQ(settings.recordChannelArray(), (std::vector<std::int64_t>{0}));
    EXPECT_EQ(settings.playbackChannels(), (IndexSet{0}));
}

TEST(VELTAudioCaptureSettings, ChangingRecordDeviceResetsChannels) {
    VELTAudioCaptureSettings settings;
    settings.setRecordDeviceUID("sim:interface");
    settings.setRecordChannelEntries({RecordChannelEntry(2, microphone("A"), std::nullopt),
                                      RecordChannelEntry(5, nullptr, AudioChannelSensitivity(-10.0))});
    settings.setPlaybackChannels(IndexSet{1, 2});

    // The same device again keeps the channels; another device resets them.
    settings.setRecordDeviceUID(std::string("sim:") + "interface");
    EXPECT_EQ(settings.recordChannelArray(), (std::vector<std::int64_t>{2, 5}));
    settings.setRecordDeviceUID("jack");
    EXPECT_EQ(settings.recordChannelArray(), (std::vector<std::int64_t>{0}));
    settings.setRecordChannelEntries({RecordChannelEntry(4, nullptr, std::nullopt)});
    settings.setRecordDeviceUID(std::nullopt);
    EXPECT_EQ(settings.recordChannelArray(), (std::vector<std::int64_t>{0}));

    // The playback side has no such rule.
    settings.setPlaybackDeviceUID("jack");
    EXPECT_EQ(settings.playbackChannels(), (IndexSet{1, 2}));
}

TEST(VELTAudioCaptureSettings, ChannelQueries) {
    VELTAudioCaptureSettings settings;
    const auto first = microphone("first");
    settings.setRecordChannelEntries({RecordChannelEntry(3, first, std::nullopt),
                                      RecordChannelEntry(1, nullptr, std::nullopt),
                                      RecordChannelEntry(3, microphone("second"), std::nullopt)});
    EXPECT_EQ(settings.recordChannelArray(), (std::vector<std::int64_t>{3, 1, 3}));
    EXPECT_EQ(settings.recordChannels(), (IndexSet{1, 3}));
    EXPECT_EQ(settings.recordChannelAtIndex(1), 3u);
    // The first entry on a channel answers, even when a later one has a record.
    EXPECT_EQ(settings.calibrationRecordForChannel(3).get(), first.get());
    EXPECT_FALSE(settings.calibrationRecordForChannel(1));
}

TEST(VELTAudioCaptureSettings, CopyKeepsConfigurationButNotReferenceLevels) {
    const auto mic = microphone("M");
    VELTAudioCaptureSettings settings = configuredSettings(mic);
    int notifications = 0;
    settings.addObserver("recordDeviceUID", [&](std::string_view) { ++notifications; });
    const VELTAudioCaptureSettings copy = settings.copy();
    EXPECT_EQ(archived(copy), archived(settings));
    EXPECT_EQ(copy.recordChannelEntries()[0].calibrationRecord().get(), mic.get());
    EXPECT_EQ(copy.referenceLevelForChannel(2), 1.0f);
    EXPECT_EQ(settings.referenceLevelForChannel(2), 0.5f);

    // Assignment follows the same rule, and observers of the target hear of it.
    VELTAudioCaptureSettings assigned;
    int assignedNotifications = 0;
    assigned.addObserver("recordChannels", [&](std::string_view) { ++assignedNotifications; });
    assigned = settings;
    EXPECT_EQ(archived(assigned), archived(settings));
    EXPECT_EQ(assigned.referenceLevelForChannel(2), 1.0f);
    EXPECT_GT(assignedNotifications, 0);
    EXPECT_EQ(notifications, 0);
}

TEST(VELTAudioCaptureSettings, DependentKeysAreAnnounced) {
    VELTAudioCaptureSettings settings;
    std::vector<std::string> heard;
    for (const char* key :
         {"recordDeviceSampleRate", "recordChannels", "recordChannelArray", "playbackChannelArray",
          "playbackDeviceSampleRate", "measurementSampleRate", "availableSampleRates"})
        settings.addObserver(key, [&](std::string_view keyPath) { heard.emplace_back(keyPath); });

    settings.setRecordDeviceUID("sim:a");
    // The sample rates of both sides depend on the measurement rate, which depends on both devices.
    EXPECT_EQ(heard,
              (std::vector<std::string>{"recordDeviceSampleRate", "recordChannels", "recordChannelArray",
                                        "playbackDeviceSampleRate", "measurementSampleRate",
                                        "availableSampleRates", "recordChannels", "recordChannelArray"}));
    heard.clear();
    settings.setPlaybackChannels(IndexSet{3});
    EXPECT_EQ(heard, (std::vector<std::string>{"playbackChannelArray"}));
    heard.clear();
    settings.setPlaybackDeviceUID("sim:b");
    EXPECT_EQ(heard, (std::vector<std::string>{"recordDeviceSampleRate", "playbackChannelArray",
                                               "playbackDeviceSampleRate", "measurementSampleRate",
                                               "availableSampleRates"}));
}

TEST(VELTAudioCaptureSettings, DevicesAndSampleRatesComeFromTheRegistry) {
    auto& registry = VELTAudioDeviceRegistry::shared();
    registry.registerDevice({"test:capture-in", "Capture in", 8, 0, 48000.9, 0.0});
    registry.registerDevice({"test:capture-out", "Capture out", 0, 2, 0.0, 44100.0});

    VELTAudioCaptureSettings settings;
    settings.setRecordDeviceUID("test:capture-in");
    settings.setPlaybackDeviceUID("test:capture-out");
    ASSERT_TRUE(settings.recordDevice());
    EXPECT_EQ(settings.recordDeviceSampleRate(), 48000u);
    EXPECT_EQ(settings.playbackDeviceSampleRate(), 44100u);

    // Every read asks afresh.
    registry.registerDevice({"test:capture-in", "Capture in", 8, 0, 96000.0, 0.0});
    EXPECT_EQ(settings.recordDeviceSampleRate(), 96000u);
    registry.unregisterDevice("test:capture-in");
    EXPECT_FALSE(settings.recordDevice());
    EXPECT_EQ(settings.recordDeviceSampleRate(), 0u);
    registry.unregisterDevice("test:capture-out");
}

// Settings read before anything opened their devices, as in a document opened in a new process: the
// statement runs in a child that re-runs this test program with this test alone, so the registry
// there starts empty and only the audio layer's lookup can fill it.
TEST(VELTAudioCaptureSettings, DevicesNobodyOpenedAreAnsweredInAFreshProcess) {
    const std::string uid = "sim:fresh-process?inputs=6&outputs=3&rate=96000";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const bool empty = VELTAudioDeviceRegistry::shared().devices().empty();
            VELTAudioCaptureSettings settings;
            settings.setRecordDeviceUID(uid);
            settings.setPlaybackDeviceUID(uid);
            const auto device = settings.recordDevice();
            VELTAudioCaptureSettings unknown;
            unknown.setRecordDeviceUID("sim:fresh-process?inputs=none");
            unknown.setPlaybackDeviceUID("nowhere:device");
            std::fprintf(stderr, "empty %d, rates %u %u, inputs %u, outputs %u, unknown %u %u %d\n", empty,
                         settings.recordDeviceSampleRate(), settings.playbackDeviceSampleRate(),
                         device ? device->inputChannelCount : 0u, device ? device->outputChannelCount : 0u,
                         unknown.recordDeviceSampleRate(), unknown.playbackDeviceSampleRate(),
                         unknown.recordDevice().has_value());
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "empty 1, rates 96000 96000, inputs 6, outputs 3, unknown 0 0 0");
}

// Decodes settings from an archive holding the given keys, in either generation's layout.
VELTAudioCaptureSettings decode(std::string_view members) {
    auto decoded = testing::unarchivedFromKeys<VELTAudioCaptureSettings>(members);
    EXPECT_TRUE(decoded.has_value()) << members;
    return decoded ? std::move(*decoded) : VELTAudioCaptureSettings();
}

TEST(VELTAudioCaptureSettings, ArchiveRoundTrip) {
    const auto mic = microphone("Lab");
    const VELTAudioCaptureSettings settings = configuredSettings(mic);
    nlohmann::json keys = testing::archivedKeys(settings);
    keys.erase("recordChannelEntries"); // the entries' own tests pin their keys
    EXPECT_EQ(keys, nlohmann::json::parse(R"({"$class": "VELTAudioCaptureSettings",
        "VELTAudioCaptureSettingsVersion": "2.0", "recordDeviceUID": "jack",
        "playbackDeviceUID": "jack:studio", "correctionPlaybackDeviceUID": "sim:loop",
        "playbackChannels": {"$class": "IndexSet", "$indexes": [0, 3]},
        "correctionEnabled": true, "correctionRecordChannel": 1, "correctionPlaybackChannel": -1})"));
    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<VELTAudioCaptureSettings>(archived(settings));
    ASSERT_TRUE(decoded.has_value()) << decoded.error().localizedDescription;
    EXPECT_EQ(archived(*decoded), archived(settings));
    ASSERT_TRUE(decoded->recordChannelEntries()[0].calibrationRecord());
    EXPECT_EQ(*decoded->recordChannelEntries()[0].calibrationRecord(), *mic);
    // Reference levels are not archived, and a decoded object has no place to keep them; its copy has.
    decoded->setReferenceLevel(0.5f, 2);
    EXPECT_EQ(decoded->referenceLevelForChannel(2), 1.0f);
    VELTAudioCaptureSettings copy = decoded->copy();
    copy.setReferenceLevel(0.5f, 2);
    EXPECT_EQ(copy.referenceLevelForChannel(2), 0.5f);
}

TEST(VELTAudioCaptureSettings, CurrentLayoutDecodingRules) {
    // Nothing is defaulted: no playback channels, no entries, correction off.
    const VELTAudioCaptureSettings empty = decode(R"("VELTAudioCaptureSettingsVersion": "2.0")");
    EXPECT_FALSE(empty.playbackChannels().has_value());
    EXPECT_TRUE(empty.recordChannelEntries().empty());

    // A record device without entries falls back to channel 0 through the setter; the older index-set
    // form is read; entries, when present, win over it. A missing version reads as the current layout.
    EXPECT_EQ(
        decode(R"("VELTAudioCaptureSettingsVersion": "2.0", "recordDeviceUID": "jack")").recordChannelArray(),
        (std::vector<std::int64_t>{0}));
    const VELTAudioCaptureSettings indexSetForm =
        decode(R"("recordDeviceUID": "jack", "recordChannels": {"$class": "IndexSet", "$indexes": [1, 4]},
                  "correctionEnabled": 1, "correctionRecordChannel": 3)");
    EXPECT_EQ(indexSetForm.recordChannelArray(), (std::vector<std::int64_t>{1, 4}));
    EXPECT_TRUE(indexSetForm.correctionEnabled());
    EXPECT_EQ(indexSetForm.correctionRecordChannel(), 3);
    const VELTAudioCaptureSettings both = decode(R"("VELTAudioCaptureSettingsVersion": "3.0",
        "recordChannels": {"$class": "IndexSet", "$indexes": [1, 4]},
        "recordChannelEntries": [{"$class": "RecordChannelEntry", "channel": 6}])");
    EXPECT_EQ(both.recordChannelArray(), (std::vector<std::int64_t>{6}));
    // A version that is not a string is simply not "1.0".
    const VELTAudioCaptureSettings numericVersion = decode(R"("VELTAudioCaptureSettingsVersion": 1.0,
        "playbackChannels": {"$class": "IndexSet", "$indexes": [2]})");
    EXPECT_EQ(numericVersion.playbackChannels(), (IndexSet{2}));
}

TEST(VELTAudioCaptureSettings, FirstGenerationLayout) {
    // Current-layout keys are ignored in an old archive.
    const VELTAudioCaptureSettings old = decode(R"("VELTAudioCaptureSettingsVersion": "1.0",
        "RecordDeviceUID": "old-device", "PlaybackDeviceUID": "old-output",
        "CorrectionPlaybackDeviceUID": "old-loop",
        "RecordChannels": {"$class": "IndexSet", "$indexes": [0, 2, 3]}, "PlaybackChannel": 2,
        "CorrectionEnabled": true, "CorrectionRecordChannel": 5, "CorrectionPlaybackChannel": -1,
        "playbackChannels": {"$class": "IndexSet", "$indexes": [9]})");
    EXPECT_EQ(old.recordDeviceUID(), "old-device");
    EXPECT_EQ(old.playbackDeviceUID(), "old-output");
    EXPECT_EQ(old.correctionPlaybackDeviceUID(), "old-loop");
    EXPECT_EQ(old.recordChannelArray(), (std::vector<std::int64_t>{0, 2, 3}));
    EXPECT_EQ(old.playbackChannels(), (IndexSet{2}));
    EXPECT_TRUE(old.correctionEnabled());
    EXPECT_EQ(old.correctionRecordChannel(), 5);
    // The correction channels were stored as 32-bit values and are read zero-extended.
    EXPECT_EQ(old.correctionPlaybackChannel(), 4294967295);

    // Without "RecordChannels" there are no entries, even with a record device; missing scalars are 0.
    const VELTAudioCaptureSettings sparse =
        decode(R"("VELTAudioCaptureSettingsVersion": "1.0", "RecordDeviceUID": "old-device")");
    EXPECT_TRUE(sparse.recordChannelEntries().empty());
    EXPECT_EQ(sparse.playbackChannels(), (IndexSet{0}));
    EXPECT_FALSE(sparse.correctionEnabled());
}

} // namespace
} // namespace tavolar
