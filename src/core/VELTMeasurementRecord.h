#pragma once
// One measurement as it is kept: its impulse response (held by the record or by the host's impulse
// cache), the analysis window, the sweep and device it was measured with, calibration and level
// references, and the user's annotations. Graphs read it; documents archive it.
//
// Threads: every property is read and written under the record's lock, so a getter always answers a
// whole value even while another thread sets it (getters answer copies). Background work does not
// read live records: it takes a cachedCopy and works on that.

#include "audio/MicrophoneCalibrationRecord.h"
#include "audio/RecordChannelEntry.h"
#include "core/ImpulseCache.h"
#include "core/VELTWindow.h"
#include "engine/VELTLogSweepSettings.h"
#include "math/VELTRealVector.h"
#include "platform/KeyedArchiver.h"
#include "platform/Observing.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar {

// The keys of a record's graph adjustments: display offsets the graphs add to its curves.
inline constexpr std::string_view kGraphAdjustmentFrequencyYOffsetKey = "FrequencyYOffset";
inline constexpr std::string_view kGraphAdjustmentImpulseYOffsetKey = "ImpulseYOffset";
inline constexpr std::string_view kGraphAdjustmentImpulseXOffsetKey = "ImpulseXOffset";

using GraphAdjustments = std::map<std::string, double, std::less<>>;

// A run of FFT bins: bins location .. location + length - 1.
struct BinRange {
    std::size_t location = 0;
    std::size_t length = 0;
    bool operator==(const BinRange&) const = default;
};

class VELTMeasurementRecord : public Observable {
public:
    static constexpr std::string_view className = "VELTMeasurementRecord";
    // The cached peak index before the peak has been computed.
    static constexpr std::int64_t kPeakNotComputed = std::numeric_limits<std::int64_t>::max();
    // 340.29 m/s as a float, widened: the value records have always carried.
    static constexpr double kDefaultSpeedOfSound = static_cast<double>(340.29f);

    // A record with a fresh random UUID.
    VELTMeasurementRecord();
    // A record whose impulse response is stored under impulseUUID, with every other property at its default.
    explicit VELTMeasurementRecord(std::string impulseUUID);
    // Records are shared objects: they are duplicated only through copy and cachedCopy, which give
    // the duplicate its own identity rules. Moving keeps everything but the observers.
    VELTMeasurementRecord(const VELTMeasurementRecord&) = delete;
    VELTMeasurementRecord& operator=(const VELTMeasurementRecord&) = delete;
    VELTMeasurementRecord(VELTMeasurementRecord&& other);
    VELTMeasurementRecord& operator=(VELTMeasurementRecord&& other);
    ~VELTMeasurementRecord() override;

    static std::shared_ptr<VELTMeasurementRecord> record();
    static std::shared_ptr<VELTMeasurementRecord> recordWithUUID(std::string impulseUUID);

    // 0.0 under each of the three adjustment keys.
    static GraphAdjustments emptyGraphAdjustmentDict();

    // Derived keys and the stored ones they follow: observers of "windowBegin" hear of a new
    // "impulseResponseWindow", observers of "impulseResponse" of a new cache or normalisation.
    std::vector<std::string_view> keyPathsForValuesAffectingValueForKey(std::string_view key) const override;

    // ---- Properties

    std::string impulseUUID() const;
    void setImpulseUUID(std::string uuid);
    VELTWindow impulseResponseWindow() const;
    void setImpulseResponseWindow(const VELTWindow& window);
    std::optional<ArchivedDate> date() const;
    void setDate(std::optional<ArchivedDate> date);
    std::optional<std::string> comment() const;
    void setComment(std::optional<std::string> comment);
    std::optional<std::string> notes() const;
    void setNotes(std::optional<std::string> notes);
    // Black by default; absent when an archive held none.
    std::optional<ArchivedColor> plotColor() const;
    void setPlotColor(std::optional<ArchivedColor> color);
    // The preview picture as encoded image bytes.
    std::optional<std::vector<std::byte>> thumbnail() const;
    void setThumbnail(std::optional<std::vector<std::byte>> thumbnail);
    bool isThumbnailDirty() const;
    void setThumbnailDirty(bool dirty);
    std::int64_t sampleRate() const;
    void setSampleRate(std::int64_t sampleRate);
    // Stored as a copy, which holds the effective values of the settings given.
    std::optional<VELTLogSweepSettings> logSweepSettings() const;
    void setLogSweepSettings(std::optional<VELTLogSweepSettings> settings);
    std::int64_t synchronousAverages() const;
    void setSynchronousAverages(std::int64_t averages);
    GraphAdjustments graphAdjustments() const;
    void setGraphAdjustments(GraphAdjustments adjustments);
    // Plain values stored by extensions: a JSON object of numbers, strings, data, arrays and objects.
    nlohmann::json plugInDictionary() const;
    void setPlugInDictionary(nlohmann::json dictionary);
    bool compatibilityMode() const;
    void setCompatibilityMode(bool compatibilityMode);
    bool normalized() const;
    void setNormalized(bool normalized);
    bool dontSaveImpulse() const;
    void setDontSaveImpulse(bool dontSave);
    float startFrequency() const;
    void setStartFrequency(float frequency);
    float endFrequency() const;
    void setEndFrequency(float frequency);
    double speedOfSound() const;
    void setSpeedOfSound(double metresPerSecond);
    bool useSPLReferenceLevel() const;
    void setUseSPLReferenceLevel(bool use);
    float SPLReferenceLevel() const;
    void setSPLReferenceLevel(float decibels);
    bool useMicrophoneCalibrationRecord() const;
    void setUseMicrophoneCalibrationRecord(bool use);
    std::shared_ptr<const MicrophoneCalibrationRecord> microphoneCalibrationRecord() const;
    void setMicrophoneCalibrationRecord(std::shared_ptr<const MicrophoneCalibrationRecord> record);
    std::optional<RecordChannelEntry> recordChannelEntry() const;
    void setRecordChannelEntry(std::optional<RecordChannelEntry> entry);
    std::optional<std::string> audioDeviceName() const;
    void setAudioDeviceName(std::optional<std::string> name);
    std::optional<std::string> audioDeviceUID() const;
    void setAudioDeviceUID(std::optional<std::string> uid);
    // The owning document, held weakly.
    std::shared_ptr<void> document() const;
    void setDocument(const std::shared_ptr<void>& document);

    // ---- Impulse storage

    // The cache, while it lives; null when none was set or it has gone.
    std::shared_ptr<ImpulseCache> impulseCache() const;
    // Remembers the cache weakly. A vector the record holds itself moves into the new cache.
    void setImpulseCache(const std::shared_ptr<ImpulseCache>& cache);
    // With a cache: the cached vector, normalised when normalized is set. Without a cache: the
    // record's own vector as stored (normalized does not apply to it). Null when there is none.
    std::shared_ptr<const VELTRealVector> impulseResponse() const;
    // The vector stored in the cache under impulseUUID, or null (also without a cache).
    std::shared_ptr<const VELTRealVector> cachedImpulseResponse() const;
    // Requires sampleRate != 0 (ParameterAssertion "self.sampleRate != 0"). With a cache the vector is
    // stored there under impulseUUID; otherwise the record keeps it.
    void setImpulseResponse(std::shared_ptr<const VELTRealVector> impulseResponse);
    void setImpulseResponse(VELTRealVector impulseResponse);

    // ---- Annotations

    // Appends text after a space, unless the comment already ends with it. Without a comment the
    // comment becomes the text.
    void appendToComment(std::string_view text);

    // ---- Window

    std::int64_t windowBegin() const;
    void setWindowBegin(std::int64_t begin);
    std::int64_t windowEnd() const;
    void setWindowEnd(std::int64_t end);
    std::int64_t windowDuration() const;
    void setWindowDuration(std::int64_t duration);
    std::int64_t windowType() const;
    void setWindowType(std::int64_t type);
    float windowBeginInMilliseconds() const;
    void setWindowBeginInMilliseconds(float milliseconds);
    float windowEndInMilliseconds() const;
    void setWindowEndInMilliseconds(float milliseconds);
    float windowDurationInMilliseconds() const;
    void setWindowDurationInMilliseconds(float milliseconds);
    // The impulse response cut to the window and tapered; empty without an impulse response.
    VELTMutableRealVector windowedImpulseResponse() const;
    // 1000 / windowDurationInMilliseconds, Hz.
    float trueResolution() const;

    // ---- Calibration and level references

    bool hasMicrophoneCalibrationRecord() const;
    // SPLReferenceLevel is not 0.
    bool hasSPLReference() const;
    // 20 log10(calibration sensitivity / channel reference voltage), dB; 0 without a calibration
    // record or without a channel sensitivity.
    double SPLAdjustmentOffset() const;

    // ---- Sweep

    // The settings' start frequency (Hz), 0 without settings.
    float sweepStartFrequency() const;
    // The settings' end frequency, or half the sample rate when it is 0 (full range) or below.
    float sweepEndFrequency() const;
    // The sweep's duration in ms, 0 without settings.
    float sweepDuration() const;

    // ---- Time axis
    //
    // The impulse response is circular: index 0 is time zero and the upper half holds negative times.

    std::int64_t impulseMidpoint() const;
    std::int64_t maximumImpulseSampleIndex() const { return impulseMidpoint() - 1; }
    std::int64_t minimumImpulseSampleIndex() const { return -impulseMidpoint(); }
    // An index at or past the midpoint counts as negative time; (1000 / sampleRate) * index in float.
    float millisecondsFromSamples(std::int64_t index) const;
    // rintf(ms / 1000 * sampleRate).
    std::int64_t samplesFromMilliseconds(float milliseconds) const;
    // The impulse response rotated left by the midpoint, so that time zero sits in the middle.
    VELTRealVector centeredImpulseResponse() const;
    // The time of each sample of centeredImpulseResponse, in ms.
    VELTRealVector centeredTimeline() const;

    // ---- Peak

    // The sample offset of the energy-time curve's maximum from time zero. Computed once and then
    // kept: a later change of impulse response or window does not recompute it, and copies inherit
    // it, so a minimum-phase copy reports the peak of the record it was made from. 0 without an
    // impulse response (nothing is cached then).
    std::int64_t impulsePeak() const;
    float impulsePeakInMilliseconds() const;
    float delayToPeakInMilliseconds() const { return impulsePeakInMilliseconds(); }
    double distanceToPeakInMeters() const;
    double distanceToPeakInCentimeters() const { return distanceToPeakInMeters() * 100.0; }
    // The cached peak as it stands (kPeakNotComputed until computed).
    std::int64_t cachedImpulsePeak() const noexcept { return cachedPeak_.load(std::memory_order_relaxed); }

    // ---- Copies

    // Gives target this record's window, sweep settings, adjustments, extension data, calibration,
    // averages, normalisation, date, texts, sample rate, colour, compatibility mode, its own impulse
    // vector (only when this record has no cache), the cached peak, level references, valid
    // frequency range, speed of sound, device and channel. Not the UUID, thumbnail, document or
    // dontSaveImpulse.
    void copyAttributesToMeasurementRecord(VELTMeasurementRecord& target) const;
    // A new record with a new UUID and this record's cache; the impulse response is stored again
    // (in the cache, under the new UUID).
    std::shared_ptr<VELTMeasurementRecord> copy() const;
    // A snapshot with the same UUID and cache: the impulse response is shared, not stored again.
    std::shared_ptr<VELTMeasurementRecord> cachedCopy() const;
    // A copy whose impulse response is the minimum-phase reconstruction of this one's.
    std::shared_ptr<VELTMeasurementRecord> minimumPhaseCopy() const;

    // ---- Archive

    void encodeWithCoder(KeyedArchiver& coder) const;
    // Reads the current form and the oldest one (no "version", capitalised keys).
    static VELTMeasurementRecord initWithCoder(KeyedUnarchiver& coder);

    // ---- Frequency response (each takes the FFT length N, a power of two, and answers the bins of
    // validRangeForFFTLength(N))

    // From one bin below startFrequency up to the bin that first reaches endFrequency; never
    // includes the table's last bin.
    BinRange validRangeForFFTLength(std::size_t fftLength) const;
    // Bin centre frequencies, Hz.
    VELTRealVector frequencyTableWithFFTLength(std::size_t fftLength) const;
    // Magnitude in dB with the calibration applied. Raises AssertionFailure "Did not get impulse
    // response" when there is no impulse response.
    VELTRealVector fftMagnitudeResponseWithFFTLength(std::size_t fftLength) const;
    // Magnitude in dB, 94 dB at the SPL reference (0 when the reference is not used), calibrated.
    VELTRealVector fftSPLResponseWithFFTLength(std::size_t fftLength) const;
    // The calibrated magnitude as linear values.
    VELTRealVector fftAbsResponseWithFFTLength(std::size_t fftLength) const;
    // Unwrapped phase in degrees, calibration phase applied.
    VELTRealVector fftPhaseResponseWithFFTLength(std::size_t fftLength) const;
    // Unwrapped phase in degrees of the minimum-phase reconstruction, calibration phase applied.
    VELTRealVector minimumPhaseResponseWithFFTLength(std::size_t fftLength) const;
    // Phase minus minimum phase, degrees.
    VELTRealVector excessPhaseResponseWithFFTLength(std::size_t fftLength) const;
    // Re(FFT(k h[k]) / FFT(h)) in ms.
    VELTRealVector groupDelayWithFFTLength(std::size_t fftLength) const;
    // Subtract the calibration's magnitude (phase) spline from a vector over the valid range, when a
    // calibration record is set and in use.
    void applyFrequencyDomainCorrectionIfNeededToVector(VELTMutableRealVector& vector,
                                                        std::size_t fftLength) const;
    void applyFrequencyDomainPhaseCorrectionIfNeededToVector(VELTMutableRealVector& vector,
                                                             std::size_t fftLength) const;

    // The same at N = fftLength().
    BinRange validRange() const;
    VELTRealVector frequencyTable() const;
    VELTRealVector fftAbsResponse() const;
    VELTRealVector fftMagnitudeResponse() const;
    VELTRealVector fftPhaseResponse() const;
    VELTRealVector minimumPhaseResponse() const;
    VELTRealVector excessPhaseResponse() const;
    // The smallest power of two not below windowDuration (32-bit arithmetic), at least 32768, or at
    // least 2048 in compatibility mode.
    std::size_t fftLength() const;

    // ---- Harmonics of an exponential-sweep measurement (orders n >= 2; n = 1 is the linear response)
    //
    // These locate each harmonic impulse at a whole sample and cut it from there to the next lower
    // order, so the cut holds nothing from before the harmonic's position. A harmonic impulse that
    // spreads to both sides of its position (any sweep whose harmonic phases are not synchronised,
    // any sub-sample position) therefore reads low; HarmonicAnalysis measures accurately.

    // -T ln(n) / ln(f2 / f1), ms (negative: before the linear impulse); 0.0 for n < 2.
    double timeOffsetToHarmonic(std::int64_t order) const;
    // The time offset in samples, truncated toward zero; 0 for n < 2.
    std::int64_t sampleOffsetToHarmonic(std::int64_t order) const;
    // Where the n-th harmonic impulse peaks in the circular impulse response (the main peak for n < 2).
    std::int64_t sampleIndexOfHarmonic(std::int64_t order) const;
    // From the harmonic's index up to the next lower order's, wrapping round the end, with a half
    // Bingham taper; nullopt for n < 2 or without an impulse response.
    std::optional<VELTMutableRealVector> impulseResponseOfHarmonic(std::int64_t order) const;
    // |FFT| of the cut over the valid range; nullopt for n < 2.
    std::optional<VELTRealVector> frequencyResponseOfHarmonic(std::int64_t order,
                                                              std::uint32_t fftLength) const;
    // The frequency table divided by n: the excitation frequency of each harmonic bin.
    std::optional<VELTRealVector> frequencyTableOfHarmonic(std::int64_t order, std::uint32_t fftLength) const;
    // The harmonic magnitude in percent of fundamental[floor(i / n)] (0 where that is 0, not a number
    // or beyond the fundamental's end); fundamental is the magnitude over the same valid range.
    std::optional<VELTRealVector>
    frequencyResponseOfHarmonic(std::int64_t order, const VELTRealVector& inPercentRelativeToFundamental,
                                std::uint32_t fftLength) const;

private:
    struct State;

    // Runs function with the state locked.
    template <typename Function> decltype(auto) withState(Function&& function) const;
    // Sets one field under the lock and tells observers of key when the value changed.
    template <typename Value, typename Field>
    void setField(Field State::*field, Value value, std::string_view key);

    // The impulse response's length (0 without one), for the time axis.
    std::int64_t impulseLength() const;
    VELTRealVector phaseDegreesOfSpectrumOf(VELTRealVector signal, std::size_t fftLength) const;
    static void decodeVersion0RecordFromCoder(KeyedUnarchiver& coder, VELTMeasurementRecord& record);
    void storeDecodedImpulse(KeyedUnarchiver& coder, std::string_view key);

    mutable std::mutex mutex_;
    std::unique_ptr<State> state_;
    mutable std::atomic<std::int64_t> cachedPeak_{kPeakNotComputed};
};

} // namespace tavolar
