#pragma once
// Reads decimal numbers from the front of a text, skipping a chosen set of separator characters
// before each one. The decimal separator is always the full stop, whatever the process locale.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tavolar {

class NumberScanner {
public:
    explicit NumberScanner(std::string_view text, std::string charactersToBeSkipped = " \t\n\r")
        : text_(text), charactersToBeSkipped_(std::move(charactersToBeSkipped)) {}

    // Skips separators, then reads an optional sign, digits with an optional fraction (at least one
    // digit in all) and an optional exponent. On success the position moves past the number; on
    // failure it stays where it was. Values beyond the type's range become infinities or zero.
    // Names such as "inf" and "nan" are not numbers here.
    std::optional<double> scanDouble();
    std::optional<float> scanFloat();

    std::size_t scanLocation() const noexcept { return location_; }
    // True when only separators remain.
    bool isAtEnd() const noexcept;

private:
    std::size_t skipSeparators(std::size_t from) const noexcept;

    std::string_view text_;
    std::string charactersToBeSkipped_;
    std::size_t location_ = 0;
};

} // namespace tavolar
