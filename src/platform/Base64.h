// Base64 (RFC 4648, with padding): raw bytes in the JSON form of archives, and pictures inside SVG files.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace tavolar {

std::string base64Encode(std::span<const std::uint8_t> bytes);

} // namespace tavolar
