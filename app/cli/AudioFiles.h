#pragma once
// The sound files the command line reads and writes: WAV files of one channel of floating-point
// samples. Stimuli, recorded responses and impulse responses are exchanged in this form only, so
// that no level is lost to integer scaling and no channel is picked silently.

#include "math/VELTRealVector.h"
#include "platform/TavolarError.h"

#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>

namespace tavolar::cli {

struct MonoSignal {
    VELTRealVector samples;
    std::int64_t sampleRate = 0;
};

// Reads a WAV file (WAV, WAVE_FORMAT_EXTENSIBLE or RF64) of one channel of 32- or 64-bit float
// samples. role names the file in messages ("stimulus", "response"). A missing file, another kind of
// file, integer samples, several channels, no samples at all or a sample rate outside the supported
// ones give an error that says what to do.
Expected<MonoSignal> readMonoFloatWav(const std::filesystem::path& path, std::string_view role);

// Writes a 32-bit float mono WAV file. The file is written beside its destination and renamed into
// place, so an existing file is either replaced whole or left as it was.
Expected<void> writeMonoFloatWav(const std::filesystem::path& path, std::span<const float> samples,
                                 std::int64_t sampleRate);

// The sample rates every command works at: the range of the simulated device, within which the
// stimulus of the longest sweep and its transforms stay within memory.
inline constexpr std::int64_t kLowestSampleRate = 1000;
inline constexpr std::int64_t kHighestSampleRate = 768000;

// Refuses a sample rate outside those, in the same words wherever it comes from. what names whose
// rate it is ("--rate", "The response file r.wav"); a rate given as an option is a usage error.
Expected<void> checkSampleRate(std::int64_t sampleRate, std::string_view what, bool option);

// Refuses a signal whose sample rate differs from the stimulus's.
Expected<void> requireSampleRate(const MonoSignal& signal, std::int64_t stimulusRate,
                                 const std::filesystem::path& path, std::string_view role);

} // namespace tavolar::cli
