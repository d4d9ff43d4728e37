#include "graphing/VELTUnitFormatter.h"

#include <cmath>
#include <fmt/format.h>

namespace tavolar {

std::string formatNumber(double value, int decimals) {
    if (std::isnan(value))
        return "NaN";
    if (std::isinf(value))
        return value > 0 ? "\u221E" : std::string(kMinusSign) + "\u221E";
    decimals = std::max(decimals, 0);
    // fmt never consults the locale unless asked to ('L'), so the separator is always a point.
    std::string text = fmt::format("{:.{}f}", std::abs(value), decimals);
    const bool zero = text.find_first_not_of("0.") == std::string::npos;
    if (value < 0 && !zero)
        return std::string(kMinusSign) + text;
    return text;
}

std::string formatShortNumber(double value, int maxDecimals) {
    std::string text = formatNumber(value, maxDecimals);
    if (text.find('.') != std::string::npos) {
        while (text.back() == '0')
            text.pop_back();
        if (text.back() == '.')
            text.pop_back();
    }
    return text;
}

std::string formatFrequency(double hertz) {
    const double magnitude = std::abs(hertz);
    // Rounded before the prefix is chosen, so that 999.9996 Hz reads "1k" and not "1000".
    auto rounded = [](double v) { return std::round(v * 1000.0) / 1000.0; };
    if (rounded(magnitude) >= 1e9)
        return formatShortNumber(hertz / 1e9) + "G";
    if (rounded(magnitude) >= 1e6)
        return formatShortNumber(hertz / 1e6) + "M";
    if (rounded(magnitude) >= 1e3)
        return formatShortNumber(hertz / 1e3) + "k";
    return formatShortNumber(hertz);
}

std::string formatFrequencyWithUnit(double hertz) {
    std::string text = formatFrequency(hertz);
    if (!text.empty() && (text.back() == 'k' || text.back() == 'M' || text.back() == 'G')) {
        const char prefix = text.back();
        text.pop_back();
        return text + " " + prefix + "Hz";
    }
    return text + " Hz";
}

std::string formatMilliseconds(double milliseconds, int decimals) {
    if (std::isfinite(milliseconds) && milliseconds != 0.0 && std::abs(milliseconds) < 1.0)
        return formatNumber(milliseconds * 1000.0, std::max(decimals - 3, 0)) + " \u00B5s";
    return formatNumber(milliseconds, decimals) + " ms";
}

std::string formatDecibels(double decibels, int decimals, bool spl) {
    return formatNumber(decibels, decimals) + (spl ? " dB SPL" : " dB");
}

std::string formatDegrees(double degrees, int decimals) {
    return formatNumber(degrees, decimals) + "\u00B0";
}

std::string formatPercent(double percent, int decimals) {
    return formatNumber(percent, decimals) + " %";
}

std::string displayUnit(std::string_view unit) {
    if (unit == "deg")
        return "\u00B0";
    if (unit == "us")
        return "\u00B5s";
    return std::string(unit);
}

std::string axisTitle(std::string_view name, std::string_view unit) {
    if (unit.empty())
        return std::string(name);
    return fmt::format("{} ({})", name, displayUnit(unit));
}

} // namespace tavolar
