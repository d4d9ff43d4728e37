#include "engine/VELTRZMeasurement.h"

#include "engine/VELTRZSweptSineRecording.h"

#include <chrono>
#include <gtest/gtest.h>
#include <type_traits>

namespace tavolar {
namespace {

// Results are only ever made from their parts and are not copied.
static_assert(!std::is_default_constructible_v<VELTRZMeasurement>);
static_assert(!std::is_copy_constructible_v<VELTRZMeasurement>);
static_assert(std::is_nothrow_move_constructible_v<VELTRZMeasurement>);
static_assert(!std::is_default_constructible_v<VELTRZSweptSineRecording>);
static_assert(!std::is_copy_constructible_v<VELTRZSweptSineRecording>);
static_assert(std::is_nothrow_move_constructible_v<VELTRZSweptSineRecording>);

TEST(VELTRZMeasurement, StoresItsArgumentsUnchanged) {
    const ArchivedDate date{std::chrono::duration<double>(7.25e8)};
    VELTLogSweepSettings settings = VELTLogSweepSettings::longLogSweepSettings();
    settings.setFullRangeSweep(false);
    settings.setEndFreq(12000.0f);
    settings.setDefaultSilence(false);
    const AudioDeviceDescription device{"sim:room", "Room", 2, 2, 96000.0, 96000.0};
    const RecordChannelEntry entry(3, nullptr, std::nullopt);

    const VELTRZMeasurement measurement(date, VELTRealVector{0.0f, 1.0f, 0.5f}, 96000, device, entry, 4,
                                        settings);
    EXPECT_EQ(measurement.date(), date);
    EXPECT_EQ(measurement.impulseResponse(), (VELTRealVector{0.0f, 1.0f, 0.5f}));
    EXPECT_EQ(measurement.sampleRate(), 96000);
    ASSERT_TRUE(measurement.recordDevice().has_value());
    EXPECT_EQ(*measurement.recordDevice(), device);
    EXPECT_EQ(measurement.recordChannelEntry(), entry);
    EXPECT_EQ(measurement.synchronousAverages(), 4);
    // The settings keep their stored values: the switched-off defaults are not turned into numbers.
    EXPECT_EQ(measurement.logSweepSettings(), settings);
    EXPECT_EQ(measurement.logSweepSettings().name(), settings.name());
    EXPECT_EQ(measurement.logSweepSettings().endFreq(), 12000.0f);
    EXPECT_FALSE(measurement.logSweepSettings().defaultSilence());
}

TEST(VELTRZSweptSineRecording, KeepsChannelsInOrderAndAnAbsentReference) {
    const VELTRZSweptSineRecording withoutReference({VELTRealVector{1.0f}, VELTRealVector{2.0f, 3.0f}},
                                                    std::nullopt);
    ASSERT_EQ(withoutReference.recordChannels().size(), 2u);
    EXPECT_EQ(withoutReference.recordChannels()[1], (VELTRealVector{2.0f, 3.0f}));
    EXPECT_FALSE(withoutReference.correctionChannel().has_value());
    EXPECT_EQ(withoutReference.correctionChannelOrNull(), nullptr);

    const VELTRZSweptSineRecording withReference({VELTRealVector{1.0f}}, VELTRealVector{4.0f});
    ASSERT_NE(withReference.correctionChannelOrNull(), nullptr);
    EXPECT_EQ(*withReference.correctionChannelOrNull(), VELTRealVector{4.0f});
}

} // namespace
} // namespace tavolar
