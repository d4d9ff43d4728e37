#include "CliTestSupport.h"

#include <cstdlib>
#include <sndfile.h>
#include <sstream>
#include <sys/wait.h>

namespace tavolar::testing {

namespace {

std::string describe(const Arguments& arguments) {
    std::string text = "tavolar";
    for (const std::string& argument : arguments)
        text += " " + argument;
    return text;
}

} // namespace

RunResult CommandLineTest::run(const Arguments& arguments) const {
    // The shell runs the program in the folder, every argument single-quoted.
    std::string command = "cd '" + folder.path().string() + "' && exec '" TAVOLAR_CLI_PATH "'";
    for (const std::string& argument : arguments) {
        command += " '";
        for (char c : argument)
            command += c == '\'' ? std::string("'\\''") : std::string(1, c);
        command += "'";
    }
    command += " < /dev/null > .stdout 2> .stderr";
    // The tests run one at a time, so the variables can be set in this process for the program.
    setenv("TAVOLAR_DEFAULTS_FILE", (folder / ".defaults.json").c_str(), 1);
    setenv("TAVOLAR_FFT_WISDOM_FILE", (folder / ".fft-wisdom").c_str(), 1);
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), fileBytes(folder / ".stdout"),
            fileBytes(folder / ".stderr")};
}

bool CommandLineTest::succeeds(const Arguments& arguments) const {
    RunResult result = run(arguments);
    EXPECT_EQ(result.exitCode, 0) << describe(arguments) << "\n" << result.err;
    return result.exitCode == 0;
}

void CommandLineTest::expectRefused(const Arguments& arguments, int exitCode,
                                    std::string_view message) const {
    RunResult result = run(arguments);
    EXPECT_EQ(result.exitCode, exitCode) << describe(arguments) << "\n" << result.err;
    EXPECT_FALSE(result.err.empty()) << describe(arguments);
    EXPECT_TRUE(result.out.empty()) << describe(arguments) << " printed\n" << result.out;
    EXPECT_NE(result.err.find(message), std::string::npos) << describe(arguments) << "\n" << result.err;
}

nlohmann::json CommandLineTest::json(const Arguments& arguments) const {
    RunResult result = run(arguments);
    EXPECT_EQ(result.exitCode, 0) << describe(arguments) << "\n" << result.err;
    try {
        return nlohmann::json::parse(result.out);
    } catch (const std::exception& error) {
        ADD_FAILURE() << describe(arguments) << " printed no JSON: " << error.what() << "\n" << result.out;
        return nullptr;
    }
}

nlohmann::json CommandLineTest::info(const std::string& document, const std::string& record) const {
    nlohmann::json records = json({"info", document, record, "--json"});
    EXPECT_TRUE(records.is_array() && records.size() == 1) << records;
    return records.is_array() && records.size() == 1 ? records[0] : nlohmann::json();
}

SoundFile readSound(const std::filesystem::path& path) {
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
    sound = {{}, info.samplerate, info.channels, info.format};
    for (std::size_t at = 0; at < interleaved.size(); at += static_cast<std::size_t>(info.channels))
        sound.samples.push_back(interleaved[at]);
    return sound;
}

void writeSound(const std::filesystem::path& path, const std::vector<float>& samples, int sampleRate,
                int format, int channels) {
    SF_INFO info{};
    info.samplerate = sampleRate;
    info.channels = channels;
    info.format = format ? format : SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    sf_command(file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    sf_writef_float(file, samples.data(), static_cast<sf_count_t>(samples.size() / channels));
    sf_close(file);
}

std::vector<std::string> lines(const std::string& text) {
    return splitFields(text, '\n');
}

std::vector<std::string> splitFields(const std::string& line, char separator) {
    std::vector<std::string> fields;
    std::stringstream stream(line);
    for (std::string field; std::getline(stream, field, separator);)
        fields.push_back(field);
    return fields;
}

Table readCSV(const std::filesystem::path& path) {
    Table table;
    std::vector<std::string> text = lines(fileBytes(path));
    if (text.empty())
        return table;
    EXPECT_EQ(text[0].back(), ',') << "every line ends with a comma";
    table.headers = splitFields(text[0], ',');
    for (std::size_t at = 1; at < text.size(); ++at) {
        std::vector<double> row;
        for (const std::string& field : splitFields(text[at], ','))
            row.push_back(std::stod(field));
        table.rows.push_back(std::move(row));
    }
    return table;
}

} // namespace tavolar::testing
