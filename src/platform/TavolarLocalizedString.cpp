#include "platform/TavolarLocalizedString.h"

#include <memory>
#include <mutex>

namespace tavolar {

namespace {

std::mutex& tableMutex() {
    static std::mutex mutex;
    return mutex;
}

// The table is swapped as a whole, so a lookup holds the lock only to copy the pointer.
std::shared_ptr<const LocalizationTable>& currentTable() {
    static std::shared_ptr<const LocalizationTable> table;
    return table;
}

} // namespace

std::string TavolarLocalizedString(std::string_view text, std::string_view comment) {
    std::shared_ptr<const LocalizationTable> table;
    {
        std::lock_guard lock(tableMutex());
        table = currentTable();
    }
    if (table && *table) {
        if (std::optional<std::string> translation = (*table)(text, comment))
            return std::move(*translation);
    }
    return std::string(text);
}

void setLocalizationTable(LocalizationTable table) {
    auto shared = table ? std::make_shared<const LocalizationTable>(std::move(table)) : nullptr;
    std::lock_guard lock(tableMutex());
    currentTable() = std::move(shared);
}

void setLocalizationTable(std::map<std::string, std::string, std::less<>> translations) {
    setLocalizationTable(
        LocalizationTable([translations = std::move(translations)](
                              std::string_view text, std::string_view) -> std::optional<std::string> {
            auto found = translations.find(text);
            if (found == translations.end())
                return std::nullopt;
            return found->second;
        }));
}

} // namespace tavolar
