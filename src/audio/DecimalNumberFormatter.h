#pragma once
// Numbers as people read them in labels: decimal notation with a full stop, a comma between
// groups of three integer digits, at most a fixed number of fraction digits and no trailing zeros.
// Independent of the process locale.

#include <optional>
#include <string>

namespace tavolar {

class DecimalNumberFormatter {
public:
    explicit DecimalNumberFormatter(int maximumFractionDigits = 3)
        : maximumFractionDigits_(maximumFractionDigits) {}

    int maximumFractionDigits() const noexcept { return maximumFractionDigits_; }
    void setMaximumFractionDigits(int digits) noexcept { maximumFractionDigits_ = digits < 0 ? 0 : digits; }

    // "1,234.57" for 1234.5678 with two digits; ties of the exact binary value round to even.
    // No text for infinities and not-a-number.
    std::optional<std::string> stringFromNumber(double value) const;

private:
    int maximumFractionDigits_;
};

} // namespace tavolar
