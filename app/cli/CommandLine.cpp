// Parsers of command-line values shared by several subcommands.

#include "CommandLine.h"

#include <charconv>

namespace tavolar::cli {

std::optional<std::vector<std::int64_t>> parseIndexList(std::string_view text) {
    std::vector<std::int64_t> values;
    while (!text.empty()) {
        std::size_t comma = text.find(',');
        std::string_view item = text.substr(0, comma);
        std::int64_t value = -1;
        auto [end, status] = std::from_chars(item.data(), item.data() + item.size(), value);
        if (item.empty() || status != std::errc() || end != item.data() + item.size() || value < 0)
            return std::nullopt;
        values.push_back(value);
        if (comma == std::string_view::npos)
            break;
        text.remove_prefix(comma + 1);
        if (text.empty())
            return std::nullopt;
    }
    if (values.empty())
        return std::nullopt;
    return values;
}

} // namespace tavolar::cli
