#pragma once
// What every host of a measurement shares: the devices it runs on, checked and opened, the capture
// settings, the records made of its results, and the advice given when a recording is refused for its
// level. Messages name a host's own options through MeasurementWords.

#include "SweepOptions.h"
#include "audio/VELTAudioCaptureSettings.h"
#include "audio/devices/VELTAudioDevice.h"
#include "core/VELTMeasurementRecord.h"
#include "engine/VELTRZMeasurement.h"
#include "platform/TavolarError.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavolar::cli {

// How a host names its options in messages.
struct MeasurementWords {
    std::string_view bypassLevelCheck;
    std::string_view level;
    std::string_view outputChannel;
    std::string_view clientName;
    std::string_view noConnect;
    std::string_view listDevices;
};

inline constexpr MeasurementWords kCommandLineWords{"--no-level-check", "--level",      "--output-channel",
                                                    "--client-name",    "--no-connect", "tavolar devices"};

struct MeasurementRequest {
    std::string device = "sim:default";        // records, and plays unless playbackDevice is given
    std::optional<std::string> playbackDevice; // plays the sweep
    std::vector<std::int64_t> channels{0};     // inputs, each giving a record
    std::int64_t outputChannel = 0;
    std::optional<std::pair<std::int64_t, std::int64_t>> loopback; // output, input
    std::optional<std::string> clientName;                         // of a JACK client
    bool noConnect = false;                                        // leaves a JACK client's ports alone
    bool fast = false;                                             // simulated devices as fast as they go
    SweepOptions sweep;
};

// The devices of a request, present and with the channels it names, and the sweep they can play.
struct PreparedMeasurement {
    std::string recordUID;
    std::string playbackUID;
    VELTAudioDevice recordDevice;
    VELTAudioDevice playbackDevice;
    std::int64_t sampleRate = 0;
    VELTLogSweepSettings sweep;
};

// Checks the request's channels and devices and opens the devices. Mistakes in the request are
// failures of the usage domain; a device that is absent or unusable is an ordinary failure.
Expected<PreparedMeasurement> prepareMeasurement(const MeasurementRequest& request,
                                                 const MeasurementWords& words);

// The capture settings of a prepared measurement. Each input takes the calibration and sensitivity
// that stored (a document's capture settings) keeps for its channel.
std::shared_ptr<VELTAudioCaptureSettings>
measurementCaptureSettings(const MeasurementRequest& request, const PreparedMeasurement& prepared,
                           const std::optional<VELTAudioCaptureSettings>& stored);

// What a document keeps after a measurement: the settings used, and the entries of stored (its
// earlier capture settings) for channels not measured, so that every channel's calibration stays for
// the next measurement.
VELTAudioCaptureSettings keptCaptureSettings(const VELTAudioCaptureSettings& used,
                                             const std::optional<VELTAudioCaptureSettings>& stored);

// Gives a new record, holding a result's impulse response, what the result tells of how it was
// measured, the analysis defaults, and its name: name, or the device's name, with the input added
// unless one named record is made (of resultCount).
void describeMeasuredRecord(VELTMeasurementRecord& record, const VELTRZMeasurement& result,
                            const std::string& deviceName, const std::optional<std::string>& name,
                            std::size_t resultCount);

// A measurement's failure with advice in the host's words: the bypass of the level check, and for a
// recording refused as too quiet or clipped, the inputs behind it (from each recorded channel's peak in
// dBFS, the inputs measured first and the loop-back reference last) and the likely cause.
TavolarError measurementFailureAdvice(TavolarError error, const std::vector<float>& peaks,
                                      const MeasurementRequest& request, const MeasurementWords& words);

// The UID of a simulated device asked to run as fast as the machine allows; other UIDs unchanged.
std::string withFastPace(const std::string& uid);

} // namespace tavolar::cli
