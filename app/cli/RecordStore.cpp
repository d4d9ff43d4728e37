#include "RecordStore.h"

#include "CommandLine.h"
#include "platform/KeyedArchiver.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>
#include <set>
#include <system_error>

namespace tavolar::cli {

void MemoryImpulseCache::setImpulse(std::shared_ptr<const VELTRealVector> impulse, const std::string& uuid,
                                    std::int64_t) {
    std::lock_guard lock(mutex_);
    if (impulse)
        impulses_[uuid] = std::move(impulse);
    else
        impulses_.erase(uuid);
}

std::shared_ptr<const VELTRealVector> MemoryImpulseCache::impulseWithUUID(const std::string& uuid) const {
    std::lock_guard lock(mutex_);
    auto found = impulses_.find(uuid);
    return found == impulses_.end() ? nullptr : found->second;
}

TavolarError documentError(const std::filesystem::path& path, TavolarError error) {
    if (error.localizedDescription.find(path.string()) == std::string::npos)
        error.localizedDescription = fmt::format("{}: {}", path.string(), error.localizedDescription);
    return error;
}

Expected<RecordStore> RecordStore::open(const std::filesystem::path& path, Mode mode) {
    RecordStore store;
    store.path_ = path;
    store.cache_ = std::make_shared<MemoryImpulseCache>();
    std::error_code status;
    const bool exists = std::filesystem::exists(path, status);
    Expected<std::unique_ptr<MeasurementDocument>> document = std::unexpected(TavolarError{});
    if (!exists && mode == Mode::CreateIfMissing) {
        document = MeasurementDocument::create(path);
    } else if (!exists) {
        return failure(fmt::format("The document {} does not exist.", path.string()),
                       "Check the path, or make a document with measure or import.");
    } else {
        document =
            MeasurementDocument::open(path, mode == Mode::ReadOnly ? MeasurementDocument::Access::ReadOnly
                                                                   : MeasurementDocument::Access::ReadWrite);
    }
    if (!document)
        return std::unexpected(documentError(path, document.error()));
    store.document_ = std::move(*document);
    // Nothing is written into a document whose structure is damaged: the damage is reported while the
    // rest can still be saved from it. A record that fails its checksum blocks only itself.
    if (exists && mode != Mode::ReadOnly)
        if (auto intact = store.document_->checkStructure(); !intact) {
            TavolarError damaged = documentError(path, intact.error());
            if (damaged.code == static_cast<std::int64_t>(MeasurementDocumentErrorCode::Damaged))
                damaged.localizedRecoverySuggestion = fmt::format(
                    "Copy the records that can still be read into a new document with: tavolar copy "
                    "{} RECORDS -o NEW.tavolar; or open a backup copy of the document.",
                    path.string());
            return std::unexpected(damaged);
        }
    auto summaries = store.document_->listRecords();
    if (!summaries)
        return std::unexpected(documentError(path, summaries.error()));
    store.summaries_ = std::move(*summaries);
    return store;
}

namespace {

// A record's archive: the record's own values, and beside them what the command line keeps of it.
struct StoredRecord {
    static constexpr std::string_view className = VELTMeasurementRecord::className;
    static constexpr std::string_view kLoopbackReferenceKey = "tavolarLoopbackReference";
    static constexpr std::string_view kHiddenKey = "tavolarHidden";

    std::shared_ptr<VELTMeasurementRecord> record;
    nlohmann::json loopbackReference;
    bool hidden = false;

    void encodeWithCoder(KeyedArchiver& coder) const {
        record->encodeWithCoder(coder);
        if (loopbackReference.is_object())
            coder.encodeDictionary(loopbackReference, kLoopbackReferenceKey);
        if (hidden)
            coder.encodeBool(true, kHiddenKey);
    }
    static StoredRecord initWithCoder(KeyedUnarchiver& coder) {
        StoredRecord stored{
            std::make_shared<VELTMeasurementRecord>(VELTMeasurementRecord::initWithCoder(coder)), nullptr};
        // Absent means shown; a value that is no flag (only a damaged archive holds one) is left out
        // like a malformed reference, rather than costing the record.
        if (coder.classNameForKey(kHiddenKey) == "Number")
            stored.hidden = coder.decodeBool(kHiddenKey);
        if (auto reference = coder.decodeDictionary(kLoopbackReferenceKey);
            reference && isWellFormed(*reference))
            stored.loopbackReference = std::move(*reference);
        return stored;
    }
    // Anything else, which only a damaged archive holds, is left out rather than shown.
    static bool isWellFormed(const nlohmann::json& reference) {
        if (!reference.is_object())
            return false;
        if (reference.size() == 1 && reference.contains("file"))
            return reference["file"].is_string();
        return reference.size() == 2 && reference.contains("output") && reference.contains("input") &&
               reference["output"].is_number_integer() && reference["input"].is_number_integer();
    }
};

std::string lowercase(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

} // namespace

Expected<std::vector<std::size_t>> RecordStore::select(std::span<const std::string> selectors,
                                                       bool emptyMeansAll) const {
    std::vector<std::size_t> chosen;
    std::set<std::size_t> seen;
    auto choose = [&](std::size_t index) {
        if (seen.insert(index).second)
            chosen.push_back(index);
    };
    auto all = [&] {
        for (std::size_t index = 0; index < summaries_.size(); ++index)
            choose(index);
    };
    if (selectors.empty()) {
        if (!emptyMeansAll)
            return usageFailure("Name the records to change: their numbers as list shows them, their UUIDs, "
                                "or all.");
        all();
        return chosen;
    }
    for (const std::string& selector : selectors) {
        if (lowercase(selector) == "all") {
            all();
            continue;
        }
        // Digits name a record by its number; a UUID may begin with digits too, so digits that are no
        // record's number are tried as the beginning of a UUID before they are refused.
        const bool isNumber =
            !selector.empty() &&
            std::all_of(selector.begin(), selector.end(), [](unsigned char c) { return std::isdigit(c); });
        if (isNumber && selector.size() <= 9) {
            std::size_t number = std::stoul(selector);
            if (number >= 1 && number <= summaries_.size()) {
                choose(number - 1);
                continue;
            }
        }
        const std::string wanted = lowercase(selector);
        std::vector<std::size_t> matches;
        for (std::size_t index = 0; index < summaries_.size(); ++index) {
            const std::string uuid = lowercase(summaries_[index].uuid);
            if (uuid == wanted) {
                matches.assign(1, index);
                break;
            }
            if (wanted.size() >= 4 && uuid.starts_with(wanted))
                matches.push_back(index);
        }
        if (matches.size() == 1) {
            choose(matches.front());
            continue;
        }
        if (matches.empty() && isNumber)
            return failure(fmt::format("There is no record {} in {}: it holds {} record{}.", selector,
                                       path_.string(), summaries_.size(), summaries_.size() == 1 ? "" : "s"),
                           "Run list to see the records and their numbers.");
        if (matches.empty())
            return failure(fmt::format("There is no record {} in {}.", selector, path_.string()),
                           "Run list to see the records, their numbers and UUIDs.");
        return failure(fmt::format("{} matches {} records in {}.", selector, matches.size(), path_.string()),
                       "Give more of the UUID, or the record's number.");
    }
    return chosen;
}

Expected<std::shared_ptr<VELTMeasurementRecord>> RecordStore::load(std::size_t index) const {
    const RecordSummary& summary = summaries_.at(index);
    auto describe = [&](const TavolarError& error) {
        // Damage confined to the record leaves the document writable; damage to the file's structure
        // leaves only copying out what can still be read.
        const bool fileIntact = document_->checkStructure().has_value();
        return failure(
            fmt::format("Record {} ({}) of {} cannot be read: {}", index + 1, summary.uuid, path_.string(),
                        error.localizedDescription),
            fileIntact ? fmt::format("The other records of the document can still be read and changed. "
                                     "Remove this one with: tavolar delete {} {}; or copy the others into a "
                                     "new document with: tavolar copy {} RECORDS -o NEW.tavolar",
                                     path_.string(), index + 1, path_.string())
                       : fmt::format("The file itself is damaged. Copy the records that can still be read "
                                     "into a new document with: tavolar copy {} RECORDS -o NEW.tavolar; or "
                                     "open a backup copy of the document.",
                                     path_.string()));
    };
    auto archive = document_->recordArchive(summary.uuid);
    if (!archive)
        return describe(archive.error());
    if (!*archive)
        return describe(TavolarError::make("it has been removed"));
    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<StoredRecord>(**archive);
    if (!decoded)
        return describe(decoded.error());
    std::shared_ptr<VELTMeasurementRecord> record = std::move(decoded->record);
    if (decoded->loopbackReference.is_object())
        loopbackReferences_[summary.uuid] = std::move(decoded->loopbackReference);
    if (decoded->hidden)
        hidden_.insert(summary.uuid);
    else
        hidden_.erase(summary.uuid);
    // The document's table of impulse responses is the record's impulse cache; a response kept in
    // the archive itself (older documents) moves into the cache and is replaced by the table's.
    record->setImpulseCache(cache_);
    auto impulse = document_->impulseResponse(record->impulseUUID());
    if (!impulse)
        return describe(impulse.error());
    if (*impulse) {
        if (record->sampleRate() == 0)
            record->setSampleRate((*impulse)->sampleRate);
        cache_->setImpulse(
            std::make_shared<const VELTRealVector>(std::span<const float>((*impulse)->samples)),
            record->impulseUUID(), (*impulse)->sampleRate);
    }
    return record;
}

Expected<void> RecordStore::save(std::span<const std::shared_ptr<VELTMeasurementRecord>> records,
                                 std::span<const std::string> newImpulses) {
    auto written = document_->performBatch([&]() -> Expected<void> {
        for (const auto& record : records) {
            const std::string uuid = record->impulseUUID();
            if (std::find(newImpulses.begin(), newImpulses.end(), uuid) != newImpulses.end()) {
                auto impulse = record->cachedImpulseResponse();
                if (!impulse)
                    impulse = record->impulseResponse();
                if (!impulse)
                    return failure(fmt::format("Record {} has no impulse response to store.", uuid));
                if (auto stored = document_->putImpulseResponse(uuid, impulse->span(), record->sampleRate());
                    !stored)
                    return stored;
            }
            // Names and notes (from arguments and file names in any encoding) are stored as UTF-8.
            if (auto comment = record->comment(); comment && !isValidUTF8(*comment))
                record->setComment(validUTF8(*comment));
            if (auto notes = record->notes(); notes && !isValidUTF8(*notes))
                record->setNotes(validUTF8(*notes));
            // The impulse response lives in the document's own table, not in the record's archive;
            // the record itself is left as it was given, so that it still archives whole elsewhere.
            const bool savedImpulse = !record->dontSaveImpulse();
            record->setDontSaveImpulse(true);
            std::vector<std::byte> archive = KeyedArchiver::archivedDataWithRootObject(
                StoredRecord{record, loopbackReference(uuid), isHidden(uuid)});
            record->setDontSaveImpulse(!savedImpulse);
            RecordMetadata metadata{record->comment().value_or(""), record->date()};
            if (auto stored = document_->putRecord(uuid, archive, metadata); !stored)
                return stored;
        }
        return {};
    });
    if (!written)
        return std::unexpected(documentError(path_, written.error()));
    auto summaries = document_->listRecords();
    if (summaries)
        summaries_ = std::move(*summaries);
    return {};
}

std::shared_ptr<VELTMeasurementRecord> RecordStore::makeRecord(VELTRealVector impulseResponse,
                                                               std::int64_t sampleRate) {
    auto record = VELTMeasurementRecord::record();
    record->setSampleRate(sampleRate);
    record->setImpulseCache(cache_);
    record->setImpulseResponse(std::move(impulseResponse));
    return record;
}

Expected<std::optional<VELTAudioCaptureSettings>> RecordStore::captureSettings() const {
    // Settings that cannot be read block every measurement until they are removed.
    const std::string removal =
        fmt::format("Remove them with: tavolar delete {} --capture-settings; then set "
                    "the calibration of the channels again with calibrate "
                    "--capture-settings.",
                    path_.string());
    auto archive = document_->captureSettings(kCaptureSettingsName);
    if (!archive) {
        TavolarError error = documentError(path_, archive.error());
        if (error.code == static_cast<std::int64_t>(MeasurementDocumentErrorCode::Damaged))
            error.localizedRecoverySuggestion = removal;
        return std::unexpected(error);
    }
    if (!*archive)
        return std::optional<VELTAudioCaptureSettings>();
    auto settings = KeyedUnarchiver::unarchivedObjectOfClass<VELTAudioCaptureSettings>(**archive);
    if (!settings)
        return failure(fmt::format("The capture settings of {} cannot be read: {}", path_.string(),
                                   settings.error().localizedDescription),
                       removal);
    return std::optional<VELTAudioCaptureSettings>(std::move(*settings));
}

Expected<void> RecordStore::putCaptureSettings(const VELTAudioCaptureSettings& settings) {
    std::vector<std::byte> archive = KeyedArchiver::archivedDataWithRootObject(settings);
    if (auto stored = document_->putCaptureSettings(kCaptureSettingsName, archive); !stored)
        return std::unexpected(documentError(path_, stored.error()));
    return {};
}

nlohmann::json RecordStore::loopbackReference(const std::string& uuid) const {
    auto found = loopbackReferences_.find(uuid);
    return found == loopbackReferences_.end() ? nlohmann::json(nullptr) : found->second;
}

void RecordStore::setLoopbackReference(const std::string& uuid, nlohmann::json reference) {
    loopbackReferences_[uuid] = std::move(reference);
}

void RecordStore::setHidden(const std::string& uuid, bool hidden) {
    if (hidden)
        hidden_.insert(uuid);
    else
        hidden_.erase(uuid);
}

Expected<std::vector<RecordStore::StoredCopy>>
RecordStore::storedCopies(std::span<const std::size_t> indices) const {
    std::vector<StoredCopy> copies;
    for (std::size_t index : indices) {
        // Decoding proves the record readable; the stored bytes are what is copied.
        if (auto record = load(index); !record)
            return failure(record.error().localizedDescription,
                           "Leave that record out: name the others, as list shows them.");
        const RecordSummary& summary = summaries_.at(index);
        auto archive = document_->recordArchive(summary.uuid);
        auto impulse = document_->impulseResponse(summary.uuid);
        if (!archive || !*archive || !impulse)
            return failure(
                fmt::format("Record {} of {} changed while it was copied.", index + 1, path_.string()),
                "Try again.");
        copies.push_back({summary, index + 1, std::move(**archive), std::move(*impulse)});
    }
    return copies;
}

Expected<void> RecordStore::putCopies(std::span<const StoredCopy> copies) {
    for (const StoredCopy& copy : copies)
        if (std::any_of(summaries_.begin(), summaries_.end(),
                        [&](const RecordSummary& present) { return present.uuid == copy.summary.uuid; }))
            return failure(fmt::format("Record {} ({}) is in {} already.", copy.number, copy.summary.uuid,
                                       path_.string()),
                           "Leave it out, or delete it from that document first.");
    auto written = document_->performBatch([&]() -> Expected<void> {
        for (const StoredCopy& copy : copies) {
            if (copy.impulse)
                if (auto put = document_->putImpulseResponse(copy.summary.uuid, copy.impulse->samples,
                                                             copy.impulse->sampleRate);
                    !put)
                    return put;
            if (auto put = document_->putRecord(copy.summary.uuid, copy.archive,
                                                {copy.summary.name, copy.summary.date});
                !put)
                return put;
        }
        return {};
    });
    if (!written)
        return std::unexpected(documentError(path_, written.error()));
    if (auto summaries = document_->listRecords())
        summaries_ = std::move(*summaries);
    return {};
}

Expected<void> RecordStore::setRecordOrder(std::span<const std::string> uuids) {
    if (auto ordered = document_->setRecordOrder(uuids); !ordered)
        return std::unexpected(documentError(path_, ordered.error()));
    if (auto summaries = document_->listRecords())
        summaries_ = std::move(*summaries);
    return {};
}

std::string RecordStore::displayName(const VELTMeasurementRecord& record) {
    std::optional<std::string> comment = record.comment();
    return comment && !comment->empty() ? *comment : std::string("Untitled");
}

void applyDefaultAnalysisSettings(VELTMeasurementRecord& record) {
    const std::int64_t peak = record.impulsePeak();
    const std::int64_t earliest = record.minimumImpulseSampleIndex();
    const std::int64_t latest = record.impulseMidpoint(); // the window's end is exclusive
    std::int64_t begin = std::max(earliest, peak - record.samplesFromMilliseconds(2.0f));
    std::int64_t end = std::min(latest, peak + record.samplesFromMilliseconds(500.0f));
    if (begin >= end) {
        begin = earliest;
        end = latest;
    }
    record.setImpulseResponseWindow(VELTWindow(begin, end, 0));
    if (record.logSweepSettings()) {
        record.setStartFrequency(record.sweepStartFrequency());
        record.setEndFrequency(record.sweepEndFrequency());
    } else {
        record.setStartFrequency(0.0f);
        record.setEndFrequency(static_cast<float>(record.sampleRate()) / 2.0f);
    }
}

} // namespace tavolar::cli
