#include "document/MeasurementDocument.h"

#include "document/SQLiteDatabase.h"
#include "platform/Assertions.h"
#include "platform/TavolarLocalizedString.h"
#include "platform/UUID.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <fstream>
#include <set>
#include <sqlite3.h>
#include <unistd.h>

namespace tavolar {

namespace {

// Marks the file as a measurement document ("TAVD") in the database header, so that another
// program's SQLite file is told apart from a document.
constexpr std::int64_t kApplicationID = 0x54415644;

constexpr std::string_view kCaptureSettingsKind = "captureSettings";
constexpr std::string_view kSweepPresetKind = "sweepPreset";

constexpr const char* kSchema = R"sql(
CREATE TABLE records (
    uuid TEXT NOT NULL UNIQUE,
    position INTEGER NOT NULL,
    name TEXT NOT NULL,
    date REAL,
    checksum INTEGER NOT NULL,
    archive BLOB NOT NULL
);
CREATE TABLE impulse_responses (
    uuid TEXT NOT NULL UNIQUE,
    sample_rate INTEGER NOT NULL CHECK (sample_rate > 0),
    sample_count INTEGER NOT NULL CHECK (sample_count >= 0),
    checksum INTEGER NOT NULL,
    samples BLOB NOT NULL CHECK (length(samples) = 4 * sample_count)
);
CREATE TABLE named_archives (
    kind TEXT NOT NULL,
    name TEXT NOT NULL,
    checksum INTEGER NOT NULL,
    archive BLOB NOT NULL,
    UNIQUE (kind, name)
);
)sql";

// 64-bit FNV-1a over the stored bytes: cheap, and enough to tell damaged data from good.
std::uint64_t continueChecksum(std::uint64_t hash, std::span<const std::byte> bytes) {
    for (std::byte value : bytes) {
        hash ^= static_cast<std::uint64_t>(value);
        hash *= 0x100000001b3ULL;
    }
    return hash;
}

constexpr std::uint64_t kChecksumStart = 0xcbf29ce484222325ULL;

std::int64_t checksumOf(std::span<const std::byte> bytes) {
    return std::bit_cast<std::int64_t>(continueChecksum(kChecksumStart, bytes));
}

// An impulse response's checksum covers its sample rate too, so that a damaged rate is not read as
// a good one.
std::int64_t impulseChecksumOf(std::int64_t sampleRate, std::span<const std::byte> samples) {
    std::array<std::byte, 8> rate{};
    for (std::size_t index = 0; index < rate.size(); ++index)
        rate[index] = static_cast<std::byte>(static_cast<std::uint64_t>(sampleRate) >> (8 * index));
    return std::bit_cast<std::int64_t>(continueChecksum(continueChecksum(kChecksumStart, rate), samples));
}

// Samples as little-endian float32 bytes, whatever the host's byte order.
std::vector<std::byte> littleEndianBytes(std::span<const float> samples) {
    std::vector<std::byte> bytes(samples.size() * sizeof(float));
    if constexpr (std::endian::native == std::endian::little) {
        if (!samples.empty())
            std::memcpy(bytes.data(), samples.data(), bytes.size());
    } else {
        for (std::size_t index = 0; index < samples.size(); ++index) {
            std::uint32_t word = std::byteswap(std::bit_cast<std::uint32_t>(samples[index]));
            std::memcpy(bytes.data() + index * sizeof(float), &word, sizeof word);
        }
    }
    return bytes;
}

std::vector<float> samplesFromLittleEndian(std::span<const std::byte> bytes) {
    std::vector<float> samples(bytes.size() / sizeof(float));
    if (!samples.empty())
        std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
    if constexpr (std::endian::native != std::endian::little) {
        for (float& sample : samples)
            sample = std::bit_cast<float>(std::byteswap(std::bit_cast<std::uint32_t>(sample)));
    }
    return samples;
}

double secondsSince1970(ArchivedDate date) {
    return date.time_since_epoch().count();
}

ArchivedDate dateFromSeconds(double seconds) {
    return ArchivedDate(std::chrono::duration<double>(seconds));
}

std::string localizedFormat(std::string_view pattern, std::string_view comment, auto&&... arguments) {
    std::string localized = TavolarLocalizedString(pattern, comment);
    try {
        return fmt::format(fmt::runtime(localized), arguments...);
    } catch (const fmt::format_error&) {
        // A translation with broken placeholders falls back to the English text.
        return fmt::format(fmt::runtime(pattern), arguments...);
    }
}

TavolarError documentError(MeasurementDocumentErrorCode code, std::string description,
                           std::string_view suggestion) {
    return TavolarError{std::string(kMeasurementDocumentErrorDomain), static_cast<std::int64_t>(code),
                        std::move(description),
                        TavolarLocalizedString(suggestion, "Recovery suggestion of a document error")};
}

std::unexpected<TavolarError> failure(TavolarError error) {
    return std::unexpected(std::move(error));
}

// The first bytes of every SQLite database file.
constexpr std::string_view kSQLiteMagic{"SQLite format 3\0", 16};

std::vector<std::byte> copyOf(std::span<const std::byte> bytes) {
    return std::vector<std::byte>(bytes.begin(), bytes.end());
}

void syncFolder(const std::filesystem::path& folder) {
    int descriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor >= 0) {
        ::fsync(descriptor);
        ::close(descriptor);
    }
}

} // namespace

struct MeasurementDocument::Statements {
    SQLiteStatement putRecord, recordArchive, listRecords, removeRecord, setRecordPosition, recordOrder;
    SQLiteStatement putImpulse, impulse, removeImpulse, removeUnusedImpulses;
    SQLiteStatement putNamed, named, namedNames, removeNamed;
};

MeasurementDocument::MeasurementDocument(std::filesystem::path path, Access access)
    : path_(std::move(path)), access_(access), database_(std::make_unique<SQLiteDatabase>()) {}

MeasurementDocument::~MeasurementDocument() {
    // Statements must be finalised before their connection closes.
    statements_.reset();
    database_.reset();
    if (!temporaryCopy_.empty()) {
        std::error_code ignored;
        std::filesystem::remove(temporaryCopy_, ignored);
        std::filesystem::remove(temporaryCopy_.string() + "-journal", ignored);
    }
}

// MARK: Errors

TavolarError MeasurementDocument::damagedError(std::string_view what) const {
    return documentError(MeasurementDocumentErrorCode::Damaged,
                         localizedFormat("The document “{}” is damaged: {}.",
                                         "Description of a document error", path_.string(), what),
                         "Open a backup copy of the document. Records that can still be read can be copied "
                         "into a new document.");
}

TavolarError MeasurementDocument::damagedItemError(std::string_view what) const {
    return documentError(MeasurementDocumentErrorCode::Damaged,
                         localizedFormat("The document “{}” is damaged: {}.",
                                         "Description of a document error", path_.string(), what),
                         "The damage is confined to that item: the document's other records can still be "
                         "read and changed. Remove the damaged record, or copy the other records into a new "
                         "document.");
}

TavolarError MeasurementDocument::errorFor(const SQLiteFailure& failure) const {
    const std::string name = path_.string();
    const char* comment = "Description of a document error";
    switch (failure.primaryCode()) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_FORMAT:
        return damagedError(failure.message);
    case SQLITE_FULL:
        return documentError(
            MeasurementDocumentErrorCode::WriteFailed,
            localizedFormat("The document “{}” could not be saved because the disk is full.", comment, name),
            "Free some space on the disk, then try again.");
    case SQLITE_IOERR:
        return documentError(MeasurementDocumentErrorCode::WriteFailed,
                             localizedFormat("A disk error occurred while using the document “{}” ({}).",
                                             comment, name, failure.message),
                             "Check the disk and its connection, then try again.");
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return documentError(
            MeasurementDocumentErrorCode::InUse,
            localizedFormat("The document “{}” is in use by another program.", comment, name),
            "Close the document in the other program, then try again.");
    case SQLITE_READONLY:
        if (failure.code == SQLITE_READONLY_ROLLBACK)
            return documentError(
                MeasurementDocumentErrorCode::ReadOnly,
                localizedFormat("The document “{}” was left unfinished by an interrupted save, and "
                                "this program may not write the file to restore it.",
                                comment, name),
                "Open it once as a user who may write the file and its folder, which restores it; until "
                "then it can be read as it was before that save.");
        [[fallthrough]];
    case SQLITE_PERM:
    case SQLITE_CANTOPEN:
    case SQLITE_AUTH:
        return documentError(
            MeasurementDocumentErrorCode::ReadOnly,
            localizedFormat("The document “{}” cannot be changed ({}).", comment, name, failure.message),
            "Check that you may write to the file and its folder, or save a copy elsewhere.");
    default:
        return documentError(
            MeasurementDocumentErrorCode::Failed,
            localizedFormat("The document “{}” could not be used: {}.", comment, name, failure.message),
            "Try again. If the problem persists, open a backup copy of the document.");
    }
}

Expected<void> MeasurementDocument::requireWritable() const {
    if (access_ == Access::ReadWrite)
        return {};
    return failure(documentError(MeasurementDocumentErrorCode::ReadOnly,
                                 localizedFormat("The document “{}” was opened read-only.",
                                                 "Description of a document error", path_.string()),
                                 "Open the document with write access to change it."));
}

// MARK: Creating and opening

Expected<std::unique_ptr<MeasurementDocument>>
MeasurementDocument::create(const std::filesystem::path& path) {
    const char* comment = "Description of a document error";
    std::error_code statusError;
    if (std::filesystem::symlink_status(path, statusError).type() != std::filesystem::file_type::not_found &&
        !statusError)
        return failure(
            documentError(MeasurementDocumentErrorCode::AlreadyExists,
                          localizedFormat("A file named “{}” already exists.", comment, path.string()),
                          "Choose another name, or move the existing file away first."));
    std::filesystem::path folder =
        path.parent_path().empty() ? std::filesystem::path(".") : path.parent_path();
    if (!std::filesystem::is_directory(folder, statusError))
        return failure(
            documentError(MeasurementDocumentErrorCode::FileNotFound,
                          localizedFormat("The folder “{}” does not exist.", comment, folder.string()),
                          "Choose an existing folder for the new document."));

    // The document is built under a temporary name and renamed into place when complete, so that an
    // interrupted creation leaves no half-made document behind.
    std::filesystem::path building =
        folder / ("." + path.filename().string() + "." + newUUIDString() + ".new");
    auto removeBuilding = [&] {
        std::error_code ignored;
        std::filesystem::remove(building, ignored);
        std::filesystem::remove(building.string() + "-journal", ignored);
    };
    MeasurementDocument creating(path, Access::ReadWrite);
    SQLiteDatabase& database = *creating.database_;
    std::optional<SQLiteFailure> problem = SQLiteDatabase::open(building.string(), false, true, database);
    if (!problem)
        problem = database.execute("PRAGMA journal_mode = DELETE; PRAGMA synchronous = FULL;");
    if (!problem)
        problem =
            database.execute("BEGIN IMMEDIATE; PRAGMA application_id = " + std::to_string(kApplicationID) +
                             "; PRAGMA user_version = " + std::to_string(kMeasurementDocumentFormatVersion) +
                             ";" + kSchema + "COMMIT;");
    database.close();
    if (problem) {
        removeBuilding();
        return failure(creating.errorFor(*problem));
    }
    if (::renameat2(AT_FDCWD, building.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) != 0) {
        int reason = errno;
        if (reason == EINVAL || reason == ENOSYS) {
            // A file system without exclusive rename: the existence check above has to do.
            std::error_code renameError;
            std::filesystem::rename(building, path, renameError);
            reason = renameError ? renameError.value() : 0;
        }
        if (reason != 0) {
            removeBuilding();
            if (reason == EEXIST)
                return failure(documentError(
                    MeasurementDocumentErrorCode::AlreadyExists,
                    localizedFormat("A file named “{}” already exists.", comment, path.string()),
                    "Choose another name, or move the existing file away first."));
            return failure(documentError(MeasurementDocumentErrorCode::ReadOnly,
                                         localizedFormat("The document “{}” could not be created ({}).",
                                                         comment, path.string(), std::strerror(reason)),
                                         "Check that you may write to the folder, then try again."));
        }
    }
    syncFolder(folder);
    return open(path, Access::ReadWrite);
}

Expected<std::unique_ptr<MeasurementDocument>> MeasurementDocument::open(const std::filesystem::path& path,
                                                                         Access access) {
    const char* comment = "Description of a document error";
    const std::string name = path.string();
    std::error_code statusError;
    std::filesystem::file_status status = std::filesystem::status(path, statusError);
    if (status.type() == std::filesystem::file_type::not_found)
        return failure(documentError(MeasurementDocumentErrorCode::FileNotFound,
                                     localizedFormat("The document “{}” could not be found.", comment, name),
                                     "Check the name and the folder of the document."));
    auto notADocument = [&] {
        return failure(
            documentError(MeasurementDocumentErrorCode::NotADocument,
                          localizedFormat("“{}” is not a Tavolar measurement document.", comment, name),
                          "Choose a document saved by Tavolar (a .tavolar file)."));
    };
    if (status.type() != std::filesystem::file_type::regular)
        return notADocument();

    // Look at the header before SQLite does, so that a file of another kind is named as such.
    std::array<char, 16> header{};
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return failure(documentError(
            MeasurementDocumentErrorCode::ReadOnly,
            localizedFormat("The document “{}” could not be read ({}).", comment, name, std::strerror(errno)),
            "Check that you may read the file."));
    file.read(header.data(), header.size());
    const auto headerLength = static_cast<std::size_t>(file.gcount());
    file.close();
    MeasurementDocument probe(path, access);
    if (headerLength == 0)
        return failure(
            probe.damagedError(TavolarLocalizedString("the file is empty", "Reason a document is damaged")));
    if (std::string_view(header.data(), headerLength) != kSQLiteMagic.substr(0, headerLength))
        return notADocument();
    if (headerLength < kSQLiteMagic.size())
        return failure(probe.damagedError(
            TavolarLocalizedString("the file is cut off at its beginning", "Reason a document is damaged")));
    return openChecked(path, access);
}

Expected<std::unique_ptr<MeasurementDocument>>
MeasurementDocument::openFile(const std::filesystem::path& path, const std::filesystem::path& file,
                              Access access, bool& leftByInterruptedWrite) {
    std::unique_ptr<MeasurementDocument> document(new MeasurementDocument(path, access));
    document->file_ = file;
    if (auto problem =
            SQLiteDatabase::open(file.string(), access == Access::ReadOnly, false, *document->database_))
        return failure(document->errorFor(*problem));
    if (Expected<void> verified = document->verifyOpenedFile(); !verified) {
        leftByInterruptedWrite = document->leftByInterruptedWrite_;
        return failure(std::move(verified.error()));
    }
    return document;
}

namespace {

// Rolls back the journal a killed writer left beside file: the first read of a connection with write
// access restores the file to its last committed state.
std::optional<SQLiteFailure> rollBackInterruptedWrite(const std::filesystem::path& file) {
    SQLiteDatabase database;
    std::optional<SQLiteFailure> problem = SQLiteDatabase::open(file.string(), false, false, database);
    std::int64_t ignored = 0;
    if (!problem)
        problem = database.queryInt64("PRAGMA application_id", ignored);
    return problem;
}

bool mayWrite(const std::filesystem::path& path) {
    const std::filesystem::path folder =
        path.parent_path().empty() ? std::filesystem::path(".") : path.parent_path();
    // Restoring writes the file and removes the journal beside it.
    return ::access(path.c_str(), W_OK) == 0 && ::access(folder.c_str(), W_OK) == 0;
}

} // namespace

Expected<std::unique_ptr<MeasurementDocument>>
MeasurementDocument::openChecked(const std::filesystem::path& path, Access access) {
    bool leftByInterruptedWrite = false;
    auto document = openFile(path, path, access, leftByInterruptedWrite);
    if (document || !leftByInterruptedWrite)
        return document;

    // A writer was killed in the middle of a write, and a read-only connection cannot restore the
    // file. Whoever may write to it restores it now, whatever they opened it for.
    if (mayWrite(path)) {
        if (auto problem = rollBackInterruptedWrite(path))
            return failure(document.error());
        return openFile(path, path, access, leftByInterruptedWrite);
    }
    // Changes are never made to a copy, where they would be lost.
    if (access == Access::ReadWrite)
        return document;
    // A file this program may not write is read as it was before the interrupted write, from a
    // private copy restored in the temporary folder; the file itself is left as it is. The journal is
    // copied first, so that a restoration by someone else in between leaves the copy consistent.
    std::error_code copyError;
    const std::filesystem::path copy =
        std::filesystem::temp_directory_path(copyError) / ("tavolar-" + newUUIDString() + ".restored");
    auto removeCopy = [&] {
        std::error_code ignored;
        std::filesystem::remove(copy, ignored);
        std::filesystem::remove(copy.string() + "-journal", ignored);
    };
    if (!copyError)
        std::filesystem::copy_file(path.string() + "-journal", copy.string() + "-journal", copyError);
    if (!copyError)
        std::filesystem::copy_file(path, copy, copyError);
    if (copyError || rollBackInterruptedWrite(copy)) {
        removeCopy();
        return failure(document.error());
    }
    auto restored = openFile(path, copy, access, leftByInterruptedWrite);
    if (!restored) {
        removeCopy();
        return restored;
    }
    (*restored)->temporaryCopy_ = copy;
    return restored;
}

Expected<void> MeasurementDocument::verifyOpenedFile() {
    SQLiteDatabase& database = *database_;
    sqlite3_busy_timeout(database.handle(), 5000);
    sqlite3_db_config(database.handle(), SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(database.handle(), SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);

    // The first read restores the document from a journal left by an interrupted write, or fails when
    // the connection is read-only.
    std::int64_t applicationID = 0, version = 0, pageCount = 0, pageSize = 0;
    if (auto problem = database.queryInt64("PRAGMA application_id", applicationID)) {
        leftByInterruptedWrite_ = problem->code == SQLITE_READONLY_ROLLBACK;
        return failure(errorFor(*problem));
    }
    if (auto problem = database.queryInt64("PRAGMA user_version", version))
        return failure(errorFor(*problem));
    const char* comment = "Description of a document error";
    if (applicationID != kApplicationID)
        return failure(documentError(
            MeasurementDocumentErrorCode::NotADocument,
            localizedFormat("“{}” is not a Tavolar measurement document.", comment, path_.string()),
            "Choose a document saved by Tavolar (a .tavolar file)."));
    if (version > kMeasurementDocumentFormatVersion)
        return failure(documentError(
            MeasurementDocumentErrorCode::NewerFormat,
            localizedFormat("The document “{}” was saved by a newer version of Tavolar (document format {}; "
                            "this version reads format {} and older).",
                            comment, path_.string(), version, kMeasurementDocumentFormatVersion),
            "Open the document with a newer version of Tavolar."));
    if (version < 1)
        return failure(damagedError(
            TavolarLocalizedString("its format version is missing", "Reason a document is damaged")));

    // A document cut short (by an incomplete copy) is shorter than its header says; SQLite would only
    // notice when it reaches the missing pages.
    if (auto problem = database.queryInt64("PRAGMA page_count", pageCount))
        return failure(errorFor(*problem));
    if (auto problem = database.queryInt64("PRAGMA page_size", pageSize))
        return failure(errorFor(*problem));
    std::error_code sizeError;
    const std::uintmax_t fileSize = std::filesystem::file_size(file_, sizeError);
    if (!sizeError &&
        static_cast<std::uintmax_t>(pageCount) * static_cast<std::uintmax_t>(pageSize) > fileSize)
        return failure(damagedError(TavolarLocalizedString(
            "the file is shorter than its contents (it may have been cut off while it was copied)",
            "Reason a document is damaged")));

    std::optional<SQLiteFailure> problem;
    if (access_ == Access::ReadWrite)
        problem = database.execute("PRAGMA journal_mode = DELETE; PRAGMA synchronous = FULL;");
    if (!problem)
        problem = database.execute("PRAGMA cell_size_check = ON;");
    if (problem)
        return failure(errorFor(*problem));

    // Preparing every statement checks that the tables are all there with their columns.
    auto statements = std::make_unique<Statements>();
    const std::pair<SQLiteStatement*, const char*> sources[] = {
        {&statements->putRecord,
         "INSERT INTO records (uuid, position, name, date, checksum, archive) "
         "VALUES (?1, (SELECT coalesce(max(position), 0) + 1 FROM records), ?2, ?3, ?4, ?5) "
         "ON CONFLICT (uuid) DO UPDATE SET name = excluded.name, date = excluded.date, "
         "checksum = excluded.checksum, archive = excluded.archive"},
        {&statements->recordArchive, "SELECT checksum, archive FROM records WHERE uuid = ?1"},
        {&statements->listRecords,
         "SELECT records.uuid, records.name, records.date, length(records.archive), "
         "impulse_responses.sample_rate, impulse_responses.sample_count FROM records "
         "LEFT JOIN impulse_responses ON impulse_responses.uuid = records.uuid ORDER BY records.position"},
        {&statements->removeRecord, "DELETE FROM records WHERE uuid = ?1"},
        {&statements->setRecordPosition, "UPDATE records SET position = ?2 WHERE uuid = ?1"},
        {&statements->recordOrder, "SELECT uuid FROM records ORDER BY position"},
        {&statements->putImpulse,
         "INSERT INTO impulse_responses (uuid, sample_rate, sample_count, checksum, samples) "
         "VALUES (?1, ?2, ?3, ?4, ?5) ON CONFLICT (uuid) DO UPDATE SET sample_rate = excluded.sample_rate, "
         "sample_count = excluded.sample_count, checksum = excluded.checksum, samples = excluded.samples"},
        {&statements->impulse,
         "SELECT sample_rate, sample_count, checksum, samples FROM impulse_responses WHERE uuid = ?1"},
        {&statements->removeImpulse, "DELETE FROM impulse_responses WHERE uuid = ?1"},
        {&statements->removeUnusedImpulses,
         "DELETE FROM impulse_responses WHERE uuid NOT IN (SELECT uuid FROM records)"},
        {&statements->putNamed,
         "INSERT INTO named_archives (kind, name, checksum, archive) VALUES (?1, ?2, ?3, ?4) "
         "ON CONFLICT (kind, name) DO UPDATE SET checksum = excluded.checksum, archive = excluded.archive"},
        {&statements->named, "SELECT checksum, archive FROM named_archives WHERE kind = ?1 AND name = ?2"},
        {&statements->namedNames, "SELECT name FROM named_archives WHERE kind = ?1 ORDER BY name"},
        {&statements->removeNamed, "DELETE FROM named_archives WHERE kind = ?1 AND name = ?2"},
    };
    for (const auto& [statement, sql] : sources) {
        if (auto failed = database.prepare(sql, *statement)) {
            if (failed->primaryCode() == SQLITE_ERROR)
                return failure(damagedError(TavolarLocalizedString(
                    "some of its tables are missing or incomplete", "Reason a document is damaged")));
            return failure(errorFor(*failed));
        }
    }
    statements_ = std::move(statements);
    return {};
}

// MARK: Transactions

Expected<void> MeasurementDocument::inTransaction(const std::function<Expected<void>()>& body) {
    std::lock_guard lock(mutex_);
    if (Expected<void> writable = requireWritable(); !writable)
        return writable;
    SQLiteDatabase& database = *database_;
    // The outermost level takes the write lock at once; inner levels are savepoints within it.
    const bool outermost = database.isAutocommit();
    if (auto problem = database.execute(outermost ? "BEGIN IMMEDIATE" : "SAVEPOINT document_write"))
        return failure(errorFor(*problem));
    auto undo = [&] {
        // Failures here are left alone: SQLite may already have rolled the transaction back itself
        // (after a full disk or an I/O error), and then an outer level's commit reports the error.
        if (outermost) {
            if (!database.isAutocommit())
                database.execute("ROLLBACK");
        } else {
            database.execute("ROLLBACK TO document_write; RELEASE document_write");
        }
    };
    Expected<void> result;
    try {
        result = body();
    } catch (...) {
        undo();
        throw;
    }
    if (!result) {
        undo();
        return result;
    }
    if (auto problem = database.execute(outermost ? "COMMIT" : "RELEASE document_write")) {
        undo();
        return failure(errorFor(*problem));
    }
    return {};
}

Expected<void> MeasurementDocument::performBatch(const std::function<Expected<void>()>& writes) {
    return inTransaction(writes);
}

// MARK: Records

Expected<void> MeasurementDocument::putRecord(std::string_view uuid, std::span<const std::byte> archive,
                                              const RecordMetadata& metadata) {
    TAVOLAR_PARAMETER_ASSERT(!uuid.empty());
    return inTransaction([&]() -> Expected<void> {
        SQLiteStatement& statement = statements_->putRecord;
        SQLiteStatementUse use(statement);
        statement.bindText(1, uuid);
        statement.bindText(2, metadata.name);
        if (metadata.date)
            statement.bindDouble(3, secondsSince1970(*metadata.date));
        else
            statement.bindNull(3);
        statement.bindInt64(4, checksumOf(archive));
        statement.bindBlob(5, archive);
        if (auto problem = statement.run())
            return failure(errorFor(*problem));
        return {};
    });
}

Expected<std::optional<std::vector<std::byte>>>
MeasurementDocument::recordArchive(std::string_view uuid) const {
    std::lock_guard lock(mutex_);
    SQLiteStatement& statement = statements_->recordArchive;
    SQLiteStatementUse use(statement);
    statement.bindText(1, uuid);
    bool hasRow = false;
    if (auto problem = statement.step(hasRow))
        return failure(errorFor(*problem));
    if (!hasRow)
        return std::nullopt;
    std::span<const std::byte> archive = statement.columnBlob(1);
    if (checksumOf(archive) != statement.columnInt64(0))
        return failure(damagedItemError(localizedFormat("the record “{}” does not match its checksum",
                                                        "Reason a document is damaged", uuid)));
    return copyOf(archive);
}

Expected<std::vector<RecordSummary>> MeasurementDocument::listRecords() const {
    std::lock_guard lock(mutex_);
    SQLiteStatement& statement = statements_->listRecords;
    SQLiteStatementUse use(statement);
    std::vector<RecordSummary> records;
    for (;;) {
        bool hasRow = false;
        if (auto problem = statement.step(hasRow))
            return failure(errorFor(*problem));
        if (!hasRow)
            break;
        RecordSummary summary;
        summary.uuid = statement.columnText(0);
        summary.name = statement.columnText(1);
        if (!statement.columnIsNull(2))
            summary.date = dateFromSeconds(statement.columnDouble(2));
        summary.archiveSize = static_cast<std::size_t>(statement.columnInt64(3));
        if (!statement.columnIsNull(4)) {
            summary.impulseSampleRate = statement.columnInt64(4);
            summary.impulseLength = static_cast<std::size_t>(statement.columnInt64(5));
        }
        records.push_back(std::move(summary));
    }
    return records;
}

Expected<bool> MeasurementDocument::removeRecord(std::string_view uuid) {
    bool removed = false;
    Expected<void> result = inTransaction([&]() -> Expected<void> {
        SQLiteStatement& records = statements_->removeRecord;
        SQLiteStatementUse useRecords(records);
        records.bindText(1, uuid);
        if (auto problem = records.run())
            return failure(errorFor(*problem));
        removed = sqlite3_changes(database_->handle()) > 0;
        SQLiteStatement& impulses = statements_->removeImpulse;
        SQLiteStatementUse useImpulses(impulses);
        impulses.bindText(1, uuid);
        if (auto problem = impulses.run())
            return failure(errorFor(*problem));
        return {};
    });
    if (!result)
        return failure(std::move(result.error()));
    return removed;
}

Expected<void> MeasurementDocument::setRecordOrder(std::span<const std::string> uuids) {
    return inTransaction([&]() -> Expected<void> {
        std::vector<std::string> present;
        {
            SQLiteStatement& statement = statements_->recordOrder;
            SQLiteStatementUse use(statement);
            for (;;) {
                bool hasRow = false;
                if (auto problem = statement.step(hasRow))
                    return failure(errorFor(*problem));
                if (!hasRow)
                    break;
                present.push_back(statement.columnText(0));
            }
        }
        const std::set<std::string, std::less<>> known(present.begin(), present.end());
        std::set<std::string, std::less<>> placed;
        std::vector<std::string> order;
        for (const std::string& uuid : uuids) {
            if (known.contains(uuid) && placed.insert(uuid).second)
                order.push_back(uuid);
        }
        for (const std::string& uuid : present) {
            if (!placed.contains(uuid))
                order.push_back(uuid);
        }
        SQLiteStatement& statement = statements_->setRecordPosition;
        for (std::size_t index = 0; index < order.size(); ++index) {
            SQLiteStatementUse use(statement);
            statement.bindText(1, order[index]);
            statement.bindInt64(2, static_cast<std::int64_t>(index) + 1);
            if (auto problem = statement.run())
                return failure(errorFor(*problem));
        }
        return {};
    });
}

// MARK: Impulse responses

Expected<void> MeasurementDocument::putImpulseResponse(std::string_view uuid, std::span<const float> samples,
                                                       std::int64_t sampleRate) {
    TAVOLAR_PARAMETER_ASSERT(!uuid.empty());
    TAVOLAR_PARAMETER_ASSERT(sampleRate > 0);
    const std::vector<std::byte> bytes = littleEndianBytes(samples);
    return inTransaction([&]() -> Expected<void> {
        SQLiteStatement& statement = statements_->putImpulse;
        SQLiteStatementUse use(statement);
        statement.bindText(1, uuid);
        statement.bindInt64(2, sampleRate);
        statement.bindInt64(3, static_cast<std::int64_t>(samples.size()));
        statement.bindInt64(4, impulseChecksumOf(sampleRate, bytes));
        statement.bindBlob(5, bytes);
        if (auto problem = statement.run())
            return failure(errorFor(*problem));
        return {};
    });
}

Expected<std::optional<StoredImpulseResponse>>
MeasurementDocument::impulseResponse(std::string_view uuid) const {
    std::lock_guard lock(mutex_);
    SQLiteStatement& statement = statements_->impulse;
    SQLiteStatementUse use(statement);
    statement.bindText(1, uuid);
    bool hasRow = false;
    if (auto problem = statement.step(hasRow))
        return failure(errorFor(*problem));
    if (!hasRow)
        return std::nullopt;
    const std::int64_t sampleRate = statement.columnInt64(0);
    const std::int64_t sampleCount = statement.columnInt64(1);
    std::span<const std::byte> bytes = statement.columnBlob(3);
    if (sampleRate <= 0 || sampleCount < 0 ||
        bytes.size() != static_cast<std::uint64_t>(sampleCount) * sizeof(float) ||
        impulseChecksumOf(sampleRate, bytes) != statement.columnInt64(2))
        return failure(
            damagedItemError(localizedFormat("the impulse response of “{}” does not match its checksum",
                                             "Reason a document is damaged", uuid)));
    return StoredImpulseResponse{samplesFromLittleEndian(bytes), sampleRate};
}

Expected<bool> MeasurementDocument::removeImpulseResponse(std::string_view uuid) {
    bool removed = false;
    Expected<void> result = inTransaction([&]() -> Expected<void> {
        SQLiteStatement& statement = statements_->removeImpulse;
        SQLiteStatementUse use(statement);
        statement.bindText(1, uuid);
        if (auto problem = statement.run())
            return failure(errorFor(*problem));
        removed = sqlite3_changes(database_->handle()) > 0;
        return {};
    });
    if (!result)
        return failure(std::move(result.error()));
    return removed;
}

Expected<std::size_t> MeasurementDocument::removeUnusedImpulseResponses() {
    std::size_t removed = 0;
    Expected<void> result = inTransaction([&]() -> Expected<void> {
        SQLiteStatement& statement = statements_->removeUnusedImpulses;
        SQLiteStatementUse use(statement);
        if (auto problem = statement.run())
            return failure(errorFor(*problem));
        removed = static_cast<std::size_t>(sqlite3_changes(database_->handle()));
        return {};
    });
    if (!result)
        return failure(std::move(result.error()));
    return removed;
}

// MARK: Capture settings and sweep presets

Expected<void> MeasurementDocument::putNamedArchive(std::string_view kind, std::string_view name,
                                                    std::span<const std::byte> archive) {
    TAVOLAR_PARAMETER_ASSERT(!name.empty());
    return inTransaction([&]() -> Expected<void> {
        SQLiteStatement& statement = statements_->putNamed;
        SQLiteStatementUse use(statement);
        statement.bindText(1, kind);
        statement.bindText(2, name);
        statement.bindInt64(3, checksumOf(archive));
        statement.bindBlob(4, archive);
        if (auto problem = statement.run())
            return failure(errorFor(*problem));
        return {};
    });
}

Expected<std::optional<std::vector<std::byte>>>
MeasurementDocument::namedArchive(std::string_view kind, std::string_view name) const {
    std::lock_guard lock(mutex_);
    SQLiteStatement& statement = statements_->named;
    SQLiteStatementUse use(statement);
    statement.bindText(1, kind);
    statement.bindText(2, name);
    bool hasRow = false;
    if (auto problem = statement.step(hasRow))
        return failure(errorFor(*problem));
    if (!hasRow)
        return std::nullopt;
    std::span<const std::byte> archive = statement.columnBlob(1);
    if (checksumOf(archive) != statement.columnInt64(0))
        return failure(damagedItemError(localizedFormat("the settings “{}” do not match their checksum",
                                                        "Reason a document is damaged", name)));
    return copyOf(archive);
}

Expected<std::vector<std::string>> MeasurementDocument::namedArchiveNames(std::string_view kind) const {
    std::lock_guard lock(mutex_);
    SQLiteStatement& statement = statements_->namedNames;
    SQLiteStatementUse use(statement);
    statement.bindText(1, kind);
    std::vector<std::string> names;
    for (;;) {
        bool hasRow = false;
        if (auto problem = statement.step(hasRow))
            return failure(errorFor(*problem));
        if (!hasRow)
            break;
        names.push_back(statement.columnText(0));
    }
    return names;
}

Expected<bool> MeasurementDocument::removeNamedArchive(std::string_view kind, std::string_view name) {
    bool removed = false;
    Expected<void> result = inTransaction([&]() -> Expected<void> {
        SQLiteStatement& statement = statements_->removeNamed;
        SQLiteStatementUse use(statement);
        statement.bindText(1, kind);
        statement.bindText(2, name);
        if (auto problem = statement.run())
            return failure(errorFor(*problem));
        removed = sqlite3_changes(database_->handle()) > 0;
        return {};
    });
    if (!result)
        return failure(std::move(result.error()));
    return removed;
}

Expected<void> MeasurementDocument::putCaptureSettings(std::string_view name,
                                                       std::span<const std::byte> archive) {
    return putNamedArchive(kCaptureSettingsKind, name, archive);
}
Expected<std::optional<std::vector<std::byte>>>
MeasurementDocument::captureSettings(std::string_view name) const {
    return namedArchive(kCaptureSettingsKind, name);
}
Expected<std::vector<std::string>> MeasurementDocument::captureSettingsNames() const {
    return namedArchiveNames(kCaptureSettingsKind);
}
Expected<bool> MeasurementDocument::removeCaptureSettings(std::string_view name) {
    return removeNamedArchive(kCaptureSettingsKind, name);
}

Expected<void> MeasurementDocument::putSweepPreset(std::string_view name,
                                                   std::span<const std::byte> archive) {
    return putNamedArchive(kSweepPresetKind, name, archive);
}
Expected<std::optional<std::vector<std::byte>>>
MeasurementDocument::sweepPreset(std::string_view name) const {
    return namedArchive(kSweepPresetKind, name);
}
Expected<std::vector<std::string>> MeasurementDocument::sweepPresetNames() const {
    return namedArchiveNames(kSweepPresetKind);
}
Expected<bool> MeasurementDocument::removeSweepPreset(std::string_view name) {
    return removeNamedArchive(kSweepPresetKind, name);
}

// MARK: Integrity

Expected<void> MeasurementDocument::checkStructure() const {
    std::lock_guard lock(mutex_);
    SQLiteDatabase& database = *database_;
    SQLiteStatement check;
    if (auto problem = database.prepare("PRAGMA integrity_check", check))
        return failure(errorFor(*problem));
    std::vector<std::string> findings;
    for (;;) {
        bool hasRow = false;
        if (auto problem = check.step(hasRow))
            return failure(errorFor(*problem));
        if (!hasRow)
            break;
        std::string finding = check.columnText(0);
        if (finding != "ok")
            findings.push_back(std::move(finding));
    }
    if (!findings.empty()) {
        if (findings.size() > 3)
            findings.resize(3);
        std::string joined;
        for (const std::string& finding : findings)
            joined += (joined.empty() ? "" : "; ") + finding;
        return failure(damagedError(joined));
    }
    return {};
}

Expected<void> MeasurementDocument::checkIntegrity() const {
    std::lock_guard lock(mutex_);
    if (Expected<void> structure = checkStructure(); !structure)
        return structure;
    SQLiteDatabase& database = *database_;
    // Every stored blob against its checksum.
    struct Table {
        const char* sql;
        const char* what;
        bool isImpulse;
    };
    const Table tables[] = {
        {"SELECT uuid, checksum, archive FROM records", "the record “{}” does not match its checksum", false},
        {"SELECT uuid, checksum, samples, sample_rate FROM impulse_responses",
         "the impulse response of “{}” does not match its checksum", true},
        {"SELECT name, checksum, archive FROM named_archives",
         "the settings “{}” do not match their checksum", false},
    };
    for (const Table& table : tables) {
        SQLiteStatement statement;
        if (auto problem = database.prepare(table.sql, statement))
            return failure(errorFor(*problem));
        for (;;) {
            bool hasRow = false;
            if (auto problem = statement.step(hasRow))
                return failure(errorFor(*problem));
            if (!hasRow)
                break;
            const std::int64_t checksum =
                table.isImpulse ? impulseChecksumOf(statement.columnInt64(3), statement.columnBlob(2))
                                : checksumOf(statement.columnBlob(2));
            if (checksum != statement.columnInt64(1))
                return failure(damagedItemError(
                    localizedFormat(table.what, "Reason a document is damaged", statement.columnText(0))));
        }
    }
    return {};
}

} // namespace tavolar
