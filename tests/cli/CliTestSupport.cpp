#include "CliTestSupport.h"

#include <cmath>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <numbers>
#include <random>
#include <sndfile.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tavolar::testing {

ScratchFolder::ScratchFolder() {
    std::random_device device;
    path_ = std::filesystem::temp_directory_path() /
            ("tavolar-cli-test-" + std::to_string(device()) + "-" + std::to_string(device()));
    std::filesystem::create_directories(path_);
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

RunResult runTavolar(const ScratchFolder& folder, const std::vector<std::string>& arguments) {
    const std::string outPath = folder / ".stdout";
    const std::string errPath = folder / ".stderr";
    std::vector<std::string> argumentStorage{TAVOLAR_CLI_PATH};
    argumentStorage.insert(argumentStorage.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : argumentStorage)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    std::vector<std::string> environmentStorage;
    for (char** entry = environ; *entry; ++entry)
        if (!std::string_view(*entry).starts_with("TAVOLAR_DEFAULTS_FILE=") &&
            !std::string_view(*entry).starts_with("TAVOLAR_FFT_WISDOM_FILE="))
            environmentStorage.emplace_back(*entry);
    environmentStorage.push_back("TAVOLAR_DEFAULTS_FILE=" + (folder / ".defaults.json"));
    environmentStorage.push_back("TAVOLAR_FFT_WISDOM_FILE=" + (folder / ".fft-wisdom"));
    std::vector<char*> envp;
    for (std::string& entry : environmentStorage)
        envp.push_back(entry.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_addchdir_np(&actions, folder.path().c_str());
    pid_t child = 0;
    int spawned = posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    RunResult result;
    if (spawned != 0) {
        ADD_FAILURE() << "could not start " << argv[0];
        return result;
    }
    int status = 0;
    waitpid(child, &status, 0);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = readText(outPath);
    result.err = readText(errPath);
    return result;
}

nlohmann::json parseJSON(const RunResult& result) {
    try {
        return nlohmann::json::parse(result.out);
    } catch (const std::exception& error) {
        ADD_FAILURE() << "not JSON: " << error.what() << "\n" << result.out;
        return nullptr;
    }
}

SoundFile readSound(const std::string& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    SoundFile sound;
    if (!file) {
        ADD_FAILURE() << "cannot read " << path << ": " << sf_strerror(nullptr);
        return sound;
    }
    std::vector<float> interleaved(static_cast<std::size_t>(info.frames) * info.channels);
    sf_readf_float(file, interleaved.data(), info.frames);
    sf_close(file);
    sound.sampleRate = info.samplerate;
    sound.channels = info.channels;
    sound.format = info.format;
    for (sf_count_t frame = 0; frame < info.frames; ++frame)
        sound.samples.push_back(interleaved[static_cast<std::size_t>(frame * info.channels)]);
    return sound;
}

void writeSound(const std::string& path, const std::vector<float>& samples, int sampleRate, int format,
                int channels) {
    SF_INFO info{};
    info.samplerate = sampleRate;
    info.channels = channels;
    info.format = format;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    sf_command(file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    sf_writef_float(file, samples.data(), static_cast<sf_count_t>(samples.size() / channels));
    sf_close(file);
}

void writeFloatWav(const std::string& path, const std::vector<float>& samples, int sampleRate) {
    writeSound(path, samples, sampleRate, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
}

std::string readText(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    std::stringstream buffer;
    buffer << stream.rdbuf();
    return buffer.str();
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::stringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        result.push_back(line);
    return result;
}

std::vector<std::string> splitFields(const std::string& line, char separator) {
    std::vector<std::string> fields;
    std::stringstream stream(line);
    for (std::string field; std::getline(stream, field, separator);)
        fields.push_back(field);
    return fields;
}

std::vector<double> referenceSweep(double f1, double f2, double duration, double amplitude, double sampleRate,
                                   std::size_t leadingZeros, std::size_t trailingZeros) {
    const auto count = static_cast<std::size_t>(duration * sampleRate);
    const double rate = std::log(f2 / f1);
    std::vector<double> samples(leadingZeros, 0.0);
    for (std::size_t n = 0; n < count; ++n) {
        const double t = static_cast<double>(n) / sampleRate;
        samples.push_back(amplitude * std::sin(2.0 * std::numbers::pi * f1 * duration / rate *
                                               (std::exp(t * rate / duration) - 1.0)));
    }
    samples.resize(samples.size() + trailingZeros, 0.0);
    return samples;
}

} // namespace tavolar::testing
