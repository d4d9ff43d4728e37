#pragma once
// Localisation: English text is the key. The default table answers the key itself; a host may
// install a translation table (gettext-ready: the comment is the translator's context).

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace tavolar {

std::string TavolarLocalizedString(std::string_view text, std::string_view comment = {});

// A translation: the text for an English key and its comment, or nullopt to keep the English text.
using LocalizationTable =
    std::function<std::optional<std::string>(std::string_view text, std::string_view comment)>;

// Installs the host's translation (nullptr restores English). Thread-safe.
void setLocalizationTable(LocalizationTable table);

// Installs a fixed table from English text to translation.
void setLocalizationTable(std::map<std::string, std::string, std::less<>> translations);

} // namespace tavolar
