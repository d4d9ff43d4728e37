// The impulse-response window: value semantics and its archive, including the 32-bit reading of
// begin and end and the oldest, unkeyed form.

#include "core/VELTWindow.h"

#include "platform/KeyedArchiver.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace tavolar {
namespace {

// Reads a window archive the way a reader of the raw keys would, to check what is stored.
struct StoredWindowKeys {
    static constexpr std::string_view className = "VELTWindow";
    std::optional<std::string> version;
    std::int64_t begin = 0, end = 0;
    std::int32_t type = 0;
    void encodeWithCoder(KeyedArchiver&) const {}
    static StoredWindowKeys initWithCoder(KeyedUnarchiver& coder) {
        return {coder.decodeString("Version"), coder.decodeInt64("Begin"), coder.decodeInt64("End"),
                coder.decodeInt32("Type")};
    }
};

Expected<VELTWindow> roundTrip(const VELTWindow& window, ArchiveFormat format = ArchiveFormat::CBOR) {
    return KeyedUnarchiver::unarchivedObjectOfClass<VELTWindow>(
        KeyedArchiver::archivedDataWithRootObject(window, format), format);
}

std::vector<std::byte> oldestFormArchive(std::initializer_list<std::uint32_t> values) {
    KeyedArchiver archiver(VELTWindow::className);
    for (std::uint32_t value : values)
        archiver.encodeUnkeyedUInt32(value);
    return archiver.finish(ArchiveFormat::CBOR);
}

TEST(VELTWindow, ValueSemantics) {
    const VELTWindow empty;
    EXPECT_EQ(empty.begin(), 0);
    EXPECT_EQ(empty.end(), 0);
    EXPECT_EQ(empty.type(), 0);

    VELTWindow window = VELTWindow::windowWithBegin(100, 400);
    EXPECT_EQ(window.type(), 0);
    EXPECT_EQ(window.duration(), 300);
    window.setDuration(50);
    EXPECT_EQ(window.begin(), 100);
    EXPECT_EQ(window.end(), 150);
    window.setBegin(-20);
    EXPECT_EQ(window.duration(), 170);

    const VELTWindow hanning = VELTWindow::windowWithBegin(-10, 10, 3);
    EXPECT_EQ(hanning.type(), 3);
    EXPECT_TRUE(hanning.isEqualToWindow(VELTWindow(-10, 10, 3)));
    EXPECT_FALSE(hanning.isEqualToWindow(VELTWindow(-10, 10, 4)));
    EXPECT_NE(hanning, VELTWindow(-10, 11, 3));
    EXPECT_NE(hanning, VELTWindow(-9, 10, 3));
    VELTWindow copy = hanning;
    copy.setType(1);
    EXPECT_EQ(hanning.type(), 3);
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
}

TEST(VELTWindow, BeginAndEndAreWrittenAs64BitButReadAs32Bit) {
    const VELTWindow far(std::int64_t{1} << 31, (std::int64_t{1} << 40) + 7, 5);
    const auto data = KeyedArchiver::archivedDataWithRootObject(far);
    // The archive holds the full values under the keyed form's names...
    auto stored = KeyedUnarchiver::unarchivedObjectOfClass<StoredWindowKeys>(data);
    ASSERT_TRUE(stored.has_value()) << stored.error().localizedDescription;
    EXPECT_EQ(stored->version, "2.0");
    EXPECT_EQ(stored->begin, std::int64_t{1} << 31);
    EXPECT_EQ(stored->end, (std::int64_t{1} << 40) + 7);
    EXPECT_EQ(stored->type, 5);
    // ...but the window reads them through the 32-bit decoder, which refuses them.
    EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClass<VELTWindow>(data).has_value());
    EXPECT_FALSE(roundTrip(VELTWindow(-(std::int64_t{1} << 31) - 1, 0)).has_value());
}

TEST(VELTWindow, OldestUnkeyedFormCountsTypesFromOne) {
    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<VELTWindow>(oldestFormArchive({10, 20, 1}));
    ASSERT_TRUE(decoded.has_value()) << decoded.error().localizedDescription;
    EXPECT_EQ(*decoded, VELTWindow(10, 20, 0));

    decoded = KeyedUnarchiver::unarchivedObjectOfClass<VELTWindow>(oldestFormArchive({0, 512, 4}));
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(*decoded, VELTWindow(0, 512, 3));

    // The unsigned values fill only the low 32 bits: no sign extension; a stored type 0 becomes -1.
    decoded = KeyedUnarchiver::unarchivedObjectOfClass<VELTWindow>(oldestFormArchive({0xFFFFFF9C, 400, 0}));
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(decoded->begin(), 4294967196);
    EXPECT_EQ(decoded->type(), -1);

    // A truncated sequence is a decoding error, not a window with made-up fields.
    EXPECT_FALSE(
        KeyedUnarchiver::unarchivedObjectOfClass<VELTWindow>(oldestFormArchive({10, 20})).has_value());
}

TEST(VELTWindow, MalformedArchivesAreDecodingErrors) {
    // A keyed archive of an unknown version is read as the oldest form, which it does not hold.
    KeyedArchiver unknownVersion(VELTWindow::className);
    unknownVersion.encodeString("3.0", "Version");
    unknownVersion.encodeInt64(1, "Begin");
    unknownVersion.encodeInt64(2, "End");
    unknownVersion.encodeInt32(1, "Type");
    EXPECT_FALSE(
        KeyedUnarchiver::unarchivedObjectOfClass<VELTWindow>(unknownVersion.finish(ArchiveFormat::CBOR))
            .has_value());

    // A value of the wrong kind.
    KeyedArchiver wrongKind(VELTWindow::className);
    wrongKind.encodeString("2.0", "Version");
    wrongKind.encodeString("ten", "Begin");
    wrongKind.encodeInt64(20, "End");
    wrongKind.encodeInt32(0, "Type");
    EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClass<VELTWindow>(wrongKind.finish(ArchiveFormat::CBOR))
                     .has_value());

    // Bytes that are no archive at all.
    const std::vector<std::byte> garbage{std::byte{0xFF}, std::byte{0x00}, std::byte{0x13}};
    EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClass<VELTWindow>(garbage).has_value());
}

} // namespace
} // namespace tavolar
