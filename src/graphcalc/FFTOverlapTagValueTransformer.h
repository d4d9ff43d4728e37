#pragma once
// Between the tag of the overlap control and the overlap fraction (1/64 to 1/2 for tags 0 to 5). Any
// other fraction gives tag 0 and any other tag 1/64; a missing value gives nothing.

#include <array>
#include <cstdint>
#include <optional>

namespace tavolar {

class FFTOverlapTagValueTransformer {
public:
    static constexpr std::array<float, 6> kFractions{0.015625f, 0.03125f, 0.0625f, 0.125f, 0.25f, 0.5f};

    static constexpr bool allowsReverseTransformation() noexcept { return true; }
    // Tag to fraction.
    static constexpr std::optional<float> transformedValue(std::optional<std::int64_t> tag) noexcept {
        if (!tag)
            return std::nullopt;
        return *tag >= 0 && *tag < std::int64_t(kFractions.size()) ? kFractions[std::size_t(*tag)]
                                                                   : kFractions[0];
    }
    // Fraction to tag: only the exact fractions of the table have tags of their own.
    static constexpr std::optional<std::int64_t>
    reverseTransformedValue(std::optional<float> fraction) noexcept {
        if (!fraction)
            return std::nullopt;
        for (std::size_t tag = 0; tag < kFractions.size(); ++tag)
            if (kFractions[tag] == *fraction)
                return std::int64_t(tag);
        return 0;
    }
};

} // namespace tavolar
