#include "document/DocumentTestSupport.h"

#include <bit>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <thread>

namespace tavolar {
namespace {

using namespace tavolar::testing;

std::vector<std::string> uuidsOf(const std::vector<RecordSummary>& records) {
    std::vector<std::string> uuids;
    for (const RecordSummary& record : records)
        uuids.push_back(record.uuid);
    return uuids;
}

std::vector<std::byte> bytesOf(std::string_view text) {
    auto begin = reinterpret_cast<const std::byte*>(text.data());
    return std::vector<std::byte>(begin, begin + text.size());
}

TEST(MeasurementDocument, KeepsRecordsImpulsesAndSettingsAcrossReopening) {
    ScratchFolder folder;
    const auto path = folder / "Room.tavolar";
    const std::string a = recordUUID(1), b = recordUUID(2), c = recordUUID(3);
    const ArchivedDate measured(std::chrono::duration<double>(1700000000.25));
    // Awkward samples: signed zero, the smallest subnormal, the extremes, infinities.
    const std::vector<float> awkward{0.0f,
                                     -0.0f,
                                     std::numeric_limits<float>::denorm_min(),
                                     std::numeric_limits<float>::max(),
                                     std::numeric_limits<float>::lowest(),
                                     std::numeric_limits<float>::infinity(),
                                     -1.0f,
                                     0.5f};
    {
        auto document = createDocument(path);
        ASSERT_TRUE(document);
        ASSERT_TRUE(document->putRecord(a, archiveBytes(1, 0), {"Left", measured}));
        ASSERT_TRUE(document->putRecord(b, archiveBytes(2, 0), {"Right", measured}));
        ASSERT_TRUE(document->putRecord(c, {}, {}));
        ASSERT_TRUE(document->putImpulseResponse(a, awkward, 48000));
        ASSERT_TRUE(document->putImpulseResponse(b, impulseSamples(2, 0), 96000));
        ASSERT_TRUE(document->putImpulseResponse(c, {}, 44100));
        // Replacing keeps the place in the order.
        ASSERT_TRUE(document->putRecord(a, archiveBytes(1, 1), {"Left again", std::nullopt}));
        ASSERT_TRUE(document->putCaptureSettings("Studio", bytesOf("capture A")));
        ASSERT_TRUE(document->putCaptureSettings("Living room", bytesOf("capture B")));
        ASSERT_TRUE(document->putCaptureSettings("Studio", bytesOf("capture A2")));
        ASSERT_TRUE(document->putSweepPreset("Long", bytesOf("sweep")));
        // An impulse response of no record, for a look at the bytes.
        ASSERT_TRUE(
            document->putImpulseResponse("impulse", std::vector<float>{1.0f, -2.5f, 0.15625f}, 192000));
    }
    // Samples are stored as little-endian 32-bit floats beside their rate and count:
    // 1.0 = 0x3F800000, -2.5 = 0xC0200000, 0.15625 = 0x3E200000, least significant byte first.
    EXPECT_EQ(
        sql(path, "SELECT sample_rate, sample_count, samples FROM impulse_responses WHERE uuid = 'impulse'"),
        (std::vector<std::vector<std::string>>{
            {"192000", "3", std::string("\x00\x00\x80\x3F\x00\x00\x20\xC0\x00\x00\x20\x3E", 12)}}));
    EXPECT_EQ(sql(path, "PRAGMA journal_mode")[0][0], "delete");
    // Read-only first: everything reads, nothing writes.
    auto document = openDocument(path, MeasurementDocument::Access::ReadOnly);
    ASSERT_TRUE(document);
    auto refused = document->putRecord(recordUUID(4), archiveBytes(4, 0));
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, errorCode(MeasurementDocumentErrorCode::ReadOnly));
    EXPECT_FALSE(document->removeCaptureSettings("Studio"));

    auto records = document->listRecords();
    ASSERT_TRUE(records);
    ASSERT_EQ(uuidsOf(*records), (std::vector<std::string>{a, b, c}));
    EXPECT_EQ((*records)[0].name, "Left again");
    EXPECT_FALSE((*records)[0].date.has_value());
    EXPECT_EQ((*records)[0].archiveSize, archiveBytes(1, 1).size());
    EXPECT_EQ((*records)[0].impulseLength, awkward.size());
    EXPECT_EQ((*records)[1].date, measured);
    EXPECT_EQ((*records)[2].archiveSize, 0u);

    EXPECT_EQ(document->recordArchive(a).value(), archiveBytes(1, 1));
    EXPECT_EQ(document->recordArchive(c).value(), std::vector<std::byte>{});

    auto impulse = document->impulseResponse(a);
    ASSERT_TRUE(impulse && *impulse);
    EXPECT_EQ((*impulse)->sampleRate, 48000);
    ASSERT_EQ((*impulse)->samples.size(), awkward.size());
    // Bit for bit, so that -0 and the subnormal are not flushed or normalised.
    EXPECT_EQ(std::memcmp((*impulse)->samples.data(), awkward.data(), awkward.size() * sizeof(float)), 0);
    EXPECT_EQ(document->impulseResponse(b).value()->samples, impulseSamples(2, 0));
    EXPECT_TRUE(document->impulseResponse(c).value()->samples.empty());
    EXPECT_EQ(document->impulseResponse(recordUUID(99)).value(), std::nullopt);

    EXPECT_EQ(document->captureSettingsNames().value(), (std::vector<std::string>{"Living room", "Studio"}));
    EXPECT_EQ(document->captureSettings("Studio").value(), bytesOf("capture A2"));
    EXPECT_EQ(document->sweepPresetNames().value(), std::vector<std::string>{"Long"});
    // Capture settings and sweep presets are separate name spaces.
    EXPECT_EQ(document->sweepPreset("Studio").value(), std::nullopt);

    document = openDocument(path);
    ASSERT_TRUE(document);
    EXPECT_EQ(document->removeCaptureSettings("Studio").value(), true);
    EXPECT_EQ(document->removeCaptureSettings("Studio").value(), false);
    EXPECT_EQ(document->captureSettingsNames().value(), std::vector<std::string>{"Living room"});
    EXPECT_TRUE(document->checkIntegrity());
}

TEST(MeasurementDocument, OrdersRemovesRecordsWithTheirImpulsesAndDropsUnusedImpulses) {
    ScratchFolder folder;
    auto document = createDocument(folder / "Order.tavolar");
    ASSERT_TRUE(document);
    for (std::uint64_t key = 1; key <= 4; ++key)
        ASSERT_TRUE(putRecordAndImpulse(*document, key));
    // On disk: each new record takes the next position, and its checksum is the 64-bit FNV-1a of its
    // archive (worked out here), which documents written before must keep.
    std::uint64_t fnv1a = 0xcbf29ce484222325ULL;
    for (std::byte value : archiveBytes(1, 0))
        fnv1a = (fnv1a ^ static_cast<std::uint64_t>(value)) * 0x100000001b3ULL;
    const auto file = folder / "Order.tavolar";
    EXPECT_EQ(sql(file, "SELECT position FROM records ORDER BY position"),
              (std::vector<std::vector<std::string>>{{"1"}, {"2"}, {"3"}, {"4"}}));
    EXPECT_EQ(sql(file, "SELECT checksum FROM records WHERE position = 1"),
              (std::vector<std::vector<std::string>>{{std::to_string(std::bit_cast<std::int64_t>(fnv1a))}}));
    // An impulse stored before (or without) its record, as a copy's is.
    ASSERT_TRUE(document->putImpulseResponse(recordUUID(7), impulseSamples(7, 0), 48000));

    // Named ones first in the given order, unknown and repeated ones ignored, the rest after.
    const std::vector<std::string> order{recordUUID(3), recordUUID(9), recordUUID(1), recordUUID(3)};
    ASSERT_TRUE(document->setRecordOrder(order));
    EXPECT_EQ(uuidsOf(document->listRecords().value()),
              (std::vector<std::string>{recordUUID(3), recordUUID(1), recordUUID(2), recordUUID(4)}));

    EXPECT_EQ(document->removeRecord(recordUUID(1)).value(), true);
    EXPECT_EQ(document->removeRecord(recordUUID(1)).value(), false);
    EXPECT_EQ(document->impulseResponse(recordUUID(1)).value(), std::nullopt);
    // A record added after a removal goes last.
    ASSERT_TRUE(document->putRecord(recordUUID(5), archiveBytes(5, 0)));
    EXPECT_EQ(uuidsOf(document->listRecords().value()),
              (std::vector<std::string>{recordUUID(3), recordUUID(2), recordUUID(4), recordUUID(5)}));

    EXPECT_EQ(document->removeUnusedImpulseResponses().value(), 1u);
    EXPECT_EQ(document->impulseResponse(recordUUID(7)).value(), std::nullopt);
    EXPECT_EQ(document->removeImpulseResponse(recordUUID(2)).value(), true);
    EXPECT_EQ(document->removeImpulseResponse(recordUUID(2)).value(), false);
    EXPECT_FALSE(document->listRecords().value()[1].impulseLength.has_value());
}

TEST(MeasurementDocument, BatchesKeepAllOrNothing) {
    ScratchFolder folder;
    auto document = createDocument(folder / "Batch.tavolar");
    ASSERT_TRUE(document);
    auto writeRecordAndImpulse = [&](std::uint64_t key) { return putRecordAndImpulse(*document, key); };

    EXPECT_TRUE(document->performBatch([&] { return writeRecordAndImpulse(1); }));

    auto refused = document->performBatch([&]() -> Expected<void> {
        (void)writeRecordAndImpulse(2);
        return makeUnexpected("stopped on purpose");
    });
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().localizedDescription, "stopped on purpose");

    EXPECT_THROW((void)document->performBatch([&]() -> Expected<void> {
        (void)writeRecordAndImpulse(3);
        throw std::runtime_error("thrown on purpose");
    }),
                 std::runtime_error);

    // An inner batch that fails is undone on its own; the outer batch keeps the rest.
    EXPECT_TRUE(document->performBatch([&]() -> Expected<void> {
        (void)writeRecordAndImpulse(4);
        auto inner = document->performBatch([&]() -> Expected<void> {
            (void)writeRecordAndImpulse(5);
            return makeUnexpected("inner failure");
        });
        EXPECT_FALSE(inner);
        return {};
    }));

    EXPECT_EQ(uuidsOf(document->listRecords().value()),
              (std::vector<std::string>{recordUUID(1), recordUUID(4)}));
    for (std::uint64_t key : {2, 3, 5})
        EXPECT_EQ(document->impulseResponse(recordUUID(key)).value(), std::nullopt) << key;
    // The document still takes writes after the failures.
    EXPECT_TRUE(writeRecordAndImpulse(6));
    EXPECT_EQ(document->listRecords().value().size(), 3u);
}

TEST(MeasurementDocument, RefusesWhatIsNotADocumentItCanRead) {
    ScratchFolder folder;
    auto expectError = [](const std::filesystem::path& path, MeasurementDocumentErrorCode code,
                          std::string_view fragment) {
        auto document = MeasurementDocument::open(path);
        ASSERT_FALSE(document) << path << " opened";
        EXPECT_EQ(document.error().code, errorCode(code)) << document.error().localizedDescription;
        EXPECT_NE(document.error().localizedDescription.find(fragment), std::string::npos)
            << document.error().localizedDescription;
        EXPECT_FALSE(document.error().localizedRecoverySuggestion.empty());
    };

    expectError(folder / "Missing.tavolar", MeasurementDocumentErrorCode::FileNotFound, "could not be found");
    expectError(folder.path(), MeasurementDocumentErrorCode::NotADocument,
                "is not a Tavolar measurement document");

    const auto text = folder / "Notes.tavolar";
    std::ofstream(text) << "Frequency,Magnitude\n20,0.5\n";
    expectError(text, MeasurementDocumentErrorCode::NotADocument, "is not a Tavolar measurement document");

    const auto empty = folder / "Empty.tavolar";
    std::ofstream{empty};
    expectError(empty, MeasurementDocumentErrorCode::Damaged, "empty");

    // Another program's SQLite database.
    const auto foreign = folder / "Foreign.tavolar";
    sql(foreign, "CREATE TABLE things (name TEXT)");
    expectError(foreign, MeasurementDocumentErrorCode::NotADocument, "is not a Tavolar measurement document");

    // A document from a newer version of the program.
    const auto newer = folder / "Newer.tavolar";
    ASSERT_TRUE(createDocument(newer));
    sql(newer, "PRAGMA user_version = " + std::to_string(kMeasurementDocumentFormatVersion + 1));
    expectError(newer, MeasurementDocumentErrorCode::NewerFormat, "newer version of Tavolar");

    // A document whose tables were taken away.
    const auto gutted = folder / "Gutted.tavolar";
    ASSERT_TRUE(createDocument(gutted));
    sql(gutted, "DROP TABLE impulse_responses");
    expectError(gutted, MeasurementDocumentErrorCode::Damaged, "tables are missing");

    // Creating never replaces a file, and refuses a folder that does not exist.
    auto replaced = MeasurementDocument::create(text);
    ASSERT_FALSE(replaced);
    EXPECT_EQ(replaced.error().code, errorCode(MeasurementDocumentErrorCode::AlreadyExists));
    EXPECT_EQ(fileBytes(text), "Frequency,Magnitude\n20,0.5\n");
    auto nowhere = MeasurementDocument::create(folder / "No such folder" / "New.tavolar");
    ASSERT_FALSE(nowhere);
    EXPECT_EQ(nowhere.error().code, errorCode(MeasurementDocumentErrorCode::FileNotFound));
    // Nothing is left behind by a creation: only the files made above are in the folder.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 5);
}

TEST(MeasurementDocument, ServesSeveralThreadsAtOnce) {
    ScratchFolder folder;
    auto document = createDocument(folder / "Threads.tavolar");
    ASSERT_TRUE(document);
    constexpr int kThreads = 4, kRounds = 10;
    std::vector<std::thread> threads;
    std::vector<int> mismatches(kThreads, 0);
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int round = 0; round < kRounds; ++round) {
                const std::uint64_t key = thread * 1000 + round;
                auto written = document->performBatch([&] { return putRecordAndImpulse(*document, key); });
                auto archive = document->recordArchive(recordUUID(key));
                auto impulse = document->impulseResponse(recordUUID(key));
                if (!written || !archive || *archive != archiveBytes(key, 0) || !impulse || !*impulse ||
                    (*impulse)->samples != impulseSamples(key, 0))
                    ++mismatches[thread];
                if (!document->listRecords())
                    ++mismatches[thread];
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(mismatches, std::vector<int>(kThreads, 0));
    EXPECT_EQ(document->listRecords().value().size(), static_cast<std::size_t>(kThreads * kRounds));
}

} // namespace
} // namespace tavolar
