#pragma once
// A failure the user must see: domain, code, localised description and recovery suggestion.

#include <cstdint>
#include <expected>
#include <string>
#include <string_view>

namespace tavolar {

inline constexpr std::string_view kTavolarErrorDomain = "TavolarErrorDomain";
// The code of every engine error: the data given or recorded cannot be used.
inline constexpr std::int64_t kTavolarInvalidDataError = -1;

struct TavolarError {
    std::string domain{kTavolarErrorDomain};
    std::int64_t code = kTavolarInvalidDataError;
    std::string localizedDescription;
    std::string localizedRecoverySuggestion;

    // An error of the engine's domain; the engine reports everything as kTavolarInvalidDataError.
    static TavolarError make(std::string description, std::string recoverySuggestion = {},
                             std::int64_t code = kTavolarInvalidDataError) {
        return TavolarError{std::string(kTavolarErrorDomain), code, std::move(description),
                            std::move(recoverySuggestion)};
    }

    bool operator==(const TavolarError&) const = default;
};

template <typename T> using Expected = std::expected<T, TavolarError>;

inline std::unexpected<TavolarError> makeUnexpected(std::string description,
                                                    std::string recoverySuggestion = {},
                                                    std::int64_t code = kTavolarInvalidDataError) {
    return std::unexpected(TavolarError::make(std::move(description), std::move(recoverySuggestion), code));
}

} // namespace tavolar
