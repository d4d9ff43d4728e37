#pragma once
// The engine and the controllers read the standard user defaults; the tests keep them in a file of
// their own (unless the runner already chose one), never the user's, and remove it when they end.

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <unistd.h>

namespace tavolar::testing {

inline const struct IsolatedUserDefaults {
    std::filesystem::path file;
    IsolatedUserDefaults() {
        if (std::getenv("TAVOLAR_DEFAULTS_FILE"))
            return;
        file = std::filesystem::temp_directory_path() /
               ("tavolar-tests-" + std::to_string(::getpid()) + ".json");
        ::setenv("TAVOLAR_DEFAULTS_FILE", file.c_str(), 1);
    }
    ~IsolatedUserDefaults() {
        std::error_code ignored;
        if (!file.empty())
            std::filesystem::remove(file, ignored);
    }
} kIsolatedUserDefaults;

} // namespace tavolar::testing
