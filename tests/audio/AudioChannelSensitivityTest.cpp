#include "audio/AudioChannelSensitivity.h"

#include "audio/AudioDeviceSensitivityRecord.h"
#include "audio/DecimalNumberFormatter.h"
#include "engine/ArchiveJSON.h"
#include "platform/KeyedArchiver.h"

#include <cmath>
#include <gtest/gtest.h>

namespace tavolar {
namespace {

TEST(AudioChannelSensitivity, ReferenceVoltageAndText) {
    const AudioChannelSensitivity dBV = AudioChannelSensitivity::initWithDBV(-10.0);
    EXPECT_EQ(dBV.unit(), AudioChannelSensitivityUnit::dBV);
    EXPECT_NEAR(dBV.referenceVoltage(), 0.31622776601683794, 1e-15);
    EXPECT_EQ(dBV.stringValue(), "-10 dBV");
    EXPECT_EQ(dBV.description(), "-10 dBV");

    // +4 dBu as volts peak: 10^(4/20) x 0.774596669 V rms x sqrt(2).
    const AudioChannelSensitivity dBu(4.0, AudioChannelSensitivityUnit::dBu);
    EXPECT_NEAR(dBu.referenceVoltage(), 1.7361635, 1e-6);
    EXPECT_EQ(dBu.stringValue(), "4 dBu");

    const AudioChannelSensitivity dBFS(-18.125, AudioChannelSensitivityUnit::dBFS);
    EXPECT_EQ(dBFS.referenceVoltage(), 1.0);
    EXPECT_EQ(dBFS.stringValue(), "-18.12 dBFS");

    EXPECT_EQ(AudioChannelSensitivity(NAN, AudioChannelSensitivityUnit::dBV).stringValue(), "(invalid) dBV");
    // A raw unit outside the three is taken as dBV, as an archive would be.
    EXPECT_EQ(AudioChannelSensitivity(0.0, static_cast<AudioChannelSensitivityUnit>(5)).unit(),
              AudioChannelSensitivityUnit::dBV);
}

TEST(AudioChannelSensitivity, FormatterShowsAtMostTwoFractionDigits) {
    const DecimalNumberFormatter formatter = AudioChannelSensitivity::formatter();
    EXPECT_EQ(formatter.stringFromNumber(12.5), "12.5");
    EXPECT_EQ(formatter.stringFromNumber(1234.5678), "1,234.57");
    EXPECT_EQ(formatter.stringFromNumber(-1234567.0), "-1,234,567");
    EXPECT_EQ(formatter.stringFromNumber(0.125), "0.12"); // an exact tie rounds to even
    EXPECT_EQ(formatter.stringFromNumber(0.995), "0.99"); // 0.995 is a little below its decimal text
    EXPECT_EQ(formatter.stringFromNumber(-0.001), "0");
    EXPECT_EQ(formatter.stringFromNumber(999.999), "1,000");
    EXPECT_EQ(formatter.stringFromNumber(INFINITY), std::nullopt);
    EXPECT_EQ(formatter.stringFromNumber(NAN), std::nullopt);
}

TEST(AudioChannelSensitivity, ArchiveRoundTripAndUnitRules) {
    const std::pair<AudioChannelSensitivityUnit, int> units[] = {{AudioChannelSensitivityUnit::dBu, 0},
                                                                 {AudioChannelSensitivityUnit::dBV, 1},
                                                                 {AudioChannelSensitivityUnit::dBFS, 2}};
    for (const auto& [unit, raw] : units) {
        const AudioChannelSensitivity sensitivity(-6.02, unit);
        EXPECT_EQ(testing::archivedKeys(sensitivity),
                  (nlohmann::json{
                      {"$class", "AudioChannelSensitivity"}, {"unit", raw}, {"sensitivityValue", -6.02}}));
        auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<AudioChannelSensitivity>(
            KeyedArchiver::archivedDataWithRootObject(sensitivity));
        ASSERT_TRUE(decoded.has_value());
        EXPECT_EQ(*decoded, sensitivity);
    }
    // A unit outside the three, or none, reads as dBV; a missing value as 0.
    auto decode = [](std::string_view members) {
        auto decoded = testing::unarchivedFromKeys<AudioChannelSensitivity>(members);
        EXPECT_TRUE(decoded.has_value()) << members;
        return decoded.value_or(AudioChannelSensitivity(-999.0));
    };
    EXPECT_EQ(decode(R"("unit": 7, "sensitivityValue": 4)").unit(), AudioChannelSensitivityUnit::dBV);
    EXPECT_EQ(decode(R"("unit": -1, "sensitivityValue": 4)").unit(), AudioChannelSensitivityUnit::dBV);
    EXPECT_EQ(decode(R"("sensitivityValue": 4)").unit(), AudioChannelSensitivityUnit::dBV);
    const AudioChannelSensitivity noValue = decode(R"("unit": 2)");
    EXPECT_EQ(noValue.sensitivityValue(), 0.0);
    EXPECT_EQ(noValue.unit(), AudioChannelSensitivityUnit::dBFS);
}

TEST(AudioDeviceSensitivityRecord, ChannelRangeAndAllChannels) {
    const AudioChannelSensitivity sensitivity(4.0, AudioChannelSensitivityUnit::dBu);
    EXPECT_EQ(AudioDeviceSensitivityRecord(sensitivity, "jack").channelRange(),
              (AudioChannelRange{kNotFound, 0}));
    AudioDeviceSensitivityRecord some(sensitivity, "sim:interface", {2, 2});
    EXPECT_FALSE(some.allChannels());
    // Assigning the flag always selects every channel, false included; a concrete range narrows again.
    some.setAllChannels(false);
    EXPECT_TRUE(some.allChannels());
    EXPECT_EQ(some.channelRange().length, 2u);
    some.setChannelRange({0, 1});
    EXPECT_FALSE(some.allChannels());
}

} // namespace
} // namespace tavolar
