#include "audio/MicrophoneCalibrationRecord.h"
#include "audio/RecordChannelEntry.h"
#include "core/ImpulseCache.h"
#include "core/VELTMeasurementRecord.h"
#include "platform/KeyedArchiver.h"
#include "platform/UUID.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace tavolar {
namespace {

constexpr std::string_view kRecord = "VELTMeasurementRecord";

Expected<VELTMeasurementRecord> decode(const std::vector<std::byte>& data,
                                       ArchiveFormat format = ArchiveFormat::CBOR) {
    return KeyedUnarchiver::unarchivedObjectOfClass<VELTMeasurementRecord>(data, format);
}

Expected<VELTMeasurementRecord> roundTrip(const VELTMeasurementRecord& record, ArchiveFormat format) {
    return decode(KeyedArchiver::archivedDataWithRootObject(record, format), format);
}

// Floats as the oldest systems stored them: IEEE 754, most significant byte first.
std::vector<std::byte> bigEndianFloats(std::initializer_list<float> values) {
    std::vector<std::byte> bytes;
    for (float value : values) {
        auto bits = std::bit_cast<std::uint32_t>(value);
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(static_cast<std::byte>((bits >> shift) & 0xFF));
    }
    return bytes;
}

class OneImpulseCache : public ImpulseCache {
public:
    explicit OneImpulseCache(std::string uuid, VELTRealVector impulse)
        : uuid_(std::move(uuid)), impulse_(std::make_shared<const VELTRealVector>(std::move(impulse))) {}
    void setImpulse(std::shared_ptr<const VELTRealVector>, const std::string&, std::int64_t) override {}
    std::shared_ptr<const VELTRealVector> impulseWithUUID(const std::string& uuid) const override {
        return uuid == uuid_ ? impulse_ : nullptr;
    }

private:
    std::string uuid_;
    std::shared_ptr<const VELTRealVector> impulse_;
};

TEST(VELTMeasurementRecordArchive, RoundTripKeepsWhatIsReadBackAndDropsWhatIsNot) {
    auto calibration = std::make_shared<MicrophoneCalibrationRecord>("Mic", "SN 1", nullptr, nullptr);
    calibration->setSensitivity(12.5);
    VELTMeasurementRecord record("6A1E7F2C-0000-4000-8000-000000000001");
    record.setSampleRate(96000);
    record.setImpulseResponse(VELTRealVector{1.0f, -0.5f, 0.25f, 3.0e-7f});
    record.setImpulseResponseWindow(VELTWindow(-100, 400, 6));
    record.setDate(ArchivedDate(std::chrono::duration<double>(1.7e9 + 0.25)));
    record.setComment("comment");
    record.setNotes("notes");
    record.setPlotColor(ArchivedColor{0.1, 0.2, 0.3, 0.5});
    VELTLogSweepSettings sweep;
    sweep.setFullRangeSweep(false);
    sweep.setEndFreq(16000);
    sweep.setAmplitude(0.5f);
    record.setLogSweepSettings(sweep);
    record.setSynchronousAverages(8);
    record.setGraphAdjustments({{"FrequencyYOffset", 6.0}});
    record.setPlugInDictionary({{"key", "value"}});
    record.setCompatibilityMode(true);
    record.setNormalized(true);
    record.setMicrophoneCalibrationRecord(calibration);
    record.setUseMicrophoneCalibrationRecord(false);
    record.setUseSPLReferenceLevel(true);
    record.setSPLReferenceLevel(-12.5f);
    record.setStartFrequency(10);
    record.setEndFrequency(30000);
    record.setRecordChannelEntry(RecordChannelEntry(3, nullptr, AudioChannelSensitivity::initWithDBV(-10)));
    record.setAudioDeviceName("Interface");
    record.setAudioDeviceUID("jack");
    record.setSpeedOfSound(343.25);

    for (ArchiveFormat format : {ArchiveFormat::CBOR, ArchiveFormat::JSON}) {
        auto decoded = roundTrip(record, format);
        ASSERT_TRUE(decoded) << decoded.error().localizedDescription;
        EXPECT_EQ(decoded->impulseUUID(), record.impulseUUID());
        EXPECT_EQ(*decoded->impulseResponse(), *record.impulseResponse());
        EXPECT_EQ(decoded->impulseResponseWindow(), VELTWindow(-100, 400, 6));
        EXPECT_EQ(decoded->date(), record.date());
        EXPECT_EQ(decoded->comment(), "comment");
        EXPECT_EQ(decoded->notes(), "notes");
        EXPECT_EQ(decoded->plotColor(), (ArchivedColor{0.1, 0.2, 0.3, 0.5}));
        EXPECT_EQ(decoded->sampleRate(), 96000);
        EXPECT_EQ(decoded->logSweepSettings(), record.logSweepSettings());
        EXPECT_EQ(decoded->synchronousAverages(), 8);
        EXPECT_TRUE(decoded->normalized());
        EXPECT_EQ(decoded->microphoneCalibrationRecord()->uuidString(), calibration->uuidString());
        EXPECT_EQ(decoded->microphoneCalibrationRecord()->sensitivity(), 12.5);
        EXPECT_FALSE(decoded->useMicrophoneCalibrationRecord());
        EXPECT_TRUE(decoded->useSPLReferenceLevel());
        EXPECT_EQ(decoded->SPLReferenceLevel(), -12.5f);
        EXPECT_EQ(decoded->startFrequency(), 10.0f);
        EXPECT_EQ(decoded->endFrequency(), 30000.0f);
        EXPECT_EQ(decoded->recordChannelEntry()->channel(), 3);
        EXPECT_EQ(decoded->recordChannelEntry()->sensitivity()->sensitivityValue(), -10.0);
        EXPECT_EQ(decoded->audioDeviceName(), "Interface");
        EXPECT_EQ(decoded->audioDeviceUID(), "jack");
        EXPECT_EQ(decoded->speedOfSound(), 343.25);
        // Written but deliberately not read back.
        EXPECT_EQ(decoded->graphAdjustments(), VELTMeasurementRecord::emptyGraphAdjustmentDict());
        EXPECT_TRUE(decoded->plugInDictionary().empty());
        EXPECT_FALSE(decoded->compatibilityMode());
        EXPECT_TRUE(decoded->isThumbnailDirty());
    }

    // What a fresh record writes comes back as a fresh record: absent texts stay absent.
    auto empty = roundTrip(VELTMeasurementRecord("E"), ArchiveFormat::CBOR);
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->impulseUUID(), "E");
    EXPECT_FALSE(empty->comment() || empty->date() || empty->logSweepSettings() || empty->impulseResponse());
    EXPECT_EQ(empty->plotColor(), (ArchivedColor{0, 0, 0, 1}));
    EXPECT_EQ(empty->speedOfSound(), VELTMeasurementRecord::kDefaultSpeedOfSound);
}

TEST(VELTMeasurementRecordArchive, ImpulseResponseIsLeftOutOnRequestAndComesBackThroughTheCache) {
    VELTMeasurementRecord record("KEY");
    record.setSampleRate(48000);
    record.setImpulseResponse(VELTRealVector{0.0f, 1.0f});
    record.setDontSaveImpulse(true);
    auto data = KeyedArchiver::archivedDataWithRootObject(record, ArchiveFormat::JSON);
    std::string text(reinterpret_cast<const char*>(data.data()), data.size());
    EXPECT_EQ(text.find("\"impulseResponse\""), std::string::npos);
    EXPECT_NE(text.find("\"impulseUUID\""), std::string::npos);

    auto decoded = decode(data, ArchiveFormat::JSON);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->impulseResponse(), nullptr);
    EXPECT_FALSE(decoded->dontSaveImpulse()); // the switch itself is not archived
    auto cache = std::make_shared<OneImpulseCache>("KEY", VELTRealVector{0.0f, 1.0f});
    decoded->setImpulseCache(cache);
    EXPECT_EQ(*decoded->impulseResponse(), (VELTRealVector{0.0f, 1.0f}));
}

TEST(VELTMeasurementRecordArchive, CurrentFormDecodingRules) {
    auto calibration = MicrophoneCalibrationRecord("Mic", std::nullopt, nullptr, nullptr);

    // No "correctionEnabled": a calibration that is present is applied.
    KeyedArchiver withoutSwitch(kRecord);
    withoutSwitch.encodeInt64(1, "version");
    withoutSwitch.encodeObject(calibration, "correctionRecord");
    // Counts are read as unsigned 32-bit values: only the low 32 bits survive.
    withoutSwitch.encodeInt64((std::int64_t{1} << 32) + 5, "synchronousAverages");
    // Raw big-endian data in place of a vector marks the record as coming from the oldest systems.
    withoutSwitch.encodeData(bigEndianFloats({1.5f, -2.0f, 0.0078125f}), "impulseResponse");
    auto decoded = decode(withoutSwitch.finish(ArchiveFormat::CBOR));
    ASSERT_TRUE(decoded) << decoded.error().localizedDescription;
    EXPECT_TRUE(decoded->useMicrophoneCalibrationRecord());
    EXPECT_EQ(decoded->microphoneCalibrationRecord()->name(), "Mic");
    EXPECT_EQ(decoded->synchronousAverages(), 5);
    EXPECT_EQ(*decoded->impulseResponse(), (VELTRealVector{1.5f, -2.0f, 0.0078125f}));
    EXPECT_TRUE(decoded->compatibilityMode());
    // Absent keys keep the defaults; the frequencies are always stored.
    EXPECT_EQ(decoded->sampleRate(), 0);
    EXPECT_EQ(decoded->speedOfSound(), VELTMeasurementRecord::kDefaultSpeedOfSound);
    EXPECT_TRUE(isUUIDString(decoded->impulseUUID()));
    EXPECT_EQ(decoded->startFrequency(), 0.0f);

    KeyedArchiver switchedOff(kRecord);
    switchedOff.encodeInt64(1, "version");
    switchedOff.encodeObject(calibration, "correctionRecord");
    switchedOff.encodeBool(false, "correctionEnabled");
    auto off = decode(switchedOff.finish(ArchiveFormat::CBOR));
    ASSERT_TRUE(off);
    EXPECT_FALSE(off->useMicrophoneCalibrationRecord());
    EXPECT_NE(off->microphoneCalibrationRecord(), nullptr);

    // Secure decoding refuses an object of another class under a key.
    KeyedArchiver wrongClass(kRecord);
    wrongClass.encodeInt64(1, "version");
    wrongClass.encodeObject(calibration, "impulseResponseWindow");
    auto refused = decode(wrongClass.finish(ArchiveFormat::CBOR));
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().localizedDescription.find("VELTWindow"), std::string::npos);

    KeyedArchiver wrongKind(kRecord);
    wrongKind.encodeInt64(1, "version");
    wrongKind.encodeString("loud", "SPLReferenceLevel");
    EXPECT_FALSE(decode(wrongKind.finish(ArchiveFormat::CBOR)));
}

TEST(VELTMeasurementRecordArchive, OldestFormIsReadFromItsCapitalisedKeys) {
    KeyedArchiver oldest(kRecord);
    oldest.encodeObject(VELTWindow(0, 512, 3), "ImpulseResponseWindow");
    oldest.encodeString("OLD-UUID", "ImpulseUUID");
    oldest.encodeData(bigEndianFloats({0.5f, 0.25f, -1.0f, 2.0f}), "ImpulseResponse");
    oldest.encodeString("old comment", "Comment");
    oldest.encodeData(std::vector<std::byte>{std::byte{0x89}, std::byte{'P'}}, "Thumbnail");
    oldest.encodeInt32(44100, "SampleRate");
    oldest.encodeBool(true, "CompatibilityMode");
    oldest.encodeInt32(0, "SynchronousAverages");
    oldest.encodeInt32(1, "CorrectionEnabled");
    oldest.encodeFloat(10.0f, "SPLReferenceLevel");
    oldest.encodeDictionary({{"ImpulseXOffset", 2.5}, {"Custom", 1.0}}, "GraphAdjustments");
    oldest.encodeBool(true, "Normalized");
    oldest.encodeInt32(16, "MLSOrder");
    oldest.encodeNumber(20.0, "startFrequency");
    oldest.encodeNumber(20000.0, "endFrequency");

    auto decoded = decode(oldest.finish(ArchiveFormat::CBOR));
    ASSERT_TRUE(decoded) << decoded.error().localizedDescription;
    EXPECT_EQ(decoded->impulseResponseWindow(), VELTWindow(0, 512, 3));
    EXPECT_EQ(decoded->impulseUUID(), "OLD-UUID");
    EXPECT_EQ(*decoded->impulseResponse(), (VELTRealVector{0.5f, 0.25f, -1.0f, 2.0f}));
    EXPECT_TRUE(decoded->compatibilityMode());
    EXPECT_EQ(decoded->comment(), "old comment");
    EXPECT_EQ(decoded->thumbnail()->size(), 2u);
    EXPECT_FALSE(decoded->isThumbnailDirty());
    EXPECT_EQ(decoded->sampleRate(), 44100);
    EXPECT_EQ(decoded->synchronousAverages(), 1);
    EXPECT_TRUE(decoded->useMicrophoneCalibrationRecord());
    EXPECT_FLOAT_EQ(decoded->SPLReferenceLevel(), 20.0f); // the linear ratio 10 in dB
    EXPECT_EQ(
        decoded->graphAdjustments(),
        (GraphAdjustments{
            {"FrequencyYOffset", 0.0}, {"ImpulseYOffset", 0.0}, {"ImpulseXOffset", 2.5}, {"Custom", 1.0}}));
    EXPECT_TRUE(decoded->plugInDictionary().is_object());
    EXPECT_TRUE(decoded->normalized());
    // A maximum-length-sequence record keeps its sequence length, 2^16 samples, as the sweep duration.
    ASSERT_TRUE(decoded->logSweepSettings());
    EXPECT_FLOAT_EQ(decoded->logSweepSettings()->duration(), 65536.0f / 44100.0f * 1000.0f);
    EXPECT_NEAR(decoded->logSweepSettings()->duration(), 1486.08f, 0.01f);
    EXPECT_EQ(decoded->startFrequency(), 20.0f);
    EXPECT_EQ(decoded->endFrequency(), 20000.0f);

    // The smallest oldest-form archive: defaults throughout, and default sweep settings.
    KeyedArchiver bare(kRecord);
    bare.encodeFloat(0.0f, "SPLReferenceLevel");
    auto minimal = decode(bare.finish(ArchiveFormat::CBOR));
    ASSERT_TRUE(minimal);
    EXPECT_EQ(minimal->SPLReferenceLevel(), 0.0f);
    EXPECT_EQ(minimal->synchronousAverages(), 1);
    EXPECT_FALSE(minimal->compatibilityMode());
    EXPECT_EQ(minimal->graphAdjustments(), VELTMeasurementRecord::emptyGraphAdjustmentDict());
    EXPECT_EQ(minimal->logSweepSettings()->duration(), 1000.0f);
    EXPECT_TRUE(minimal->isThumbnailDirty());
}

} // namespace
} // namespace tavolar
