#pragma once
// Perceptually uniform colour maps for heat maps: viridis (dark blue through green to yellow) and
// magma (black through purple and red to pale yellow). Each is a table of 33 sRGB colours at equal
// steps, interpolated linearly between them; lightness rises steadily along both, so they read in
// grey too.

#include "graphing/VELTColor.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace tavolar {

class VELTColorMap {
public:
    // "viridis" or "magma"; nothing for other names.
    static std::optional<VELTColorMap> named(std::string_view name);
    static VELTColorMap viridis();
    static VELTColorMap magma();

    // The colour at a fraction from 0 (the lowest value) to 1 (the highest); fractions outside are
    // clamped and not-a-number gives the lowest colour.
    VELTColor colorAt(double fraction) const;
    // The same as an opaque 0xAARRGGBB pixel.
    std::uint32_t pixelAt(double fraction) const;

private:
    explicit VELTColorMap(std::span<const std::uint32_t> table) : table_(table) {}
    std::span<const std::uint32_t> table_; // 0xRRGGBB
};

} // namespace tavolar
