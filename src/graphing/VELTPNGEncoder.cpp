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

// Deflate bits, least significant first.
class BitWriter {
public:
    explicit BitWriter(std::string& out) : out_(out) {}
    // At most 24 bits at a time.
    void put(std::uint32_t bits, int count) {
        buffer_ |= std::uint64_t{bits} << filled_;
        filled_ += count;
        if (filled_ >= 32) {
            const char bytes[4] = {static_cast<char>(buffer_), static_cast<char>(buffer_ >> 8),
                                   static_cast<char>(buffer_ >> 16), static_cast<char>(buffer_ >> 24)};
            out_.append(bytes, 4);
            buffer_ >>= 32;
            filled_ -= 32;
        }
    }
    void finish() {
        for (; filled_ > 0; filled_ -= 8, buffer_ >>= 8)
            out_ += static_cast<char>(buffer_ & 0xFF);
        filled_ = 0;
    }

private:
    std::string& out_;
    std::uint64_t buffer_ = 0;
    int filled_ = 0;
};

// The length symbols of the format (257 to 285) and their extra bits, for each length 3 to 258.
struct LengthCodes {
    std::array<std::uint16_t, 259> symbol{}, extra{};
    std::array<int, 259> extraBits{};
    static const LengthCodes& table() {
        static const LengthCodes codes = [] {
            LengthCodes c;
            constexpr std::array<int, 29> base{3,  4,  5,  6,   7,   8,   9,   10,  11, 13,
                                               15, 17, 19, 23,  27,  31,  35,  43,  51, 59,
                                               67, 83, 99, 115, 131, 163, 195, 227, 258};
            constexpr std::array<int, 29> extra{0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                                2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
            // Later symbols win, so that 258 is symbol 285 rather than 284 with all extra bits set.
            for (int i = 0; i < 29; ++i)
                for (int v = 0; v < (1 << extra[i]) && base[i] + v <= 258; ++v) {
                    c.symbol[base[i] + v] = static_cast<std::uint16_t>(257 + i);
                    c.extra[base[i] + v] = static_cast<std::uint16_t>(v);
                    c.extraBits[base[i] + v] = extra[i];
                }
            return c;
        }();
        return codes;
    }
};

// Huffman code lengths for the symbol counts, none longer than longest: counts are halved (keeping
// every used symbol) until the tree fits.
std::vector<int> codeLengths(std::vector<std::uint64_t> counts, int longest) {
    const std::size_t n = counts.size();
    std::vector<int> lengths(n, 0);
    for (;;) {
        // Leaves and inner nodes in one array; a node's parent is found by merging the two lightest.
        std::vector<std::pair<std::uint64_t, int>> heap;
        std::vector<int> parent;
        for (std::size_t s = 0; s < n; ++s)
            if (counts[s] > 0) {
                heap.push_back({counts[s], static_cast<int>(parent.size())});
                parent.push_back(-1);
            }
        if (heap.size() == 1) { // one symbol still needs a one-bit code
            for (std::size_t s = 0; s < n; ++s)
                lengths[s] = counts[s] > 0 ? 1 : 0;
            return lengths;
        }
        auto heavier = [](const auto& a, const auto& b) { return a.first > b.first; };
        std::make_heap(heap.begin(), heap.end(), heavier);
        while (heap.size() > 1) {
            std::pop_heap(heap.begin(), heap.end(), heavier);
            const auto a = heap.back();
            heap.pop_back();
            std::pop_heap(heap.begin(), heap.end(), heavier);
            const auto b = heap.back();
            heap.pop_back();
            const int node = static_cast<int>(parent.size());
            parent.push_back(-1);
            parent[a.second] = parent[b.second] = node;
            heap.push_back({a.first + b.first, node});
            std::push_heap(heap.begin(), heap.end(), heavier);
        }
        // Depths from the root (the last node) down: parents come after their children.
        std::vector<int> depth(parent.size(), 0);
        for (int node = static_cast<int>(parent.size()) - 2; node >= 0; --node)
            depth[node] = depth[parent[node]] + 1;
        int leaf = 0, deepest = 0;
        for (std::size_t s = 0; s < n; ++s)
            if (counts[s] > 0) {
                lengths[s] = depth[leaf++];
                deepest = std::max(deepest, lengths[s]);
            }
        if (deepest <= longest)
            return lengths;
        for (auto& count : counts)
            if (count > 0)
                count = (count + 1) / 2;
    }
}

// The canonical codes of the lengths, bit-reversed for writing least significant bit first.
std::vector<std::uint32_t> canonicalCodes(const std::vector<int>& lengths) {
    std::array<std::uint32_t, 16> counts{}, next{};
    for (int length : lengths)
        ++counts[length];
    counts[0] = 0;
    for (int bits = 1, code = 0; bits < 16; ++bits) {
        code = (code + static_cast<int>(counts[bits - 1])) << 1;
        next[bits] = static_cast<std::uint32_t>(code);
    }
    std::vector<std::uint32_t> codes(lengths.size(), 0);
    for (std::size_t s = 0; s < lengths.size(); ++s)
        if (const int length = lengths[s]; length > 0) {
            const std::uint32_t code = next[length]++;
            for (int i = 0; i < length; ++i)
                codes[s] |= ((code >> i) & 1u) << (length - 1 - i);
        }
    return codes;
}

// Calls token(byte, 0) for each literal and token(0, length) for each run of what lies one pixel
// (distance bytes) back, in the order of the data.
template <typename Token>
void scanRuns(const std::vector<unsigned char>& data, std::size_t distance, Token token) {
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
            token(0, length);
            i += length;
        } else {
            token(data[i], 0);
            ++i;
        }
    }
}

// A zlib stream of the data in one block of codes made for it: literals, and runs of what lies one
// pixel (distance bytes) back. The runs are found twice, to count the symbols and to write them,
// which costs less than keeping them.
std::string zlibStream(const std::vector<unsigned char>& data, std::size_t distance) {
    std::vector<std::uint64_t> counts(286, 0);
    const LengthCodes& lengthCodes = LengthCodes::table();
    scanRuns(data, distance, [&](unsigned char byte, std::size_t length) {
        ++counts[length ? lengthCodes.symbol[length] : byte];
    });
    ++counts[256]; // the end of the block
    const std::vector<int> lengths = codeLengths(counts, 15);
    const std::vector<std::uint32_t> codes = canonicalCodes(lengths);
    // Distance codes 2 and 3 (distances 3 and 4), one bit each; only one of them is used.
    const std::vector<int> distanceLengths{0, 0, 1, 1};
    const std::vector<std::uint32_t> distanceCodes = canonicalCodes(distanceLengths);

    // The code lengths themselves, in runs: 16 repeats the last 3 to 6 times, 17 and 18 are 3 to 10
    // and 11 to 138 zeros.
    std::vector<int> all(lengths);
    all.insert(all.end(), distanceLengths.begin(), distanceLengths.end());
    std::vector<std::pair<int, int>> runs; // symbol, extra bits' value
    for (std::size_t i = 0; i < all.size();) {
        std::size_t same = 1;
        while (i + same < all.size() && all[i + same] == all[i])
            ++same;
        if (all[i] == 0 && same >= 3) {
            same = std::min<std::size_t>(same, 138);
            runs.push_back(same >= 11 ? std::pair{18, int(same) - 11} : std::pair{17, int(same) - 3});
        } else if (all[i] != 0 && same >= 4) {
            same = std::min<std::size_t>(same, 7);
            runs.push_back({all[i], 0});
            runs.push_back({16, int(same) - 4});
        } else {
            same = 1;
            runs.push_back({all[i], 0});
        }
        i += same;
    }
    std::vector<std::uint64_t> runCounts(19, 0);
    for (const auto& [symbol, extra] : runs)
        ++runCounts[symbol];
    const std::vector<int> runLengths = codeLengths(runCounts, 7);
    const std::vector<std::uint32_t> runCodes = canonicalCodes(runLengths);
    constexpr std::array<int, 19> kRunOrder{16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};
    int runCodeCount = 19;
    while (runCodeCount > 4 && runLengths[kRunOrder[runCodeCount - 1]] == 0)
        --runCodeCount;

    std::string out("\x78\x01", 2);
    out.reserve(data.size() / 8);
    BitWriter writer(out);
    writer.put(1, 1); // the last block
    writer.put(2, 2); // of codes of its own
    writer.put(286 - 257, 5);
    writer.put(static_cast<std::uint32_t>(distanceLengths.size() - 1), 5);
    writer.put(static_cast<std::uint32_t>(runCodeCount - 4), 4);
    for (int i = 0; i < runCodeCount; ++i)
        writer.put(static_cast<std::uint32_t>(runLengths[kRunOrder[i]]), 3);
    for (const auto& [symbol, extra] : runs) {
        writer.put(runCodes[symbol], runLengths[symbol]);
        if (symbol >= 16)
            writer.put(static_cast<std::uint32_t>(extra), symbol == 16 ? 2 : symbol == 17 ? 3 : 7);
    }
    const std::size_t distanceSymbol = distance - 1;
    scanRuns(data, distance, [&](unsigned char byte, std::size_t length) {
        if (!length) {
            writer.put(codes[byte], lengths[byte]);
            return;
        }
        const unsigned symbol = lengthCodes.symbol[length];
        writer.put(codes[symbol], lengths[symbol]);
        writer.put(lengthCodes.extra[length], lengthCodes.extraBits[length]);
        writer.put(distanceCodes[distanceSymbol], distanceLengths[distanceSymbol]);
    });
    writer.put(codes[256], lengths[256]);
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
