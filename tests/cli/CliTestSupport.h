#pragma once
// Shared by the command-line tests: a fixture that runs the built tavolar program as a subprocess in
// a scratch folder of its own, and reading and writing the sound files and tables it exchanges.

#include "document/DocumentTestSupport.h"

#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar::testing {

struct RunResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

using Arguments = std::vector<std::string>;

inline Arguments operator+(Arguments first, const Arguments& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// Each test has a folder of its own: the program's working directory, which also holds its user
// defaults and FFT tuning file.
class CommandLineTest : public ::testing::Test {
protected:
    std::filesystem::path operator/(const std::string& name) const { return folder / name; }
    RunResult run(const Arguments& arguments) const;
    // Runs a command that must succeed; a failure of the test, with what the command wrote, otherwise.
    bool succeeds(const Arguments& arguments) const;
    // Runs a command that must fail with the exit status, print nothing on standard output, and say
    // message (when given) on standard error.
    void expectRefused(const Arguments& arguments, int exitCode, std::string_view message = {}) const;
    // The JSON a command that must succeed printed (null after a test failure).
    nlohmann::json json(const Arguments& arguments) const;
    // What info --json says about the records selected.
    nlohmann::json info(const std::string& document, const std::string& record) const;
    nlohmann::json infoOfAll(const std::string& document) const { return json({"info", document, "--json"}); }

    ScratchFolder folder;
};

struct SoundFile {
    std::vector<float> samples; // the first channel
    int sampleRate = 0;
    int channels = 0;
    int format = 0; // libsndfile's format word
};

SoundFile readSound(const std::filesystem::path& path);
// Writes samples (interleaved when channels > 1) in the given libsndfile format, 32-bit float WAV
// when none is given.
void writeSound(const std::filesystem::path& path, const std::vector<float>& samples, int sampleRate,
                int format = 0, int channels = 1);

std::vector<std::string> lines(const std::string& text);
std::vector<std::string> splitFields(const std::string& line, char separator);

// A CSV file as the export command writes it: a line of headers, then lines of numbers.
struct Table {
    std::vector<std::string> headers;
    std::vector<std::vector<double>> rows;
};
Table readCSV(const std::filesystem::path& path);

} // namespace tavolar::testing
