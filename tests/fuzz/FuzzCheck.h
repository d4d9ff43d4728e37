#pragma once
// What the fuzz targets share: the input as bytes, and a check that stops the run when an
// invariant does not hold, so that libFuzzer keeps the input as a fault.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <unistd.h>

#define FUZZ_CHECK(condition, what)                                                                          \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            std::fprintf(stderr, "fuzz check failed: %s (%s)\n", what, #condition);                          \
            std::abort();                                                                                    \
        }                                                                                                    \
    } while (0)

namespace tavolar::fuzz {

inline std::span<const std::byte> bytes(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const std::byte*>(data), size};
}

// The input written to a file of this process's own in the temporary folder, for readers that
// take a path: the same file every time, removed (with any journal beside it) when the process ends.
inline std::filesystem::path writeTemporaryFile(const std::uint8_t* data, std::size_t size,
                                                std::string_view extension) {
    static const struct TemporaryFile {
        std::filesystem::path path;
        ~TemporaryFile() {
            std::error_code ignored;
            std::filesystem::remove(path, ignored);
            std::filesystem::remove(path.string() + "-journal", ignored);
        }
    } file{std::filesystem::temp_directory_path() /
           ("tavolar-fuzz-" + std::to_string(getpid()) + std::string(extension))};
    std::ofstream stream(file.path, std::ios::binary | std::ios::trunc);
    stream.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    return file.path;
}

} // namespace tavolar::fuzz
