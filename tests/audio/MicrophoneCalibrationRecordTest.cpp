#include "audio/MicrophoneCalibrationRecord.h"

#include "audio/MicrophoneCalibrationFileParser.h"
#include "engine/ArchiveJSON.h"
#include "platform/UUID.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <unordered_set>

namespace tavolar {
namespace {

std::vector<std::byte> bytes(std::string_view text) {
    std::vector<std::byte> result(text.size());
    for (std::size_t i = 0; i < text.size(); ++i)
        result[i] = static_cast<std::byte>(text[i]);
    return result;
}

const std::string kCalibrationText = "\"Sens Factor =-36.2dB\"\n20 -0.5 1\n1000 0 0\n20000 2.5 -40\n";

TEST(MicrophoneCalibrationRecord, MadeFromFileData) {
    auto record =
        MicrophoneCalibrationRecord::initWithCalibrationFileData(bytes(kCalibrationText), "ECM8000");
    ASSERT_TRUE(record.has_value());
    EXPECT_EQ(record->name(), "ECM8000");
    EXPECT_FALSE(record->serialNumber().has_value());
    ASSERT_TRUE(record->magnitudeSpline() && record->phaseSpline());
    EXPECT_EQ(record->magnitudeSpline()->x(), (VELTRealVector{20, 1000, 20000}));
    EXPECT_EQ(record->magnitudeSpline()->y(), (VELTRealVector{-0.5f, 0, 2.5f}));
    EXPECT_EQ(record->phaseSpline()->y(), (VELTRealVector{1, 0, -40}));
    EXPECT_FALSE(
        MicrophoneCalibrationRecord::initWithCalibrationFileData(bytes("no numbers here\n"), "Empty"));
}

TEST(MicrophoneCalibrationRecord, MadeFromFileOnDiskNamedAfterIt) {
    const auto folder = std::filesystem::temp_directory_path() / ("tavolar-calibration-" + newUUIDString());
    std::filesystem::create_directories(folder);
    std::ofstream(folder / "UMIK-1 7104393.cal.txt", std::ios::binary) << kCalibrationText;
    auto dotted = MicrophoneCalibrationRecord::initWithContentsOfCalibrationFileAtURL(
        folder / "UMIK-1 7104393.cal.txt");
    ASSERT_TRUE(dotted.has_value());
    EXPECT_EQ(dotted->name(), "UMIK-1 7104393.cal");

    auto missing = MicrophoneCalibrationRecord::initWithContentsOfCalibrationFileAtURL(folder / "absent.txt");
    ASSERT_FALSE(missing.has_value());
    EXPECT_EQ(missing.error().code, ENOENT);
    EXPECT_NE(missing.error().localizedDescription.find("absent.txt"), std::string::npos);
    // A folder is no file either.
    EXPECT_FALSE(MicrophoneCalibrationRecord::initWithContentsOfCalibrationFileAtURL(folder).has_value());
    std::filesystem::remove_all(folder);
}

TEST(MicrophoneCalibrationRecord, IdentityIsTheUUIDAlone) {
    auto first = MicrophoneCalibrationRecord::initWithCalibrationFileData(bytes(kCalibrationText), "Mic");
    auto second = MicrophoneCalibrationRecord::initWithCalibrationFileData(bytes(kCalibrationText), "Mic");
    ASSERT_TRUE(first && second);
    EXPECT_NE(first->uuidString(), second->uuidString());
    EXPECT_FALSE(*first == *second);

    MicrophoneCalibrationRecord copy = *first;
    EXPECT_TRUE(copy == *first);
    copy.setName("Renamed");
    copy.setSensitivity(12.5);
    EXPECT_TRUE(copy.isEqualToMicrophoneCalibrationRecord(*first));
    EXPECT_EQ(copy.hash(), first->hash());

    second->setUUIDString(first->uuidString());
    std::unordered_set<MicrophoneCalibrationRecord> set{*first, copy, *second};
    EXPECT_EQ(set.size(), 1u);
}

MicrophoneCalibrationRecord decode(std::string_view members) {
    auto decoded = testing::unarchivedFromKeys<MicrophoneCalibrationRecord>(members);
    EXPECT_TRUE(decoded.has_value()) << members;
    return decoded.value_or(MicrophoneCalibrationRecord("failed", std::nullopt, nullptr, nullptr));
}

TEST(MicrophoneCalibrationRecord, ArchiveRoundTripAndDecodingRules) {
    auto record =
        MicrophoneCalibrationRecord::initWithCalibrationFileData(bytes(kCalibrationText), "Lab mic");
    ASSERT_TRUE(record.has_value());
    record->setSerialNumber("7104393");
    record->setSensitivity(-36.2);
    record->setSensitivityUnits(MicrophoneSensitivityUnit::dBVPerMicrobar);
    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<MicrophoneCalibrationRecord>(
        KeyedArchiver::archivedDataWithRootObject(*record));
    ASSERT_TRUE(decoded.has_value()) << decoded.error().localizedDescription;
    EXPECT_TRUE(*decoded == *record);
    EXPECT_EQ(decoded->name(), "Lab mic");
    EXPECT_EQ(decoded->serialNumber(), "7104393");
    EXPECT_EQ(decoded->sensitivity(), -36.2);
    EXPECT_EQ(decoded->sensitivityUnits(), MicrophoneSensitivityUnit::dBVPerMicrobar);
    ASSERT_TRUE(decoded->magnitudeSpline() && decoded->phaseSpline());
    EXPECT_EQ(decoded->magnitudeSpline()->y(), record->magnitudeSpline()->y());
    EXPECT_EQ(decoded->phaseSpline()->y(), record->phaseSpline()->y());

    // Absent values: no serial number, no splines, and a fresh identity each time.
    const MicrophoneCalibrationRecord bare = decode("");
    EXPECT_FALSE(bare.serialNumber() || bare.magnitudeSpline() || bare.phaseSpline());
    EXPECT_TRUE(isUUIDString(bare.uuidString()));
    EXPECT_FALSE(decode("") == bare);

    const MicrophoneCalibrationRecord given = decode(
        R"("Name": "m", "SerialNumber": "s", "UUID": "u", "Sensitivity": 12.5, "SensitivityUnits": 1)");
    EXPECT_EQ(given.name(), "m");
    EXPECT_EQ(given.serialNumber(), "s");
    EXPECT_EQ(given.uuidString(), "u");
    EXPECT_EQ(given.sensitivity(), 12.5);
    // Every known unit is kept; an unknown one falls back to the default.
    const std::pair<int, MicrophoneSensitivityUnit> units[] = {
        {0, MicrophoneSensitivityUnit::millivoltsPerPascal},
        {1, MicrophoneSensitivityUnit::dBVPerMicrobar},
        {2, MicrophoneSensitivityUnit::dBFS},
        {9, MicrophoneCalibrationRecord::kDefaultSensitivityUnits},
        {-1, MicrophoneCalibrationRecord::kDefaultSensitivityUnits}};
    for (const auto& [raw, unit] : units)
        EXPECT_EQ(decode(R"("SensitivityUnits": )" + std::to_string(raw)).sensitivityUnits(), unit) << raw;
}

} // namespace
} // namespace tavolar
