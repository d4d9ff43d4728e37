#include "SweepOptions.h"

#include "AudioFiles.h"
#include "CommandLine.h"

#include <cmath>
#include <fmt/format.h>

namespace tavolar::cli {

namespace {

// Longer sweeps would need buffers of gigabytes at high sample rates.
constexpr float kLongestSweep = 300000.0f;

} // namespace

void SweepOptions::addTo(CLI::App& app) {
    app.add_option("--preset", preset, "Sweep preset: short (1 s) or long (10 s)")
        ->check(CLI::IsMember({"short", "long"}))
        ->capture_default_str();
    app.add_option("--start", startFrequency, "Start frequency of the sweep, Hz (default: 1 Hz, full range)");
    app.add_option("--end", endFrequency, "End frequency of the sweep, Hz (default: half the sample rate)");
    app.add_option("--length", length, "Length of the sweep alone, ms (overrides the preset)");
    app.add_option("--level", level,
                   fmt::format("Peak level of the sweep, dBFS (default: {:g})", defaultLevel));
    app.add_option("--begin-silence", beginSilence, "Silence before the sweep, ms (default: 500)");
    app.add_option("--end-silence", endSilence, "Silence after the sweep, ms (default: 2000)");
}

bool SweepOptions::adjustsPreset() const {
    return startFrequency || endFrequency || length || level || beginSilence || endSilence;
}

bool SweepOptions::given(const CLI::App& app) const {
    return adjustsPreset() || app.count("--preset") > 0;
}

Expected<VELTLogSweepSettings> SweepOptions::settings(std::int64_t sampleRate) const {
    if (auto supported = checkSampleRate(sampleRate, "The sweep's sample rate", false); !supported)
        return std::unexpected(supported.error());
    VELTLogSweepSettings sweep = preset == "long" ? VELTLogSweepSettings::longLogSweepSettings()
                                                  : VELTLogSweepSettings::shortLogSweepSettings();
    const float nyquist = static_cast<float>(sampleRate) / 2.0f;
    if (startFrequency || endFrequency) {
        const float start = startFrequency.value_or(1.0f);
        const float end = endFrequency.value_or(nyquist);
        if (!(start > 0.0f))
            return usageFailure(fmt::format("The start frequency must be above 0 Hz (got {}).", start));
        if (!(end > start))
            return usageFailure(fmt::format(
                "The end frequency ({} Hz) must be above the start frequency ({} Hz).", end, start));
        if (end > nyquist)
            return usageFailure(
                fmt::format("The end frequency ({} Hz) is above half the sample rate ({} Hz).", end, nyquist),
                "Choose an end frequency at most half the sample rate.");
        sweep.setFullRangeSweep(false);
        sweep.setStartFreq(start);
        sweep.setEndFreq(end);
    }
    if (length) {
        if (!(*length > 0.0f) || *length > kLongestSweep)
            return usageFailure(fmt::format("The sweep length must be above 0 and at most {} ms (got {}).",
                                            kLongestSweep, *length));
        sweep.setDuration(*length);
    }
    const float peak = level.value_or(defaultLevel);
    // Below -100 dBFS a sweep drowns in any converter's noise, and far below it the amplitude is no
    // longer a float at all: a silent sweep would be measured without a word.
    if (!(peak <= 0.0f && peak >= kQuietestLevel))
        return usageFailure(
            fmt::format("The sweep level must lie from {} to 0 dBFS (got {}).", kQuietestLevel, peak),
            "Levels are peak levels relative to full scale: use 0 or a negative number down to -100.");
    if (peak != 0.0f)
        sweep.setAmplitude(std::pow(10.0f, peak / 20.0f));
    if (beginSilence || endSilence) {
        const float before = beginSilence.value_or(500.0f);
        const float after = endSilence.value_or(2000.0f);
        if (!(before >= 0.0f) || !(after >= 0.0f) || before > kLongestSweep || after > kLongestSweep)
            return usageFailure("Silences must be between 0 and 300000 ms.");
        sweep.setDefaultSilence(false);
        sweep.setBeginSilence(before);
        sweep.setEndSilence(after);
    }
    if (adjustsPreset())
        sweep.setName(fmt::format("{} (adjusted)", sweep.name()));
    return sweep;
}

std::string describeSweep(const VELTLogSweepSettings& settings, std::int64_t sampleRate) {
    const float end = settings.fullRangeSweep() || settings.endFreq() <= 0.0f
                          ? static_cast<float>(sampleRate) / 2.0f
                          : settings.endFreq();
    return fmt::format("{:g} Hz to {:g} Hz, {:g} ms, {:.1f} dBFS, silences {:g} + {:g} ms",
                       settings.startFreq(), end, settings.duration(),
                       20.0 * std::log10(std::max(settings.amplitude(), 1e-12f)), settings.beginSilence(),
                       settings.endSilence());
}

} // namespace tavolar::cli
