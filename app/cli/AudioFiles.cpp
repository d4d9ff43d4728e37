#include "AudioFiles.h"

#include "CommandLine.h"
#include "platform/UUID.h"

#include <algorithm>
#include <fmt/format.h>
#include <memory>
#include <sndfile.h>
#include <string>
#include <system_error>

namespace tavolar::cli {

namespace {

struct SoundFileCloser {
    void operator()(SNDFILE* file) const { sf_close(file); }
};
using SoundFile = std::unique_ptr<SNDFILE, SoundFileCloser>;

// Samples read or written at a time over all channels: the interleaved buffer stays small whatever the file's
// length and channel count.
constexpr sf_count_t kSamplesPerRead = sf_count_t{1} << 18;

} // namespace

Expected<SoundSignal> readSoundFile(const std::filesystem::path& path, std::string_view role,
                                    std::size_t roomPerChannel) {
    const std::string name = path.string();
    std::error_code status;
    if (!std::filesystem::exists(path, status))
        return failure(fmt::format("The {} file {} does not exist.", role, name),
                       "Check the path and try again.");
    if (std::filesystem::is_directory(path, status))
        return failure(fmt::format("The {} file {} is a folder, not a sound file.", role, name),
                       "Give the path of a sound file (WAV, W64, AIFF, FLAC or CAF).");

    SF_INFO info{};
    SoundFile file(sf_open(path.c_str(), SFM_READ, &info));
    if (!file)
        return failure(fmt::format("The {} file {} is not a sound file that can be read ({}).", role, name,
                                   sf_strerror(nullptr)),
                       "Give a WAV, W64, AIFF, FLAC or CAF file.");
    if (info.channels <= 0 || info.frames <= 0)
        return failure(fmt::format("The {} file {} holds no samples.", role, name),
                       "Check that the recording was saved completely.");
    if (auto supported = checkSampleRate(info.samplerate, fmt::format("The {} file {}", role, name), false);
        !supported)
        return std::unexpected(supported.error());
    // Beyond 2^31 samples a channel is longer than any transform the engine makes.
    if (info.frames > (sf_count_t{1} << 31))
        return failure(
            fmt::format("The {} file {} is too long: {} samples per channel.", role, name, info.frames),
            "Cut the recording to the sweep and its silences.");

    const auto channels = static_cast<std::size_t>(info.channels);
    const auto frames = static_cast<std::size_t>(info.frames);
    SoundSignal signal;
    signal.sampleRate = info.samplerate;
    // Each channel is made room for once, as many frames as the header announces and the file's size
    // can hold at a byte a sample or more: a damaged header that claims billions of frames must give
    // "truncated", not exhaust memory, and a compressed file that holds more grows as it is read.
    // Growing from small by doubling would touch twice the memory in blocks that are thrown away.
    signal.channels.resize(channels);
    const std::uintmax_t fileBytes = std::filesystem::file_size(path, status);
    const std::size_t room =
        status ? 0 : static_cast<std::size_t>(std::min<std::uintmax_t>(frames, fileBytes / channels));
    for (VELTRealVector& channel : signal.channels)
        channel.reserve(std::max(room, roomPerChannel));
    const sf_count_t framesPerRead = std::max<sf_count_t>(1, kSamplesPerRead / info.channels);
    std::vector<float> interleaved(static_cast<std::size_t>(framesPerRead) * channels);
    std::vector<float> channelChunk(static_cast<std::size_t>(framesPerRead));
    std::size_t done = 0;
    while (done < frames) {
        const sf_count_t wanted =
            std::min<sf_count_t>(framesPerRead, info.frames - static_cast<sf_count_t>(done));
        const sf_count_t read = sf_readf_float(file.get(), interleaved.data(), wanted);
        if (read <= 0)
            break;
        const auto count = static_cast<std::size_t>(read);
        for (std::size_t channel = 0; channel < channels; ++channel) {
            for (std::size_t frame = 0; frame < count; ++frame)
                channelChunk[frame] = interleaved[frame * channels + channel];
            signal.channels[channel].appendVector(std::span<const float>(channelChunk.data(), count));
        }
        done += count;
    }
    if (done != frames)
        return failure(fmt::format("The {} file {} is truncated: {} of {} samples could be read.", role, name,
                                   done, frames),
                       "Check that the file was written completely.");
    for (std::size_t channel = 0; channel < channels; ++channel)
        if (!signal.channels[channel].isFinite())
            return failure(fmt::format("The {} file {} holds samples that are not finite numbers{}.", role,
                                       name, channels > 1 ? fmt::format(" in channel {}", channel) : ""),
                           "Check the program that wrote the file.");
    return signal;
}

std::optional<std::size_t> announcedFrames(const std::filesystem::path& path) {
    std::error_code status;
    const std::uintmax_t fileBytes = std::filesystem::file_size(path, status);
    if (status)
        return std::nullopt;
    SF_INFO info{};
    SoundFile file(sf_open(path.c_str(), SFM_READ, &info));
    if (!file || info.channels <= 0 || info.frames <= 0 ||
        static_cast<std::uintmax_t>(info.frames) > fileBytes / static_cast<std::uintmax_t>(info.channels))
        return std::nullopt;
    return static_cast<std::size_t>(info.frames);
}

Expected<MonoSignal> readMonoSoundFile(const std::filesystem::path& path, std::string_view role) {
    auto sound = readSoundFile(path, role);
    if (!sound)
        return std::unexpected(sound.error());
    if (sound->channels.size() != 1)
        return failure(fmt::format("The {} file {} has {} channels; one channel is needed.", role,
                                   path.string(), sound->channels.size()),
                       fmt::format("Extract the channel you want, for example with: sox {} out.wav remix 1",
                                   path.string()));
    return MonoSignal{std::move(sound->channels.front()), sound->sampleRate};
}

Expected<void> writeMonoFloatWav(const std::filesystem::path& path, std::span<const float> samples,
                                 std::int64_t sampleRate) {
    const std::span<const float> channels[] = {samples};
    return writeFloatWav(path, channels, sampleRate);
}

Expected<void> writeFloatWav(const std::filesystem::path& path,
                             std::span<const std::span<const float>> channels, std::int64_t sampleRate) {
    const std::string name = path.string();
    if (channels.empty() || channels.size() > 1024)
        return failure(fmt::format("Cannot write {} with {} channels.", name, channels.size()));
    const std::size_t frames = channels.front().size();
    for (std::span<const float> channel : channels)
        if (channel.size() != frames)
            return failure(fmt::format("Cannot write {}: its channels differ in length.", name));
    if (sampleRate <= 0 || sampleRate > std::numeric_limits<int>::max())
        return failure(fmt::format("Cannot write {} at a sample rate of {} Hz.", name, sampleRate));
    std::filesystem::path folder =
        path.parent_path().empty() ? std::filesystem::path(".") : path.parent_path();
    std::error_code status;
    if (!std::filesystem::is_directory(folder, status))
        return failure(fmt::format("Cannot write {}: the folder {} does not exist.", name, folder.string()),
                       "Create the folder first or choose another path.");
    if (std::filesystem::is_directory(path, status))
        return failure(fmt::format("Cannot write {}: it is a folder.", name), "Give the path of a file.");

    const std::filesystem::path temporary =
        folder / fmt::format(".{}.{}.tmp", path.filename().string(), newUUIDString());
    SF_INFO info{};
    info.samplerate = static_cast<int>(sampleRate);
    info.channels = static_cast<int>(channels.size());
    // More than two channels need the extensible header to say which is which.
    info.format = (channels.size() > 2 ? SF_FORMAT_WAVEX : SF_FORMAT_WAV) | SF_FORMAT_FLOAT;
    // Files of 4 GB and more do not fit a plain WAV header.
    if (frames * channels.size() * sizeof(float) >= (std::uint64_t{1} << 32) - 1024)
        info.format = SF_FORMAT_RF64 | SF_FORMAT_FLOAT;
    {
        SoundFile file(sf_open(temporary.c_str(), SFM_WRITE, &info));
        if (!file)
            return failure(fmt::format("Cannot write {}: {}", name, sf_strerror(nullptr)),
                           "Check that the folder may be written and the disk has room.");
        bool complete = true;
        if (channels.size() == 1) {
            complete = sf_writef_float(file.get(), channels.front().data(),
                                       static_cast<sf_count_t>(frames)) == static_cast<sf_count_t>(frames);
        } else {
            const auto framesPerWrite = static_cast<std::size_t>(kSamplesPerRead) / channels.size();
            std::vector<float> interleaved(framesPerWrite * channels.size());
            for (std::size_t from = 0; complete && from < frames; from += framesPerWrite) {
                const std::size_t count = std::min<std::size_t>(framesPerWrite, frames - from);
                for (std::size_t frame = 0; frame < count; ++frame)
                    for (std::size_t channel = 0; channel < channels.size(); ++channel)
                        interleaved[frame * channels.size() + channel] = channels[channel][from + frame];
                complete = sf_writef_float(file.get(), interleaved.data(), static_cast<sf_count_t>(count)) ==
                           static_cast<sf_count_t>(count);
            }
        }
        std::string reason = complete ? std::string() : sf_strerror(file.get());
        if (complete && sf_command(file.get(), SFC_UPDATE_HEADER_NOW, nullptr, 0) != 0)
            complete = false;
        file.reset();
        if (!complete) {
            std::filesystem::remove(temporary, status);
            return failure(fmt::format("Cannot write {}: {}", name, reason.empty() ? "write failed" : reason),
                           "Check that the disk has room.");
        }
    }
    std::filesystem::rename(temporary, path, status);
    if (status) {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
        return failure(fmt::format("Cannot write {}: {}", name, status.message()));
    }
    return {};
}

Expected<void> checkSampleRate(std::int64_t sampleRate, std::string_view what, bool option) {
    if (sampleRate >= kLowestSampleRate && sampleRate <= kHighestSampleRate)
        return {};
    std::string message = fmt::format("{}: {} Hz is outside the sample rates tavolar works at, {} to {} Hz.",
                                      what, sampleRate, kLowestSampleRate, kHighestSampleRate);
    if (option)
        return usageFailure(std::move(message));
    return failure(std::move(message), "Resample the sound to a rate within that range, such as 48000 Hz.");
}

Expected<void> requireSampleRate(std::int64_t sampleRate, std::int64_t stimulusRate,
                                 const std::filesystem::path& path, std::string_view role) {
    if (sampleRate == stimulusRate)
        return {};
    return failure(fmt::format("The {} file {} is sampled at {} Hz but the stimulus at {} Hz.", role,
                               path.string(), sampleRate, stimulusRate),
                   "Record at the stimulus's sample rate, or resample one of the files.");
}

} // namespace tavolar::cli
