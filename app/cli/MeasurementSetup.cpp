// The devices, capture settings, records and advice of a measurement, for the measure command and
// the Python package alike.

#include "MeasurementSetup.h"

#include "CommandLine.h"
#include "RecordStore.h"
#include "audio/devices/AudioDeviceUID.h"
#include "audio/devices/VELTAudioHardware.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <fmt/format.h>

namespace tavolar::cli {

namespace {

// A simulated device is the built-in one, or one described by parameters: a misspelt name with
// neither would otherwise measure a new default device without a word.
Expected<void> requireKnownSimulatedDevice(const std::string& uid, const MeasurementWords& words) {
    auto parsed = AudioDeviceUID::parse(uid);
    if (!parsed || parsed->scheme != "sim" || parsed->name == "default" || !parsed->parameters.empty())
        return {};
    return usageFailure(fmt::format("There is no simulated device {}; the built-in one is sim:default.", uid),
                        fmt::format("Give sim:default, or describe a device with parameters, such as "
                                    "sim:{}?delay=48 ({} lists the devices present).",
                                    parsed->name, words.listDevices));
}

// The JACK client's name and the choice to connect no port, as parameters of a JACK device's UID (a
// client the UID names already keeps its name, so that record and playback devices can be two clients).
Expected<std::string> withJackClientOptions(const std::string& uid, const MeasurementRequest& request,
                                            const MeasurementWords& words) {
    auto parsed = AudioDeviceUID::parse(uid);
    if ((!request.clientName && !request.noConnect) || !parsed)
        return uid;
    if (parsed->scheme != "jack")
        return usageFailure(fmt::format("{} and {} apply to JACK devices; {} is not one.", words.clientName,
                                        words.noConnect, uid));
    if (request.noConnect && std::ranges::any_of(parsed->parameters, [](const auto& parameter) {
            return parameter.first.starts_with("in") || parameter.first.starts_with("out");
        }))
        return usageFailure(
            fmt::format("{} leaves every connection to you, so the routes of {} would not be "
                        "made.",
                        words.noConnect, uid),
            fmt::format("Give either the routes (inN=PORT, outN=PORT) or {}.", words.noConnect));
    if (request.clientName && !parsed->parameters.contains("client"))
        parsed->parameters["client"] = *request.clientName;
    if (request.noConnect)
        parsed->parameters["connect"] = "no";
    return parsed->canonicalString();
}

Expected<VELTAudioDevice> presentDevice(const std::string& uid, const MeasurementWords& words) {
    if (!AudioDeviceUID::parse(uid))
        return usageFailure(
            fmt::format("{} is not a device UID.", uid),
            fmt::format("Device UIDs look like sim:default or jack; run {} to see them.", words.listDevices));
    if (auto problem = VELTAudioHardware::deviceUIDProblem(uid))
        return usageFailure(
            fmt::format("The device UID {} cannot be used: {}",
                        uid.size() > 60 ? uid.substr(0, 57) + "..." : uid, *problem),
            fmt::format("Run {} to see the devices present and their ports.", words.listDevices));
    if (VELTAudioHardware::deviceIDForDeviceUID(uid) == kAudioDeviceUnknown) {
        if (auto reason = VELTAudioHardware::deviceAbsenceReason(uid))
            return failure(*reason, "Continue the server if it was stopped (kill -CONT and its process "
                                    "number), or restart it.");
        return failure(fmt::format("The audio device {} is not present.", uid),
                       uid.starts_with("jack")
                           ? fmt::format("Start the JACK server first, or run {} to see the devices present.",
                                         words.listDevices)
                           : fmt::format("Run {} to see the devices present.", words.listDevices));
    }
    return VELTAudioDevice(uid);
}

} // namespace

Expected<PreparedMeasurement> prepareMeasurement(const MeasurementRequest& request,
                                                 const MeasurementWords& words) {
    const std::vector<std::int64_t>& channels = request.channels;
    if (channels.empty())
        return usageFailure("Give at least one input channel.");
    for (std::size_t at = 0; at < channels.size(); ++at) {
        if (channels[at] < 0)
            return usageFailure("Channels are counted from 0.");
        if (std::count(channels.begin(), channels.begin() + at, channels[at]) > 0)
            return usageFailure(fmt::format("The channels name input {} twice.", channels[at]),
                                "Name each input once: each gives one record.");
    }
    if (request.outputChannel < 0 ||
        (request.loopback && (request.loopback->first < 0 || request.loopback->second < 0)))
        return usageFailure("Channels are counted from 0.");
    if (request.loopback && std::ranges::find(channels, request.loopback->second) != channels.end())
        return usageFailure(
            fmt::format("The loop-back reference {}:{} comes from input {}, which is also measured: the "
                        "measurement would be divided by itself.",
                        request.loopback->first, request.loopback->second, request.loopback->second),
            "Connect the output to a spare input and name that one, such as the loop-back pair 1:1 on "
            "sim:default.");
    for (const std::optional<std::string>& uid : {std::optional(request.device), request.playbackDevice})
        if (uid)
            if (auto known = requireKnownSimulatedDevice(*uid, words); !known)
                return std::unexpected(known.error());

    auto recordJackUID = withJackClientOptions(request.device, request, words);
    if (!recordJackUID)
        return std::unexpected(recordJackUID.error());
    auto playbackJackUID =
        withJackClientOptions(request.playbackDevice.value_or(request.device), request, words);
    if (!playbackJackUID)
        return std::unexpected(playbackJackUID.error());
    PreparedMeasurement prepared;
    prepared.recordUID = request.fast ? withFastPace(*recordJackUID) : *recordJackUID;
    prepared.playbackUID = request.playbackDevice
                               ? (request.fast ? withFastPace(*playbackJackUID) : *playbackJackUID)
                               : prepared.recordUID;
    auto recordDevice = presentDevice(prepared.recordUID, words);
    if (!recordDevice)
        return std::unexpected(recordDevice.error());
    auto playbackDevice = presentDevice(prepared.playbackUID, words);
    if (!playbackDevice)
        return std::unexpected(playbackDevice.error());
    prepared.recordDevice = std::move(*recordDevice);
    prepared.playbackDevice = std::move(*playbackDevice);

    const std::uint32_t inputs = prepared.recordDevice.channelCountForDirection(1);
    const std::uint32_t outputs = prepared.playbackDevice.channelCountForDirection(0);
    for (std::int64_t channel : channels)
        if (channel >= inputs)
            return usageFailure(fmt::format("{} has {} input channels (0 to {}); there is no input {}.",
                                            prepared.recordUID, inputs, inputs == 0 ? 0 : inputs - 1,
                                            channel));
    if (request.outputChannel >= outputs)
        return usageFailure(fmt::format("{} has {} output channels; there is no output {}.",
                                        prepared.playbackUID, outputs, request.outputChannel));
    if (request.loopback && (request.loopback->first >= outputs || request.loopback->second >= inputs))
        return usageFailure(fmt::format("The loop-back pair {}:{} does not exist on these devices.",
                                        request.loopback->first, request.loopback->second));
    const auto recordRate = static_cast<std::int64_t>(prepared.recordDevice.sampleRateForDirection(1));
    const auto playbackRate = static_cast<std::int64_t>(prepared.playbackDevice.sampleRateForDirection(0));
    if (recordRate <= 0 || playbackRate <= 0)
        return failure("The audio device reports no sample rate.");
    prepared.sampleRate = recordRate;
    auto sweep = request.sweep.settings(std::min(recordRate, playbackRate));
    if (!sweep)
        return std::unexpected(sweep.error());
    prepared.sweep = *sweep;
    return prepared;
}

std::shared_ptr<VELTAudioCaptureSettings>
measurementCaptureSettings(const MeasurementRequest& request, const PreparedMeasurement& prepared,
                           const std::optional<VELTAudioCaptureSettings>& stored) {
    auto settings = std::make_shared<VELTAudioCaptureSettings>();
    settings->setPlaybackDeviceUID(prepared.playbackUID);
    settings->setRecordDeviceUID(prepared.recordUID);
    settings->setPlaybackChannels(IndexSet{static_cast<std::uint64_t>(request.outputChannel)});
    std::vector<RecordChannelEntry> entries;
    for (std::int64_t channel : request.channels) {
        RecordChannelEntry entry(channel, nullptr, std::nullopt);
        if (stored)
            for (const RecordChannelEntry& known : stored->recordChannelEntries())
                if (known.channel() == channel) {
                    entry = known;
                    break;
                }
        entries.push_back(entry);
    }
    settings->setRecordChannelEntries(entries);
    if (request.loopback) {
        settings->setCorrectionEnabled(true);
        settings->setCorrectionPlaybackChannel(request.loopback->first);
        settings->setCorrectionRecordChannel(request.loopback->second);
        settings->setCorrectionPlaybackDeviceUID(prepared.playbackUID);
    }
    return settings;
}

VELTAudioCaptureSettings keptCaptureSettings(const VELTAudioCaptureSettings& used,
                                             const std::optional<VELTAudioCaptureSettings>& stored) {
    VELTAudioCaptureSettings kept = used;
    if (!stored)
        return kept;
    std::vector<RecordChannelEntry> entries = used.recordChannelEntries();
    for (const RecordChannelEntry& known : stored->recordChannelEntries())
        if (std::ranges::none_of(used.recordChannelEntries(), [&](const RecordChannelEntry& entry) {
                return entry.channel() == known.channel();
            }))
            entries.push_back(known);
    kept.setRecordChannelEntries(entries);
    return kept;
}

void describeMeasuredRecord(VELTMeasurementRecord& record, const VELTRZMeasurement& result,
                            const std::string& deviceName, const std::optional<std::string>& name,
                            std::size_t resultCount) {
    const RecordChannelEntry& entry = result.recordChannelEntry();
    record.setDate(result.date());
    record.setLogSweepSettings(result.logSweepSettings());
    record.setSynchronousAverages(result.synchronousAverages());
    record.setRecordChannelEntry(entry);
    if (entry.calibrationRecord()) {
        record.setMicrophoneCalibrationRecord(entry.calibrationRecord());
        record.setUseMicrophoneCalibrationRecord(true);
    }
    std::string recordName = deviceName;
    if (result.recordDevice()) {
        record.setAudioDeviceUID(result.recordDevice()->uid);
        record.setAudioDeviceName(result.recordDevice()->name);
        recordName = result.recordDevice()->name;
    }
    if (name)
        recordName = *name;
    if (!name || resultCount > 1)
        recordName += fmt::format(" (input {})", entry.channel());
    record.setComment(recordName);
    applyDefaultAnalysisSettings(record);
}

TavolarError measurementFailureAdvice(TavolarError error, const std::vector<float>& peaks,
                                      const MeasurementRequest& request, const MeasurementWords& words) {
    // The engine's advice speaks of a key held while clicking; a host has an option instead.
    const std::string_view clicking =
        "You can hold the shift key while clicking \"Measure\" to bypass this check.";
    if (auto at = error.localizedRecoverySuggestion.find(clicking); at != std::string::npos)
        error.localizedRecoverySuggestion.replace(
            at, clicking.size(),
            fmt::format("Give {} to bypass this check, or change {}.", words.bypassLevelCheck, words.level));

    const bool quiet = error.localizedDescription == "The Recording is Too Quiet";
    const bool clipped = error.localizedDescription == "The Recording Clipped!";
    if ((!quiet && !clipped) || peaks.empty())
        return error;
    auto name = [&](std::size_t channel) {
        if (channel < request.channels.size())
            return fmt::format("input {}", request.channels[channel]);
        return request.loopback ? fmt::format("the loop-back input {}", request.loopback->second)
                                : std::string("the loop-back input");
    };
    auto level = [](float peak) {
        return std::isfinite(peak) ? fmt::format("{:.1f} dBFS", peak) : std::string("silence");
    };
    std::string cause;
    if (clipped) {
        for (std::size_t c = 0; c < peaks.size(); ++c)
            if (peaks[c] >= 0.0f)
                cause += fmt::format("{}{} reached full scale", cause.empty() ? "" : "; ", name(c));
        cause += fmt::format(": lower {} or the input's gain.", words.level);
    } else {
        std::size_t loudest =
            static_cast<std::size_t>(std::max_element(peaks.begin(), peaks.end()) - peaks.begin());
        std::vector<std::size_t> silent;
        for (std::size_t c = 0; c < peaks.size(); ++c)
            if (!(peaks[c] >= -20.0f))
                silent.push_back(c);
        if (silent.size() < peaks.size()) {
            for (std::size_t c : silent)
                cause +=
                    fmt::format("{}{} peaked at {}", cause.empty() ? "" : "; ", name(c), level(peaks[c]));
            cause +=
                fmt::format(", while {} peaked at {}: check that input's cable or routing, or leave it out.",
                            name(loudest), level(peaks[loudest]));
        } else if (!(peaks[loudest] >= -90.0f)) {
            cause = fmt::format("No sound reached any input (the loudest, {}, peaked at {}): check that the "
                                "output plays the sweep ({}, {}) and that it reaches the inputs.",
                                name(loudest), level(peaks[loudest]), words.outputChannel, words.level);
        } else {
            cause =
                fmt::format("The loudest input, {}, peaked at {}, below -20 dBFS: raise {} or the input's "
                            "gain.",
                            name(loudest), level(peaks[loudest]), words.level);
        }
    }
    cause[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(cause[0])));
    error.localizedRecoverySuggestion = cause + "\n" + error.localizedRecoverySuggestion;
    return error;
}

std::string withFastPace(const std::string& uid) {
    auto parsed = AudioDeviceUID::parse(uid);
    if (!parsed || parsed->scheme != "sim")
        return uid;
    parsed->parameters["pace"] = "fast";
    return parsed->canonicalString();
}

} // namespace tavolar::cli
