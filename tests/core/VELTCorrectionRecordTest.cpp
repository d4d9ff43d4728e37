#include "core/VELTCorrectionRecord.h"

#include "platform/KeyedArchiver.h"

#include <gtest/gtest.h>

namespace tavolar {
namespace {

std::shared_ptr<const VELTSpline> spline(std::initializer_list<float> x, std::initializer_list<float> y) {
    return std::make_shared<const VELTSpline>(VELTRealVector(x), VELTRealVector(y));
}

// Writes a correction-record archive with only the keys a test gives.
struct HandWrittenCorrectionRecord {
    static constexpr std::string_view className = "VELTCorrectionRecord";
    std::optional<std::string> version, name;
    std::optional<VELTSpline> magnitude, phase;
    void encodeWithCoder(KeyedArchiver& coder) const {
        if (version)
            coder.encodeString(*version, "VELTCorrectionRecord");
        if (name)
            coder.encodeString(*name, "Name");
        if (magnitude)
            coder.encodeObject(*magnitude, "MagnitudeSpline");
        if (phase)
            coder.encodeObject(*phase, "PhaseSpline");
    }
    static HandWrittenCorrectionRecord initWithCoder(KeyedUnarchiver& coder) {
        return {coder.decodeString("VELTCorrectionRecord"), coder.decodeString("Name"),
                coder.decodeObjectOfClass<VELTSpline>("MagnitudeSpline"),
                coder.decodeObjectOfClass<VELTSpline>("PhaseSpline")};
    }
};

TEST(VELTCorrectionRecord, CopiesShareSplines) {
    const VELTCorrectionRecord record("Playback chain", spline({20, 200, 20000}, {1, 0, -2}),
                                      spline({20, 20000}, {0, 90}));
    const VELTCorrectionRecord copy = record;
    EXPECT_EQ(copy.name(), "Playback chain");
    EXPECT_EQ(copy.magnitudeSpline().get(), record.magnitudeSpline().get());
    EXPECT_EQ(copy.phaseSpline().get(), record.phaseSpline().get());
}

TEST(VELTCorrectionRecord, ArchiveRoundTripAndDecodingRules) {
    const VELTCorrectionRecord record("Mic 7104393", spline({20, 1000, 20000}, {-0.5f, 0, 1.5f}),
                                      spline({20, 20000}, {3, -45}));
    const auto data = KeyedArchiver::archivedDataWithRootObject(record);
    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<VELTCorrectionRecord>(data);
    ASSERT_TRUE(decoded.has_value()) << decoded.error().localizedDescription;
    EXPECT_EQ(decoded->name(), "Mic 7104393");
    ASSERT_TRUE(decoded->magnitudeSpline() && decoded->phaseSpline());
    EXPECT_EQ(decoded->magnitudeSpline()->x(), record.magnitudeSpline()->x());
    EXPECT_EQ(decoded->magnitudeSpline()->y(), record.magnitudeSpline()->y());
    EXPECT_EQ(decoded->phaseSpline()->y(), record.phaseSpline()->y());
    EXPECT_FLOAT_EQ(decoded->magnitudeSpline()->valueForX(1000), 0.0f);

    // The version entry is keyed by the class name.
    auto written = KeyedUnarchiver::unarchivedObjectOfClass<HandWrittenCorrectionRecord>(data);
    ASSERT_TRUE(written.has_value());
    EXPECT_EQ(written->version, "1.0");
    EXPECT_EQ(written->name, "Mic 7104393");

    // Absent splines stay absent, both when written as null and when the key is missing; the version
    // is not checked.
    const auto withoutSplines =
        KeyedArchiver::archivedDataWithRootObject(VELTCorrectionRecord("Nothing", nullptr, nullptr));
    auto decodedWithout = KeyedUnarchiver::unarchivedObjectOfClass<VELTCorrectionRecord>(withoutSplines);
    ASSERT_TRUE(decodedWithout.has_value());
    EXPECT_FALSE(decodedWithout->magnitudeSpline());
    EXPECT_FALSE(decodedWithout->phaseSpline());

    const auto withoutPhase = KeyedArchiver::archivedDataWithRootObject(
        HandWrittenCorrectionRecord{"0.5", "Old", VELTSpline({1, 2}, {3, 4}), std::nullopt});
    auto decodedOld = KeyedUnarchiver::unarchivedObjectOfClass<VELTCorrectionRecord>(withoutPhase);
    ASSERT_TRUE(decodedOld.has_value());
    EXPECT_EQ(decodedOld->name(), "Old");
    ASSERT_TRUE(decodedOld->magnitudeSpline());
    EXPECT_FALSE(decodedOld->phaseSpline());

    auto empty = KeyedUnarchiver::unarchivedObjectOfClass<VELTCorrectionRecord>(
        KeyedArchiver::archivedDataWithRootObject(HandWrittenCorrectionRecord{}));
    ASSERT_TRUE(empty.has_value());
    EXPECT_EQ(empty->name(), "");
}

// An object of another class where a spline belongs is refused by secure decoding.
struct NotASpline {
    static constexpr std::string_view className = "VELTWindow";
    void encodeWithCoder(KeyedArchiver& coder) const { coder.encodeInt64(1, "begin"); }
    static NotASpline initWithCoder(KeyedUnarchiver&) { return {}; }
};

struct CorrectionRecordWithForeignSpline {
    static constexpr std::string_view className = "VELTCorrectionRecord";
    void encodeWithCoder(KeyedArchiver& coder) const {
        coder.encodeString("Foreign", "Name");
        coder.encodeObject(NotASpline{}, "MagnitudeSpline");
    }
    static CorrectionRecordWithForeignSpline initWithCoder(KeyedUnarchiver&) { return {}; }
};

TEST(VELTCorrectionRecord, ForeignObjectInPlaceOfSplineIsRefused) {
    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<VELTCorrectionRecord>(
        KeyedArchiver::archivedDataWithRootObject(CorrectionRecordWithForeignSpline{}));
    EXPECT_FALSE(decoded.has_value());
}

} // namespace
} // namespace tavolar
