#pragma once
// Shared by the export tests: a scratch folder, whole-file reads, and running a helper program.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

namespace tavolar::testing {

class ExportFolder {
public:
    ExportFolder() {
        std::random_device device;
        path_ = std::filesystem::temp_directory_path() /
                ("tavolar-export-test-" + std::to_string(device()) + "-" + std::to_string(device()));
        std::filesystem::create_directories(path_);
    }
    ~ExportFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ExportFolder(const ExportFolder&) = delete;
    ExportFolder& operator=(const ExportFolder&) = delete;
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

inline std::string fileContents(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// True when the program is found on the search path.
inline bool programIsInstalled(const std::string& program) {
    return std::system(("command -v " + program + " >/dev/null 2>&1").c_str()) == 0;
}

// Runs a shell command and answers its standard output; exitStatus receives its exit status.
inline std::string commandOutput(const std::string& command, int& exitStatus) {
    std::string output;
    std::FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) {
        exitStatus = -1;
        return output;
    }
    char buffer[4096];
    std::size_t count;
    while ((count = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
        output.append(buffer, count);
    exitStatus = pclose(pipe);
    return output;
}

} // namespace tavolar::testing
