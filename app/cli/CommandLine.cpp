// Parsers of command-line values and text checks shared by several subcommands.

#include "CommandLine.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <fmt/format.h>
#include <memory>

namespace tavolar::cli {

namespace {

// The length of the well-formed UTF-8 sequence at the start of text (no overlong forms, surrogates
// or values past U+10FFFF), or 0 when it does not start with one.
std::size_t sequenceLength(std::string_view text) {
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80)
        return 1;
    std::size_t length = 0;
    unsigned char low = 0x80, high = 0xBF; // the range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF)
        length = 2;
    else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : 0x80;
        high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    } else
        return 0;
    if (text.size() < length || byte(1) < low || byte(1) > high)
        return 0;
    for (std::size_t at = 2; at < length; ++at)
        if (byte(at) < 0x80 || byte(at) > 0xBF)
            return 0;
    return length;
}

} // namespace

std::string validUTF8(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = sequenceLength(text);
        if (length == 0) {
            result += "\xEF\xBF\xBD";
            text.remove_prefix(1);
        } else {
            result += text.substr(0, length);
            text.remove_prefix(length);
        }
    }
    return result;
}

bool isValidUTF8(std::string_view text) {
    for (std::size_t length = 0; !text.empty(); text.remove_prefix(length))
        if ((length = sequenceLength(text)) == 0)
            return false;
    return true;
}

void addOutputArgument(CLI::App& command, std::string& output, const std::string& name,
                       const std::string& description, FollowingPositional following) {
    auto optionValue = std::make_shared<std::string>();
    std::string upper = name;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return std::toupper(c); });
    command.add_option(name, output, fmt::format("{}; -o {} gives it too", description, upper));
    if (following.value)
        command.add_option(following.name, *following.value, following.description + " (required)");
    CLI::Option* option = command.add_option(
        "-o,--output", *optionValue,
        following.value
            ? fmt::format("The {0} instead of the first positional (kept for scripts); {1} is then the only "
                          "positional",
                          name, following.name)
            : fmt::format("The {} instead of the positional (kept for scripts)", name));
    command.parse_complete_callback([&command, &output, following, option, optionValue, name, upper] {
        if (option->count() > 0) {
            std::string& moved = following.value ? *following.value : output;
            if (!moved.empty())
                throw CLI::ValidationError(
                    name, fmt::format("the {0} is given twice, as a positional and with -o: give it once, "
                                      "preferably as the first positional",
                                      name));
            if (following.value)
                *following.value = output;
            output = *optionValue;
        }
        if (output.empty())
            throw CLI::RequiredError(
                fmt::format("The {} is required: give it as the first positional ({} {} ...)", name,
                            command.get_name(), upper),
                CLI::ExitCodes::RequiredError);
        if (following.value && following.value->empty()) {
            std::string next = following.name;
            std::transform(next.begin(), next.end(), next.begin(),
                           [](unsigned char c) { return std::toupper(c); });
            throw CLI::RequiredError(fmt::format("Both the {} and the {} are required: {} {} {} ...", name,
                                                 following.name, command.get_name(), upper, next),
                                     CLI::ExitCodes::RequiredError);
        }
    });
}

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
