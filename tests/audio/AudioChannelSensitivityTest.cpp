#include "audio/AudioChannelSensitivity.h"

#include "audio/DecimalNumberFormatter.h"
#include "engine/ArchiveJSON.h"
#include "platform/KeyedArchiver.h"

#include <cmath>
#include <gtest/gtest.h>
#include <tuple>

namespace tavolar {
namespace {

TEST(AudioChannelSensitivity, ReferenceVoltageAndText) {
    const AudioChannelSensitivity dBV = AudioChannelSensitivity::initWithDBV(-10.0);
    EXPECT_NEAR(dBV.referenceVoltage(), 0.31622776601683794, 1e-15);
    EXPECT_EQ(dBV.stringValue(), "-10 dBV");

    // +4 dBu as volts peak: 10^(4/20) x 0.774596669 V rms x sqrt(2).
    const AudioChannelSensitivity dBu(4.0, AudioChannelSensitivityUnit::dBu);
    EXPECT_NEAR(dBu.referenceVoltage(), 1.7361635, 1e-6);
    EXPECT_EQ(dBu.stringValue(), "4 dBu");

    const AudioChannelSensitivity dBFS(-18.125, AudioChannelSensitivityUnit::dBFS);
    EXPECT_EQ(dBFS.referenceVoltage(), 1.0);
    EXPECT_EQ(dBFS.stringValue(), "-18.12 dBFS");

    EXPECT_EQ(AudioChannelSensitivity(NAN, AudioChannelSensitivityUnit::dBV).stringValue(), "(invalid) dBV");
}

TEST(AudioChannelSensitivity, FormatterShowsAtMostTwoFractionDigits) {
    const DecimalNumberFormatter formatter = AudioChannelSensitivity::formatter();
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
    const std::tuple<std::string_view, AudioChannelSensitivity> decoded[] = {
        {R"("unit": 7, "sensitivityValue": 4)", AudioChannelSensitivity(4.0)},
        {R"("unit": -1, "sensitivityValue": 4)", AudioChannelSensitivity(4.0)},
        {R"("sensitivityValue": 4)", AudioChannelSensitivity(4.0)},
        {R"("unit": 2)", AudioChannelSensitivity(0.0, AudioChannelSensitivityUnit::dBFS)}};
    for (const auto& [members, expected] : decoded)
        EXPECT_EQ(testing::unarchivedFromKeys<AudioChannelSensitivity>(members).value(), expected) << members;
}

} // namespace
} // namespace tavolar
