#include "audio/devices/AudioDeviceUID.h"

#include <cctype>

namespace tavolar {

namespace {

std::optional<std::string> percentDecode(std::string_view text) {
    std::string result;
    for (std::size_t index = 0; index < text.size(); ++index) {
        if (text[index] != '%') {
            result.push_back(text[index]);
            continue;
        }
        if (index + 2 >= text.size())
            return std::nullopt;
        auto hex = [](char c) -> int {
            if (c >= '0' && c <= '9')
                return c - '0';
            c = char(std::tolower(static_cast<unsigned char>(c)));
            return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        };
        int high = hex(text[index + 1]), low = hex(text[index + 2]);
        if (high < 0 || low < 0)
            return std::nullopt;
        result.push_back(char(high * 16 + low));
        index += 2;
    }
    return result;
}

bool isValidSchemeOrKey(std::string_view text) {
    if (text.empty())
        return false;
    for (char c : text)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-' && c != '.')
            return false;
    return true;
}

} // namespace

std::optional<AudioDeviceUID> AudioDeviceUID::parse(std::string_view text) {
    AudioDeviceUID uid;
    std::string_view head = text;
    std::string_view query;
    if (auto question = text.find('?'); question != std::string_view::npos) {
        head = text.substr(0, question);
        query = text.substr(question + 1);
    }
    auto colon = head.find(':');
    uid.scheme = std::string(head.substr(0, colon));
    if (!isValidSchemeOrKey(uid.scheme))
        return std::nullopt;
    if (colon != std::string_view::npos) {
        auto name = percentDecode(head.substr(colon + 1));
        if (!name || name->empty())
            return std::nullopt;
        uid.name = *name;
    }
    while (!query.empty()) {
        auto ampersand = query.find('&');
        std::string_view pair = query.substr(0, ampersand);
        query = ampersand == std::string_view::npos ? std::string_view{} : query.substr(ampersand + 1);
        if (pair.empty())
            continue;
        auto equals = pair.find('=');
        if (equals == std::string_view::npos || !isValidSchemeOrKey(pair.substr(0, equals)))
            return std::nullopt;
        auto value = percentDecode(pair.substr(equals + 1));
        if (!value)
            return std::nullopt;
        uid.parameters[std::string(pair.substr(0, equals))] = *value;
    }
    return uid;
}

namespace {

// The length of the well-formed UTF-8 sequence that text begins with, 0 when it begins with none.
std::size_t utf8SequenceLength(std::string_view text) {
    const auto byte = [&](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80)
        return 1;
    std::size_t length = 0;
    unsigned char low = 0x80, high = 0xBF; // the second byte's range, narrower after some leads
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : low;   // no overlong forms
        high = lead == 0xED ? 0x9F : high; // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : low;
        high = lead == 0xF4 ? 0x8F : high; // nothing above U+10FFFF
    } else {
        return 0;
    }
    if (text.size() < length || byte(1) < low || byte(1) > high)
        return 0;
    for (std::size_t index = 2; index < length; ++index)
        if (byte(index) < 0x80 || byte(index) > 0xBF)
            return 0;
    return length;
}

} // namespace

// Bytes that are not UTF-8 (a server or port named in another encoding) are encoded too, so that
// the text of a UID is always valid UTF-8 and still names the same bytes.
std::string percentEncodeDeviceUIDValue(std::string_view value) {
    static const char digits[] = "0123456789ABCDEF";
    std::string result;
    for (std::size_t index = 0; index < value.size();) {
        const char c = value[index];
        const std::size_t length = utf8SequenceLength(value.substr(index));
        if (length == 0 || c == '%' || c == '&' || c == '=' || c == '?' ||
            static_cast<unsigned char>(c) < 0x20) {
            result.push_back('%');
            result.push_back(digits[static_cast<unsigned char>(c) >> 4]);
            result.push_back(digits[static_cast<unsigned char>(c) & 15]);
            ++index;
        } else {
            result.append(value.substr(index, length));
            index += length;
        }
    }
    return result;
}

std::string AudioDeviceUID::canonicalString() const {
    std::string result = scheme + ":" + percentEncodeDeviceUIDValue(name);
    char separator = '?';
    for (const auto& [key, value] : parameters) {
        result += separator;
        result += key + "=" + percentEncodeDeviceUIDValue(value);
        separator = '&';
    }
    return result;
}

std::optional<std::string> AudioDeviceUID::parameter(const std::string& key) const {
    auto found = parameters.find(key);
    if (found == parameters.end())
        return std::nullopt;
    return found->second;
}

} // namespace tavolar
