#pragma once
// Shared by the document tests: a scratch folder per test, deterministic record contents, and a
// direct look into the SQLite file that does not go through the document.

#include "document/MeasurementDocument.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <span>
#include <sqlite3.h>
#include <string>
#include <vector>

namespace tavolar::testing {

// A fresh folder under the system's temporary folder, removed with everything in it at the end.
class ScratchFolder {
public:
    ScratchFolder() {
        std::random_device device;
        path_ = std::filesystem::temp_directory_path() /
                ("tavolar-test-" + std::to_string(device()) + "-" + std::to_string(device()));
        std::filesystem::create_directories(path_);
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

// Archive bytes that say which record and which version they are: the key and the version as
// 8 little-endian bytes each, then bytes that follow from both, of a length that follows from both.
inline std::vector<std::byte> archiveBytes(std::uint64_t key, std::uint64_t version) {
    std::size_t length = 16 + (key * 37 + version * 101) % 5000;
    std::vector<std::byte> bytes(length);
    for (int index = 0; index < 8; ++index) {
        bytes[index] = static_cast<std::byte>(key >> (8 * index));
        bytes[8 + index] = static_cast<std::byte>(version >> (8 * index));
    }
    std::mt19937_64 generator(key * 1000003 + version);
    for (std::size_t index = 16; index < length; ++index)
        bytes[index] = static_cast<std::byte>(generator());
    return bytes;
}

inline std::uint64_t littleEndianWord(std::span<const std::byte> bytes, std::size_t offset) {
    std::uint64_t value = 0;
    for (int index = 0; index < 8; ++index)
        value |= static_cast<std::uint64_t>(bytes[offset + index]) << (8 * index);
    return value;
}

// Samples that follow from key and version, any float pattern but NaN (so that equality compares),
// at least shortest long.
inline std::vector<float> impulseSamples(std::uint64_t key, std::uint64_t version,
                                         std::size_t shortest = 1000) {
    std::size_t length = shortest + (key * 13 + version * 7) % 3000;
    std::vector<float> samples(length);
    // A cheap generator, as the long responses are made by the million: uniform in [-1, 1).
    std::uint64_t state = key * 0x9E3779B97F4A7C15ULL + version + 1;
    for (float& sample : samples) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        sample = static_cast<float>(static_cast<std::int64_t>(state >> 40) - (1 << 23)) / (1 << 23);
    }
    return samples;
}

inline std::int64_t impulseSampleRate(std::uint64_t version) {
    return 44100 + static_cast<std::int64_t>(version % 3) * 3900;
}

inline std::string recordUUID(std::uint64_t key) {
    char text[40];
    std::snprintf(text, sizeof text, "00000000-0000-4000-8000-%012llX", static_cast<unsigned long long>(key));
    return text;
}

// Runs one statement on a connection of its own to the file, behind the document's back, and
// answers every row, each column as text (blobs as their bytes).
inline std::vector<std::vector<std::string>> sql(const std::filesystem::path& path,
                                                 const std::string& statement) {
    std::vector<std::vector<std::string>> rows;
    sqlite3* connection = nullptr;
    sqlite3_stmt* prepared = nullptr;
    int step = SQLITE_ERROR;
    if (sqlite3_open(path.c_str(), &connection) == SQLITE_OK &&
        sqlite3_prepare_v2(connection, statement.c_str(), -1, &prepared, nullptr) == SQLITE_OK)
        while ((step = sqlite3_step(prepared)) == SQLITE_ROW) {
            rows.emplace_back();
            for (int column = 0; column < sqlite3_column_count(prepared); ++column) {
                const auto* data = static_cast<const char*>(sqlite3_column_blob(prepared, column));
                rows.back().emplace_back(data ? std::string(data, sqlite3_column_bytes(prepared, column))
                                              : "");
            }
        }
    if (step != SQLITE_DONE)
        ADD_FAILURE() << statement << ": " << sqlite3_errmsg(connection);
    sqlite3_finalize(prepared);
    sqlite3_close_v2(connection);
    return rows;
}

inline std::int64_t errorCode(MeasurementDocumentErrorCode code) {
    return static_cast<std::int64_t>(code);
}

inline std::unique_ptr<MeasurementDocument>
openDocument(const std::filesystem::path& path,
             MeasurementDocument::Access access = MeasurementDocument::Access::ReadWrite,
             bool create = false) {
    auto document = create ? MeasurementDocument::create(path) : MeasurementDocument::open(path, access);
    EXPECT_TRUE(document.has_value()) << (document ? "" : document.error().localizedDescription);
    return document ? std::move(*document) : nullptr;
}

inline std::unique_ptr<MeasurementDocument> createDocument(const std::filesystem::path& path) {
    return openDocument(path, MeasurementDocument::Access::ReadWrite, true);
}

// Stores record key as of version: its archive, and its impulse response at 48 kHz.
inline Expected<void> putRecordAndImpulse(MeasurementDocument& document, std::uint64_t key,
                                          std::uint64_t version = 0) {
    if (auto put = document.putRecord(recordUUID(key), archiveBytes(key, version)); !put)
        return put;
    return document.putImpulseResponse(recordUUID(key), impulseSamples(key, version), 48000);
}

inline std::string fileBytes(const std::filesystem::path& path) {
    std::ifstream input(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(input)), std::istreambuf_iterator<char>());
}

} // namespace tavolar::testing
