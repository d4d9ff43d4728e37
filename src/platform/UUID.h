#pragma once
// UUID strings: random (version 4) UUIDs in the canonical upper-case 36-character form,
// "E621E1F8-C36C-495A-93FC-0C247A3E6E5F". Records are keyed by them and temporary files named by them.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace tavolar {

// A fresh random UUID string. The bits come from the kernel's random source.
std::string newUUIDString();

// The 16 bytes of a fresh random version-4 UUID (RFC 4122 variant).
std::array<std::uint8_t, 16> newUUIDBytes();

// The canonical upper-case string of 16 UUID bytes.
std::string uuidString(const std::array<std::uint8_t, 16>& bytes);

// True for a string of the canonical 8-4-4-4-12 hexadecimal form, either case.
bool isUUIDString(std::string_view text) noexcept;

} // namespace tavolar
