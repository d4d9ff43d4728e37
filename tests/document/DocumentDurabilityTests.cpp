// A document must survive its writer being killed at any moment, and damaged files must give
// errors, never crashes and never wrong data.

#include "document/DocumentTestSupport.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <map>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tavolar {
namespace {

using namespace tavolar::testing;

constexpr std::uint64_t kRecordKeys = 12;

// Every third record has a long impulse response (400 kB), so that a write spans a hundred pages and
// a kill often lands inside one.
std::vector<float> writerSamples(std::uint64_t key, std::uint64_t version) {
    return impulseSamples(key, version, key % 3 == 0 ? 100000 : 1000);
}

// The writer: batches of one to three record writes (archive and impulse together, the samples made
// inside the transaction), removals and reorderings, for ever. Runs in a child process until it is
// killed. Versions are unique per process run.
[[noreturn]] void writeUntilKilled(const std::filesystem::path& path, std::uint64_t run, int readyPipe) {
    auto document = MeasurementDocument::open(path);
    if (!document)
        _exit(2);
    const char ready = 1;
    if (write(readyPipe, &ready, 1) != 1)
        _exit(3);
    std::mt19937_64 generator(run);
    for (std::uint64_t step = 0;; ++step) {
        const std::uint64_t key = generator() % kRecordKeys;
        const std::uint64_t version = run * 1000000 + step;
        const std::uint64_t action = generator() % 10;
        Expected<void> result;
        if (action < 7) {
            const std::uint64_t count = 1 + generator() % 3;
            result = (*document)->performBatch([&]() -> Expected<void> {
                for (std::uint64_t other = key; other < key + count; ++other) {
                    const std::uint64_t written = other % kRecordKeys;
                    if (auto put = (*document)->putRecord(
                            recordUUID(written), archiveBytes(written, version),
                            {std::to_string(written) + " " + std::to_string(version), {}});
                        !put)
                        return put;
                    if (auto put = (*document)->putImpulseResponse(
                            recordUUID(written), writerSamples(written, version), impulseSampleRate(version));
                        !put)
                        return put;
                }
                return {};
            });
        } else if (action < 9) {
            auto removed = (*document)->removeRecord(recordUUID(key));
            if (!removed)
                _exit(4);
        } else {
            std::vector<std::string> order;
            for (std::uint64_t other = 0; other < kRecordKeys; ++other)
                order.push_back(recordUUID((other * 5 + step) % kRecordKeys));
            result = (*document)->setRecordOrder(order);
        }
        if (!result)
            _exit(5);
    }
}

// Checks that every record present is one complete write: its archive, name and impulse response
// all belong to the same version. Answers the number of records.
std::size_t expectCompleteRecords(MeasurementDocument& document) {
    auto records = document.listRecords();
    EXPECT_TRUE(records) << records.error().localizedDescription;
    if (!records)
        return 0;
    for (const RecordSummary& record : *records) {
        auto archive = document.recordArchive(record.uuid);
        EXPECT_TRUE(archive && *archive) << record.uuid;
        if (!archive || !*archive)
            continue;
        const std::vector<std::byte>& bytes = **archive;
        EXPECT_GE(bytes.size(), 16u);
        if (bytes.size() < 16)
            continue;
        const std::uint64_t key = littleEndianWord(bytes, 0);
        const std::uint64_t version = littleEndianWord(bytes, 8);
        EXPECT_EQ(record.uuid, recordUUID(key));
        EXPECT_EQ(bytes, archiveBytes(key, version)) << record.uuid;
        EXPECT_EQ(record.name, std::to_string(key) + " " + std::to_string(version));
        auto impulse = document.impulseResponse(record.uuid);
        EXPECT_TRUE(impulse && *impulse) << "record without its impulse response: " << record.uuid;
        if (impulse && *impulse) {
            EXPECT_EQ((*impulse)->samples, writerSamples(key, version)) << record.uuid;
            EXPECT_EQ((*impulse)->sampleRate, impulseSampleRate(version)) << record.uuid;
        }
    }
    return records->size();
}

TEST(MeasurementDocumentDurability, KilledWriterLeavesTheDocumentBeforeOrAfterEachWrite) {
    ScratchFolder folder;
    const auto path = folder / "Killed.tavolar";
    ASSERT_TRUE(MeasurementDocument::create(path));
    const std::filesystem::path journal = path.string() + "-journal";

    std::mt19937 generator(20240611);
    std::uniform_int_distribution<int> delay(0, 60000);
    constexpr int kRuns = 30;
    int killedMidWrite = 0;
    std::size_t mostRecords = 0;
    for (int run = 1; run <= kRuns; ++run) {
        int pipeEnds[2];
        ASSERT_EQ(pipe(pipeEnds), 0);
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(pipeEnds[0]);
            writeUntilKilled(path, static_cast<std::uint64_t>(run), pipeEnds[1]);
        }
        close(pipeEnds[1]);
        char ready = 0;
        const bool started = read(pipeEnds[0], &ready, 1) == 1;
        close(pipeEnds[0]);
        if (started)
            std::this_thread::sleep_for(std::chrono::microseconds(delay(generator)));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        // Anything but our kill means the writer gave up on an error of its own.
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
            << "writer exited with " << (WIFEXITED(status) ? WEXITSTATUS(status) : -1) << " in run " << run;
        if (std::filesystem::exists(journal))
            ++killedMidWrite;

        auto document = MeasurementDocument::open(path);
        ASSERT_TRUE(document) << document.error().localizedDescription;
        auto integrity = (*document)->checkIntegrity();
        EXPECT_TRUE(integrity) << (integrity ? "" : integrity.error().localizedDescription);
        // The database's own check, independently of the document.
        EXPECT_EQ(sql(path, "PRAGMA integrity_check"), (std::vector<std::vector<std::string>>{{"ok"}}));
        mostRecords = std::max(mostRecords, expectCompleteRecords(**document));
        if (::testing::Test::HasFailure())
            FAIL() << "in run " << run;
    }
    EXPECT_GT(mostRecords, 0u) << "the writer never got a write in";
    RecordProperty("RunsKilledDuringAWrite", killedMidWrite);
}

// The bytes of a document of six records and a sweep preset, all as of version.
std::string sixRecordDocument(const ScratchFolder& folder, std::uint64_t version) {
    const auto path = folder / "Original.tavolar";
    {
        auto document = createDocument(path);
        for (std::uint64_t key = 0; document && key < 6; ++key)
            EXPECT_TRUE(putRecordAndImpulse(*document, key, version));
        EXPECT_TRUE(document && document->putSweepPreset("Long", archiveBytes(100, version)));
    }
    return fileBytes(path);
}

// True when the six records of the document read as written at version.
bool holdsSixRecordsOf(const std::filesystem::path& path, std::uint64_t version) {
    auto document = MeasurementDocument::open(path, MeasurementDocument::Access::ReadOnly);
    for (std::uint64_t key = 0; document && key < 6; ++key)
        if ((*document)->recordArchive(recordUUID(key)).value_or(std::nullopt) != archiveBytes(key, version))
            return false;
    return document.has_value();
}

// Runs body in a child process and answers its wait status.
int statusOfChild(const std::function<void()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        body();
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

TEST(MeasurementDocumentDurability, AWriteInterruptedByAKillIsUndoneByTheNextOpenThatMayWrite) {
    ScratchFolder folder;
    const std::string original = sixRecordDocument(folder, 2);
    const auto path = folder / "Killed.tavolar";
    const std::filesystem::path journal = path.string() + "-journal";
    std::ofstream(path, std::ios::binary) << original;

    // The writer replaces every record with responses that outgrow the page cache, so that pages of
    // the file itself are overwritten, and is killed before the write ends.
    const int writer = statusOfChild([&] {
        auto document = MeasurementDocument::open(path);
        (void)(*document)->performBatch([&]() -> Expected<void> {
            for (std::uint64_t key = 0; key < 6; ++key) {
                (void)(*document)->putRecord(recordUUID(key), archiveBytes(key, 3));
                (void)(*document)->putImpulseResponse(recordUUID(key), impulseSamples(key, 3, 1000000),
                                                      48000);
            }
            kill(getpid(), SIGKILL);
            return {};
        });
    });
    ASSERT_TRUE(WIFSIGNALED(writer) && WTERMSIG(writer) == SIGKILL);
    const std::string killed = fileBytes(path);
    ASSERT_TRUE(std::filesystem::exists(journal) && killed != original) << "the kill came too early";

    // Whoever may not write the file (another user, when the tests run as root) reads it as it was
    // before the write, and leaves it as it is.
    const bool root = geteuid() == 0;
    if (!root) {
        chmod(path.c_str(), 0400);
        chmod(folder.path().c_str(), 0500);
    }
    const int reader = statusOfChild([&] {
        _exit(root && setuid(65534) != 0 ? 2 : holdsSixRecordsOf(path, 2) ? 0 : 1);
    });
    chmod(folder.path().c_str(), 0700);
    chmod(path.c_str(), 0600);
    EXPECT_TRUE(WIFEXITED(reader) && WEXITSTATUS(reader) == 0)
        << "the reader did not read the committed state";
    EXPECT_TRUE(fileBytes(path) == killed && std::filesystem::exists(journal));

    // Whoever may write restores it, even when opening it read-only.
    EXPECT_TRUE(holdsSixRecordsOf(path, 2));
    EXPECT_FALSE(std::filesystem::exists(journal));
    EXPECT_TRUE(openDocument(path)->checkIntegrity());
}

TEST(MeasurementDocumentDurability, DamagedFilesGiveErrorsOrTheTrueData) {
    ScratchFolder folder;
    const std::string contents = sixRecordDocument(folder, 2);
    ASSERT_GT(contents.size(), 16384u);
    const auto damaged = folder / "Damaged.tavolar";

    // A file cut off anywhere is reported as damaged.
    std::vector<std::size_t> lengths{1, 15, 16, 99, 100, 101, 4095, 4096, 4097, 8192};
    for (std::size_t length = 12288; length < contents.size(); length += 3 * 4096 + 1234)
        lengths.push_back(length);
    lengths.push_back(contents.size() - 4096);
    lengths.push_back(contents.size() - 1);
    for (std::size_t length : lengths) {
        std::ofstream(damaged, std::ios::binary | std::ios::trunc).write(contents.data(), length);
        auto document = MeasurementDocument::open(damaged);
        ASSERT_FALSE(document) << "a document cut to " << length << " bytes opened";
        EXPECT_EQ(document.error().code, errorCode(MeasurementDocumentErrorCode::Damaged)) << length;
    }

    // Overwritten bytes give errors, or data that is true.
    std::mt19937 generator(77);
    int opened = 0, detected = 0;
    for (int trial = 0; trial < 150; ++trial) {
        std::string bytes = contents;
        // A run of random bytes somewhere, or a whole page of them; the first trials hit the header.
        const std::size_t start = trial < 10 ? generator() % 100 : generator() % bytes.size();
        const std::size_t count = trial % 3 == 0 ? 4096 : 1 + generator() % 16;
        for (std::size_t index = start; index < std::min(bytes.size(), start + count); ++index)
            bytes[index] = static_cast<char>(generator());
        std::ofstream(damaged, std::ios::binary | std::ios::trunc).write(bytes.data(), bytes.size());

        auto document = MeasurementDocument::open(damaged);
        if (!document) {
            EXPECT_FALSE(document.error().localizedRecoverySuggestion.empty());
            ++detected;
            continue;
        }
        ++opened;
        bool problem = !(*document)->checkIntegrity();
        // Whatever is answered must be the true data; anything else must be an error.
        (void)(*document)->listRecords();
        for (std::uint64_t key = 0; key < 6; ++key) {
            auto archive = (*document)->recordArchive(recordUUID(key));
            if (archive && *archive)
                EXPECT_EQ(**archive, archiveBytes(key, 2)) << "trial " << trial;
            auto impulse = (*document)->impulseResponse(recordUUID(key));
            if (impulse && *impulse)
                EXPECT_TRUE((*impulse)->samples == impulseSamples(key, 2) && (*impulse)->sampleRate == 48000)
                    << "trial " << trial;
            problem |= !archive || !impulse;
        }
        auto preset = (*document)->sweepPreset("Long");
        if (preset && *preset)
            EXPECT_EQ(**preset, archiveBytes(100, 2)) << "trial " << trial;
        detected += problem;
    }
    // Most damage is noticed; damage to unused space may rightly go unnoticed.
    EXPECT_GT(detected, 75) << "opened " << opened;
}

} // namespace
} // namespace tavolar
