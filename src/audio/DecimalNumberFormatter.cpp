#include "audio/DecimalNumberFormatter.h"

#include <cmath>
#include <fmt/format.h>

namespace tavolar {

std::optional<std::string> DecimalNumberFormatter::stringFromNumber(double value) const {
    if (!std::isfinite(value))
        return std::nullopt;
    std::string fixed = fmt::format("{:.{}f}", std::fabs(value), maximumFractionDigits_);
    std::size_t point = fixed.find('.');
    if (point != std::string::npos) {
        std::size_t last = fixed.find_last_not_of('0');
        fixed.erase(last == point ? point : last + 1);
    }
    const std::size_t integerDigits = std::min(fixed.find('.'), fixed.size());
    std::string text;
    // A value that rounds to zero is shown without a sign.
    if (std::signbit(value) && fixed.find_first_not_of("0.") != std::string::npos)
        text += '-';
    for (std::size_t i = 0; i < fixed.size(); ++i) {
        if (i > 0 && i < integerDigits && (integerDigits - i) % 3 == 0)
            text += ',';
        text += fixed[i];
    }
    return text;
}

} // namespace tavolar
