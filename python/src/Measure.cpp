// Audio devices and measurements. A measurement drives the engine's measurement controller as
// tavolar measure does; waiting for it runs the main run loop with the GIL released, takes the GIL
// back every 20 ms to hand progress to Python and to notice Ctrl-C, and cancels the measurement when
// Python wants to stop.

#include "Bindings.h"
#include "CommandLine.h"
#include "MeasurementSetup.h"
#include "SweepOptions.h"
#include "audio/devices/VELTAudioDevice.h"
#include "audio/devices/VELTAudioHardware.h"
#include "engine/VELTRZMeasurementController.h"
#include "platform/DispatchQueue.h"
#include "platform/RunLoop.h"
#include "platform/UserDefaults.h"

#include <atomic>
#include <chrono>
#include <fmt/format.h>
#include <mutex>
#include <pybind11/stl.h>

namespace tavolar::python {

namespace {

// What the controller tells, kept until the waiting thread hands it to Python.
class Delegate : public VELTRZMeasurementControllerDelegate {
public:
    void measurementControllerDidBeginPlayback(VELTRZMeasurementController&) override {
        post({{"stage", "sweep"}, {"sweep", ++sweeps_}});
    }
    void measurementController(VELTRZMeasurementController&,
                               const std::map<std::string, std::int64_t>& progress) override {
        post({{"stage", "deconvolving"},
              {"channel", progress.count("current") ? progress.at("current") : 0},
              {"channels", progress.count("total") ? progress.at("total") : 0}});
    }
    void measurementControllerDidEndConvolution(VELTRZMeasurementController&) override {
        finished_.store(true);
    }
    void measurementControllerDidAbort(VELTRZMeasurementController&) override { finished_.store(true); }

    bool finished() const { return finished_.load(); }
    std::vector<std::map<std::string, std::variant<std::string, std::int64_t>>> takeEvents() {
        std::lock_guard lock(mutex_);
        return std::exchange(events_, {});
    }

private:
    void post(std::map<std::string, std::variant<std::string, std::int64_t>> event) {
        std::lock_guard lock(mutex_);
        events_.push_back(std::move(event));
    }

    std::int64_t sweeps_ = 0;
    std::atomic<bool> finished_{false};
    std::mutex mutex_;
    std::vector<std::map<std::string, std::variant<std::string, std::int64_t>>> events_;
};

struct MeasurementOptions {
    cli::MeasurementRequest request;
    std::int64_t averages = 1;
    bool levelCheck = true;
    std::optional<std::string> name;
};

constexpr cli::MeasurementWords kPythonWords{"level_check=False", "the sweep's level", "output_channel",
                                             "client_name",       "connect=False",     "tavolar.devices()"};

// Raised as TimeoutError when wait's own timeout passes; the measurement goes on.
struct TimedOut {};

class Measurement {
public:
    Measurement(MeasurementOptions options, py::object progress, py::object document)
        : options_(std::move(options)), progress_(std::move(progress)), document_(std::move(document)),
          stored_(storedCaptureSettings(document_)) {}
    ~Measurement() {
        if (controller_ && !delegate_->finished())
            controller_->abortMeasurement();
    }

    void start();
    std::vector<RecordHandle> wait(std::optional<double> timeout);
    void cancel() {
        if (controller_ && !delegate_->finished()) {
            cancelled_ = true;
            controller_->abortMeasurement();
        }
    }
    bool done() const { return delegate_ && delegate_->finished(); }

private:
    void deliverProgress() {
        for (auto& event : delegate_->takeEvents())
            if (!progress_.is_none()) {
                if (event["stage"] == std::variant<std::string, std::int64_t>(std::string("sweep")))
                    event["sweeps"] = options_.averages;
                progress_(event);
            }
    }
    // Runs the run loop until the controller is done, for at most timeout, with the GIL released.
    void runFor(std::chrono::milliseconds timeout) {
        py::gil_scoped_release release;
        RunLoop::runUntil([this] { return delegate_->finished(); }, timeout);
    }
    std::vector<RecordHandle> results();

    MeasurementOptions options_;
    py::object progress_;
    // The document measured into (or None), and the capture settings it kept: each input's calibration
    // and sensitivity.
    py::object document_;
    std::optional<VELTAudioCaptureSettings> stored_;
    std::shared_ptr<VELTAudioCaptureSettings> settings_;
    std::shared_ptr<Delegate> delegate_;
    std::shared_ptr<VELTRZMeasurementController> controller_;
    std::optional<cli::PreparedMeasurement> prepared_;
    std::chrono::steady_clock::time_point deadline_;
    bool cancelled_ = false;
    bool collected_ = false;
};

void Measurement::start() {
    if (options_.averages < 1 || options_.averages > 100)
        throw py::value_error(fmt::format("averages must be from 1 to 100 (got {}).", options_.averages));
    auto prepared = cli::prepareMeasurement(options_.request, kPythonWords);
    if (!prepared && prepared.error().domain == cli::kUsageErrorDomain) {
        const TavolarError& mistake = prepared.error();
        throw py::value_error(mistake.localizedRecoverySuggestion.empty()
                                  ? mistake.localizedDescription
                                  : mistake.localizedDescription + "\n" +
                                        mistake.localizedRecoverySuggestion);
    }
    prepared_ = valueOrRaise(std::move(prepared), "DeviceError");
    const VELTLogSweepSettings& sweep = prepared_->sweep;
    UserDefaults::standard().registerDefaults({{"ChecksRecordingLevel", true}});
    delegate_ = std::make_shared<Delegate>();
    {
        // A new controller first configures its audio controllers for default settings that name no
        // device; the errors that logs are expected, and the real settings follow at once.
        MutedLog muted;
        controller_ = VELTRZMeasurementController::make();
    }
    controller_->setDelegate(delegate_);
    controller_->setLogSweepSettings(sweep);
    settings_ = cli::measurementCaptureSettings(options_.request, *prepared_, stored_);
    controller_->setAudioCaptureSettings(settings_);
    controller_->setSynchronousAverages(options_.averages);
    const double seconds = (sweep.duration() + sweep.beginSilence() + sweep.endSilence()) / 1000.0 *
                           static_cast<double>(options_.averages);
    // Unconnected JACK ports wait for whoever connects them, for as long as a person may take.
    deadline_ = std::chrono::steady_clock::now() +
                std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 2000.0) + 60000);
    // The controller reads the bypass from the modifier keys when it starts, as a desktop would.
    VELTRZMeasurementController::setModifierFlagsProvider(
        [bypass = !options_.levelCheck] { return bypass ? std::uint64_t{1} << 17 : std::uint64_t{0}; });
    controller_->measure();
    VELTRZMeasurementController::setModifierFlagsProvider(nullptr);
}

std::vector<RecordHandle> Measurement::wait(std::optional<double> timeout) {
    if (!controller_)
        throw py::value_error("The measurement has not started.");
    if (!isMainThread())
        throw std::runtime_error(
            "Wait for a measurement on the main thread, which runs the engine's main queue; "
            "other threads may start measurements and work while it waits.");
    const auto until = timeout ? std::chrono::steady_clock::now() +
                                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                         std::chrono::duration<double>(*timeout))
                               : std::chrono::steady_clock::time_point::max();
    while (!delegate_->finished()) {
        runFor(std::chrono::milliseconds(20));
        try {
            deliverLogLines();
            deliverProgress();
            if (PyErr_CheckSignals() != 0)
                throw py::error_already_set();
        } catch (...) {
            // Ctrl-C or a failing progress callback: the measurement ends before the exception goes on.
            cancel();
            runFor(std::chrono::milliseconds(2000));
            throw;
        }
        if (std::chrono::steady_clock::now() > deadline_) {
            cancel();
            runFor(std::chrono::milliseconds(2000));
            raise("DeviceError",
                  "The measurement did not finish in time: the audio device stopped delivering sound.",
                  "Check the device with tavolar.devices() and try again.");
        }
        if (std::chrono::steady_clock::now() > until)
            throw TimedOut();
    }
    // Progress posted just before the end.
    {
        py::gil_scoped_release release;
        RunLoop::runOnce();
    }
    deliverLogLines();
    deliverProgress();
    return results();
}

std::vector<RecordHandle> Measurement::results() {
    if (cancelled_)
        raise("Error", "Measurement Aborted", "The measurement was cancelled; nothing was measured.");
    std::vector<std::shared_ptr<const VELTRZMeasurement>> measured = controller_->measurementArray();
    std::optional<TavolarError> error = controller_->error();
    if (measured.empty())
        throw RaisedError{
            "DeviceError",
            cli::measurementFailureAdvice(
                error.value_or(TavolarError::make("The measurement produced no impulse responses.")),
                controller_->recordingPeakLevels(), options_.request, kPythonWords)};
    nlohmann::json loopback = nullptr;
    if (const auto& pair = options_.request.loopback)
        loopback = {{"output", pair->first}, {"input", pair->second}};
    std::vector<RecordHandle> records;
    for (const auto& result : measured) {
        auto record = VELTMeasurementRecord::record();
        record->setSampleRate(result->sampleRate());
        record->setImpulseResponse(result->impulseResponse());
        cli::describeMeasuredRecord(*record, *result, prepared_->recordDevice.name(), options_.name,
                                    measured.size());
        records.push_back({record, nullptr, loopback});
    }
    // As measure does, the document keeps the settings and every channel's calibration for next time.
    if (!document_.is_none())
        keepCaptureSettings(document_, cli::keptCaptureSettings(*settings_, stored_));
    return records;
}

} // namespace

cli::SweepOptions sweepOptions(const py::object& given) {
    cli::SweepOptions sweep;
    if (given.is_none())
        return sweep;
    if (py::isinstance<py::str>(given)) {
        sweep.preset = given.cast<std::string>();
        if (sweep.preset != "short" && sweep.preset != "long")
            throw py::value_error("The sweep presets are \"short\" (1 s) and \"long\" (10 s).");
        return sweep;
    }
    for (auto [key, value] : given.cast<py::dict>()) {
        const std::string name = key.cast<std::string>();
        if (name == "preset")
            sweep.preset = value.cast<std::string>();
        else if (name == "start")
            sweep.startFrequency = value.cast<float>();
        else if (name == "end")
            sweep.endFrequency = value.cast<float>();
        else if (name == "length")
            sweep.length = value.cast<float>();
        else if (name == "level")
            sweep.level = value.cast<float>();
        else if (name == "begin_silence")
            sweep.beginSilence = value.cast<float>();
        else if (name == "end_silence")
            sweep.endSilence = value.cast<float>();
        else
            throw py::value_error(
                fmt::format("The sweep has no setting \"{}\"; the settings are preset, start, end, "
                            "length, level, begin_silence and end_silence.",
                            name));
    }
    return sweep;
}

void addMeasuring(py::module_& module) {
    py::register_exception_translator([](std::exception_ptr pointer) {
        try {
            if (pointer)
                std::rethrow_exception(pointer);
        } catch (const TimedOut&) {
            PyErr_SetString(PyExc_TimeoutError, "The measurement has not finished yet.");
        }
    });
    module.def("devices", [] {
        py::list devices;
        for (const std::string& uid : VELTAudioHardware::deviceUIDs()) {
            if (VELTAudioDevice device(uid); device.isPresent()) {
                py::dict entry;
                entry["uid"] = device.deviceUID();
                entry["name"] = device.name();
                entry["sample_rate"] = device.sampleRateForDirection(1);
                entry["inputs"] = device.channelCountForDirection(1);
                entry["outputs"] = device.channelCountForDirection(0);
                devices.append(entry);
            }
            VELTAudioHardware::releaseDevice(uid);
        }
        return devices;
    });

    py::class_<Measurement>(module, "MeasurementHandle", "A measurement under way.")
        .def(py::init([](std::string device, std::optional<std::string> playbackDevice,
                         std::vector<std::int64_t> channels, std::int64_t outputChannel,
                         std::optional<std::pair<std::int64_t, std::int64_t>> loopback, py::object sweep,
                         std::int64_t averages, bool levelCheck, std::optional<std::string> clientName,
                         bool connect, bool fast, std::optional<std::string> name, py::object progress,
                         py::object document) {
                 cli::MeasurementRequest request{std::move(device),
                                                 std::move(playbackDevice),
                                                 std::move(channels),
                                                 outputChannel,
                                                 loopback,
                                                 std::move(clientName),
                                                 !connect,
                                                 fast,
                                                 sweepOptions(sweep)};
                 auto measurement = std::make_unique<Measurement>(
                     MeasurementOptions{std::move(request), averages, levelCheck, std::move(name)},
                     std::move(progress), std::move(document));
                 measurement->start();
                 return measurement;
             }),
             py::kw_only(), py::arg("device"), py::arg("playback_device"), py::arg("channels"),
             py::arg("output_channel"), py::arg("loopback"), py::arg("sweep"), py::arg("averages"),
             py::arg("level_check"), py::arg("client_name"), py::arg("connect"), py::arg("fast"),
             py::arg("name"), py::arg("progress"), py::arg("document"))
        .def("wait", &Measurement::wait, py::arg("timeout") = py::none())
        .def("cancel", &Measurement::cancel)
        .def_property_readonly("done", &Measurement::done);
}

} // namespace tavolar::python
