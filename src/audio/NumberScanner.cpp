#include "audio/NumberScanner.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace tavolar {

namespace {
bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}
} // namespace

std::size_t NumberScanner::skipSeparators(std::size_t from) const noexcept {
    while (from < text_.size() && charactersToBeSkipped_.find(text_[from]) != std::string::npos)
        ++from;
    return from;
}

bool NumberScanner::isAtEnd() const noexcept {
    return skipSeparators(location_) >= text_.size();
}

std::optional<double> NumberScanner::scanDouble() {
    const std::size_t begin = skipSeparators(location_);
    std::size_t i = begin;
    const std::size_t n = text_.size();
    bool negative = false;
    if (i < n && (text_[i] == '+' || text_[i] == '-')) {
        negative = text_[i] == '-';
        ++i;
    }
    const std::size_t mantissaBegin = i;
    std::size_t integerDigits = 0;
    while (i < n && isDigit(text_[i])) {
        ++i;
        ++integerDigits;
    }
    std::size_t fractionDigits = 0;
    if (i < n && text_[i] == '.') {
        std::size_t j = i + 1;
        while (j < n && isDigit(text_[j])) {
            ++j;
            ++fractionDigits;
        }
        // A full stop belongs to the number only next to a digit.
        if (integerDigits + fractionDigits > 0)
            i = j;
    }
    if (integerDigits + fractionDigits == 0)
        return std::nullopt;
    const std::size_t mantissaEnd = i;
    // The exponent is taken only when it has digits; "1e" is the number 1 followed by "e".
    long exponent = 0;
    if (i < n && (text_[i] == 'e' || text_[i] == 'E')) {
        std::size_t j = i + 1;
        bool negativeExponent = false;
        if (j < n && (text_[j] == '+' || text_[j] == '-')) {
            negativeExponent = text_[j] == '-';
            ++j;
        }
        if (j < n && isDigit(text_[j])) {
            while (j < n && isDigit(text_[j])) {
                if (exponent < 100000)
                    exponent = exponent * 10 + (text_[j] - '0');
                ++j;
            }
            if (negativeExponent)
                exponent = -exponent;
            i = j;
        }
    }

    double value = 0.0;
    const char* first = text_.data() + mantissaBegin;
    const char* last = text_.data() + i;
    const auto [end, error] = std::from_chars(first, last, value, std::chars_format::general);
    if (error == std::errc::result_out_of_range) {
        // Decimal magnitude of the number: digits before the point after leading zeros, plus the exponent.
        long magnitude = exponent;
        std::size_t k = mantissaBegin;
        while (k < mantissaEnd && (text_[k] == '0' || text_[k] == '.'))
            ++k;
        std::size_t point = text_.find('.', mantissaBegin);
        if (point == std::string_view::npos || point > mantissaEnd)
            point = mantissaEnd;
        magnitude += static_cast<long>(point) - static_cast<long>(k);
        value = magnitude > 0 ? std::numeric_limits<double>::infinity() : 0.0;
    } else if (error != std::errc() || end != last) {
        return std::nullopt;
    }
    location_ = i;
    return negative ? -value : value;
}

std::optional<float> NumberScanner::scanFloat() {
    const auto value = scanDouble();
    if (!value)
        return std::nullopt;
    return static_cast<float>(*value);
}

} // namespace tavolar
