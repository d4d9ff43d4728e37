#include "export/ExportText.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <memory>

namespace tavolar {

namespace {

locale_t cLocale() {
    // Made once and kept for the life of the process; newlocale of "C" cannot fail for want of data.
    static locale_t locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    return locale;
}

// The length of the UTF-8 sequence that starts at text[index], or 0 when it is not valid UTF-8
// (bad lead byte, missing or bad continuation, overlong form, surrogate, beyond U+10FFFF).
std::size_t validSequenceLength(std::string_view text, std::size_t index) {
    auto byte = [&](std::size_t offset) { return static_cast<unsigned char>(text[index + offset]); };
    unsigned char lead = byte(0);
    std::size_t length;
    char32_t codePoint;
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
        return 0;
    }
    if (index + length > text.size())
        return 0;
    for (std::size_t offset = 1; offset < length; ++offset) {
        if ((byte(offset) & 0xC0) != 0x80)
            return 0;
        codePoint = (codePoint << 6) | (byte(offset) & 0x3F);
    }
    if ((length == 3 && codePoint < 0x800) || (length == 4 && codePoint < 0x10000) || codePoint > 0x10FFFF ||
        (codePoint >= 0xD800 && codePoint <= 0xDFFF))
        return 0;
    return length;
}

} // namespace

CNumericFormattingScope::CNumericFormattingScope() {
    if (locale_t locale = cLocale())
        previous_ = uselocale(locale);
}

CNumericFormattingScope::~CNumericFormattingScope() {
    if (previous_)
        uselocale(previous_);
}

std::string lossyASCIIFromUTF8(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    std::size_t index = 0;
    while (index < text.size()) {
        auto lead = static_cast<unsigned char>(text[index]);
        if (lead < 0x80) {
            result.push_back(static_cast<char>(lead));
            ++index;
            continue;
        }
        std::size_t length = validSequenceLength(text, index);
        result.push_back('?');
        index += length == 0 ? 1 : length;
    }
    return result;
}

Expected<void> writeFileContents(const std::filesystem::path& url, std::string_view contents) {
    struct FileCloser {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(url.c_str(), "wb"));
    if (!file)
        return makeUnexpected(
            fmt::format("The file could not be opened for writing: {}.", std::strerror(errno)),
            "Check that the folder exists and that you may write to it.");
    if (!contents.empty() && std::fwrite(contents.data(), 1, contents.size(), file.get()) != contents.size())
        return makeUnexpected(fmt::format("The file could not be written: {}.", std::strerror(errno)),
                              "Check that the disk has room and try again.");
    // Closing flushes the last buffer, where a full disk shows itself.
    if (std::fclose(file.release()) != 0)
        return makeUnexpected(fmt::format("The file could not be written: {}.", std::strerror(errno)),
                              "Check that the disk has room and try again.");
    return {};
}

} // namespace tavolar
