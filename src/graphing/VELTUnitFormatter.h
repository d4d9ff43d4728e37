#pragma once
// The unit formatters every text about graph values goes through: axis labels, legends, the command
// line's output and column headers. The output does not depend on the process's locale (the decimal
// separator is always a point) and negative numbers carry a true minus sign (U+2212), as typeset
// figures do.

#include <string>
#include <string_view>

namespace tavolar {

// The minus sign of negative numbers.
inline constexpr std::string_view kMinusSign = "\u2212";

// The value with exactly `decimals` decimals (none when decimals <= 0); a value that rounds to zero
// is "0" without a sign. Not-a-number is "NaN" and infinities are "∞" and "−∞".
std::string formatNumber(double value, int decimals);

// The value with at most maxDecimals decimals and no trailing zeros: 2.50 is "2.5", 3.0 is "3".
std::string formatShortNumber(double value, int maxDecimals = 3);

// Frequencies the way acousticians read them: below 1 kHz in hertz ("20", "31.5", "500"), from
// 1 kHz on in kilohertz with a k ("1k", "2.5k", "20k"), then M and G. Up to three decimals.
std::string formatFrequency(double hertz);
// The same with the unit: "20 Hz", "1 kHz", "2.5 kHz".
std::string formatFrequencyWithUnit(double hertz);

// Durations given in milliseconds: "12.5 ms" from 1 ms on, "250 µs" below it; the value's
// decimals follow `decimals` (in the unit shown).
std::string formatMilliseconds(double milliseconds, int decimals = 2);
// "−6.0 dB", "94.2 dB SPL" (spl), "−90°", "1.5 %".
std::string formatDecibels(double decibels, int decimals = 1, bool spl = false);
std::string formatDegrees(double degrees, int decimals = 0);
std::string formatPercent(double percent, int decimals = 1);

// The unit as set in text: "deg" becomes "°", "us" becomes "µs"; others pass unchanged.
std::string displayUnit(std::string_view unit);
// An axis title: "Frequency (Hz)", "Phase (°)", or the name alone for plain numbers.
std::string axisTitle(std::string_view name, std::string_view unit);

} // namespace tavolar
