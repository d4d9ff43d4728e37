// The measurement record: its impulse UUID, impulse storage with and without the host's cache,
// copies, the time axis and peak, annotations and level references, observers, snapshots taken on
// another thread, and its archive in the current and the oldest form.

#include "core/VELTMeasurementRecord.h"

#include "audio/MicrophoneCalibrationRecord.h"
#include "audio/RecordChannelEntry.h"
#include "core/ImpulseCache.h"
#include "platform/Assertions.h"
#include "platform/KeyedArchiver.h"
#include "platform/UUID.h"

#include <atomic>
#include <bit>
#include <cmath>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tavolar {
namespace {

// The host's cache as the tests need it: a map, and a count of stores.
class MapImpulseCache : public ImpulseCache {
public:
    void setImpulse(std::shared_ptr<const VELTRealVector> impulse, const std::string& uuid,
                    std::int64_t sampleRate) override {
        std::lock_guard lock(mutex_);
        ++stores;
        impulses[uuid] = std::move(impulse);
        sampleRates[uuid] = sampleRate;
    }
    std::shared_ptr<const VELTRealVector> impulseWithUUID(const std::string& uuid) const override {
        std::lock_guard lock(mutex_);
        auto found = impulses.find(uuid);
        return found == impulses.end() ? nullptr : found->second;
    }

    int stores = 0;
    std::map<std::string, std::shared_ptr<const VELTRealVector>> impulses;
    std::map<std::string, std::int64_t> sampleRates;

private:
    mutable std::mutex mutex_;
};

VELTRealVector ramp(std::size_t length) {
    return VELTRealVector::realVectorWithIntegersRangingFrom(0, static_cast<std::int64_t>(length));
}

// Sets every attribute that copies and archives carry to a value other than its default.
void describe(VELTMeasurementRecord& record, const std::shared_ptr<const MicrophoneCalibrationRecord>& mic) {
    record.setSampleRate(44100);
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
    record.setMicrophoneCalibrationRecord(mic);
    record.setUseSPLReferenceLevel(true);
    record.setSPLReferenceLevel(-12.5f);
    record.setStartFrequency(10);
    record.setEndFrequency(30000);
    record.setRecordChannelEntry(RecordChannelEntry(3, nullptr, AudioChannelSensitivity::initWithDBV(-10)));
    record.setAudioDeviceName("Interface");
    record.setAudioDeviceUID("jack");
    record.setSpeedOfSound(343.2); // not a float: archived as a double
}

// What describe set, as a copy keeps it, or as an archive gives it back: an archive writes the graph
// adjustments, extension data and compatibility mode but deliberately does not read them back.
void expectDescribed(const VELTMeasurementRecord& record, bool decoded) {
    EXPECT_EQ(record.sampleRate(), 44100);
    EXPECT_EQ(record.impulseResponseWindow(), VELTWindow(-100, 400, 6));
    EXPECT_EQ(record.date(), ArchivedDate(std::chrono::duration<double>(1.7e9 + 0.25)));
    EXPECT_EQ(record.comment(), "comment");
    EXPECT_EQ(record.notes(), "notes");
    EXPECT_EQ(record.plotColor(), (ArchivedColor{0.1, 0.2, 0.3, 0.5}));
    ASSERT_TRUE(record.logSweepSettings());
    EXPECT_EQ(record.logSweepSettings()->endFreq(), 16000.0f);
    EXPECT_EQ(record.logSweepSettings()->amplitude(), 0.5f);
    EXPECT_EQ(record.synchronousAverages(), 8);
    const GraphAdjustments adjustments{{"FrequencyYOffset", 6.0}};
    EXPECT_EQ(record.graphAdjustments(),
              decoded ? VELTMeasurementRecord::emptyGraphAdjustmentDict() : adjustments);
    EXPECT_EQ(record.plugInDictionary().empty(), decoded);
    EXPECT_EQ(record.compatibilityMode(), !decoded);
    ASSERT_TRUE(record.microphoneCalibrationRecord());
    EXPECT_EQ(record.microphoneCalibrationRecord()->name(), "Mic");
    EXPECT_EQ(record.microphoneCalibrationRecord()->sensitivity(), 12.5);
    EXPECT_TRUE(record.useSPLReferenceLevel());
    EXPECT_EQ(record.SPLReferenceLevel(), -12.5f);
    EXPECT_EQ(record.startFrequency(), 10.0f);
    EXPECT_EQ(record.endFrequency(), 30000.0f);
    ASSERT_TRUE(record.recordChannelEntry());
    EXPECT_EQ(record.recordChannelEntry()->channel(), 3);
    EXPECT_EQ(record.recordChannelEntry()->sensitivity()->sensitivityValue(), -10.0);
    EXPECT_EQ(record.audioDeviceName(), "Interface");
    EXPECT_EQ(record.audioDeviceUID(), "jack");
    EXPECT_EQ(record.speedOfSound(), 343.2);
}

std::shared_ptr<MicrophoneCalibrationRecord> microphone() {
    auto mic = std::make_shared<MicrophoneCalibrationRecord>("Mic", "SN 1", nullptr, nullptr);
    mic->setSensitivity(12.5);
    return mic;
}

// Each record has its own impulse UUID unless given one.
TEST(VELTMeasurementRecord, StartsWithAFreshUUID) {
    VELTMeasurementRecord record;
    EXPECT_TRUE(isUUIDString(record.impulseUUID()));
    EXPECT_NE(record.impulseUUID(), VELTMeasurementRecord().impulseUUID());
    EXPECT_EQ(VELTMeasurementRecord("given").impulseUUID(), "given");
}

TEST(VELTMeasurementRecord, KeepsItsImpulseResponseOrHandsItToTheCache) {
    VELTMeasurementRecord record;
    record.setSampleRate(48000);
    auto own = std::make_shared<const VELTRealVector>(VELTRealVector{0.5f, -2.0f, 1.0f});
    record.setImpulseResponse(own);
    EXPECT_EQ(record.impulseResponse(), own);
    EXPECT_EQ(record.cachedImpulseResponse(), nullptr);
    // Normalisation applies to the cached vector only; the record's own vector is answered as stored.
    record.setNormalized(true);
    EXPECT_EQ(record.impulseResponse(), own);

    auto cache = std::make_shared<MapImpulseCache>();
    record.setImpulseCache(cache);
    EXPECT_EQ(cache->stores, 1);
    EXPECT_EQ(cache->impulses.at(record.impulseUUID()), own);
    EXPECT_EQ(cache->sampleRates.at(record.impulseUUID()), 48000);
    EXPECT_EQ(record.cachedImpulseResponse(), own);
    EXPECT_EQ(*record.impulseResponse(), (VELTRealVector{0.25f, -1.0f, 0.5f}));
    record.setNormalized(false);
    EXPECT_EQ(record.impulseResponse(), own);
    record.setImpulseCache(cache); // the same cache again: nothing is stored
    EXPECT_EQ(cache->stores, 1);

    // Later vectors go to the cache; the record keeps none of its own.
    record.setImpulseResponse(ramp(5));
    EXPECT_EQ(cache->stores, 2);
    EXPECT_EQ(*cache->impulses.at(record.impulseUUID()), ramp(5));
    cache.reset();
    EXPECT_EQ(record.impulseCache(), nullptr);
    EXPECT_EQ(record.impulseResponse(), nullptr);
}

TEST(VELTMeasurementRecord, CopiesStoreOrShareTheImpulseResponseAndCarryTheAttributes) {
    auto cache = std::make_shared<MapImpulseCache>();
    auto mic = microphone();
    auto record = VELTMeasurementRecord::record();
    record->setImpulseCache(cache);
    describe(*record, mic);
    record->setUseMicrophoneCalibrationRecord(true);
    VELTRealVector impulse(64);
    impulse[3] = 1.0f;
    record->setImpulseResponse(impulse);
    record->setThumbnail(std::vector<std::byte>{std::byte{1}});
    record->setThumbnailDirty(false);
    record->setDontSaveImpulse(true);
    auto document = std::make_shared<int>(7);
    record->setDocument(document);
    EXPECT_EQ(record->impulsePeak(), 3);

    auto expectCopied = [&](const VELTMeasurementRecord& copy) {
        expectDescribed(copy, false);
        EXPECT_TRUE(copy.useMicrophoneCalibrationRecord());
        EXPECT_EQ(copy.cachedImpulsePeak(), 3);
        // Never copied: the thumbnail, the document and the archive switch.
        EXPECT_FALSE(copy.thumbnail());
        EXPECT_TRUE(copy.isThumbnailDirty());
        EXPECT_EQ(copy.document(), nullptr);
        EXPECT_FALSE(copy.dontSaveImpulse());
    };

    auto copy = record->copy();
    expectCopied(*copy);
    EXPECT_NE(copy->impulseUUID(), record->impulseUUID());
    EXPECT_EQ(copy->impulseCache(), cache);
    EXPECT_EQ(cache->stores, 2);
    EXPECT_EQ(*cache->impulses.at(copy->impulseUUID()), impulse);

    auto snapshot = record->cachedCopy();
    expectCopied(*snapshot);
    EXPECT_EQ(snapshot->impulseUUID(), record->impulseUUID());
    EXPECT_EQ(cache->stores, 2);
    EXPECT_EQ(snapshot->impulseResponse(), record->impulseResponse());

    // The minimum-phase copy moves the energy to time zero but reports the peak it inherited.
    auto minimum = record->minimumPhaseCopy();
    EXPECT_EQ(cache->stores, 4);
    EXPECT_EQ(minimum->impulsePeak(), 3);

    // Without a cache the copy shares the record's own immutable vector.
    auto alone = VELTMeasurementRecord::record();
    alone->setSampleRate(8000);
    alone->setImpulseResponse(ramp(8));
    auto aloneCopy = alone->copy();
    EXPECT_EQ(aloneCopy->impulseResponse(), alone->impulseResponse());
    EXPECT_EQ(aloneCopy->cachedImpulsePeak(), VELTMeasurementRecord::kPeakNotComputed);
    // A record never given a sample rate copies too.
    EXPECT_EQ(VELTMeasurementRecord().copy()->impulseResponse(), nullptr);
}

TEST(VELTMeasurementRecord, TimeAxisTreatsTheUpperHalfAsNegativeTime) {
    VELTMeasurementRecord record;
    record.setSampleRate(48000);
    record.setImpulseResponse(ramp(8));
    EXPECT_EQ(record.impulseMidpoint(), 4);
    EXPECT_EQ(record.maximumImpulseSampleIndex(), 3);
    EXPECT_EQ(record.minimumImpulseSampleIndex(), -4);
    EXPECT_FLOAT_EQ(record.millisecondsFromSamples(5), -0.0625f);
    EXPECT_FLOAT_EQ(record.millisecondsFromSamples(4), -0.083333336f);
    EXPECT_FLOAT_EQ(record.millisecondsFromSamples(3), 0.0625f);
    EXPECT_FLOAT_EQ(record.millisecondsFromSamples(-3), -0.0625f);
    EXPECT_EQ(record.samplesFromMilliseconds(-0.0625f), -3);
    EXPECT_EQ(record.samplesFromMilliseconds(0.0729f), 3); // 3.4992 rounds down
    EXPECT_EQ(record.samplesFromMilliseconds(0.0730f), 4); // 3.504 rounds up
    EXPECT_EQ(record.centeredImpulseResponse(), (VELTRealVector{4, 5, 6, 7, 0, 1, 2, 3}));
    VELTRealVector timeline = record.centeredTimeline();
    ASSERT_EQ(timeline.length(), 8u);
    for (std::size_t i = 0; i < 8; ++i)
        EXPECT_FLOAT_EQ(timeline[i], (static_cast<float>(i) - 4.0f) * (1000.0f / 48000.0f));

    // Window accessors in samples and milliseconds; a setter leaves an equal value alone.
    int windowChanges = 0;
    record.addObserver("impulseResponseWindow", [&](std::string_view) { ++windowChanges; });
    record.setWindowBeginInMilliseconds(-0.0625f);
    record.setWindowEnd(3);
    record.setWindowEnd(3);
    record.setWindowType(6);
    EXPECT_EQ(record.impulseResponseWindow(), VELTWindow(-3, 3, 6));
    EXPECT_EQ(windowChanges, 3);
    EXPECT_FLOAT_EQ(record.windowDurationInMilliseconds(), 0.125f);
    EXPECT_FLOAT_EQ(record.trueResolution(), 8000.0f);
    record.setWindowDuration(2);
    EXPECT_EQ(record.windowEnd(), -1);
    record.setWindowDurationInMilliseconds(0.0625f);
    EXPECT_EQ(record.windowEnd(), 0);
    EXPECT_EQ(record.windowDuration(), 3);
}

TEST(VELTMeasurementRecord, PeakIsFoundOnceAndKept) {
    VELTMeasurementRecord record;
    record.setSampleRate(48000);
    EXPECT_EQ(record.impulsePeak(), 0); // nothing to search: nothing cached
    EXPECT_EQ(record.cachedImpulsePeak(), VELTMeasurementRecord::kPeakNotComputed);

    VELTRealVector early(1024);
    early[1024 - 3] = -0.8f; // three samples before time zero
    early[10] = 0.3f;
    record.setImpulseResponse(early);
    EXPECT_EQ(record.impulsePeak(), -3);
    EXPECT_FLOAT_EQ(record.delayToPeakInMilliseconds(), -0.0625f);

    VELTRealVector late(1024);
    late[48] = 1.0f;
    record.setImpulseResponse(late);
    EXPECT_EQ(record.impulsePeak(), -3); // deliberately not recomputed

    VELTMeasurementRecord fresh;
    fresh.setSampleRate(48000);
    fresh.setImpulseResponse(late);
    EXPECT_EQ(fresh.impulsePeak(), 48);
    EXPECT_NEAR(fresh.distanceToPeakInMeters(), 0.34029, 1e-6);
}

TEST(VELTMeasurementRecord, AnnotationsSweepAndLevelReferences) {
    VELTMeasurementRecord record;
    record.appendToComment("left");
    EXPECT_EQ(record.comment(), "left");
    record.appendToComment("at 1 m");
    record.appendToComment("at 1 m");
    EXPECT_EQ(record.comment(), "left at 1 m");
    record.appendToComment("1 m");
    EXPECT_EQ(record.comment(), "left at 1 m");

    record.setSampleRate(44100);
    VELTLogSweepSettings sweep;
    sweep.setEndFreq(20000);
    record.setLogSweepSettings(sweep);
    EXPECT_EQ(record.sweepEndFrequency(), 22050.0f); // full range: half the sample rate

    // A microphone of 12.5 mV/Pa on an input whose full scale is 0 dBV.
    EXPECT_EQ(record.SPLAdjustmentOffset(), 0.0);
    auto mic = std::make_shared<MicrophoneCalibrationRecord>("Mic", std::nullopt, nullptr, nullptr);
    mic->setSensitivity(0.0125);
    record.setMicrophoneCalibrationRecord(mic);
    EXPECT_EQ(record.SPLAdjustmentOffset(), 0.0); // no channel sensitivity
    record.setRecordChannelEntry(RecordChannelEntry(0, mic, AudioChannelSensitivity::initWithDBV(-6.0)));
    EXPECT_NEAR(record.SPLAdjustmentOffset(), 20.0 * std::log10(0.0125 / std::pow(10.0, -6.0 / 20.0)), 1e-12);
}

TEST(VELTMeasurementRecord, ObserversHearOfStoredAndDerivedKeys) {
    VELTMeasurementRecord record;
    std::vector<std::string> heard;
    for (const char* key : {"plotColor", "windowBegin", "impulseResponse", "hasSPLReference"})
        record.addObserver(key, [&](std::string_view keyPath) { heard.emplace_back(keyPath); });
    record.setPlotColor(ArchivedColor{0, 1, 0, 1});
    record.setImpulseResponseWindow(VELTWindow(5, 10));
    record.setImpulseCache(std::make_shared<MapImpulseCache>());
    record.setSPLReferenceLevel(3);
    record.setNotes("unobserved");
    EXPECT_EQ(heard,
              (std::vector<std::string>{"plotColor", "windowBegin", "impulseResponse", "hasSPLReference"}));
}

// A snapshot taken on another thread while the user edits the record sees whole values only.
TEST(VELTMeasurementRecord, SnapshotsOnAnotherThreadSeeWholeValues) {
    auto cache = std::make_shared<MapImpulseCache>();
    auto record = VELTMeasurementRecord::record();
    record->setImpulseCache(cache);
    record->setSampleRate(48000);
    const std::string shortText = "short";
    const std::string longText(200, 'x');
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done.load()) {
            auto snapshot = record->cachedCopy();
            std::optional<std::string> comment = snapshot->comment();
            if (comment && *comment != shortText && *comment != longText)
                ADD_FAILURE() << "torn comment";
            auto impulse = snapshot->impulseResponse();
            if (impulse && impulse->length() != 16 && impulse->length() != 32)
                ADD_FAILURE() << "torn impulse response";
        }
    });
    for (int i = 0; i < 5000; ++i) {
        record->setComment(i % 2 ? shortText : longText);
        record->setImpulseResponse(VELTRealVector(i % 2 ? 16 : 32));
        record->setImpulseResponseWindow(VELTWindow(0, i));
    }
    done = true;
    reader.join();
    EXPECT_EQ(record->windowEnd(), 4999);
}

constexpr std::string_view kRecord = "VELTMeasurementRecord";

Expected<VELTMeasurementRecord> decode(const std::vector<std::byte>& data,
                                       ArchiveFormat format = ArchiveFormat::CBOR) {
    return KeyedUnarchiver::unarchivedObjectOfClass<VELTMeasurementRecord>(data, format);
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

TEST(VELTMeasurementRecordArchive, RoundTripKeepsWhatIsReadBackAndDropsWhatIsNot) {
    VELTMeasurementRecord record("6A1E7F2C-0000-4000-8000-000000000001");
    describe(record, microphone());
    record.setImpulseResponse(VELTRealVector{1.0f, -0.5f, 0.25f, 3.0e-7f});
    record.setNormalized(true);
    record.setUseMicrophoneCalibrationRecord(false); // written, so not inferred from the calibration
    for (ArchiveFormat format : {ArchiveFormat::CBOR, ArchiveFormat::JSON}) {
        auto decoded = decode(KeyedArchiver::archivedDataWithRootObject(record, format), format);
        ASSERT_TRUE(decoded) << decoded.error().localizedDescription;
        expectDescribed(*decoded, true);
        EXPECT_EQ(decoded->impulseUUID(), record.impulseUUID());
        EXPECT_EQ(*decoded->impulseResponse(), *record.impulseResponse());
        EXPECT_TRUE(decoded->normalized());
        EXPECT_FALSE(decoded->useMicrophoneCalibrationRecord());
    }

    // What a fresh record writes comes back as a fresh record: absent texts stay absent.
    auto empty = decode(KeyedArchiver::archivedDataWithRootObject(VELTMeasurementRecord("E")));
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

    auto decoded = decode(data, ArchiveFormat::JSON);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->impulseResponse(), nullptr);
    EXPECT_FALSE(decoded->dontSaveImpulse()); // the switch itself is not archived
    auto cache = std::make_shared<MapImpulseCache>();
    cache->impulses["KEY"] = std::make_shared<const VELTRealVector>(VELTRealVector{0.0f, 1.0f});
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

    KeyedArchiver switchedOff(kRecord);
    switchedOff.encodeInt64(1, "version");
    switchedOff.encodeObject(calibration, "correctionRecord");
    switchedOff.encodeBool(false, "correctionEnabled");
    auto off = decode(switchedOff.finish(ArchiveFormat::CBOR));
    ASSERT_TRUE(off);
    EXPECT_FALSE(off->useMicrophoneCalibrationRecord());
    EXPECT_NE(off->microphoneCalibrationRecord(), nullptr);
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
    EXPECT_TRUE(decoded->normalized());
    // A maximum-length-sequence record keeps its sequence length, 2^16 samples, as the sweep duration.
    ASSERT_TRUE(decoded->logSweepSettings());
    EXPECT_NEAR(decoded->logSweepSettings()->duration(), 1486.08f, 0.01f);
    EXPECT_EQ(decoded->startFrequency(), 20.0f);
    EXPECT_EQ(decoded->endFrequency(), 20000.0f);

    // The smallest oldest-form archive still gets sweep settings, and keeps a ratio of 0 as 0 dB.
    KeyedArchiver bare(kRecord);
    bare.encodeFloat(0.0f, "SPLReferenceLevel");
    auto minimal = decode(bare.finish(ArchiveFormat::CBOR));
    ASSERT_TRUE(minimal);
    EXPECT_EQ(minimal->SPLReferenceLevel(), 0.0f);
    EXPECT_TRUE(minimal->logSweepSettings());
}

} // namespace
} // namespace tavolar
