#include "core/VELTCorrectionRecord.h"

#include "platform/KeyedArchiver.h"

#include <gtest/gtest.h>

namespace tavolar {
namespace {

Expected<VELTCorrectionRecord> decode(const std::vector<std::byte>& data) {
    return KeyedUnarchiver::unarchivedObjectOfClass<VELTCorrectionRecord>(data);
}

TEST(VELTCorrectionRecord, ArchiveRoundTripAndDecodingRules) {
    const VELTCorrectionRecord record(
        "Mic 7104393",
        std::make_shared<const VELTSpline>(VELTRealVector{20, 1000, 20000}, VELTRealVector{-0.5f, 0, 1.5f}),
        std::make_shared<const VELTSpline>(VELTRealVector{20, 20000}, VELTRealVector{3, -45}));
    const auto data = KeyedArchiver::archivedDataWithRootObject(record);
    auto decoded = decode(data);
    ASSERT_TRUE(decoded.has_value()) << decoded.error().localizedDescription;
    EXPECT_EQ(decoded->name(), "Mic 7104393");
    ASSERT_TRUE(decoded->magnitudeSpline() && decoded->phaseSpline());
    EXPECT_EQ(decoded->magnitudeSpline()->x(), record.magnitudeSpline()->x());
    EXPECT_EQ(decoded->magnitudeSpline()->y(), record.magnitudeSpline()->y());
    EXPECT_EQ(decoded->phaseSpline()->x(), record.phaseSpline()->x());
    EXPECT_EQ(decoded->phaseSpline()->y(), record.phaseSpline()->y());

    // Absent splines stay absent, written as null or not written at all; the version is not checked.
    auto withoutSplines =
        decode(KeyedArchiver::archivedDataWithRootObject(VELTCorrectionRecord("Nothing", nullptr, nullptr)));
    ASSERT_TRUE(withoutSplines.has_value());
    EXPECT_FALSE(withoutSplines->magnitudeSpline() || withoutSplines->phaseSpline());

    KeyedArchiver old(VELTCorrectionRecord::className);
    old.encodeString("0.5", "VELTCorrectionRecord");
    old.encodeString("Old", "Name");
    old.encodeObject(VELTSpline({1, 2}, {3, 4}), "MagnitudeSpline");
    auto decodedOld = decode(old.finish(ArchiveFormat::CBOR));
    ASSERT_TRUE(decodedOld.has_value());
    EXPECT_EQ(decodedOld->name(), "Old");
    ASSERT_TRUE(decodedOld->magnitudeSpline());
    EXPECT_FALSE(decodedOld->phaseSpline());
}

} // namespace
} // namespace tavolar
