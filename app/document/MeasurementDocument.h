#pragma once
// The host's measurement document: one SQLite file ("*.tavolar") holding the measurement records as
// keyed-archive bytes, their impulse responses (the records' impulse cache), and named capture
// settings and sweep presets, all keyed by strings.
//
// Durability: every write is one transaction (rollback journal, synchronous FULL), so a crash or a
// kill at any moment leaves the document as it was before or after the write, never in between.
// Several writes that belong together (a record and its impulse response) are made atomic as a
// whole with performBatch. Stored blobs carry a checksum, so damage is reported rather than read as
// data. Every operation is safe to call from any thread; calls are serialised.

#include "platform/KeyedArchiver.h"
#include "platform/TavolarError.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar {

class SQLiteDatabase;
struct SQLiteFailure;

// The error domain of documents, and its codes.
inline constexpr std::string_view kMeasurementDocumentErrorDomain = "TavolarDocumentErrorDomain";

enum class MeasurementDocumentErrorCode : std::int64_t {
    FileNotFound = 1,  // no file at the path
    AlreadyExists = 2, // create refused to replace a file
    NotADocument = 3,  // some other kind of file
    NewerFormat = 4,   // written by a newer version of the program
    Damaged = 5,       // corrupt, truncated or failing its checksums
    InUse = 6,         // locked by another program
    ReadOnly = 7,      // opened read-only, or the file or folder may not be written
    WriteFailed = 8,   // disk full or an I/O error
    Failed = 9,        // anything else the database reports
};

// The document format this program writes; documents of a greater version are refused.
inline constexpr std::int64_t kMeasurementDocumentFormatVersion = 1;

// The columns kept beside a record's archive so that a document can be listed without decoding it.
struct RecordMetadata {
    std::string name;
    std::optional<ArchivedDate> date;
};

// One record as listRecords answers it; the archive and the samples are not read.
struct RecordSummary {
    std::string uuid;
    std::string name;
    std::optional<ArchivedDate> date;
    std::size_t archiveSize = 0;
    // Set when an impulse response is stored under the record's UUID.
    std::optional<std::int64_t> impulseSampleRate;
    std::optional<std::size_t> impulseLength;
};

// An impulse response as stored: 32-bit float samples and their sample rate in Hz.
struct StoredImpulseResponse {
    std::vector<float> samples;
    std::int64_t sampleRate = 0;
};

class MeasurementDocument {
public:
    enum class Access { ReadWrite, ReadOnly };

    // Creates a new, empty document. An existing file is never replaced. The file appears complete
    // or not at all.
    static Expected<std::unique_ptr<MeasurementDocument>> create(const std::filesystem::path& path);
    // Opens an existing document. Nothing but the file's header and table layout is read; records
    // and samples are read when asked for. A document left by an interrupted write is restored to
    // its last complete state here whenever this process may write the file, whatever the access
    // asked for; a file it may not write is read in that state from a private copy, and left as it
    // is.
    static Expected<std::unique_ptr<MeasurementDocument>> open(const std::filesystem::path& path,
                                                               Access access = Access::ReadWrite);

    ~MeasurementDocument();
    MeasurementDocument(const MeasurementDocument&) = delete;
    MeasurementDocument& operator=(const MeasurementDocument&) = delete;

    const std::filesystem::path& path() const noexcept { return path_; }
    bool isReadOnly() const noexcept { return access_ == Access::ReadOnly; }

    // Records: keyed-archive bytes under the record's UUID (its impulse UUID). Putting a UUID that
    // is present replaces the archive and metadata and keeps the record's place in the order; a new
    // one goes last. uuid must not be empty (parameter assertion).
    Expected<void> putRecord(std::string_view uuid, std::span<const std::byte> archive,
                             const RecordMetadata& metadata = {});
    // The archive, or nullopt when there is no such record.
    Expected<std::optional<std::vector<std::byte>>> recordArchive(std::string_view uuid) const;
    // Every record in document order.
    Expected<std::vector<RecordSummary>> listRecords() const;
    // Removes the record and its impulse response together; false when there was no such record.
    Expected<bool> removeRecord(std::string_view uuid);
    // Puts the named records first, in the given order; the others follow in their present order.
    // Unknown UUIDs are ignored.
    Expected<void> setRecordOrder(std::span<const std::string> uuids);

    // Impulse responses: the samples (stored as little-endian float32) and their sample rate, under a
    // UUID. They may be stored before their record is, as a new record's impulse is set before the
    // record is added. sampleRate must be positive (parameter assertion).
    Expected<void> putImpulseResponse(std::string_view uuid, std::span<const float> samples,
                                      std::int64_t sampleRate);
    // The samples and sample rate, or nullopt when none are stored under the UUID.
    Expected<std::optional<StoredImpulseResponse>> impulseResponse(std::string_view uuid) const;
    Expected<bool> removeImpulseResponse(std::string_view uuid);
    // Removes impulse responses whose UUID names no record (left by copies that were never added);
    // answers how many were removed.
    Expected<std::size_t> removeUnusedImpulseResponses();

    // Capture settings and sweep presets: keyed-archive bytes by name (names must not be empty).
    Expected<void> putCaptureSettings(std::string_view name, std::span<const std::byte> archive);
    Expected<std::optional<std::vector<std::byte>>> captureSettings(std::string_view name) const;
    Expected<std::vector<std::string>> captureSettingsNames() const;
    Expected<bool> removeCaptureSettings(std::string_view name);

    Expected<void> putSweepPreset(std::string_view name, std::span<const std::byte> archive);
    Expected<std::optional<std::vector<std::byte>>> sweepPreset(std::string_view name) const;
    Expected<std::vector<std::string>> sweepPresetNames() const;
    Expected<bool> removeSweepPreset(std::string_view name);

    // Runs writes as one transaction: all of them are kept when writes succeeds, none when it fails
    // or throws. Batches may nest. Other threads wait until the batch is done.
    Expected<void> performBatch(const std::function<Expected<void>()>& writes);

    // Checks the whole file: the database's own integrity check and every stored checksum. Reads
    // everything, so it is for an explicit check, not for every open.
    Expected<void> checkIntegrity() const;
    // The database's own integrity check alone: damage to the file's structure, which a write could
    // spread, as opposed to a stored blob that fails its checksum, which stays confined to its record
    // (and is reported when that record is read).
    Expected<void> checkStructure() const;

private:
    struct Statements;
    MeasurementDocument(std::filesystem::path path, Access access);

    static Expected<std::unique_ptr<MeasurementDocument>> openChecked(const std::filesystem::path& path,
                                                                      Access access);
    // Opens file as the document at path; leftByInterruptedWrite tells a failure for want of a
    // restoration that a read-only connection cannot make.
    static Expected<std::unique_ptr<MeasurementDocument>> openFile(const std::filesystem::path& path,
                                                                   const std::filesystem::path& file,
                                                                   Access access,
                                                                   bool& leftByInterruptedWrite);
    Expected<void> verifyOpenedFile();
    TavolarError errorFor(const SQLiteFailure& failure) const;
    TavolarError damagedError(std::string_view what) const;
    // Damage to one stored item (a record, an impulse response, named settings) that leaves the rest
    // of the document readable and writable.
    TavolarError damagedItemError(std::string_view what) const;
    Expected<void> requireWritable() const;
    // Runs body inside a savepoint: released when body succeeds, rolled back when it fails or throws.
    Expected<void> inTransaction(const std::function<Expected<void>()>& body);

    Expected<void> putNamedArchive(std::string_view kind, std::string_view name,
                                   std::span<const std::byte> archive);
    Expected<std::optional<std::vector<std::byte>>> namedArchive(std::string_view kind,
                                                                 std::string_view name) const;
    Expected<std::vector<std::string>> namedArchiveNames(std::string_view kind) const;
    Expected<bool> removeNamedArchive(std::string_view kind, std::string_view name);

    std::filesystem::path path_;
    // The file the connection reads: path_, or a private restored copy of it (temporaryCopy_, removed
    // when the document closes).
    std::filesystem::path file_;
    std::filesystem::path temporaryCopy_;
    bool leftByInterruptedWrite_ = false;
    Access access_;
    mutable std::recursive_mutex mutex_;
    std::unique_ptr<SQLiteDatabase> database_;
    std::unique_ptr<Statements> statements_;
};

} // namespace tavolar
