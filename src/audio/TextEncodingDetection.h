#pragma once
// Recognising the text encoding of a file from its bytes, and decoding it to UTF-8. Byte-order marks
// decide first (UTF-8, UTF-16 and UTF-32, either byte order), then valid UTF-8 is taken as such, then
// a statistical detector names a single-byte or legacy encoding. Anything that does not decode to
// text (NUL bytes outside UTF-16/32, control characters, undecodable sequences) is refused rather
// than guessed.

#include <cstddef>
#include <optional>
#include <span>
#include <string>

namespace tavolar {

struct DetectedText {
    std::string text;     // the decoded text in UTF-8, without any byte-order mark
    std::string encoding; // the encoding's name as iconv knows it, e.g. "UTF-8", "UTF-16LE", "WINDOWS-1252"
};

// The decoded text, or nullopt when the bytes are not recognisably text. Empty input is empty UTF-8.
std::optional<DetectedText> stringWithDetectedEncoding(std::span<const std::byte> data);

// True when bytes is well-formed UTF-8 (no overlong forms, surrogates or values past U+10FFFF).
bool isValidUTF8(std::span<const std::byte> bytes) noexcept;

} // namespace tavolar
