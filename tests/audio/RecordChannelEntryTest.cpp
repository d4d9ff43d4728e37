#include "audio/RecordChannelEntry.h"

#include "engine/ArchiveJSON.h"
#include "platform/KeyedArchiver.h"

#include <cmath>
#include <gtest/gtest.h>
#include <tuple>

namespace tavolar {
namespace {

std::shared_ptr<const MicrophoneCalibrationRecord> microphone(double sensitivity,
                                                              MicrophoneSensitivityUnit unit) {
    auto record = std::make_shared<MicrophoneCalibrationRecord>(
        "Mic", std::nullopt,
        std::make_shared<const VELTSpline>(VELTRealVector{20, 20000}, VELTRealVector{0, 1}), nullptr);
    record->setSensitivity(sensitivity);
    record->setSensitivityUnits(unit);
    return record;
}

TEST(RecordChannelEntry, SPLOffsetFromMicrophoneAndChannelSensitivity) {
    const auto mVPerPa = microphone(12.5, MicrophoneSensitivityUnit::millivoltsPerPascal);
    const auto dBFS = microphone(120.0, MicrophoneSensitivityUnit::dBFS);
    const auto dBVPerMicrobar = microphone(-60.0, MicrophoneSensitivityUnit::dBVPerMicrobar);
    // Full scale at +4 dBu is 1.7364 V peak.
    const double plus4dBu = std::pow(10.0, 4.0 / 20.0) * 0.774596669 * std::sqrt(2.0);
    const AudioChannelSensitivity channelDBFS(97.5, AudioChannelSensitivityUnit::dBFS);
    const std::tuple<std::shared_ptr<const MicrophoneCalibrationRecord>,
                     std::optional<AudioChannelSensitivity>, double>
        cases[] = {// 12.5 mV/Pa into a channel whose full scale is 0 dBV, +4 dBu or -10 dBV.
                   {mVPerPa, AudioChannelSensitivity(0.0), -38.0618},
                   {mVPerPa, AudioChannelSensitivity(4.0, AudioChannelSensitivityUnit::dBu),
                    20.0 * std::log10(0.0125 / plus4dBu)},
                   {mVPerPa, AudioChannelSensitivity(-10.0), 20.0 * std::log10(0.0125) + 10.0},
                   // Without the channel's sensitivity the voltage is unknown: no offset.
                   {mVPerPa, std::nullopt, 0.0},
                   {dBFS, std::nullopt, 120.0},
                   {dBFS, AudioChannelSensitivity(-10.0), 120.0},
                   {dBVPerMicrobar, AudioChannelSensitivity(-10.0), 0.0},
                   // A channel sensitivity in dBFS is the offset itself, with or without a microphone.
                   {mVPerPa, channelDBFS, 97.5},
                   {nullptr, channelDBFS, 97.5},
                   {nullptr, AudioChannelSensitivity(-10.0), 0.0},
                   {nullptr, std::nullopt, 0.0}};
    for (const auto& [mic, channel, offset] : cases)
        EXPECT_NEAR(RecordChannelEntry(0, mic, channel).dBSPLOffsetValue(), offset, 1e-4)
            << (mic ? mic->sensitivityLabel() : "no microphone") << ", "
            << (channel ? channel->stringValue() : "none");
}

TEST(RecordChannelEntry, ArchiveRoundTripAndDecodingRules) {
    const auto mic = microphone(12.5, MicrophoneSensitivityUnit::millivoltsPerPascal);
    const RecordChannelEntry entry(5, mic, AudioChannelSensitivity(4.0, AudioChannelSensitivityUnit::dBu));
    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<RecordChannelEntry>(
        KeyedArchiver::archivedDataWithRootObject(entry));
    ASSERT_TRUE(decoded.has_value()) << decoded.error().localizedDescription;
    EXPECT_EQ(decoded->channel(), 5);
    ASSERT_TRUE(decoded->calibrationRecord());
    EXPECT_EQ(*decoded->calibrationRecord(), *mic);
    EXPECT_EQ(decoded->calibrationRecord()->sensitivity(), 12.5);
    EXPECT_EQ(decoded->sensitivity(), entry.sensitivity());

    EXPECT_EQ(
        testing::archivedKeys(RecordChannelEntry(2, nullptr, AudioChannelSensitivity(-10.0))),
        nlohmann::json::parse(R"({"$class": "RecordChannelEntry", "channel": 2, "calibrationRecord": null,
                  "sensitivity": {"$class": "AudioChannelSensitivity", "unit": 1, "sensitivityValue": -10}})"));
    auto bare = KeyedUnarchiver::unarchivedObjectOfClass<RecordChannelEntry>(
        KeyedArchiver::archivedDataWithRootObject(RecordChannelEntry(2, nullptr, std::nullopt)));
    ASSERT_TRUE(bare.has_value());
    EXPECT_FALSE(bare->calibrationRecord() || bare->sensitivity());

    // Secure decoding: a sensitivity where a calibration record belongs is refused.
    EXPECT_FALSE(testing::unarchivedFromKeys<RecordChannelEntry>(R"("channel": 1, "calibrationRecord":
        {"$class": "AudioChannelSensitivity", "unit": 1, "sensitivityValue": -10})")
                     .has_value());
}

} // namespace
} // namespace tavolar
