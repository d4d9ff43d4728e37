#pragma once
// The sound files the command line reads and writes. It reads what recorders write: WAV (plain,
// WAVE_FORMAT_EXTENSIBLE, RF64), W64, AIFF, FLAC, CAF and the other formats libsndfile decodes, of
// integer or floating-point samples, integers scaled to full scale 1.0. It writes 32-bit float WAV,
// so that no level is lost to integer scaling.

#include "math/VELTRealVector.h"
#include "platform/TavolarError.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace tavolar::cli {

struct MonoSignal {
    VELTRealVector samples;
    std::int64_t sampleRate = 0;
};

// The channels of a sound file, each as a signal of its own.
struct SoundSignal {
    std::vector<VELTRealVector> channels;
    std::int64_t sampleRate = 0;
};

// Reads a sound file of any number of channels. role names the file in messages ("stimulus",
// "response"). A missing file, a file that is not sound, no samples at all, samples that are not
// finite or a sample rate outside the supported ones give an error that says what to do.
// roomPerChannel asks for channels that can grow to that length without moving (work done in place
// on them, such as a deconvolution's transform); it is for lengths taken from announcedFrames.
Expected<SoundSignal> readSoundFile(const std::filesystem::path& path, std::string_view role,
                                    std::size_t roomPerChannel = 0);

// The frames per channel a sound file's header announces, when the file's size on disk can hold
// them at a byte a sample or more, as reading makes room for them; nullopt for a file that cannot be
// opened as sound or whose header claims more. For work prepared while the file is read.
std::optional<std::size_t> announcedFrames(const std::filesystem::path& path);

// Reads a sound file of one channel; several channels are refused (a stimulus or a reference is one
// signal, and picking one of several silently would measure the wrong one).
Expected<MonoSignal> readMonoSoundFile(const std::filesystem::path& path, std::string_view role);

// Writes a 32-bit float WAV file of one channel, or of several channels of the same length
// (WAVE_FORMAT_EXTENSIBLE beyond two). The file is written beside its destination and renamed into
// place, so an existing file is either replaced whole or left as it was.
Expected<void> writeFloatWav(const std::filesystem::path& path,
                             std::span<const std::span<const float>> channels, std::int64_t sampleRate);
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
Expected<void> requireSampleRate(std::int64_t sampleRate, std::int64_t stimulusRate,
                                 const std::filesystem::path& path, std::string_view role);

} // namespace tavolar::cli
