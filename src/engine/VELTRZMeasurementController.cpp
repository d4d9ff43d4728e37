#include "engine/VELTRZMeasurementController.h"

#include "audio/devices/VELTAudioDevice.h"
#include "audio/devices/VELTAudioHardware.h"
#include "engine/SynchronousAveraging.h"
#include "platform/Assertions.h"
#include "platform/Logging.h"
#include "platform/TavolarLocalizedString.h"
#include "platform/UserDefaults.h"

#include <cmath>
#include <fmt/format.h>
#include <limits>
#include <utility>

namespace tavolar {

namespace {

constexpr std::string_view kRecordingQueueLabel = "com_velt_rz_impulse_recording";
constexpr std::uint64_t kShiftKeyModifierFlag = 1ull << 17;

std::mutex providerMutex;
VELTRZMeasurementController::ModifierFlagsProvider modifierFlagsProvider;

std::uint64_t currentModifierFlags() {
    std::lock_guard lock(providerMutex);
    return modifierFlagsProvider ? modifierFlagsProvider() : 0;
}

TavolarError engineError(std::string_view description, std::string_view recoverySuggestion) {
    return TavolarError::make(TavolarLocalizedString(description),
                              TavolarLocalizedString(recoverySuggestion));
}

// Skips the first skip samples of a channel; a skip of 0 or of at least the whole length keeps it whole.
VELTRealVector trimmed(const VELTRealVector& vector, std::uint32_t skip) {
    if (skip == 0 || skip >= vector.length())
        return vector;
    return vector.realVectorInRange(skip, vector.length() - skip);
}

} // namespace

void VELTRZMeasurementController::setModifierFlagsProvider(ModifierFlagsProvider provider) {
    std::lock_guard lock(providerMutex);
    modifierFlagsProvider = std::move(provider);
}

std::shared_ptr<VELTRZMeasurementController> VELTRZMeasurementController::make() {
    return std::make_shared<VELTRZMeasurementController>();
}

VELTRZMeasurementController::VELTRZMeasurementController()
    : audioCaptureSettings_(std::make_shared<VELTAudioCaptureSettings>()),
      averagingArray_(std::make_shared<std::vector<VELTRZSweptSineRecording>>()),
      recordingQueue_(std::string(kRecordingQueueLabel)) {
    audioInputController_ = std::make_unique<VELTAudioInputController>(audioCaptureSettings_);
    audioOutputController_ = std::make_unique<VELTAudioOutputController>(audioCaptureSettings_);
    endOfBufferObservation_ = NotificationCenter::defaultCenter().addObserver(
        std::string(VELTAudioOutputControllerEndOfBufferNotification), audioOutputController_.get(),
        [this](const Notification& notification) { audioOutputControllerDidReachEndOfBuffer(notification); });
}

VELTRZMeasurementController::~VELTRZMeasurementController() {
    NotificationCenter::defaultCenter().removeObserver(endOfBufferObservation_);
    audioOutputController_->stopPlayback();
    audioInputController_->stopRecording();
    // The output controller's worker must be torn down before the controller is released.
    audioOutputController_->teardownWorkerThread();
}

std::shared_ptr<VELTRZMeasurementControllerDelegate> VELTRZMeasurementController::delegate() const {
    std::lock_guard lock(mutex_);
    return delegate_.lock();
}
void VELTRZMeasurementController::setDelegate(std::weak_ptr<VELTRZMeasurementControllerDelegate> delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
}
VELTLogSweepSettings VELTRZMeasurementController::logSweepSettings() const {
    std::lock_guard lock(mutex_);
    return logSweepSettings_;
}
void VELTRZMeasurementController::setLogSweepSettings(const VELTLogSweepSettings& settings) {
    std::lock_guard lock(mutex_);
    logSweepSettings_ = settings;
}
std::shared_ptr<VELTAudioCaptureSettings> VELTRZMeasurementController::audioCaptureSettings() const {
    std::lock_guard lock(mutex_);
    return audioCaptureSettings_;
}
void VELTRZMeasurementController::setAudioCaptureSettings(
    std::shared_ptr<VELTAudioCaptureSettings> settings) {
    std::lock_guard lock(mutex_);
    audioCaptureSettings_ = std::move(settings);
}
std::int64_t VELTRZMeasurementController::synchronousAverages() const {
    std::lock_guard lock(mutex_);
    return synchronousAverages_;
}
void VELTRZMeasurementController::setSynchronousAverages(std::int64_t averages) {
    std::lock_guard lock(mutex_);
    synchronousAverages_ = averages;
}
std::vector<std::shared_ptr<const VELTRZMeasurement>> VELTRZMeasurementController::measurementArray() const {
    std::lock_guard lock(mutex_);
    return measurementArray_;
}
void VELTRZMeasurementController::setMeasurementArray(
    std::vector<std::shared_ptr<const VELTRZMeasurement>> measurements) {
    std::lock_guard lock(mutex_);
    measurementArray_ = std::move(measurements);
}
std::vector<float> VELTRZMeasurementController::recordingPeakLevels() const {
    std::lock_guard lock(mutex_);
    return recordingPeakLevels_;
}

std::optional<TavolarError> VELTRZMeasurementController::error() const {
    std::lock_guard lock(mutex_);
    return error_;
}
void VELTRZMeasurementController::setError(std::optional<TavolarError> error) {
    std::lock_guard lock(mutex_);
    error_ = std::move(error);
}
std::shared_ptr<const std::vector<VELTRZSweptSineRecording>>
VELTRZMeasurementController::averagingArray() const {
    std::lock_guard lock(mutex_);
    return averagingArray_;
}
VELTRealVector VELTRZMeasurementController::stimulusSignal() const {
    std::lock_guard lock(mutex_);
    return stimulusSignal_;
}
VELTRealVector VELTRZMeasurementController::recordStimulusSignal() const {
    std::lock_guard lock(mutex_);
    return recordStimulusSignal_;
}
bool VELTRZMeasurementController::bypassLevelCheck() const {
    std::lock_guard lock(mutex_);
    return bypassLevelCheck_;
}
void VELTRZMeasurementController::setBypassLevelCheck(bool bypass) {
    std::lock_guard lock(mutex_);
    bypassLevelCheck_ = bypass;
}

template <typename Call> void VELTRZMeasurementController::tellDelegateAsynchronously(Call call) {
    std::weak_ptr<VELTRZMeasurementController> weakSelf = weak_from_this();
    DispatchQueue::main().async([weakSelf, call] {
        if (auto self = weakSelf.lock())
            if (auto delegate = self->delegate())
                call(*delegate, *self);
    });
}

template <typename Call> void VELTRZMeasurementController::tellDelegateOnMainSynchronously(Call call) {
    auto work = [this, &call] {
        if (auto delegate = this->delegate())
            call(*delegate, *this);
    };
    if (isMainThread())
        work();
    else
        DispatchQueue::main().sync(work);
}

void VELTRZMeasurementController::measure() {
    TAVOLAR_PARAMETER_ASSERT(!weak_from_this().expired());
    setError(std::nullopt);
    {
        std::lock_guard lock(mutex_);
        // A new array: processing of an earlier measurement may still be reading the old one.
        averagingArray_ = std::make_shared<std::vector<VELTRZSweptSineRecording>>();
        bypassLevelCheck_ = (currentModifierFlags() & kShiftKeyModifierFlag) != 0;
    }
    std::weak_ptr<VELTRZMeasurementController> weakSelf = weak_from_this();
    recordingQueue_.sync([weakSelf] {
        if (auto self = weakSelf.lock())
            self->runMeasurement();
    });
}

void VELTRZMeasurementController::runMeasurement() {
    // The stored queue's label is checked, not the queue actually running; deliberately so.
    TAVOLAR_ASSERT(recordingQueue_.label().substr(0, kRecordingQueueLabel.size()) == kRecordingQueueLabel,
                   "runMeasurement called outside the recording queue");
    std::shared_ptr<VELTAudioCaptureSettings> settings = audioCaptureSettings();
    audioOutputController_->setAudioCaptureSettings(settings);
    audioInputController_->setAudioCaptureSettings(settings);
    audioInputController_->clearRecording();

    const VELTLogSweepSettings sweep = logSweepSettings();
    VELTRealVector stimulus =
        sweep.stimulusSignalWithSampleRate(std::uint32_t(settings->playbackDeviceSampleRate()));
    VELTRealVector recordStimulus =
        sweep.stimulusSignalWithSampleRate(std::uint32_t(settings->recordDeviceSampleRate()));
    {
        std::lock_guard lock(mutex_);
        stimulusSignal_ = stimulus;
        recordStimulusSignal_ = std::move(recordStimulus);
    }
    audioOutputController_->setPlaybackVector(std::move(stimulus));
    audioInputController_->startRecording(); // recording always starts first
    audioOutputController_->startPlayback();
    serverStopped_ = false;
    watchAudioServer(++sweepGeneration_);
    tellDelegateAsynchronously(
        [](VELTRZMeasurementControllerDelegate& delegate, VELTRZMeasurementController& self) {
            delegate.measurementControllerDidBeginPlayback(self);
        });
}

void VELTRZMeasurementController::watchAudioServer(std::uint64_t generation) {
    std::weak_ptr<VELTRZMeasurementController> weakSelf = weak_from_this();
    DispatchQueue::global().asyncAfter(std::chrono::milliseconds(100), [weakSelf, generation] {
        auto self = weakSelf.lock();
        if (!self)
            return;
        bool current = false, stopped = false;
        self->recordingQueue_.sync([&] {
            current = self->sweepGeneration_ == generation;
            if (!current || (!self->audioOutputController_->isDisconnected() &&
                             !self->audioInputController_->isDisconnected()))
                return;
            // The server is gone: what was recorded is incomplete and nothing more will play.
            ++self->sweepGeneration_;
            self->serverStopped_ = true;
            stopped = true;
            self->audioOutputController_->stopPlayback();
            self->audioInputController_->stopRecording();
            self->audioInputController_->clearRecording();
            self->setError(self->audioServerStalled()
                               ? engineError("The audio server stopped running during the measurement.",
                                             "The JACK server stopped running its cycles: it may be "
                                             "suspended or hung. Resume or restart it, then measure "
                                             "again.")
                               : engineError("The audio server stopped during the measurement.",
                                             "Start the JACK server again, then measure again."));
        });
        if (stopped)
            self->tellDelegateAsynchronously(
                [](VELTRZMeasurementControllerDelegate& delegate, VELTRZMeasurementController& controller) {
                    delegate.measurementControllerDidEndConvolution(controller);
                });
        else if (current)
            self->watchAudioServer(generation);
    });
}

bool VELTRZMeasurementController::audioServerStalled() const {
    std::shared_ptr<VELTAudioCaptureSettings> settings = audioCaptureSettings();
    for (const std::optional<std::string>& uid : {settings->recordDeviceUID(), settings->playbackDeviceUID()})
        if (uid)
            if (auto driver = VELTAudioHardware::driverForDeviceUID(*uid); driver && driver->hasStalled())
                return true;
    return false;
}

void VELTRZMeasurementController::audioOutputControllerDidReachEndOfBuffer(const Notification&) {
    bool processed = false, serverStopped = false;
    std::optional<VELTRZSweptSineRecording> recording;
    recordingQueue_.sync([&] {
        // A notification already on its way when the server stopped: that measurement has ended.
        if ((serverStopped = serverStopped_))
            return;
        ++sweepGeneration_;
        TavolarError timestampError;
        processed = processTimestampsWithError(&timestampError);
        if (!processed)
            TAVOLAR_LOG_ERROR(fmt::format("Encountered error while processing timestamps: {}",
                                          timestampError.localizedDescription));
        audioOutputController_->stopPlayback();
        audioInputController_->stopRecording();

        std::shared_ptr<VELTAudioCaptureSettings> settings = audioCaptureSettings();
        VELTAudioDevice recordDevice(settings->recordDeviceUID().value_or(std::string()));
        std::int64_t offset = 0;
        if (playbackStartTimeStamp_.sampleTime > recordStartTimeStamp_.sampleTime)
            offset = static_cast<std::int64_t>(
                std::rint(playbackStartTimeStamp_.sampleTime - recordStartTimeStamp_.sampleTime));

        const std::vector<std::int64_t> channels = settings->recordChannelArray();
        std::vector<std::optional<VELTRealVector>> vectors = audioInputController_->recordChannelVectors();
        std::vector<VELTRealVector> aligned;
        for (std::size_t index = 0; index < channels.size(); ++index) {
            // Skip in 32-bit unsigned arithmetic, as the latency is reported.
            std::uint32_t skip =
                recordDevice.recordingStreamLatencyForChannel(std::uint32_t(channels[index])) +
                std::uint32_t(offset);
            const VELTRealVector& vector =
                index < vectors.size() && vectors[index] ? *vectors[index] : VELTRealVector();
            aligned.push_back(trimmed(vector, skip));
        }
        std::optional<VELTRealVector> correction = audioInputController_->correctionChannelVector();
        if (correction) {
            std::uint32_t skip = recordDevice.recordingStreamLatencyForChannel(
                                     std::uint32_t(settings->correctionRecordChannel())) +
                                 std::uint32_t(offset);
            correction = trimmed(*correction, skip);
        }
        recording.emplace(std::move(aligned), std::move(correction));
    });
    if (serverStopped)
        return;

    std::shared_ptr<std::vector<VELTRZSweptSineRecording>> recordings;
    std::size_t played = 0;
    {
        std::lock_guard lock(mutex_);
        recordings = averagingArray_;
        if (processed)
            recordings->push_back(std::move(*recording));
        played = recordings->size();
    }
    if (processed && std::int64_t(played) < synchronousAverages()) {
        recordingQueue_.sync([this] { runMeasurement(); });
        return;
    }
    if (auto delegate = this->delegate())
        delegate->measurementControllerDidEndPlayback(*this);
    std::weak_ptr<VELTRZMeasurementController> weakSelf = weak_from_this();
    DispatchQueue::global().async([weakSelf, recordings] {
        if (auto self = weakSelf.lock())
            self->processMeasurements(recordings);
    });
}

bool VELTRZMeasurementController::processTimestampsWithError(TavolarError* error) {
    std::shared_ptr<VELTAudioCaptureSettings> settings = audioCaptureSettings();
    VELTAudioDevice recordDevice(settings->recordDeviceUID().value_or(std::string()));
    VELTAudioDevice playbackDevice(settings->playbackDeviceUID().value_or(std::string()));
    recordStartTimeStamp_ = audioInputController_->startTimeStamp();
    playbackStartTimeStamp_ = audioOutputController_->startTimeStamp();

    AudioTimeStamp playbackStart = playbackStartTimeStamp_;
    playbackStart.flags = kAudioTimeStampSampleTimeValid | kAudioTimeStampRateScalarValid;
    AudioTimeStamp hostTime = playbackDevice.translateTimeSampleToHost(playbackStart, error);
    if (hostTime.flags == 0)
        return false;
    hostTime.flags = kAudioTimeStampHostTimeValid | kAudioTimeStampRateScalarValid;
    AudioTimeStamp recordClock = recordDevice.translateTimeHostToSample(hostTime, error);
    if (recordClock.flags == 0)
        return false;
    playbackStartTimeStamp_ = recordClock;
    return true;
}

bool VELTRZMeasurementController::measurements(const std::vector<VELTRZSweptSineRecording>& recordings,
                                               const RecordingTest& passedTest) {
    if (!passedTest)
        return false;
    // A test that sets stop ends the walk; what it tested so far passed.
    bool tested = false;
    bool stop = false;
    for (const VELTRZSweptSineRecording& recording : recordings) {
        for (const VELTRealVector& channel : recording.recordChannels()) {
            tested = true;
            if (!passedTest(channel, stop))
                return false;
            if (stop)
                return true;
        }
        if (recording.correctionChannel()) {
            tested = true;
            if (!passedTest(*recording.correctionChannel(), stop))
                return false;
            if (stop)
                return true;
        }
    }
    return tested;
}

bool VELTRZMeasurementController::hasSufficientRecordingLevelInMeasurements(
    const std::vector<VELTRZSweptSineRecording>& recordings) {
    return measurements(recordings, [](const VELTRealVector& vector, bool&) {
        float peak = 0.0f;
        vector.getMaximumMagnitude(peak, nullptr);
        return !(20.0f * std::log10(peak) < -20.0f);
    });
}

bool VELTRZMeasurementController::measurementsDidClip(
    const std::vector<VELTRZSweptSineRecording>& recordings) {
    return !measurements(recordings, [](const VELTRealVector& vector, bool&) {
        float peak = 0.0f;
        vector.getMaximumMagnitude(peak, nullptr);
        return !(peak >= 1.0f);
    });
}

void VELTRZMeasurementController::processMeasurements(
    std::shared_ptr<const std::vector<VELTRZSweptSineRecording>> recordings) {
    const std::vector<VELTRZSweptSineRecording>& array = *recordings;
    const std::int64_t total = array.empty() ? 0 : std::int64_t(array.front().recordChannels().size());
    for (const VELTRZSweptSineRecording& recording : array)
        if (total != std::int64_t(recording.recordChannels().size()))
            throw ParameterAssertion("total == (NSInteger)channelArray.count");

    auto finish = [this] {
        tellDelegateOnMainSynchronously(
            [](VELTRZMeasurementControllerDelegate& delegate, VELTRZMeasurementController& self) {
                delegate.measurementControllerDidEndConvolution(self);
            });
    };
    if (total == 0)
        setError(engineError("No Channels Captured",
                             "There were no recording channels captured during the measurement. "
                             "Please contact support and inform us of this error."));

    {
        std::vector<float> peaks;
        for (const VELTRZSweptSineRecording& recording : array) {
            std::vector<const VELTRealVector*> channels;
            for (const VELTRealVector& channel : recording.recordChannels())
                channels.push_back(&channel);
            if (recording.correctionChannel())
                channels.push_back(&*recording.correctionChannel());
            peaks.resize(std::max(peaks.size(), channels.size()), -std::numeric_limits<float>::infinity());
            for (std::size_t c = 0; c < channels.size(); ++c) {
                float peak = 0.0f;
                channels[c]->getMaximumMagnitude(peak, nullptr);
                peaks[c] = std::max(peaks[c], 20.0f * std::log10(peak));
            }
        }
        std::lock_guard lock(mutex_);
        recordingPeakLevels_ = std::move(peaks);
    }
    if (UserDefaults::standard().boolForKey("ChecksRecordingLevel") && !bypassLevelCheck()) {
        const bool quiet = !hasSufficientRecordingLevelInMeasurements(array);
        if (quiet)
            setError(engineError(
                "The Recording is Too Quiet",
                "Please adjust the input and/or output levels to get a stronger signal.\n\nYou can "
                "hold the shift key while clicking \"Measure\" to bypass this check."));
        if (measurementsDidClip(array)) {
            setError(engineError(
                "The Recording Clipped!",
                "Please adjust the input and/or output levels to ensure the recording does not "
                "clip.\n\nYou can hold the shift key while clicking \"Measure\" to bypass this check."));
            finish();
            return;
        }
        if (quiet) {
            finish();
            return;
        }
    }

    tellDelegateOnMainSynchronously(
        [](VELTRZMeasurementControllerDelegate& delegate, VELTRZMeasurementController& self) {
            delegate.measurementControllerDidBeginConvolution(self);
        });
    tellDelegateAsynchronously(
        [total](VELTRZMeasurementControllerDelegate& delegate, VELTRZMeasurementController& self) {
            delegate.measurementController(self, {{"current", 0}, {"total", total}});
        });

    std::shared_ptr<VELTAudioCaptureSettings> settings = audioCaptureSettings();
    const std::vector<RecordChannelEntry> entries = settings->recordChannelEntries();
    const VELTRealVector stimulus = recordStimulusSignal();
    const VELTLogSweepSettings sweep = logSweepSettings();
    const std::int64_t averages = synchronousAverages();
    const std::int64_t sampleRate = std::int64_t(std::uint32_t(settings->recordDeviceSampleRate()));
    // Channels are averaged on every core; results and errors are taken in channel order, as if the
    // channels had been done one after another.
    std::vector<Expected<VELTRealVector>> impulseResponses =
        impulseResponsesFromAveragingArrayConcurrently(array, stimulus, [&](std::size_t finished) {
            const auto current = std::int64_t(finished);
            tellDelegateAsynchronously([current, total](VELTRZMeasurementControllerDelegate& delegate,
                                                        VELTRZMeasurementController& self) {
                delegate.measurementController(self, {{"current", current}, {"total", total}});
            });
        });
    std::vector<std::shared_ptr<const VELTRZMeasurement>> results;
    for (std::size_t channel = 0; channel < impulseResponses.size(); ++channel) {
        Expected<VELTRealVector>& impulseResponse = impulseResponses[channel];
        if (impulseResponse) {
            results.push_back(std::make_shared<const VELTRZMeasurement>(
                std::chrono::time_point_cast<ArchivedDate::duration>(std::chrono::system_clock::now()),
                std::move(*impulseResponse), sampleRate, settings->recordDevice(), entries.at(channel),
                averages, sweep));
        } else {
            setError(impulseResponse.error());
        }
    }

    std::weak_ptr<VELTRZMeasurementController> weakSelf = weak_from_this();
    auto store = [weakSelf, &results] {
        if (auto self = weakSelf.lock())
            self->setMeasurementArray(std::move(results));
    };
    if (isMainThread())
        store();
    else
        DispatchQueue::main().sync(store);
    finish();
}

void VELTRZMeasurementController::abortMeasurement() {
    std::weak_ptr<VELTRZMeasurementController> weakSelf = weak_from_this();
    recordingQueue_.sync([weakSelf] {
        auto self = weakSelf.lock();
        if (!self)
            return;
        ++self->sweepGeneration_;
        self->audioOutputController_->stopPlayback();
        self->audioInputController_->stopRecording();
        self->setError(
            engineError("Measurement Aborted",
                        "The measurement process was safely aborted. Please try again when you are ready."));
        self->tellDelegateAsynchronously(
            [](VELTRZMeasurementControllerDelegate& delegate, VELTRZMeasurementController& controller) {
                delegate.measurementControllerDidAbort(controller);
            });
    });
}

} // namespace tavolar
