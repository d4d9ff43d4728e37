// The impulse-response window: its duration, equality, and its archive, including the 32-bit
// reading of begin and end and the oldest, unkeyed form.

#include "core/VELTWindow.h"

#include "platform/KeyedArchiver.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>

namespace tavolar {
namespace {

Expected<VELTWindow> decode(const std::vector<std::byte>& data, ArchiveFormat format = ArchiveFormat::CBOR) {
    return KeyedUnarchiver::unarchivedObjectOfClass<VELTWindow>(data, format);
}

Expected<VELTWindow> roundTrip(const VELTWindow& window, ArchiveFormat format = ArchiveFormat::CBOR) {
    return decode(KeyedArchiver::archivedDataWithRootObject(window, format), format);
}

std::vector<std::byte> oldestFormArchive(std::initializer_list<std::uint32_t> values) {
    KeyedArchiver archiver(VELTWindow::className);
    for (std::uint32_t value : values)
        archiver.encodeUnkeyedUInt32(value);
    return archiver.finish(ArchiveFormat::CBOR);
}

TEST(VELTWindow, DurationMovesTheEndAndEqualityComparesEveryField) {
    VELTWindow window = VELTWindow::windowWithBegin(100, 400);
    EXPECT_EQ(window.duration(), 300);
    window.setDuration(50);
    EXPECT_EQ(window, VELTWindow(100, 150, 0));
    window.setBegin(-20);
    EXPECT_EQ(window.duration(), 170);
    const VELTWindow hanning(-10, 10, 3);
    for (const VELTWindow& other : {VELTWindow(-10, 10, 4), VELTWindow(-10, 11, 3), VELTWindow(-9, 10, 3)})
        EXPECT_NE(hanning, other);
}

TEST(VELTWindow, ArchiveRoundTripsWithin32Bits) {
    constexpr auto kMin = std::numeric_limits<std::int32_t>::min();
    constexpr auto kMax = std::numeric_limits<std::int32_t>::max();
    for (const VELTWindow& window : {VELTWindow(), VELTWindow(-100, 400, 6), VELTWindow(kMin, kMax, 2),
                                     VELTWindow(0, 10, -1), VELTWindow(3, 4, 99)}) {
        for (ArchiveFormat format : {ArchiveFormat::CBOR, ArchiveFormat::JSON}) {
            auto decoded = roundTrip(window, format);
            ASSERT_TRUE(decoded.has_value()) << decoded.error().localizedDescription;
            EXPECT_EQ(*decoded, window);
        }
    }

    // Begin and end are read through the 32-bit decoder, which refuses what does not fit.
    EXPECT_FALSE(roundTrip(VELTWindow(std::int64_t{1} << 31, (std::int64_t{1} << 40) + 7, 5)).has_value());
    EXPECT_FALSE(roundTrip(VELTWindow(-(std::int64_t{1} << 31) - 1, 0)).has_value());
}

TEST(VELTWindow, OldestUnkeyedFormCountsTypesFromOne) {
    EXPECT_EQ(decode(oldestFormArchive({10, 20, 1})), VELTWindow(10, 20, 0));
    EXPECT_EQ(decode(oldestFormArchive({0, 512, 4})), VELTWindow(0, 512, 3));
    // The unsigned values fill only the low 32 bits: no sign extension; a stored type 0 becomes -1.
    EXPECT_EQ(decode(oldestFormArchive({0xFFFFFF9C, 400, 0})), VELTWindow(4294967196, 400, -1));
    // A truncated sequence is a decoding error, not a window with made-up fields.
    EXPECT_FALSE(decode(oldestFormArchive({10, 20})).has_value());
}

// Values of the wrong kind are the archiver's own tests' concern; a keyed archive of an unknown
// version is read as the oldest form, which it does not hold.
TEST(VELTWindow, AnUnknownVersionIsADecodingError) {
    KeyedArchiver unknownVersion(VELTWindow::className);
    unknownVersion.encodeString("3.0", "Version");
    unknownVersion.encodeInt64(1, "Begin");
    unknownVersion.encodeInt64(2, "End");
    unknownVersion.encodeInt32(1, "Type");
    EXPECT_FALSE(decode(unknownVersion.finish(ArchiveFormat::CBOR)).has_value());
}

} // namespace
} // namespace tavolar
