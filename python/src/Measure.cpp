// Audio devices and measurements. A measurement drives the engine's measurement controller as
// tavolar measure does; waiting for it runs the main run loop with the GIL released, takes the GIL
// back every 20 ms to hand progress to Python and to notice Ctrl-C, and cancels the measurement when
// Python wants to stop.

#include "Bindings.h"
#include "RecordStore.h"
#include "SweepOptions.h"
#include "audio/devices/AudioDeviceUID.h"
#include "audio/devices/VELTAudioDevice.h"
#include "audio/devices/VELTAudioHardware.h"
#include "engine/VELTRZMeasurementController.h"
#include "platform/RunLoop.h"
#include "platform/UserDefaults.h"

#include <algorithm>
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
    std::string device = "sim:default";
    std::vector<std::int64_t> channels{0};
    std::int64_t outputChannel = 0;
    std::optional<std::pair<std::int64_t, std::int64_t>> loopback; // output, input
    std::int64_t averages = 1;
    bool levelCheck = true;
    bool fast = false;
    std::optional<std::string> name;
    cli::SweepOptions sweep;
};

// Raised as TimeoutError when wait's own timeout passes; the measurement goes on.
struct TimedOut {};

class Measurement {
public:
    Measurement(MeasurementOptions options, py::object progress)
        : options_(std::move(options)), progress_(std::move(progress)) {}
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
    std::shared_ptr<Delegate> delegate_;
    std::shared_ptr<VELTRZMeasurementController> controller_;
    std::string deviceName_;
    std::chrono::steady_clock::time_point deadline_;
    bool cancelled_ = false;
    bool collected_ = false;
};

std::string withFastPace(const std::string& uid) {
    auto parsed = AudioDeviceUID::parse(uid);
    if (!parsed || parsed->scheme != "sim")
        return uid;
    parsed->parameters["pace"] = "fast";
    return parsed->canonicalString();
}

void Measurement::start() {
    MeasurementOptions& options = options_;
    if (options.averages < 1 || options.averages > 100)
        throw py::value_error(fmt::format("averages must be from 1 to 100 (got {}).", options.averages));
    if (options.channels.empty())
        throw py::value_error("Give at least one input channel.");
    for (std::size_t at = 0; at < options.channels.size(); ++at)
        if (options.channels[at] < 0 ||
            std::count(options.channels.begin(), options.channels.begin() + at, options.channels[at]) > 0)
            throw py::value_error("Input channels are distinct numbers counted from 0.");
    if (options.loopback && std::find(options.channels.begin(), options.channels.end(),
                                      options.loopback->second) != options.channels.end())
        throw py::value_error(
            fmt::format("The loop-back reference comes from input {}, which is also measured: "
                        "the measurement would be divided by itself.",
                        options.loopback->second));
    // A simulated device is the built-in one or one described by parameters: a misspelt name would
    // otherwise measure a new default device without a word.
    if (auto parsed = AudioDeviceUID::parse(options.device);
        parsed && parsed->scheme == "sim" && parsed->name != "default" && parsed->parameters.empty())
        raise(
            "DeviceError",
            fmt::format("There is no simulated device {}; the built-in one is sim:default.", options.device),
            fmt::format("Give sim:default, or describe a device with parameters, such as sim:{}?delay=48.",
                        parsed->name));
    const std::string uid = options.fast ? withFastPace(options.device) : options.device;
    if (!AudioDeviceUID::parse(uid))
        throw py::value_error(fmt::format("{} is not a device UID such as sim:default or jack.", uid));
    if (auto problem = VELTAudioHardware::deviceUIDProblem(uid))
        raise("DeviceError", fmt::format("The device UID {} cannot be used: {}", uid, *problem),
              "tavolar.devices() lists the devices present.");
    if (VELTAudioHardware::deviceIDForDeviceUID(uid) == kAudioDeviceUnknown)
        raise("DeviceError", fmt::format("The audio device {} is not present.", uid),
              uid.starts_with("jack")
                  ? "Start the JACK server first; tavolar.devices() lists the devices present."
                  : "tavolar.devices() lists the devices present.");
    VELTAudioDevice device(uid);
    deviceName_ = device.name();
    const std::uint32_t inputs = device.channelCountForDirection(1);
    const std::uint32_t outputs = device.channelCountForDirection(0);
    for (std::int64_t channel : options.channels)
        if (channel >= inputs)
            raise("DeviceError",
                  fmt::format("{} has {} input channels; there is no input {}.", uid, inputs, channel));
    if (options.outputChannel < 0 || options.outputChannel >= outputs ||
        (options.loopback && (options.loopback->first >= outputs || options.loopback->second >= inputs)))
        raise("DeviceError",
              fmt::format("{} has {} output and {} input channels; the channels given do not exist.", uid,
                          outputs, inputs));
    const auto rate = static_cast<std::int64_t>(device.sampleRateForDirection(1));
    if (rate <= 0)
        raise("DeviceError", "The audio device reports no sample rate.");
    const VELTLogSweepSettings sweep = valueOrRaise(options.sweep.settings(rate));

    auto settings = std::make_shared<VELTAudioCaptureSettings>();
    settings->setPlaybackDeviceUID(uid);
    settings->setRecordDeviceUID(uid);
    settings->setPlaybackChannels(IndexSet{static_cast<std::uint64_t>(options.outputChannel)});
    std::vector<RecordChannelEntry> entries;
    for (std::int64_t channel : options.channels)
        entries.emplace_back(channel, nullptr, std::nullopt);
    settings->setRecordChannelEntries(entries);
    if (options.loopback) {
        settings->setCorrectionEnabled(true);
        settings->setCorrectionPlaybackChannel(options.loopback->first);
        settings->setCorrectionRecordChannel(options.loopback->second);
        settings->setCorrectionPlaybackDeviceUID(uid);
    }
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
    controller_->setAudioCaptureSettings(settings);
    controller_->setSynchronousAverages(options.averages);
    const double seconds = (sweep.duration() + sweep.beginSilence() + sweep.endSilence()) / 1000.0 *
                           static_cast<double>(options.averages);
    deadline_ = std::chrono::steady_clock::now() +
                std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 2000.0) + 60000);
    // The controller reads the bypass from the modifier keys when it starts, as a desktop would.
    VELTRZMeasurementController::setModifierFlagsProvider(
        [bypass = !options.levelCheck] { return bypass ? std::uint64_t{1} << 17 : std::uint64_t{0}; });
    controller_->measure();
    VELTRZMeasurementController::setModifierFlagsProvider(nullptr);
}

std::vector<RecordHandle> Measurement::wait(std::optional<double> timeout) {
    if (!controller_)
        throw py::value_error("The measurement has not started.");
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
    if (measured.empty()) {
        TavolarError failure =
            error.value_or(TavolarError::make("The measurement produced no impulse responses."));
        const std::string_view clicking =
            "You can hold the shift key while clicking \"Measure\" to bypass this check.";
        if (auto at = failure.localizedRecoverySuggestion.find(clicking); at != std::string::npos)
            failure.localizedRecoverySuggestion.replace(at, clicking.size(),
                                                        "Give level_check=False to bypass this check.");
        throw RaisedError{"DeviceError", failure};
    }
    std::vector<RecordHandle> records;
    for (const auto& result : measured) {
        auto record = VELTMeasurementRecord::record();
        record->setSampleRate(result->sampleRate());
        record->setImpulseResponse(result->impulseResponse());
        const RecordChannelEntry& entry = result->recordChannelEntry();
        record->setDate(result->date());
        record->setLogSweepSettings(result->logSweepSettings());
        record->setSynchronousAverages(result->synchronousAverages());
        record->setRecordChannelEntry(entry);
        if (entry.calibrationRecord()) {
            record->setMicrophoneCalibrationRecord(entry.calibrationRecord());
            record->setUseMicrophoneCalibrationRecord(true);
        }
        std::string deviceName = deviceName_;
        if (result->recordDevice()) {
            record->setAudioDeviceUID(result->recordDevice()->uid);
            record->setAudioDeviceName(result->recordDevice()->name);
            deviceName = result->recordDevice()->name;
        }
        std::string name = options_.name.value_or(deviceName);
        if (!options_.name || measured.size() > 1)
            name += fmt::format(" (input {})", entry.channel());
        record->setComment(name);
        cli::applyDefaultAnalysisSettings(*record);
        nlohmann::json loopback = nullptr;
        if (options_.loopback)
            loopback = {{"output", options_.loopback->first}, {"input", options_.loopback->second}};
        records.push_back({record, nullptr, std::move(loopback)});
    }
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
        .def(py::init([](std::string device, std::vector<std::int64_t> channels, std::int64_t outputChannel,
                         std::optional<std::pair<std::int64_t, std::int64_t>> loopback, py::object sweep,
                         std::int64_t averages, bool levelCheck, bool fast, std::optional<std::string> name,
                         py::object progress) {
                 auto measurement = std::make_unique<Measurement>(
                     MeasurementOptions{std::move(device), std::move(channels), outputChannel, loopback,
                                        averages, levelCheck, fast, std::move(name), sweepOptions(sweep)},
                     std::move(progress));
                 measurement->start();
                 return measurement;
             }),
             py::kw_only(), py::arg("device"), py::arg("channels"), py::arg("output_channel"),
             py::arg("loopback"), py::arg("sweep"), py::arg("averages"), py::arg("level_check"),
             py::arg("fast"), py::arg("name"), py::arg("progress"))
        .def("wait", &Measurement::wait, py::arg("timeout") = py::none())
        .def("cancel", &Measurement::cancel)
        .def_property_readonly("done", &Measurement::done);
}

} // namespace tavolar::python
