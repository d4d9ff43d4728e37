#include "platform/UUID.h"

#include <mutex>
#include <random>

namespace tavolar {

std::array<std::uint8_t, 16> newUUIDBytes() {
    // std::random_device reads the kernel's entropy source on Linux; one shared device, used under a
    // lock, avoids opening it for every UUID.
    static std::mutex mutex;
    static std::random_device device;
    std::array<std::uint8_t, 16> bytes{};
    {
        std::lock_guard lock(mutex);
        for (std::size_t i = 0; i < bytes.size(); i += 4) {
            std::uint32_t word = device();
            for (std::size_t j = 0; j < 4; ++j)
                bytes[i + j] = static_cast<std::uint8_t>(word >> (8 * j));
        }
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40); // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80); // RFC 4122 variant
    return bytes;
}

std::string uuidString(const std::array<std::uint8_t, 16>& bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            text.push_back('-');
        text.push_back(kDigits[bytes[i] >> 4]);
        text.push_back(kDigits[bytes[i] & 0x0F]);
    }
    return text;
}

std::string newUUIDString() {
    return uuidString(newUUIDBytes());
}

bool isUUIDString(std::string_view text) noexcept {
    if (text.size() != 36)
        return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (c != '-')
                return false;
        } else if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return true;
}

} // namespace tavolar
