#pragma once
// The sweep options that sweep, measure and import share: a preset, or a frequency range, length,
// level and silences that adjust it.

#include "engine/VELTLogSweepSettings.h"
#include "platform/TavolarError.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>

namespace tavolar::cli {

struct SweepOptions {
    std::string preset = "short";        // "short" (1 s) or "long" (10 s)
    std::optional<float> startFrequency; // Hz
    std::optional<float> endFrequency;   // Hz
    std::optional<float> length;         // ms, the sweep alone
    std::optional<float> level;          // dBFS, the sweep's peak
    std::optional<float> beginSilence;   // ms
    std::optional<float> endSilence;     // ms
    // The level without --level, the same for every command, so that a stimulus file written by sweep
    // is what measure plays and what import rebuilds from the sweep options: below full scale, where
    // a loop-back reference at unity gain would otherwise read as clipped.
    float defaultLevel = -3.0f;                      // dBFS
    static constexpr float kQuietestLevel = -100.0f; // dBFS

    // Registers --preset, --start, --end, --length, --level, --begin-silence, --end-silence.
    void addTo(CLI::App& app);
    // True when any option other than the preset was given.
    bool adjustsPreset() const;
    // True when the user gave any of the options, the preset included.
    bool given(const CLI::App& app) const;

    // The settings for a stimulus at sampleRate Hz. With neither --start nor --end the sweep covers
    // the full range (1 Hz to half the sample rate); with either, the other defaults to that bound.
    // A range outside 0 < start < end <= sampleRate / 2, a length outside (0, 300 s], a level outside
    // -100 to 0 dBFS or a negative silence is a usage error; a sample rate outside the supported ones an
    // error.
    Expected<VELTLogSweepSettings> settings(std::int64_t sampleRate) const;
};

// "20 Hz to 20000 Hz, 1000 ms, -6.0 dBFS, silences 500 + 2000 ms" for messages.
std::string describeSweep(const VELTLogSweepSettings& settings, std::int64_t sampleRate);

} // namespace tavolar::cli
