#include "audio/TextEncodingDetection.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <iconv.h>
#include <string_view>
#include <uchardet.h>

namespace tavolar {

namespace {

std::uint8_t byteAt(std::span<const std::byte> bytes, std::size_t index) noexcept {
    return static_cast<std::uint8_t>(bytes[index]);
}

bool startsWith(std::span<const std::byte> bytes, std::initializer_list<std::uint8_t> prefix) noexcept {
    if (bytes.size() < prefix.size())
        return false;
    std::size_t i = 0;
    for (std::uint8_t expected : prefix)
        if (byteAt(bytes, i++) != expected)
            return false;
    return true;
}

// Converts bytes in the named encoding to UTF-8; nullopt on any invalid or incomplete sequence.
std::optional<std::string> convertToUTF8(std::span<const std::byte> bytes, const char* encoding) {
    iconv_t converter = iconv_open("UTF-8", encoding);
    if (converter == reinterpret_cast<iconv_t>(-1))
        return std::nullopt;
    std::string output(bytes.size() * 4 + 16, '\0');
    char* in = const_cast<char*>(reinterpret_cast<const char*>(bytes.data()));
    std::size_t inLeft = bytes.size();
    char* out = output.data();
    std::size_t outLeft = output.size();
    bool succeeded = true;
    while (inLeft > 0) {
        if (iconv(converter, &in, &inLeft, &out, &outLeft) != static_cast<std::size_t>(-1))
            continue;
        if (errno == E2BIG) {
            const std::size_t written = output.size() - outLeft;
            output.resize(output.size() * 2);
            out = output.data() + written;
            outLeft = output.size() - written;
            continue;
        }
        succeeded = false; // EILSEQ or EINVAL: not text in this encoding
        break;
    }
    iconv_close(converter);
    if (!succeeded)
        return std::nullopt;
    output.resize(output.size() - outLeft);
    return output;
}

// Code points that do not occur in text files: C0 controls other than tab, line feed, vertical tab,
// form feed and carriage return; DEL; the C1 controls. A trailing run of SUB (0x1A), the end-of-file
// mark of old DOS editors, is tolerated.
bool looksLikeText(std::string_view utf8) noexcept {
    std::size_t end = utf8.size();
    while (end > 0 && utf8[end - 1] == '\x1A')
        --end;
    for (std::size_t i = 0; i < end; ++i) {
        const auto c = static_cast<unsigned char>(utf8[i]);
        if (c < 0x20 && c != '\t' && c != '\n' && c != '\v' && c != '\f' && c != '\r')
            return false;
        if (c == 0x7F)
            return false;
        // U+0080 to U+009F are C2 80 to C2 9F in UTF-8.
        if (c == 0xC2 && i + 1 < end) {
            const auto next = static_cast<unsigned char>(utf8[i + 1]);
            if (next >= 0x80 && next <= 0x9F)
                return false;
        }
    }
    return true;
}

std::optional<DetectedText> decoded(std::span<const std::byte> bytes, const char* encoding) {
    auto text = convertToUTF8(bytes, encoding);
    if (!text || !looksLikeText(*text))
        return std::nullopt;
    return DetectedText{std::move(*text), encoding};
}

// UTF-16 without a byte-order mark is recognised only in its unambiguous form: every code unit has a
// zero high byte and a non-zero low byte, i.e. Latin-1 text written as UTF-16.
std::optional<const char*> unmarkedUTF16Encoding(std::span<const std::byte> bytes) noexcept {
    if (bytes.size() < 2 || bytes.size() % 2 != 0)
        return std::nullopt;
    bool littleEndian = true;
    bool bigEndian = true;
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        const std::uint8_t first = byteAt(bytes, i);
        const std::uint8_t second = byteAt(bytes, i + 1);
        littleEndian = littleEndian && first != 0 && second == 0;
        bigEndian = bigEndian && first == 0 && second != 0;
    }
    if (littleEndian)
        return "UTF-16LE";
    if (bigEndian)
        return "UTF-16BE";
    return std::nullopt;
}

std::string detectedCharset(std::span<const std::byte> bytes) {
    uchardet_t detector = uchardet_new();
    if (!detector)
        return {};
    std::string charset;
    if (uchardet_handle_data(detector, reinterpret_cast<const char*>(bytes.data()), bytes.size()) == 0) {
        uchardet_data_end(detector);
        if (const char* name = uchardet_get_charset(detector))
            charset = name;
    }
    uchardet_delete(detector);
    return charset;
}

} // namespace

bool isValidUTF8(std::span<const std::byte> bytes) noexcept {
    std::size_t i = 0;
    const std::size_t n = bytes.size();
    while (i < n) {
        const std::uint8_t lead = byteAt(bytes, i);
        if (lead < 0x80) {
            ++i;
            continue;
        }
        std::size_t length;
        std::uint32_t codePoint;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
            codePoint = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            codePoint = lead & 0x0F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            codePoint = lead & 0x07;
        } else {
            return false; // a continuation byte, an overlong two-byte lead, or past U+10FFFF
        }
        if (i + length > n)
            return false;
        for (std::size_t k = 1; k < length; ++k) {
            const std::uint8_t continuation = byteAt(bytes, i + k);
            if ((continuation & 0xC0) != 0x80)
                return false;
            codePoint = (codePoint << 6) | (continuation & 0x3F);
        }
        if ((length == 3 && codePoint < 0x800) || (length == 4 && codePoint < 0x10000) ||
            codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF))
            return false;
        i += length;
    }
    return true;
}

std::optional<DetectedText> stringWithDetectedEncoding(std::span<const std::byte> data) {
    // Byte-order marks; UTF-32LE's mark begins with UTF-16LE's, so it is tested first.
    if (startsWith(data, {0xEF, 0xBB, 0xBF}))
        return decoded(data.subspan(3), "UTF-8");
    if (startsWith(data, {0xFF, 0xFE, 0x00, 0x00}))
        return decoded(data.subspan(4), "UTF-32LE");
    if (startsWith(data, {0x00, 0x00, 0xFE, 0xFF}))
        return decoded(data.subspan(4), "UTF-32BE");
    if (startsWith(data, {0xFF, 0xFE}))
        return decoded(data.subspan(2), "UTF-16LE");
    if (startsWith(data, {0xFE, 0xFF}))
        return decoded(data.subspan(2), "UTF-16BE");

    const bool hasNul = std::find(data.begin(), data.end(), std::byte{0}) != data.end();
    if (hasNul) {
        if (auto encoding = unmarkedUTF16Encoding(data))
            return decoded(data, *encoding);
        return std::nullopt;
    }
    if (isValidUTF8(data)) {
        std::string text(reinterpret_cast<const char*>(data.data()), data.size());
        if (!looksLikeText(text))
            return std::nullopt;
        return DetectedText{std::move(text), "UTF-8"};
    }
    const std::string charset = detectedCharset(data);
    if (charset.empty() || charset == "UTF-8" || charset == "ASCII")
        return std::nullopt;
    return decoded(data, charset.c_str());
}

} // namespace tavolar
