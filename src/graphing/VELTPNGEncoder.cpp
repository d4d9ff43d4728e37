#include "graphing/VELTPNGEncoder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <string_view>
#include <vector>

namespace tavolar {

namespace {

const std::array<std::uint32_t, 256>& crcTable() {
    static const std::array<std::uint32_t, 256> table = [] {
        std::array<std::uint32_t, 256> t{};
        for (std::uint32_t n = 0; n < 256; ++n) {
            std::uint32_t c = n;
            for (int k = 0; k < 8; ++k)
                c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[n] = c;
        }
        return t;
    }();
    return table;
}

std::uint32_t adler32(const std::vector<unsigned char>& data) {
    constexpr std::uint64_t kModulus = 65521;
    std::uint64_t a = 1, b = 0;
    // Over a block of n bytes, a grows by their sum and b by n times a plus the sum of each byte
    // weighted by n - i: two independent sums the compiler vectorises. 5552 bytes keep them in 32 bits.
    constexpr std::size_t kBlock = 5552;
    for (std::size_t start = 0; start < data.size(); start += kBlock) {
        const std::size_t n = std::min(data.size() - start, kBlock);
        const unsigned char* d = data.data() + start;
        std::uint32_t sum = 0, weighted = 0;
        for (std::size_t i = 0; i < n; ++i) {
            sum += d[i];
            weighted += static_cast<std::uint32_t>(n - i) * d[i];
        }
        b = (b + n * a + weighted) % kModulus;
        a = (a + sum) % kModulus;
    }
    return static_cast<std::uint32_t>((b << 16) | a);
}

void putBigEndian(std::string& out, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        out += static_cast<char>((value >> shift) & 0xFF);
}

void putChunk(std::string& out, const char* type, std::string_view data) {
    putBigEndian(out, static_cast<std::uint32_t>(data.size()));
    const std::size_t start = out.size();
    out.append(type, 4);
    out += data;
    std::uint32_t crc = 0xFFFFFFFFu;
    for (std::size_t i = start; i < out.size(); ++i)
        crc = crcTable()[(crc ^ static_cast<unsigned char>(out[i])) & 0xFF] ^ (crc >> 8);
    putBigEndian(out, crc ^ 0xFFFFFFFFu);
}

// Deflate bits, least significant first, with the fixed codes of the format.
class FixedCodeWriter {
public:
    explicit FixedCodeWriter(std::string& out) : out_(out) {}

    void put(std::uint32_t bits, int count) {
        buffer_ |= std::uint64_t{bits} << filled_;
        filled_ += count;
        while (filled_ >= 8) {
            out_ += static_cast<char>(buffer_ & 0xFF);
            buffer_ >>= 8;
            filled_ -= 8;
        }
    }
    void finish() {
        if (filled_ > 0)
            put(0, 8 - filled_);
    }
    void literal(unsigned symbol) { put(codes().literal[symbol], codes().literalLength[symbol]); }
    // A copy of the length bytes that lie distance bytes back; distance is 3 or 4.
    void repeat(std::size_t length, std::size_t distance) {
        const Codes& c = codes();
        literal(c.lengthSymbol[length]);
        put(c.lengthExtra[length], c.lengthExtraBits[length]);
        put(reversed(static_cast<std::uint32_t>(distance - 1), 5), 5); // distance codes 2 and 3
    }

private:
    struct Codes {
        std::array<std::uint32_t, 288> literal{};
        std::array<int, 288> literalLength{};
        std::array<std::uint16_t, 259> lengthSymbol{}, lengthExtra{};
        std::array<int, 259> lengthExtraBits{};
    };
    static std::uint32_t reversed(std::uint32_t code, int length) {
        std::uint32_t r = 0;
        for (int i = 0; i < length; ++i)
            r |= ((code >> i) & 1u) << (length - 1 - i);
        return r;
    }
    static const Codes& codes() {
        static const Codes table = [] {
            Codes c;
            for (unsigned s = 0; s < 288; ++s) {
                const auto [code, length] = s < 144   ? std::pair{0x30u + s, 8}
                                            : s < 256 ? std::pair{0x190u + s - 144, 9}
                                            : s < 280 ? std::pair{s - 256, 7}
                                                      : std::pair{0xC0u + s - 280, 8};
                c.literal[s] = reversed(code, length);
                c.literalLength[s] = length;
            }
            constexpr std::array<int, 29> base{3,  4,  5,  6,   7,   8,   9,   10,  11, 13,
                                               15, 17, 19, 23,  27,  31,  35,  43,  51, 59,
                                               67, 83, 99, 115, 131, 163, 195, 227, 258};
            constexpr std::array<int, 29> extra{0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                                2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
            // Later symbols win, so that 258 is symbol 285 rather than 284 with all extra bits set.
            for (int i = 0; i < 29; ++i)
                for (int v = 0; v < (1 << extra[i]) && base[i] + v <= 258; ++v) {
                    c.lengthSymbol[base[i] + v] = static_cast<std::uint16_t>(257 + i);
                    c.lengthExtra[base[i] + v] = static_cast<std::uint16_t>(v);
                    c.lengthExtraBits[base[i] + v] = extra[i];
                }
            return c;
        }();
        return table;
    }

    std::string& out_;
    std::uint64_t buffer_ = 0;
    int filled_ = 0;
};

// A zlib stream of the data in one block of fixed codes: literals, and runs of what lies one pixel
// (distance bytes) back.
std::string zlibStream(const std::vector<unsigned char>& data, std::size_t distance) {
    std::string out("\x78\x01", 2);
    out.reserve(data.size() / 8);
    FixedCodeWriter writer(out);
    writer.put(1, 1); // the last block
    writer.put(1, 2); // of fixed codes
    const std::size_t n = data.size();
    for (std::size_t i = 0; i < n;) {
        std::size_t length = 0;
        if (i >= distance) {
            const std::size_t limit = std::min<std::size_t>(258, n - i);
            const unsigned char* here = data.data() + i;
            // Eight bytes at a time while they repeat, then up to the first that does not.
            while (length + 8 <= limit) {
                std::uint64_t ahead, back;
                std::memcpy(&ahead, here + length, 8);
                std::memcpy(&back, here + length - distance, 8);
                if (ahead != back)
                    break;
                length += 8;
            }
            while (length < limit && here[length] == here[length - distance])
                ++length;
        }
        if (length >= 3) {
            writer.repeat(length, distance);
            i += length;
        } else {
            writer.literal(data[i]);
            ++i;
        }
    }
    writer.literal(256); // the end of the block
    writer.finish();
    putBigEndian(out, adler32(data));
    return out;
}

} // namespace

std::string encodedPNG(std::span<const unsigned char> pixels, int width, int height, int stride,
                       double dotsPerInch) {
    auto row = [&](int y) {
        return reinterpret_cast<const std::uint32_t*>(pixels.data() +
                                                      static_cast<std::ptrdiff_t>(y) * stride);
    };
    bool opaque = true;
    for (int y = 0; y < height && opaque; ++y)
        opaque = std::all_of(row(y), row(y) + width, [](std::uint32_t p) { return (p >> 24) == 0xFF; });
    const std::size_t channels = opaque ? 3 : 4;
    const std::size_t rowBytes = channels * static_cast<std::size_t>(width);
    // Each row after its filter byte (2: the difference from the row above).
    std::vector<unsigned char> filtered((rowBytes + 1) * static_cast<std::size_t>(height));
    std::vector<unsigned char> above(rowBytes, 0), current(rowBytes);
    for (int y = 0; y < height; ++y) {
        const std::uint32_t* words = row(y);
        unsigned char* out = current.data();
        for (int x = 0; opaque && x < width; ++x) {
            *out++ = static_cast<unsigned char>(words[x] >> 16);
            *out++ = static_cast<unsigned char>(words[x] >> 8);
            *out++ = static_cast<unsigned char>(words[x]);
        }
        for (int x = 0; !opaque && x < width; ++x) {
            const std::uint32_t p = words[x];
            const unsigned alpha = p >> 24;
            auto channel = [&](int shift) -> unsigned char {
                const unsigned value = (p >> shift) & 0xFF;
                return static_cast<unsigned char>(
                    alpha == 0 ? 0 : std::min(255u, (value * 255 + alpha / 2) / alpha));
            };
            *out++ = channel(16);
            *out++ = channel(8);
            *out++ = channel(0);
            *out++ = static_cast<unsigned char>(alpha);
        }
        unsigned char* target = filtered.data() + static_cast<std::size_t>(y) * (rowBytes + 1);
        target[0] = 2;
        for (std::size_t i = 0; i < rowBytes; ++i)
            target[i + 1] = static_cast<unsigned char>(current[i] - above[i]);
        std::swap(above, current);
    }

    std::string file("\x89PNG\r\n\x1A\n", 8);
    std::string header;
    putBigEndian(header, static_cast<std::uint32_t>(width));
    putBigEndian(header, static_cast<std::uint32_t>(height));
    header += std::string{8, static_cast<char>(opaque ? 2 : 6), 0, 0, 0}; // 8 bits, RGB or RGBA
    putChunk(file, "IHDR", header);
    if (dotsPerInch > 0.0) {
        std::string physical;
        const auto perMetre = static_cast<std::uint32_t>(std::lround(dotsPerInch / 0.0254));
        putBigEndian(physical, perMetre);
        putBigEndian(physical, perMetre);
        physical += '\x01'; // in metres
        putChunk(file, "pHYs", physical);
    }
    // The stream in chunks of at most 1 MiB, well within the 2^31 bytes a chunk may hold.
    const std::string stream = zlibStream(filtered, channels);
    constexpr std::size_t kChunk = std::size_t{1} << 20;
    for (std::size_t start = 0; start < stream.size(); start += kChunk)
        putChunk(file, "IDAT", std::string_view(stream).substr(start, kChunk));
    putChunk(file, "IEND", {});
    return file;
}

} // namespace tavolar
