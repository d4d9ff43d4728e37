#pragma once
// Runs one acoustic measurement from start to finish: builds the stimulus, starts recording and
// playback, waits for the end of the played buffer, aligns every recorded channel to the playback
// start, repeats the sweep for synchronous averaging, checks the recording level, deconvolves each
// input channel into an impulse response and hands the results to the host, reporting every stage
// to a delegate. Owned through a shared_ptr (make), so that queued work can hold it weakly.

#include "audio/VELTAudioCaptureSettings.h"
#include "audio/VELTAudioInputController.h"
#include "audio/VELTAudioOutputController.h"
#include "audio/devices/AudioTimeStamp.h"
#include "engine/VELTLogSweepSettings.h"
#include "engine/VELTRZMeasurement.h"
#include "engine/VELTRZSweptSineRecording.h"
#include "math/VELTRealVector.h"
#include "platform/DispatchQueue.h"
#include "platform/NotificationCenter.h"
#include "platform/TavolarError.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tavolar {

class VELTRZMeasurementController;

// The stages of a measurement. Every method is optional (does nothing by default). All are called on
// the main queue except measurementControllerDidEndPlayback, which runs on the thread that
// delivered the end-of-buffer notification.
class VELTRZMeasurementControllerDelegate {
public:
    virtual ~VELTRZMeasurementControllerDelegate() = default;
    virtual void measurementControllerDidBeginPlayback(VELTRZMeasurementController&) {}
    virtual void measurementControllerDidEndPlayback(VELTRZMeasurementController&) {}
    virtual void measurementControllerDidBeginConvolution(VELTRZMeasurementController&) {}
    // didUpdateProgress holds the numbers "current" and "total".
    virtual void measurementController(VELTRZMeasurementController&,
                                       const std::map<std::string, std::int64_t>& didUpdateProgress) {}
    virtual void measurementControllerDidEndConvolution(VELTRZMeasurementController&) {}
    virtual void measurementControllerDidAbort(VELTRZMeasurementController&) {}
};

class VELTRZMeasurementController : public std::enable_shared_from_this<VELTRZMeasurementController> {
public:
    using RecordingTest = std::function<bool(const VELTRealVector& vector, bool& stop)>;
    // The keyboard modifier flags at this moment; bit 17 is the Shift key, which bypasses the level
    // checks. A host without a keyboard leaves the default, which answers 0.
    using ModifierFlagsProvider = std::function<std::uint64_t()>;
    static void setModifierFlagsProvider(ModifierFlagsProvider provider);

    // A controller with default capture settings, its two audio controllers, its recording queue
    // "com_velt_rz_impulse_recording" and one synchronous average.
    static std::shared_ptr<VELTRZMeasurementController> make();
    VELTRZMeasurementController();
    ~VELTRZMeasurementController();
    VELTRZMeasurementController(const VELTRZMeasurementController&) = delete;
    VELTRZMeasurementController& operator=(const VELTRZMeasurementController&) = delete;

    std::shared_ptr<VELTRZMeasurementControllerDelegate> delegate() const;
    void setDelegate(std::weak_ptr<VELTRZMeasurementControllerDelegate> delegate);
    VELTLogSweepSettings logSweepSettings() const;
    void setLogSweepSettings(const VELTLogSweepSettings& settings);
    std::shared_ptr<VELTAudioCaptureSettings> audioCaptureSettings() const;
    void setAudioCaptureSettings(std::shared_ptr<VELTAudioCaptureSettings> settings);
    std::int64_t synchronousAverages() const;
    void setSynchronousAverages(std::int64_t averages);
    // The results of the last completed measurement.
    std::vector<std::shared_ptr<const VELTRZMeasurement>> measurementArray() const;
    void setMeasurementArray(std::vector<std::shared_ptr<const VELTRZMeasurement>> measurements);
    // The last error of the current measurement.
    std::optional<TavolarError> error() const;
    // The peak of each recorded channel of the last measurement, in dBFS over all its sweeps, in the
    // order of the capture settings' record channels; the loop-back reference's after them when there
    // is one. Set once the sweeps are in, before the level check, so a refused measurement can say
    // which input was too quiet or clipped.
    std::vector<float> recordingPeakLevels() const;
    void setError(std::optional<TavolarError> error);
    // The aligned recordings of the sweeps played so far.
    std::shared_ptr<const std::vector<VELTRZSweptSineRecording>> averagingArray() const;
    VELTRealVector stimulusSignal() const;
    VELTRealVector recordStimulusSignal() const;
    VELTAudioInputController& audioInputController() noexcept { return *audioInputController_; }
    VELTAudioOutputController& audioOutputController() noexcept { return *audioOutputController_; }
    AudioTimeStamp recordStartTimeStamp() const noexcept { return recordStartTimeStamp_; }
    AudioTimeStamp playbackStartTimeStamp() const noexcept { return playbackStartTimeStamp_; }
    const DispatchQueue& recordingQueue() const noexcept { return recordingQueue_; }
    bool bypassLevelCheck() const;
    void setBypassLevelCheck(bool bypass);

    // Starts a measurement. Not on the recording queue.
    void measure();
    // Stops a running measurement; no processing follows. Not on the recording queue.
    void abortMeasurement();
    // Plays one sweep; on the recording queue only.
    void runMeasurement();
    // Ends one sweep (the end-of-buffer notification's handler).
    void audioOutputControllerDidReachEndOfBuffer(const Notification& notification);
    // Expresses the playback start in the record device's sample clock.
    bool processTimestampsWithError(TavolarError* error);
    // Level checks, deconvolution and results.
    void processMeasurements(std::shared_ptr<const std::vector<VELTRZSweptSineRecording>> recordings);

    // The level tests: every record channel and then the correction channel of each recording, in
    // order, until one fails. Yes only when something was tested and everything passed.
    static bool measurements(const std::vector<VELTRZSweptSineRecording>& recordings,
                             const RecordingTest& passedTest);
    static bool
    hasSufficientRecordingLevelInMeasurements(const std::vector<VELTRZSweptSineRecording>& recordings);
    static bool measurementsDidClip(const std::vector<VELTRZSweptSineRecording>& recordings);

private:
    template <typename Call> void tellDelegateAsynchronously(Call call);
    template <typename Call> void tellDelegateOnMainSynchronously(Call call);
    // Checks every 100 ms, while the sweep of this generation runs, whether the audio server has
    // gone; if so, ends the measurement with an error instead of waiting for the end of the buffer.
    void watchAudioServer(std::uint64_t generation);
    // Whether the record or playback device stopped running its cycles (rather than going away).
    bool audioServerStalled() const;

    mutable std::mutex mutex_; // guards the properties that several threads read and write
    std::weak_ptr<VELTRZMeasurementControllerDelegate> delegate_;
    VELTLogSweepSettings logSweepSettings_;
    std::shared_ptr<VELTAudioCaptureSettings> audioCaptureSettings_;
    std::int64_t synchronousAverages_ = 1;
    std::vector<std::shared_ptr<const VELTRZMeasurement>> measurementArray_;
    std::optional<TavolarError> error_;
    std::vector<float> recordingPeakLevels_;
    std::shared_ptr<std::vector<VELTRZSweptSineRecording>> averagingArray_;
    VELTRealVector stimulusSignal_;
    VELTRealVector recordStimulusSignal_;
    bool bypassLevelCheck_ = false;

    std::unique_ptr<VELTAudioInputController> audioInputController_;
    std::unique_ptr<VELTAudioOutputController> audioOutputController_;
    AudioTimeStamp recordStartTimeStamp_;
    AudioTimeStamp playbackStartTimeStamp_;
    DispatchQueue recordingQueue_;
    NotificationObserverToken endOfBufferObservation_ = 0;
    // Recording queue only: the sweep being watched (bumped when a sweep ends or is abandoned), and
    // whether the server stopped during the current measurement.
    std::uint64_t sweepGeneration_ = 0;
    bool serverStopped_ = false;
};

} // namespace tavolar
