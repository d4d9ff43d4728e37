// devices and measure: the subcommands that use audio devices.

#include "CommandLine.h"
#include "MeasurementSetup.h"
#include "RecordDescription.h"
#include "RecordStore.h"
#include "SweepOptions.h"
#include "audio/devices/VELTAudioDevice.h"
#include "audio/devices/VELTAudioHardware.h"
#include "engine/VELTRZMeasurementController.h"
#include "platform/RunLoop.h"
#include "platform/UserDefaults.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fmt/format.h>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace tavolar::cli {

namespace {

nlohmann::json describeDevice(const VELTAudioDevice& device) {
    nlohmann::json json;
    json["uid"] = device.deviceUID();
    json["name"] = device.name();
    json["sampleRate"] = device.sampleRateForDirection(1);
    json["bufferSize"] = device.bufferSizeInFrames();
    for (auto [direction, key] : {std::pair{1u, "inputs"}, std::pair{0u, "outputs"}}) {
        nlohmann::json channels = nlohmann::json::array();
        for (std::uint32_t channel = 0; channel < device.channelCountForDirection(direction); ++channel) {
            const std::uint32_t latency = direction == 1 ? device.recordingStreamLatencyForChannel(channel)
                                                         : device.playbackStreamLatencyForChannel(channel);
            channels.push_back({{"channel", channel},
                                {"name", device.channelNameForDirection(direction, channel)},
                                {"latency", latency}});
        }
        json[key] = std::move(channels);
    }
    return json;
}

// A JACK server that runs but did not answer is listed with what to do about it.
constexpr const char* kUnansweringServerAdvice =
    "Continue it if it was stopped (kill -CONT PID of jackd), or restart it, then list again.";

std::string formatDevice(const nlohmann::json& json) {
    if (json.contains("problem"))
        return fmt::format("{}  did not answer\n  {}\n  {}\n", json["uid"].get<std::string>(),
                           json["problem"].get<std::string>(), json["advice"].get<std::string>());
    std::string text = fmt::format("{}  {}\n  {:g} Hz, {} frames per buffer, {} inputs, {} outputs\n",
                                   json["uid"].get<std::string>(), json["name"].get<std::string>(),
                                   json["sampleRate"].get<double>(), json["bufferSize"].get<std::uint32_t>(),
                                   json["inputs"].size(), json["outputs"].size());
    for (auto [key, label] : {std::pair{"inputs", "in "}, std::pair{"outputs", "out"}})
        for (const auto& channel : json[key])
            text +=
                fmt::format("    {} {:>2}  {}{}\n", label, channel["channel"].get<std::uint32_t>(),
                            channel["name"].get<std::string>(),
                            channel["latency"].get<std::uint32_t>() > 0
                                ? fmt::format(" (latency {} frames)", channel["latency"].get<std::uint32_t>())
                                : std::string());
    return text;
}

} // namespace

void addDevicesCommand(CLI::App& app, CommandList& commands) {
    auto json = std::make_shared<bool>(false);
    CLI::App* command = app.add_subcommand(
        "devices", "List the audio devices: the simulated devices and every JACK server that runs");
    command->add_flag("--json", *json, "Print JSON for scripts");
    commands.push_back({command, [json]() -> Expected<void> {
                            // One at a time: a program can use only one JACK server at once.
                            nlohmann::json devices = nlohmann::json::array();
                            for (const std::string& uid : VELTAudioHardware::deviceUIDs()) {
                                if (VELTAudioDevice device(uid); device.isPresent())
                                    devices.push_back(describeDevice(device));
                                else if (auto reason = VELTAudioHardware::deviceAbsenceReason(uid))
                                    devices.push_back({{"uid", uid},
                                                       {"answered", false},
                                                       {"problem", *reason},
                                                       {"advice", kUnansweringServerAdvice}});
                                VELTAudioHardware::releaseDevice(uid);
                            }
                            if (*json) {
                                // Names come from other programs and may not be UTF-8 (the UIDs
                                // are): such bytes are shown as replacement characters.
                                printLine(
                                    devices.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
                                return {};
                            }
                            std::string text;
                            for (const auto& device : devices)
                                text += formatDevice(device);
                            if (!VELTAudioHardware::hasJackBackend())
                                text += "(This build has no JACK backend.)\n";
                            if (!text.empty())
                                text.pop_back();
                            printLine(text);
                            return {};
                        }});
}

namespace {

std::atomic<bool> interrupted{false};

extern "C" void noteInterrupt(int) {
    interrupted.store(true);
}

// Follows the controller's stages: progress for a person at a terminal (the sweep playing and a bar
// of how much of it has played, redrawn in place), and the end for the run loop.
class MeasureDelegate : public VELTRZMeasurementControllerDelegate {
public:
    MeasureDelegate(bool showProgress, std::int64_t sweeps, double sweepSeconds)
        : showProgress_(showProgress), sweeps_(sweeps), sweepSeconds_(sweepSeconds) {}

    void measurementControllerDidBeginPlayback(VELTRZMeasurementController&) override {
        sweepBegan_.store(std::chrono::steady_clock::now().time_since_epoch().count());
        sweepsStarted_.fetch_add(1);
    }
    void measurementControllerDidEndPlayback(VELTRZMeasurementController&) override {
        playbackEnded_.store(true);
    }
    void measurementController(VELTRZMeasurementController&,
                               const std::map<std::string, std::int64_t>& progress) override {
        const std::int64_t current = progress.count("current") ? progress.at("current") : 0;
        const std::int64_t total = progress.count("total") ? progress.at("total") : 0;
        endProgressLine();
        if (showProgress_ && total > 0)
            printNote(current < total
                          ? fmt::format("Deconvolving channel {} of {}...", current + 1, total)
                          : fmt::format("Deconvolved {} channel{}.", total, total == 1 ? "" : "s"));
    }
    void measurementControllerDidEndConvolution(VELTRZMeasurementController&) override {
        finished_.store(true);
    }
    void measurementControllerDidAbort(VELTRZMeasurementController&) override { finished_.store(true); }

    bool finished() const { return finished_.load(); }

    // Redraws the progress line; called from the run loop while the sweeps play.
    void drawProgress() {
        const std::int64_t sweep = sweepsStarted_.load();
        if (!showProgress_ || sweep == 0 || progressEnded_)
            return;
        const std::chrono::duration<double> played =
            std::chrono::steady_clock::now() -
            std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(sweepBegan_.load()));
        const double fraction =
            playbackEnded_.load() ? 1.0 : std::clamp(played.count() / sweepSeconds_, 0.0, 1.0);
        constexpr int kWidth = 30;
        const auto filled = static_cast<std::size_t>(fraction * kWidth);
        const std::string line =
            fmt::format("\rSweep {} of {} [{}{}] {:3.0f}%", sweep, sweeps_, std::string(filled, '#'),
                        std::string(kWidth - filled, '-'), fraction * 100.0);
        std::fwrite(line.data(), 1, line.size(), stderr);
        std::fflush(stderr);
        lineOpen_ = true;
    }
    // Ends the progress line for good, so that what follows starts on a line of its own.
    void endProgressLine() {
        if (lineOpen_) {
            drawProgress();
            std::fputc('\n', stderr);
        }
        lineOpen_ = false;
        progressEnded_ = true;
    }

private:
    bool showProgress_;
    std::int64_t sweeps_;
    double sweepSeconds_;
    std::atomic<std::int64_t> sweepsStarted_{0};
    std::atomic<std::chrono::steady_clock::rep> sweepBegan_{0};
    bool lineOpen_ = false;
    bool progressEnded_ = false;
    std::atomic<bool> playbackEnded_{false};
    std::atomic<bool> finished_{false};
};

struct MeasureOptions {
    std::string document;
    std::string device = "sim:default";
    std::optional<std::string> playbackDevice;
    std::string channels = "0";
    std::int64_t outputChannel = 0;
    std::optional<std::string> loopback;
    std::int64_t averages = 1;
    bool noLevelCheck = false;
    std::optional<std::string> clientName;
    bool noConnect = false;
    bool fast = false;
    bool json = false;
    std::optional<std::string> name;
    SweepOptions sweep;
};

Expected<void> runMeasurement(MeasureOptions& options) {
    if (options.averages < 1 || options.averages > 100)
        return usageFailure(fmt::format("--averages must be from 1 to 100 (got {}).", options.averages));
    auto recordChannels = parseIndexList(options.channels);
    if (!recordChannels)
        return usageFailure(
            fmt::format("--channels {} is not a list of input channels such as 0 or 0,1.", options.channels));
    std::optional<std::pair<std::int64_t, std::int64_t>> loopback;
    if (options.loopback) {
        std::string text = *options.loopback;
        const std::size_t colon = text.find(':');
        std::optional<std::vector<std::int64_t>> pair;
        if (colon != std::string::npos && text.find(':', colon + 1) == std::string::npos)
            pair = parseIndexList(text.replace(colon, 1, ","));
        if (!pair || pair->size() != 2)
            return usageFailure(fmt::format("--loopback {} is not an OUTPUT:INPUT channel pair such as 1:1.",
                                            *options.loopback));
        loopback = std::pair{(*pair)[0], (*pair)[1]};
    }
    MeasurementRequest request{
        options.device,     options.playbackDevice, *recordChannels, options.outputChannel, loopback,
        options.clientName, options.noConnect,      options.fast,    options.sweep};
    auto prepared = prepareMeasurement(request, kCommandLineWords);
    if (!prepared)
        return std::unexpected(prepared.error());
    const std::string& recordUID = prepared->recordUID;
    const std::int64_t recordRate = prepared->sampleRate;
    const VELTLogSweepSettings& sweep = prepared->sweep;

    // An existing document is opened now, so that a damaged one is reported before the measurement;
    // a new one is made only once there are records to put in it.
    std::optional<RecordStore> store;
    std::error_code status;
    if (std::filesystem::exists(options.document, status)) {
        auto opened = RecordStore::open(options.document, RecordStore::Mode::ReadWrite);
        if (!opened)
            return std::unexpected(opened.error());
        store = std::move(*opened);
    }
    std::optional<VELTAudioCaptureSettings> stored;
    if (store) {
        auto read = store->captureSettings();
        if (!read)
            return std::unexpected(read.error());
        stored = std::move(*read);
    }

    auto settings = measurementCaptureSettings(request, *prepared, stored);

    UserDefaults::standard().registerDefaults({{"ChecksRecordingLevel", true}});
    VELTRZMeasurementController::setModifierFlagsProvider(
        [bypass = options.noLevelCheck] { return bypass ? std::uint64_t{1} << 17 : std::uint64_t{0}; });
    const bool showProgress = !quiet() && standardErrorIsTerminal();
    auto delegate = std::make_shared<MeasureDelegate>(
        showProgress, options.averages,
        (sweep.duration() + sweep.beginSilence() + sweep.endSilence()) / 1000.0);
    // A new controller first configures its audio controllers for default settings that name no
    // device; the errors that logs are expected, and the real settings follow at once.
    muteConsoleLog();
    auto controller = VELTRZMeasurementController::make();
    installConsoleLog();
    controller->setDelegate(delegate);
    controller->setLogSweepSettings(sweep);
    controller->setAudioCaptureSettings(settings);
    controller->setSynchronousAverages(options.averages);

    printNote(fmt::format("Measuring input{} {} of {} ({}; {} sweep{})...",
                          recordChannels->size() == 1 ? "" : "s", options.channels, recordUID,
                          describeSweep(sweep, recordRate), options.averages,
                          options.averages == 1 ? "" : "s"));
    if (options.noConnect)
        printNote(
            fmt::format("Connect the ports of the JACK client {} now (jack_lsp lists them), inputs first: "
                        "the sweep plays once an input and an output are connected.",
                        options.clientName.value_or("tavolar")));
    interrupted.store(false);
    // Ctrl-C aborts the measurement cleanly; a program started with SIGINT ignored keeps ignoring it.
    auto previousHandler = std::signal(SIGINT, noteInterrupt);
    if (previousHandler == SIG_IGN)
        std::signal(SIGINT, SIG_IGN);
    // Restored when the command ends: a Ctrl-C after the sweeps stops the command before the
    // document is touched, or once it is saved, and never cuts a save short.
    struct RestoreHandler {
        void (*handler)(int);
        ~RestoreHandler() { std::signal(SIGINT, handler); }
    } restoreHandler{previousHandler};
    const double sweepSeconds = (sweep.duration() + sweep.beginSilence() + sweep.endSilence()) / 1000.0 *
                                static_cast<double>(options.averages);
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::milliseconds(static_cast<std::int64_t>(sweepSeconds * 2000.0) + 60000);
    controller->measure();
    bool aborted = false;
    bool timedOut = false;
    while (!delegate->finished()) {
        RunLoop::runUntil([&] { return delegate->finished() || (interrupted.load() && !aborted); },
                          std::chrono::milliseconds(200));
        if (interrupted.load() && !aborted) {
            aborted = true;
            controller->abortMeasurement();
        }
        if (std::chrono::steady_clock::now() > deadline && !aborted) {
            aborted = timedOut = true;
            controller->abortMeasurement();
        }
        delegate->drawProgress();
    }
    // Let progress notes queued before the end reach the terminal.
    RunLoop::runOnce();
    delegate->endProgressLine();
    VELTRZMeasurementController::setModifierFlagsProvider(nullptr);

    if (timedOut && options.noConnect)
        return failure("The measurement did not finish in time: the client's ports were not connected.",
                       "Connect an input and then an output port of the client while tavolar waits.");
    if (timedOut)
        return failure("The measurement did not finish in time: the audio device stopped delivering sound.",
                       "Check the device with tavolar devices and try again.");
    std::optional<TavolarError> error = controller->error();
    if (aborted || interrupted.load())
        return failure("Measurement Aborted", "The measurement was interrupted; nothing was stored.");
    std::vector<std::shared_ptr<const VELTRZMeasurement>> results = controller->measurementArray();
    if (results.empty())
        return std::unexpected(measurementFailureAdvice(
            error.value_or(TavolarError::make("The measurement produced no impulse responses.")),
            controller->recordingPeakLevels(), request, kCommandLineWords));

    if (!store) {
        auto created = RecordStore::open(options.document, RecordStore::Mode::CreateIfMissing);
        if (!created)
            return std::unexpected(created.error());
        store = std::move(*created);
    }
    std::vector<std::shared_ptr<VELTMeasurementRecord>> records;
    std::vector<std::string> impulses;
    for (const auto& result : results) {
        auto record = store->makeRecord(result->impulseResponse(), result->sampleRate());
        describeMeasuredRecord(*record, *result, prepared->recordDevice.name(), options.name, results.size());
        if (loopback)
            store->setLoopbackReference(record->impulseUUID(),
                                        {{"output", loopback->first}, {"input", loopback->second}});
        impulses.push_back(record->impulseUUID());
        records.push_back(std::move(record));
    }
    const std::size_t firstNumber = store->summaries().size() + 1;
    if (auto saved = store->save(records, impulses); !saved)
        return saved;
    // The channels' calibrations stay with the document for the next measurement.
    if (auto saved = store->putCaptureSettings(keptCaptureSettings(*settings, stored)); !saved)
        return saved;

    nlohmann::json added = nlohmann::json::array();
    for (std::size_t at = 0; at < records.size(); ++at) {
        const VELTMeasurementRecord& record = *records[at];
        if (options.json)
            added.push_back(nlohmann::json{{"number", firstNumber + at},
                                           {"uuid", record.impulseUUID()},
                                           {"name", RecordStore::displayName(record)},
                                           {"channel", record.recordChannelEntry()->channel()},
                                           {"delayMilliseconds", record.delayToPeakInMilliseconds()},
                                           {"distanceMeters", record.distanceToPeakInMeters()}});
        else
            printLine(fmt::format("Record {}: {} ({}), delay {:.3f} ms, distance {:.3f} m", firstNumber + at,
                                  RecordStore::displayName(record), record.impulseUUID(),
                                  record.delayToPeakInMilliseconds(), record.distanceToPeakInMeters()));
    }
    if (options.json)
        printLine(jsonText({{"document", validUTF8(options.document)}, {"added", added}}));
    if (error)
        return std::unexpected(measurementFailureAdvice(*error, {}, request, kCommandLineWords));
    return {};
}

} // namespace

void addMeasureCommand(CLI::App& app, CommandList& commands) {
    auto options = std::make_shared<MeasureOptions>();
    CLI::App* command = app.add_subcommand("measure", "Measure with a swept sine into a document");
    addOutputArgument(*command, options->document, "document", "The document (created if missing)");
    command->add_option("-d,--device", options->device, "Record device UID (see tavolar devices)")
        ->capture_default_str();
    command->add_option("--playback-device", options->playbackDevice,
                        "Playback device UID (default: --device)");
    command->add_option("--channels", options->channels, "Input channels to record, comma-separated")
        ->capture_default_str();
    command->add_option("--output-channel", options->outputChannel, "Output channel that plays the sweep")
        ->capture_default_str();
    command->add_option(
        "--loopback", options->loopback,
        "OUTPUT:INPUT loop-back pair whose recording is divided out as a reference, e.g. 1:1");
    command->add_option("-a,--averages", options->averages, "Sweeps averaged")->capture_default_str();
    command->add_flag("--no-level-check", options->noLevelCheck,
                      "Keep recordings that are too quiet or clipped");
    command->add_option("--client-name", options->clientName,
                        "The JACK client's name (default: tavolar), so that measurements can run side by "
                        "side and connections can name it");
    command->add_flag("--no-connect", options->noConnect,
                      "Connect no JACK port: connect the client's ports yourself, inputs first (each sweep "
                      "waits until an input and an output port are connected; connections are kept "
                      "between sweeps)");
    command->add_flag("--fast", options->fast, "Run simulated devices as fast as the machine allows");
    command->add_option("--name", options->name, "The records' name (default: the device's name and input)");
    command->add_flag("--json", options->json, "Print what was added as JSON for scripts");
    options->sweep.defaultLevel = -3.0f;
    options->sweep.addTo(*command);
    commands.push_back({command, [options]() -> Expected<void> { return runMeasurement(*options); }});
}

} // namespace tavolar::cli
