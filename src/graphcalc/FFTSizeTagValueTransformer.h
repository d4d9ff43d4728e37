#pragma once
// Between the tag of the FFT-size control and the FFT size in samples (8192 to 262144 for tags 0 to
// 5). Any other size gives tag 0 and any other tag 8192; a missing value gives nothing.

#include <array>
#include <cstdint>
#include <optional>

namespace tavolar {

class FFTSizeTagValueTransformer {
public:
    static constexpr std::array<std::int64_t, 6> kSizes{8192, 16384, 32768, 65536, 131072, 262144};

    static constexpr bool allowsReverseTransformation() noexcept { return true; }
    // Tag to FFT size.
    static constexpr std::optional<std::int64_t> transformedValue(std::optional<std::int64_t> tag) noexcept {
        if (!tag)
            return std::nullopt;
        return *tag >= 0 && *tag < std::int64_t(kSizes.size()) ? kSizes[std::size_t(*tag)] : kSizes[0];
    }
    // FFT size to tag.
    static constexpr std::optional<std::int64_t>
    reverseTransformedValue(std::optional<std::int64_t> size) noexcept {
        if (!size)
            return std::nullopt;
        for (std::size_t tag = 0; tag < kSizes.size(); ++tag)
            if (kSizes[tag] == *size)
                return std::int64_t(tag);
        return 0;
    }
};

} // namespace tavolar
