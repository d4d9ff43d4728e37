#include "graphing/VELTColorMap.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace tavolar {

namespace {

constexpr std::array<std::uint32_t, 33> kViridis{
    0x440154, 0x470D60, 0x48186A, 0x482374, 0x472D7B, 0x453781, 0x424086, 0x3E4989, 0x3B528B,
    0x375B8D, 0x33638D, 0x2F6B8E, 0x2C728E, 0x297A8E, 0x26828E, 0x23898E, 0x21918C, 0x1F988B,
    0x1FA088, 0x22A785, 0x28AE80, 0x32B67A, 0x3FBC73, 0x4EC36B, 0x5EC962, 0x70CF57, 0x84D44B,
    0x98D83E, 0xADDC30, 0xC2DF23, 0xD8E219, 0xECE51B, 0xFDE725};

constexpr std::array<std::uint32_t, 33> kMagma{
    0x000004, 0x030312, 0x0A0822, 0x130D34, 0x1D1147, 0x29115A, 0x36106B, 0x440F76, 0x51127C,
    0x5D177F, 0x6A1C81, 0x762181, 0x832681, 0x902A81, 0x9C2E7F, 0xAA337D, 0xB73779, 0xC43C75,
    0xD0416F, 0xDC4869, 0xE75263, 0xEF5D5E, 0xF56B5C, 0xF9795D, 0xFC8961, 0xFD9869, 0xFEA772,
    0xFEB67C, 0xFEC488, 0xFED395, 0xFDE2A3, 0xFCF0B2, 0xFCFDBF};

double channel(std::uint32_t rgb, int shift) {
    return static_cast<double>((rgb >> shift) & 0xFF) / 255.0;
}

} // namespace

std::optional<VELTColorMap> VELTColorMap::named(std::string_view name) {
    if (name == "viridis")
        return viridis();
    if (name == "magma")
        return magma();
    return std::nullopt;
}

VELTColorMap VELTColorMap::viridis() {
    return VELTColorMap(kViridis);
}

VELTColorMap VELTColorMap::magma() {
    return VELTColorMap(kMagma);
}

VELTColor VELTColorMap::colorAt(double fraction) const {
    if (!(fraction > 0.0))
        fraction = 0.0;
    fraction = std::min(fraction, 1.0);
    const double position = fraction * static_cast<double>(table_.size() - 1);
    const std::size_t below = std::min(static_cast<std::size_t>(position), table_.size() - 2);
    const double t = position - static_cast<double>(below);
    const std::uint32_t a = table_[below], b = table_[below + 1];
    auto mix = [&](int shift) { return channel(a, shift) * (1.0 - t) + channel(b, shift) * t; };
    return {mix(16), mix(8), mix(0), 1.0};
}

std::uint32_t VELTColorMap::pixelAt(double fraction) const {
    const VELTColor c = colorAt(fraction);
    auto byte = [](double v) {
        return static_cast<std::uint32_t>(std::lround(std::clamp(v, 0.0, 1.0) * 255.0));
    };
    return 0xFF000000u | byte(c.red) << 16 | byte(c.green) << 8 | byte(c.blue);
}

} // namespace tavolar
