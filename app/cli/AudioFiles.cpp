#include "AudioFiles.h"

#include "CommandLine.h"
#include "platform/UUID.h"

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

std::string sampleKindName(int subtype) {
    switch (subtype) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
        return "8-bit integer";
    case SF_FORMAT_PCM_16:
        return "16-bit integer";
    case SF_FORMAT_PCM_24:
        return "24-bit integer";
    case SF_FORMAT_PCM_32:
        return "32-bit integer";
    case SF_FORMAT_ULAW:
    case SF_FORMAT_ALAW:
        return "companded 8-bit";
    default:
        return "compressed";
    }
}

bool isWavContainer(int major) {
    return major == SF_FORMAT_WAV || major == SF_FORMAT_WAVEX || major == SF_FORMAT_RF64;
}

} // namespace

Expected<MonoSignal> readMonoFloatWav(const std::filesystem::path& path, std::string_view role) {
    const std::string name = path.string();
    std::error_code status;
    if (!std::filesystem::exists(path, status))
        return failure(fmt::format("The {} file {} does not exist.", role, name),
                       "Check the path and try again.");
    if (std::filesystem::is_directory(path, status))
        return failure(fmt::format("The {} file {} is a folder, not a sound file.", role, name),
                       "Give the path of a WAV file.");

    SF_INFO info{};
    SoundFile file(sf_open(path.c_str(), SFM_READ, &info));
    if (!file)
        return failure(fmt::format("The {} file {} is not a sound file that can be read ({}).", role, name,
                                   sf_strerror(nullptr)),
                       "Give a WAV file of 32-bit float samples.");

    const int major = info.format & SF_FORMAT_TYPEMASK;
    const int subtype = info.format & SF_FORMAT_SUBMASK;
    if (!isWavContainer(major)) {
        SF_FORMAT_INFO formatInfo{};
        formatInfo.format = major;
        const char* kind =
            sf_command(nullptr, SFC_GET_FORMAT_INFO, &formatInfo, sizeof(formatInfo)) == 0 && formatInfo.name
                ? formatInfo.name
                : "another kind of sound file";
        return failure(
            fmt::format("The {} file {} is {}, not a WAV file.", role, name, kind),
            fmt::format("Convert it, for example with: sox {} -e floating-point -b 32 out.wav", name));
    }
    if (subtype != SF_FORMAT_FLOAT && subtype != SF_FORMAT_DOUBLE)
        return failure(fmt::format("The {} file {} holds {} samples; floating-point samples are needed.",
                                   role, name, sampleKindName(subtype)),
                       fmt::format("Convert it without losing level, for example with: "
                                   "sox {} -e floating-point -b 32 out.wav",
                                   name));
    if (info.channels != 1)
        return failure(
            fmt::format("The {} file {} has {} channels; one channel is needed.", role, name, info.channels),
            fmt::format("Extract the channel you want, for example with: sox {} out.wav remix 1", name));
    if (info.frames <= 0)
        return failure(fmt::format("The {} file {} holds no samples.", role, name),
                       "Check that the recording was saved completely.");
    if (auto supported = checkSampleRate(info.samplerate, fmt::format("The {} file {}", role, name), false);
        !supported)
        return std::unexpected(supported.error());

    MonoSignal signal;
    signal.sampleRate = info.samplerate;
    signal.samples = VELTRealVector(static_cast<std::size_t>(info.frames));
    sf_count_t read = sf_readf_float(file.get(), signal.samples.mutableComponents(), info.frames);
    if (read != info.frames)
        return failure(fmt::format("The {} file {} is truncated: {} of {} samples could be read.", role, name,
                                   std::max<sf_count_t>(read, 0), info.frames),
                       "Check that the file was written completely.");
    if (!signal.samples.isFinite())
        return failure(fmt::format("The {} file {} holds samples that are not finite numbers.", role, name),
                       "Check the program that wrote the file.");
    return signal;
}

Expected<void> writeMonoFloatWav(const std::filesystem::path& path, std::span<const float> samples,
                                 std::int64_t sampleRate) {
    const std::string name = path.string();
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
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    // Files of 4 GB and more do not fit a plain WAV header.
    if (samples.size() * sizeof(float) >= (std::uint64_t{1} << 32) - 1024)
        info.format = SF_FORMAT_RF64 | SF_FORMAT_FLOAT;
    {
        SoundFile file(sf_open(temporary.c_str(), SFM_WRITE, &info));
        if (!file)
            return failure(fmt::format("Cannot write {}: {}", name, sf_strerror(nullptr)),
                           "Check that the folder may be written and the disk has room.");
        sf_count_t written =
            sf_writef_float(file.get(), samples.data(), static_cast<sf_count_t>(samples.size()));
        bool complete = written == static_cast<sf_count_t>(samples.size());
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

Expected<void> requireSampleRate(const MonoSignal& signal, std::int64_t stimulusRate,
                                 const std::filesystem::path& path, std::string_view role) {
    if (signal.sampleRate == stimulusRate)
        return {};
    return failure(fmt::format("The {} file {} is sampled at {} Hz but the stimulus at {} Hz.", role,
                               path.string(), signal.sampleRate, stimulusRate),
                   "Record at the stimulus's sample rate, or resample one of the files.");
}

} // namespace tavolar::cli
