#include "core/VELTMeasurementRecord.h"

#include "audio/MicrophoneCalibrationRecord.h"
#include "audio/RecordChannelEntry.h"
#include "core/ImpulseCache.h"
#include "platform/Assertions.h"
#include "platform/UUID.h"

#include <atomic>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
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
    return VELTRealVector::realVectorWithIntegersRangingFrom(0, length);
}

TEST(VELTMeasurementRecord, StartsWithTheDocumentedDefaults) {
    VELTMeasurementRecord record;
    EXPECT_TRUE(isUUIDString(record.impulseUUID()));
    EXPECT_NE(record.impulseUUID(), VELTMeasurementRecord().impulseUUID());
    EXPECT_EQ(VELTMeasurementRecord("given").impulseUUID(), "given");

    EXPECT_EQ(record.impulseResponseWindow(), VELTWindow(0, 0, 0));
    EXPECT_EQ(record.impulseResponse(), nullptr);
    EXPECT_EQ(record.plotColor(), (ArchivedColor{0, 0, 0, 1}));
    EXPECT_TRUE(record.isThumbnailDirty());
    EXPECT_EQ(record.sampleRate(), 0);
    EXPECT_EQ(record.synchronousAverages(), 1);
    EXPECT_EQ(
        record.graphAdjustments(),
        (GraphAdjustments{{"FrequencyYOffset", 0.0}, {"ImpulseYOffset", 0.0}, {"ImpulseXOffset", 0.0}}));
    EXPECT_TRUE(record.plugInDictionary().is_object() && record.plugInDictionary().empty());
    EXPECT_EQ(record.speedOfSound(), 340.2900085449219);
    EXPECT_FALSE(record.compatibilityMode() || record.normalized() || record.dontSaveImpulse());
    EXPECT_FALSE(record.useSPLReferenceLevel() || record.useMicrophoneCalibrationRecord());
    EXPECT_FALSE(record.hasSPLReference() || record.hasMicrophoneCalibrationRecord());
    EXPECT_FALSE(record.date() || record.comment() || record.logSweepSettings() ||
                 record.recordChannelEntry());
    EXPECT_EQ(record.cachedImpulsePeak(), std::numeric_limits<std::int64_t>::max());
}

TEST(VELTMeasurementRecord, KeepsItsImpulseResponseOrHandsItToTheCache) {
    VELTMeasurementRecord record;
    try {
        record.setImpulseResponse(ramp(4));
        FAIL() << "a record without a sample rate accepted an impulse response";
    } catch (const ParameterAssertion& assertion) {
        EXPECT_STREQ(assertion.what(), "Invalid parameter not satisfying: self.sampleRate != 0");
    }

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
    auto calibration =
        std::make_shared<const MicrophoneCalibrationRecord>("Mic", std::nullopt, nullptr, nullptr);
    auto record = VELTMeasurementRecord::record();
    record->setImpulseCache(cache);
    record->setSampleRate(44100);
    VELTRealVector impulse(64);
    impulse[3] = 1.0f;
    record->setImpulseResponse(impulse);
    record->setImpulseResponseWindow(VELTWindow(-2, 20, 5));
    record->setComment("first");
    record->setNotes("notes");
    record->setPlotColor(ArchivedColor{1, 0, 0, 1});
    record->setThumbnail(std::vector<std::byte>{std::byte{1}});
    record->setThumbnailDirty(false);
    record->setDontSaveImpulse(true);
    record->setMicrophoneCalibrationRecord(calibration);
    record->setUseMicrophoneCalibrationRecord(true);
    record->setSynchronousAverages(4);
    record->setSPLReferenceLevel(90);
    record->setUseSPLReferenceLevel(true);
    record->setStartFrequency(20);
    record->setEndFrequency(18000);
    record->setSpeedOfSound(343);
    record->setAudioDeviceName("Device");
    record->setAudioDeviceUID("sim:one");
    record->setRecordChannelEntry(RecordChannelEntry(2, calibration, std::nullopt));
    record->setGraphAdjustments({{"FrequencyYOffset", 3.0}});
    record->setPlugInDictionary({{"extension", 1}});
    record->setLogSweepSettings(VELTLogSweepSettings::longLogSweepSettings());
    auto document = std::make_shared<int>(7);
    record->setDocument(document);
    EXPECT_EQ(record->impulsePeak(), 3);

    auto expectAttributes = [&](const VELTMeasurementRecord& copy) {
        EXPECT_EQ(copy.impulseResponseWindow(), VELTWindow(-2, 20, 5));
        EXPECT_EQ(copy.comment(), "first");
        EXPECT_EQ(copy.notes(), "notes");
        EXPECT_EQ(copy.plotColor(), (ArchivedColor{1, 0, 0, 1}));
        EXPECT_EQ(copy.sampleRate(), 44100);
        EXPECT_EQ(copy.microphoneCalibrationRecord(), calibration);
        EXPECT_TRUE(copy.useMicrophoneCalibrationRecord());
        EXPECT_EQ(copy.synchronousAverages(), 4);
        EXPECT_EQ(copy.SPLReferenceLevel(), 90.0f);
        EXPECT_TRUE(copy.useSPLReferenceLevel());
        EXPECT_EQ(copy.startFrequency(), 20.0f);
        EXPECT_EQ(copy.endFrequency(), 18000.0f);
        EXPECT_EQ(copy.speedOfSound(), 343.0);
        EXPECT_EQ(copy.audioDeviceName(), "Device");
        EXPECT_EQ(copy.audioDeviceUID(), "sim:one");
        EXPECT_EQ(copy.recordChannelEntry()->channel(), 2);
        EXPECT_EQ(copy.graphAdjustments(), (GraphAdjustments{{"FrequencyYOffset", 3.0}}));
        EXPECT_EQ(copy.plugInDictionary(), (nlohmann::json{{"extension", 1}}));
        EXPECT_EQ(copy.logSweepSettings()->duration(), 10000.0f);
        EXPECT_EQ(copy.cachedImpulsePeak(), 3);
        // Never copied: the thumbnail, the document and the archive switch.
        EXPECT_FALSE(copy.thumbnail());
        EXPECT_TRUE(copy.isThumbnailDirty());
        EXPECT_EQ(copy.document(), nullptr);
        EXPECT_FALSE(copy.dontSaveImpulse());
    };

    auto copy = record->copy();
    expectAttributes(*copy);
    EXPECT_NE(copy->impulseUUID(), record->impulseUUID());
    EXPECT_EQ(copy->impulseCache(), cache);
    EXPECT_EQ(cache->stores, 2);
    EXPECT_EQ(*cache->impulses.at(copy->impulseUUID()), impulse);

    auto snapshot = record->cachedCopy();
    expectAttributes(*snapshot);
    EXPECT_EQ(snapshot->impulseUUID(), record->impulseUUID());
    EXPECT_EQ(cache->stores, 2);
    EXPECT_EQ(snapshot->impulseResponse(), record->impulseResponse());

    // The minimum-phase copy moves the energy to time zero but reports the peak it inherited.
    auto minimum = record->minimumPhaseCopy();
    EXPECT_EQ(cache->stores, 4);
    EXPECT_EQ(minimum->impulsePeak(), 3);
    EXPECT_NEAR((*minimum->impulseResponse())[0], 1.0f, 1e-5f);
    EXPECT_NEAR((*minimum->impulseResponse())[3], 0.0f, 1e-5f);

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
    EXPECT_FLOAT_EQ(record.impulsePeakInMilliseconds(), -0.0625f);
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
    EXPECT_NEAR(fresh.distanceToPeakInCentimeters(), 34.029, 1e-4);

    VELTMeasurementRecord atZero;
    atZero.setSampleRate(48000);
    VELTRealVector unit(1024);
    unit[0] = 1.0f;
    atZero.setImpulseResponse(unit);
    EXPECT_EQ(atZero.impulsePeak(), 0);
    EXPECT_EQ(atZero.delayToPeakInMilliseconds(), 0.0f);
    EXPECT_EQ(atZero.distanceToPeakInMeters(), 0.0);
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
    EXPECT_EQ(record.sweepStartFrequency(), 0.0f);
    EXPECT_EQ(record.sweepEndFrequency(), 22050.0f);
    record.setLogSweepSettings(VELTLogSweepSettings());
    EXPECT_EQ(record.sweepStartFrequency(), 1.0f);
    EXPECT_EQ(record.sweepEndFrequency(), 22050.0f); // full range: half the sample rate
    EXPECT_EQ(record.sweepDuration(), 1000.0f);
    VELTLogSweepSettings band;
    band.setFullRangeSweep(false);
    band.setStartFreq(20);
    band.setEndFreq(20000);
    band.setDuration(3000);
    record.setLogSweepSettings(band);
    EXPECT_EQ(record.sweepStartFrequency(), 20.0f);
    EXPECT_EQ(record.sweepEndFrequency(), 20000.0f);
    EXPECT_EQ(record.sweepDuration(), 3000.0f);

    // A microphone of 12.5 mV/Pa on an input whose full scale is 0 dBV.
    EXPECT_EQ(record.SPLAdjustmentOffset(), 0.0);
    auto microphone = std::make_shared<MicrophoneCalibrationRecord>("Mic", std::nullopt, nullptr, nullptr);
    microphone->setSensitivity(0.0125);
    record.setMicrophoneCalibrationRecord(microphone);
    EXPECT_EQ(record.SPLAdjustmentOffset(), 0.0); // no channel sensitivity
    record.setRecordChannelEntry(
        RecordChannelEntry(0, microphone, AudioChannelSensitivity::initWithDBV(-6.0)));
    EXPECT_NEAR(record.SPLAdjustmentOffset(), 20.0 * std::log10(0.0125 / std::pow(10.0, -6.0 / 20.0)), 1e-12);
    EXPECT_TRUE(record.hasMicrophoneCalibrationRecord());
    record.setSPLReferenceLevel(-3);
    EXPECT_TRUE(record.hasSPLReference());
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

} // namespace
} // namespace tavolar
