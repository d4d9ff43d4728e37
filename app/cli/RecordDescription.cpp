#include "RecordDescription.h"

#include "audio/MicrophoneCalibrationRecord.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <ctime>
#include <fmt/format.h>

namespace tavolar::cli {

namespace {

constexpr std::array<std::string_view, 7> kWindowTypeNames = {
    "none", "hamming", "half-hamming", "hanning", "half-hanning", "bingham", "half-bingham"};

struct NamedColor {
    std::string_view name;
    ArchivedColor color;
};
constexpr std::array<NamedColor, 11> kNamedColors = {{
    {"black", {0, 0, 0, 1}},
    {"white", {1, 1, 1, 1}},
    {"red", {1, 0, 0, 1}},
    {"green", {0, 0.5, 0, 1}},
    {"blue", {0, 0, 1, 1}},
    {"yellow", {1, 1, 0, 1}},
    {"cyan", {0, 1, 1, 1}},
    {"magenta", {1, 0, 1, 1}},
    {"orange", {1, 0.5, 0, 1}},
    {"purple", {0.5, 0, 0.5, 1}},
    {"grey", {0.5, 0.5, 0.5, 1}},
}};

// A single-precision value as the shortest decimal that reads back as the same float, so that JSON
// shows 0.1 rather than the double nearest 0.1f.
double shortest(float value) {
    if (!std::isfinite(value))
        return static_cast<double>(value);
    std::array<char, 64> text{};
    auto [end, status] = std::to_chars(text.data(), text.data() + text.size(), value);
    double result = 0.0;
    std::from_chars(text.data(), end, result);
    return result;
}

nlohmann::json optionalText(const std::optional<std::string>& text) {
    return text ? nlohmann::json(*text) : nlohmann::json(nullptr);
}

std::string localDateText(const std::string& iso) {
    return iso.size() == 20 ? iso.substr(0, 10) + " " + iso.substr(11, 8) + " UTC" : iso;
}

} // namespace

std::string windowTypeName(std::int64_t type) {
    if (type >= 0 && type < static_cast<std::int64_t>(kWindowTypeNames.size()))
        return std::string(kWindowTypeNames[static_cast<std::size_t>(type)]);
    return fmt::format("none ({})", type);
}

std::optional<std::int64_t> windowTypeFromName(std::string_view name) {
    for (std::size_t index = 0; index < kWindowTypeNames.size(); ++index)
        if (kWindowTypeNames[index] == name)
            return static_cast<std::int64_t>(index);
    return std::nullopt;
}

std::vector<std::string> windowTypeNames() {
    return {kWindowTypeNames.begin(), kWindowTypeNames.end()};
}

std::optional<ArchivedColor> parseColor(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == "gray")
        lower = "grey";
    for (const NamedColor& named : kNamedColors)
        if (named.name == lower)
            return named.color;
    if (lower.starts_with('#'))
        lower.erase(0, 1);
    if (lower.size() != 6 && lower.size() != 8)
        return std::nullopt;
    if (!std::all_of(lower.begin(), lower.end(), [](unsigned char c) { return std::isxdigit(c); }))
        return std::nullopt;
    auto component = [&](std::size_t at) {
        unsigned value = 0;
        std::from_chars(lower.data() + at, lower.data() + at + 2, value, 16);
        return value / 255.0;
    };
    return ArchivedColor{component(0), component(2), component(4), lower.size() == 8 ? component(6) : 1.0};
}

std::string colorHex(const ArchivedColor& color) {
    auto byte = [](double component) {
        return static_cast<unsigned>(std::lround(std::clamp(component, 0.0, 1.0) * 255.0));
    };
    std::string hex =
        fmt::format("#{:02X}{:02X}{:02X}", byte(color.red), byte(color.green), byte(color.blue));
    if (byte(color.alpha) != 255)
        hex += fmt::format("{:02X}", byte(color.alpha));
    return hex;
}

std::optional<std::string> isoDate(ArchivedDate date) {
    const double seconds = date.time_since_epoch().count();
    constexpr double kFirstSecond = -62135596800.0; // 0001-01-01T00:00:00Z
    constexpr double kEndSecond = 253402300800.0;   // 10000-01-01T00:00:00Z
    if (!(seconds >= kFirstSecond && seconds < kEndSecond))
        return std::nullopt;
    std::time_t whole = static_cast<std::time_t>(std::floor(seconds));
    std::tm parts{};
    gmtime_r(&whole, &parts);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return std::string(text.data());
}

namespace {
// A record's date for JSON: null when there is none or it cannot be written.
nlohmann::json dateValue(const std::optional<ArchivedDate>& date) {
    const std::optional<std::string> text = date ? isoDate(*date) : std::nullopt;
    return text ? nlohmann::json(*text) : nlohmann::json(nullptr);
}
} // namespace

nlohmann::json describeRecord(const VELTMeasurementRecord& record, std::size_t number,
                              const nlohmann::json& loopbackReference) {
    nlohmann::json json;
    json["number"] = number;
    json["uuid"] = record.impulseUUID();
    json["name"] = record.comment().value_or("");
    json["comment"] = optionalText(record.comment());
    json["notes"] = optionalText(record.notes());
    json["date"] = dateValue(record.date());
    json["sampleRate"] = record.sampleRate();

    std::shared_ptr<const VELTRealVector> impulse = record.impulseResponse();
    json["impulseLength"] = impulse ? impulse->length() : 0;
    if (impulse && impulse->length() > 0 && record.sampleRate() > 0) {
        const std::int64_t peak = record.impulsePeak();
        json["peak"] = {{"samples", peak}, {"milliseconds", shortest(record.impulsePeakInMilliseconds())}};
        json["delayMilliseconds"] = shortest(record.delayToPeakInMilliseconds());
        json["distanceMetres"] = record.distanceToPeakInMeters();
    } else {
        json["peak"] = nullptr;
        json["delayMilliseconds"] = nullptr;
        json["distanceMetres"] = nullptr;
    }

    // The window's edges are signed offsets from time zero and its end is exclusive: an end at the
    // response's midpoint is its last positive time, not the first negative one that the record's
    // circular time axis reads there.
    const std::int64_t begin = record.windowBegin(), end = record.windowEnd();
    auto milliseconds = [rate = record.sampleRate()](std::int64_t samples) {
        return rate > 0 ? shortest(static_cast<float>(1000.0 * static_cast<double>(samples) /
                                                      static_cast<double>(rate)))
                        : 0.0;
    };
    json["window"] = {
        {"beginSample", begin},
        {"endSample", end},
        {"beginMilliseconds", milliseconds(begin)},
        {"endMilliseconds", milliseconds(end)},
        {"durationMilliseconds", milliseconds(end - begin)},
        {"type", windowTypeName(record.windowType())},
    };
    json["validRange"] = {{"startFrequency", shortest(record.startFrequency())},
                          {"endFrequency", shortest(record.endFrequency())}};

    if (auto sweep = record.logSweepSettings()) {
        json["sweep"] = {
            {"name", sweep->name()},
            {"startFrequency", shortest(record.sweepStartFrequency())},
            {"endFrequency", shortest(record.sweepEndFrequency())},
            {"durationMilliseconds", shortest(sweep->duration())},
            {"levelDecibels", shortest(20.0f * std::log10(std::max(sweep->amplitude(), 1e-12f)))},
            {"beginSilenceMilliseconds", shortest(sweep->beginSilence())},
            {"endSilenceMilliseconds", shortest(sweep->endSilence())},
            {"fullRange", sweep->fullRangeSweep()},
        };
    } else {
        json["sweep"] = nullptr;
    }
    json["averages"] = record.synchronousAverages();
    json["loopback"] = loopbackReference.is_object() ? loopbackReference : nlohmann::json(nullptr);

    if (auto calibration = record.microphoneCalibrationRecord()) {
        json["calibration"] = {
            {"microphone", calibration->name()},
            {"serialNumber", optionalText(calibration->serialNumber())},
            {"sensitivity", calibration->sensitivity()},
            {"sensitivityUnit",
             std::string(labelForMicrophoneSensitivityUnit(calibration->sensitivityUnits()))},
            {"inUse", record.useMicrophoneCalibrationRecord()},
            {"points", calibration->magnitudeSpline() ? calibration->magnitudeSpline()->x().length() : 0},
            {"splOffsetDecibels", record.SPLAdjustmentOffset()},
        };
    } else {
        json["calibration"] = nullptr;
    }
    if (auto entry = record.recordChannelEntry()) {
        json["channel"] = {
            {"channel", entry->channel()},
            {"sensitivity", entry->sensitivity() ? nlohmann::json(entry->sensitivity()->stringValue())
                                                 : nlohmann::json(nullptr)},
            {"splOffsetDecibels", entry->dBSPLOffsetValue()},
        };
    } else {
        json["channel"] = nullptr;
    }
    if (record.audioDeviceUID() || record.audioDeviceName())
        json["device"] = {{"uid", optionalText(record.audioDeviceUID())},
                          {"name", optionalText(record.audioDeviceName())}};
    else
        json["device"] = nullptr;
    json["splReference"] = {{"inUse", record.useSPLReferenceLevel()},
                            {"levelDecibels", shortest(record.SPLReferenceLevel())}};
    json["speedOfSound"] = record.speedOfSound();
    json["color"] =
        record.plotColor() ? nlohmann::json(colorHex(*record.plotColor())) : nlohmann::json(nullptr);
    json["normalized"] = record.normalized();
    return json;
}

namespace {

std::string textOr(const nlohmann::json& value, std::string_view fallback) {
    return value.is_string() ? value.get<std::string>() : std::string(fallback);
}

} // namespace

std::string formatRecordDescription(const nlohmann::json& json) {
    std::string text;
    auto line = [&](std::string_view label, const std::string& value) {
        text += fmt::format("  {:<15}{}\n", label, value);
    };
    const std::string name = json["name"].get<std::string>();
    text +=
        fmt::format("Record {}: {}\n", json["number"].get<std::size_t>(), name.empty() ? "Untitled" : name);
    line("UUID", json["uuid"].get<std::string>());
    line("Date", json["date"].is_string() ? localDateText(json["date"].get<std::string>()) : "unknown");
    const std::int64_t rate = json["sampleRate"].get<std::int64_t>();
    const std::size_t length = json["impulseLength"].get<std::size_t>();
    line("Sample rate", rate > 0
                            ? fmt::format("{} Hz, {} samples ({:.1f} ms)", rate, length,
                                          1000.0 * static_cast<double>(length) / static_cast<double>(rate))
                            : std::string("unknown"));
    if (json["peak"].is_object()) {
        line("Peak", fmt::format("sample {}, {:.3f} ms", json["peak"]["samples"].get<std::int64_t>(),
                                 json["peak"]["milliseconds"].get<double>()));
        line("Delay", fmt::format("{:.3f} ms, distance {:.3f} m at {:.2f} m/s",
                                  json["delayMilliseconds"].get<double>(),
                                  json["distanceMetres"].get<double>(), json["speedOfSound"].get<double>()));
    } else {
        line("Peak", "no impulse response");
    }
    const auto& window = json["window"];
    line("Window",
         fmt::format("{:.3f} ms to {:.3f} ms ({:.3f} ms), {}", window["beginMilliseconds"].get<double>(),
                     window["endMilliseconds"].get<double>(), window["durationMilliseconds"].get<double>(),
                     window["type"].get<std::string>()));
    line("Valid range", fmt::format("{:g} Hz to {:g} Hz", json["validRange"]["startFrequency"].get<double>(),
                                    json["validRange"]["endFrequency"].get<double>()));
    if (const auto& sweep = json["sweep"]; sweep.is_object())
        line("Sweep",
             fmt::format("{}: {:g} Hz to {:g} Hz, {:g} ms, {:.1f} dBFS, silences {:g} + {:g} ms",
                         sweep["name"].get<std::string>(), sweep["startFrequency"].get<double>(),
                         sweep["endFrequency"].get<double>(), sweep["durationMilliseconds"].get<double>(),
                         sweep["levelDecibels"].get<double>(),
                         sweep["beginSilenceMilliseconds"].get<double>(),
                         sweep["endSilenceMilliseconds"].get<double>()));
    else
        line("Sweep", "unknown");
    line("Averages", std::to_string(json["averages"].get<std::int64_t>()));
    if (const auto& loopback = json["loopback"]; loopback.contains("file"))
        line("Loop-back", fmt::format("{}, divided out", loopback["file"].get<std::string>()));
    else if (loopback.is_object())
        line("Loop-back",
             fmt::format("output {} to input {}, divided out", loopback["output"].get<std::int64_t>(),
                         loopback["input"].get<std::int64_t>()));
    else
        line("Loop-back", "none");
    if (const auto& calibration = json["calibration"]; calibration.is_object())
        line("Calibration", fmt::format("{}, {:g} {}, {} points, {} (SPL offset {:.2f} dB)",
                                        calibration["microphone"].get<std::string>(),
                                        calibration["sensitivity"].get<double>(),
                                        calibration["sensitivityUnit"].get<std::string>(),
                                        calibration["points"].get<std::size_t>(),
                                        calibration["inUse"].get<bool>() ? "in use" : "not in use",
                                        calibration["splOffsetDecibels"].get<double>()));
    else
        line("Calibration", "none");
    if (const auto& channel = json["channel"]; channel.is_object()) {
        std::string value = fmt::format("input {}", channel["channel"].get<std::int64_t>());
        if (const auto& device = json["device"]; device.is_object())
            value +=
                fmt::format(" of {}", textOr(device["name"], textOr(device["uid"], "an unknown device")));
        if (channel["sensitivity"].is_string())
            value += fmt::format(", full scale {}", channel["sensitivity"].get<std::string>());
        line("Channel", value);
    } else if (const auto& device = json["device"]; device.is_object()) {
        line("Device", textOr(device["name"], textOr(device["uid"], "unknown")));
    }
    const auto& reference = json["splReference"];
    line("SPL reference",
         reference["inUse"].get<bool>()
             ? fmt::format("{:g} dB", reference["levelDecibels"].get<double>())
             : fmt::format("off ({:g} dB stored)", reference["levelDecibels"].get<double>()));
    line("Colour", textOr(json["color"], "none"));
    for (auto [key, label] : {std::pair{"comment", "Comment"}, std::pair{"notes", "Notes"}})
        if (std::string value = textOr(json[key], ""); !value.empty())
            line(label, value);
    return text;
}

nlohmann::json describeSummary(const RecordSummary& summary, std::size_t number) {
    nlohmann::json json;
    json["number"] = number;
    json["uuid"] = summary.uuid;
    json["name"] = summary.name;
    json["date"] = dateValue(summary.date);
    json["sampleRate"] =
        summary.impulseSampleRate ? nlohmann::json(*summary.impulseSampleRate) : nlohmann::json(nullptr);
    json["impulseLength"] =
        summary.impulseLength ? nlohmann::json(*summary.impulseLength) : nlohmann::json(nullptr);
    return json;
}

std::string formatSummaryTable(const nlohmann::json& summaries) {
    std::string text = fmt::format("{:>3}  {:<36}  {:<20}  {:>7}  {:>9}  {}\n", "#", "UUID", "Date (UTC)",
                                   "Rate", "Length", "Name");
    for (const auto& entry : summaries) {
        const std::string date =
            entry["date"].is_string() ? localDateText(entry["date"].get<std::string>()) : "";
        const std::string rate =
            entry["sampleRate"].is_number() ? std::to_string(entry["sampleRate"].get<std::int64_t>()) : "-";
        const std::string length = entry["impulseLength"].is_number()
                                       ? std::to_string(entry["impulseLength"].get<std::size_t>())
                                       : "-";
        const std::string name = entry["name"].get<std::string>();
        text += fmt::format("{:>3}  {:<36}  {:<20}  {:>7}  {:>9}  {}\n", entry["number"].get<std::size_t>(),
                            entry["uuid"].get<std::string>(),
                            date.substr(0, std::min<std::size_t>(date.size(), 19)), rate, length,
                            name.empty() ? "Untitled" : name);
    }
    return text;
}

std::string jsonText(const nlohmann::json& json) {
    return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

} // namespace tavolar::cli
