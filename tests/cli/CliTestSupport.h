#pragma once
// Shared by the command-line tests: a scratch folder, running the built tavolar program as a
// subprocess with its output captured, and reading and writing the sound files it exchanges.

#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace tavolar::testing {

// A fresh folder under the system's temporary folder, removed with everything in it at the end.
class ScratchFolder {
public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

struct RunResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Runs tavolar with the arguments in folder (its working directory), with user defaults kept in
// that folder, and answers its exit status and what it wrote.
RunResult runTavolar(const ScratchFolder& folder, const std::vector<std::string>& arguments);

// The JSON a command printed; a test failure (and null) when it is not JSON.
nlohmann::json parseJSON(const RunResult& result);

struct SoundFile {
    std::vector<float> samples; // the first channel
    int sampleRate = 0;
    int channels = 0;
    int format = 0; // libsndfile's format word
};

SoundFile readSound(const std::string& path);
// Writes samples (interleaved when channels > 1) in the given libsndfile format.
void writeSound(const std::string& path, const std::vector<float>& samples, int sampleRate, int format,
                int channels = 1);
// A 32-bit float mono WAV file.
void writeFloatWav(const std::string& path, const std::vector<float>& samples, int sampleRate);

std::string readText(const std::string& path);
std::vector<std::string> lines(const std::string& text);
std::vector<std::string> splitFields(const std::string& line, char separator);

// The exponential sweep written from its mathematics in double precision: f1 to f2 over duration
// seconds, peak amplitude, after and before silences of the given sample counts.
std::vector<double> referenceSweep(double f1, double f2, double duration, double amplitude, double sampleRate,
                                   std::size_t leadingZeros, std::size_t trailingZeros);

} // namespace tavolar::testing
