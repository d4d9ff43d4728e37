#include "graphing/VELTCollapsingFrequencyNumberFormatter.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace tavolar {

namespace {

// Decimal style: at most three decimals, no trailing zeros, thousands grouped.
std::string decimalString(double value) {
    if (!std::isfinite(value))
        return std::isnan(value) ? "NaN" : (value > 0 ? "\u221E" : "-\u221E");
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.3f", std::fabs(value));
    std::string digits(buffer);
    while (digits.back() == '0')
        digits.pop_back();
    if (digits.back() == '.')
        digits.pop_back();
    const std::size_t point = std::min(digits.find('.'), digits.size());
    std::string grouped;
    for (std::size_t i = 0; i < point; ++i) {
        if (i > 0 && (point - i) % 3 == 0)
            grouped += ',';
        grouped += digits[i];
    }
    grouped += digits.substr(point);
    const bool negative = value < 0.0 && grouped != "0";
    return negative ? "-" + grouped : grouped;
}

} // namespace

std::string VELTCollapsingFrequencyNumberFormatter::stringForNumber(double value) const {
    if (value >= 1000.0)
        return decimalString(value / 1000.0) + "k";
    return decimalString(value);
}

std::optional<double> VELTCollapsingFrequencyNumberFormatter::numberFromString(std::string_view text) const {
    while (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ')
        text.remove_suffix(1);
    double factor = 1.0;
    if (!text.empty() && (text.back() == 'k' || text.back() == 'K')) {
        factor = 1000.0;
        text.remove_suffix(1);
    }
    std::string plain;
    for (char c : text)
        if (c != ',')
            plain += c;
    if (!plain.empty() && plain.front() == '+')
        plain.erase(0, 1);
    double value = 0.0;
    auto [end, error] = std::from_chars(plain.data(), plain.data() + plain.size(), value);
    if (plain.empty() || error != std::errc() || end != plain.data() + plain.size())
        return std::nullopt;
    return value * factor;
}

} // namespace tavolar
