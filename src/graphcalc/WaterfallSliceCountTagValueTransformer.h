#pragma once
// Between the tag of the slice-count control and the number of slices (25, 50, 75, 100 for tags 0 to
// 3). Any other count gives tag 0; any other tag gives 0 slices, deliberately not a default count
// (the control offers only its four tags, and an empty waterfall shows that something else set it).
// A missing value gives nothing.

#include <array>
#include <cstdint>
#include <optional>

namespace tavolar {

class WaterfallSliceCountTagValueTransformer {
public:
    static constexpr std::array<std::int64_t, 4> kCounts{25, 50, 75, 100};

    static constexpr bool allowsReverseTransformation() noexcept { return true; }
    // Tag to slice count.
    static constexpr std::optional<std::int64_t> transformedValue(std::optional<std::int64_t> tag) noexcept {
        if (!tag)
            return std::nullopt;
        return *tag >= 0 && *tag < std::int64_t(kCounts.size()) ? kCounts[std::size_t(*tag)] : 0;
    }
    // Slice count to tag.
    static constexpr std::optional<std::int64_t>
    reverseTransformedValue(std::optional<std::int64_t> count) noexcept {
        if (!count)
            return std::nullopt;
        for (std::size_t tag = 0; tag < kCounts.size(); ++tag)
            if (kCounts[tag] == *count)
                return std::int64_t(tag);
        return 0;
    }
};

} // namespace tavolar
