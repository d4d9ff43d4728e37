#pragma once
// Frequencies in the short form of frequency axes and fields: values of 1000 and above in thousands
// with a "k" ("2k", "12.5k"), smaller ones as they are ("500", "31.5"), up to three decimals and with
// thousands grouped by commas. Reading accepts the same forms, with or without the "k".

#include <optional>
#include <string>
#include <string_view>

namespace tavolar {

class VELTCollapsingFrequencyNumberFormatter {
public:
    std::string stringForNumber(double value) const;
    // Nothing when the text is not a number (optionally followed by "k").
    std::optional<double> numberFromString(std::string_view text) const;
    std::string operator()(double value) const { return stringForNumber(value); }
};

} // namespace tavolar
