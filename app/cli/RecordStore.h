#pragma once
// A measurement document as the command line uses it: records decoded on demand with their impulse
// responses in an in-memory impulse cache, records chosen by number or UUID, and changes written
// back as one transaction, so that a failed command leaves the document exactly as it was.

#include "audio/VELTAudioCaptureSettings.h"
#include "core/ImpulseCache.h"
#include "core/VELTMeasurementRecord.h"
#include "document/MeasurementDocument.h"
#include "platform/TavolarError.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace tavolar::cli {

// Impulse responses held in memory under their records' UUIDs while a command runs.
class MemoryImpulseCache : public ImpulseCache {
public:
    void setImpulse(std::shared_ptr<const VELTRealVector> impulse, const std::string& uuid,
                    std::int64_t sampleRate) override;
    std::shared_ptr<const VELTRealVector> impulseWithUUID(const std::string& uuid) const override;

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::shared_ptr<const VELTRealVector>, std::less<>> impulses_;
};

// The name of the capture settings that measure uses and calibrate edits.
inline constexpr std::string_view kCaptureSettingsName = "default";

class RecordStore {
public:
    enum class Mode { ReadOnly, ReadWrite, CreateIfMissing };

    // Opens the document (creating an empty one in CreateIfMissing mode when there is no file).
    static Expected<RecordStore> open(const std::filesystem::path& path, Mode mode);

    RecordStore(RecordStore&&) noexcept = default;
    RecordStore& operator=(RecordStore&&) noexcept = default;

    const std::filesystem::path& path() const noexcept { return path_; }
    // The records in document order, as listed when the document was opened.
    const std::vector<RecordSummary>& summaries() const noexcept { return summaries_; }

    // Picks records by 1-based number as list shows them, by UUID, or by a unique UUID prefix of at
    // least four characters; "all" picks every record. No selectors picks every record when
    // emptyMeansAll, and is a usage error otherwise. Indices come back in the order given, once each.
    Expected<std::vector<std::size_t>> select(std::span<const std::string> selectors,
                                              bool emptyMeansAll) const;

    // Decodes the record at index with its impulse response. A record that does not decode is an
    // error naming it.
    Expected<std::shared_ptr<VELTMeasurementRecord>> load(std::size_t index) const;

    // Writes the records (replacing those with the same UUID, appending new ones) in one transaction.
    // Impulse responses are written for records whose UUID is in newImpulses.
    Expected<void> save(std::span<const std::shared_ptr<VELTMeasurementRecord>> records,
                        std::span<const std::string> newImpulses);

    // A record that keeps its impulse response in this store's cache.
    std::shared_ptr<VELTMeasurementRecord> makeRecord(VELTRealVector impulseResponse,
                                                      std::int64_t sampleRate);

    // The document's capture settings, when it holds any.
    Expected<std::optional<VELTAudioCaptureSettings>> captureSettings() const;
    Expected<void> putCaptureSettings(const VELTAudioCaptureSettings& settings);

    // The document itself, for what goes past records as the command line decodes them (deleting
    // records, copying their stored bytes).
    MeasurementDocument& document() const noexcept { return *document_; }

    // The loop-back reference a record's response was divided by: {"output": N, "input": N} for a
    // measurement, {"file": PATH} for an import; null when there was none. It is kept in the record's
    // archive beside the record's own values, so it stays with the record when the record is changed.
    // Known for records loaded or given one here.
    nlohmann::json loopbackReference(const std::string& uuid) const;
    void setLoopbackReference(const std::string& uuid, nlohmann::json reference);

    // Whether graphs leave a record out. It is kept in the record's archive like the loop-back
    // reference, written only for a hidden record, so that every record without it is shown and a
    // command that rewrites the record keeps it. Known for records loaded or given one here.
    bool isHidden(const std::string& uuid) const { return hidden_.contains(uuid); }
    void setHidden(const std::string& uuid, bool hidden);

    // A record as stored, for copying into another document byte for byte: its archive (with what
    // the command line keeps beside the record's values) and its impulse response. number is the
    // record's 1-based number in its own document, which messages name it by.
    struct StoredCopy {
        RecordSummary summary;
        std::size_t number = 0;
        std::vector<std::byte> archive;
        std::optional<StoredImpulseResponse> impulse;
    };
    // Reads the records at the indices; every one is decoded first, so that a damaged record stops
    // the copy before anything is written anywhere.
    Expected<std::vector<StoredCopy>> storedCopies(std::span<const std::size_t> indices) const;
    // Writes the copies into this document in one transaction, refusing all of them when a UUID is
    // here already.
    Expected<void> putCopies(std::span<const StoredCopy> copies);
    // Puts the records in the order given (see MeasurementDocument::setRecordOrder), and lists them
    // again in that order.
    Expected<void> setRecordOrder(std::span<const std::string> uuids);

    // The name a record is shown under: its comment, or "Untitled".
    static std::string displayName(const VELTMeasurementRecord& record);

private:
    RecordStore() = default;

    std::filesystem::path path_;
    std::unique_ptr<MeasurementDocument> document_;
    std::shared_ptr<MemoryImpulseCache> cache_;
    std::vector<RecordSummary> summaries_;
    mutable std::map<std::string, nlohmann::json, std::less<>> loopbackReferences_; // by UUID
    mutable std::set<std::string, std::less<>> hidden_;                             // UUIDs
};

// Gives a new record its analysis defaults: a window from 2 ms before the impulse's peak to 500 ms
// after it (within the response), no taper, and a valid frequency range of the sweep's band (or 0 Hz
// to half the sample rate without a sweep).
void applyDefaultAnalysisSettings(VELTMeasurementRecord& record);

// An error of the document prefixed with the document's path, so that the user sees which file.
TavolarError documentError(const std::filesystem::path& path, TavolarError error);

} // namespace tavolar::cli
