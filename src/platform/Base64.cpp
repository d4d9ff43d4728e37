#include "platform/Base64.h"

namespace tavolar {

constexpr char kBase64Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string base64Encode(std::span<const std::uint8_t> bytes) {
    std::string result;
    result.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        std::uint32_t group =
            (std::uint32_t{bytes[i]} << 16) | (std::uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
        for (int shift = 18; shift >= 0; shift -= 6)
            result.push_back(kBase64Digits[(group >> shift) & 63]);
    }
    std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        std::uint32_t group = std::uint32_t{bytes[i]} << 16;
        if (rest == 2)
            group |= std::uint32_t{bytes[i + 1]} << 8;
        result.push_back(kBase64Digits[(group >> 18) & 63]);
        result.push_back(kBase64Digits[(group >> 12) & 63]);
        result.push_back(rest == 2 ? kBase64Digits[(group >> 6) & 63] : '=');
        result.push_back('=');
    }
    return result;
}

} // namespace tavolar
