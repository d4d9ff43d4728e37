#pragma once
// What info and list show of a record, as JSON for scripts and as text for people; the text is made
// from the JSON so that the two never disagree. Also the names the command line uses for window
// types and colours.

#include "core/VELTMeasurementRecord.h"
#include "document/MeasurementDocument.h"
#include "platform/KeyedArchiver.h"

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar::cli {

// "none", "hamming", "half-hamming", "hanning", "half-hanning", "bingham", "half-bingham"; a stored
// type outside these reads "none (N)", since it applies no taper.
std::string windowTypeName(std::int64_t type);
std::optional<std::int64_t> windowTypeFromName(std::string_view name);
std::vector<std::string> windowTypeNames();

// "#RRGGBB" (or "#RRGGBBAA"), or one of a few names (black, white, red, green, blue, yellow, cyan,
// magenta, orange, purple, grey).
std::optional<ArchivedColor> parseColor(std::string_view text);
std::string colorHex(const ArchivedColor& color);

// ISO 8601 in UTC, "2024-05-01T12:34:56Z"; nullopt for a date outside the years 1 to 9999, which
// only a damaged document holds.
std::optional<std::string> isoDate(ArchivedDate date);

// Everything info shows of one record; number is its 1-based place in the document, loopbackReference
// what RecordStore::loopbackReference answers for it.
nlohmann::json describeRecord(const VELTMeasurementRecord& record, std::size_t number,
                              const nlohmann::json& loopbackReference = nullptr);
std::string formatRecordDescription(const nlohmann::json& description);

// One entry of list, from the document's summary alone (nothing is decoded).
nlohmann::json describeSummary(const RecordSummary& summary, std::size_t number);
// The table list prints.
std::string formatSummaryTable(const nlohmann::json& summaries);

// The JSON text list and info print: indented by two, and never failing on stored text that is not
// valid UTF-8 (a damaged or old document's names), whose invalid bytes become U+FFFD.
std::string jsonText(const nlohmann::json& json);

} // namespace tavolar::cli
