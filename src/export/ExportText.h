#pragma once
// Shared by the text exporters: the C numeric locale for printf-style formatting, lossy conversion
// of text to ASCII, and a plain (non-atomic) write of a whole file.

#include "platform/TavolarError.h"

#include <clocale>
#include <filesystem>
#include <locale.h>
#include <string>
#include <string_view>

namespace tavolar {

// Makes printf-style formatting on this thread use the C locale while it exists, so that a host
// that has set a locale with a decimal comma still writes "1.500000". Restores the previous
// locale of the thread on destruction.
class CNumericFormattingScope {
public:
    CNumericFormattingScope();
    ~CNumericFormattingScope();
    CNumericFormattingScope(const CNumericFormattingScope&) = delete;
    CNumericFormattingScope& operator=(const CNumericFormattingScope&) = delete;

private:
    locale_t previous_ = nullptr;
};

// The text as ASCII: every character outside ASCII, and every byte that is not valid UTF-8, becomes
// one "?". ASCII characters pass unchanged.
std::string lossyASCIIFromUTF8(std::string_view text);

// Writes the bytes to the file in place (created or truncated, not written to a temporary file
// first). The error says what failed in the words of the system.
Expected<void> writeFileContents(const std::filesystem::path& url, std::string_view contents);

} // namespace tavolar
