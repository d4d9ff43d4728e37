// Unit formatters: the same text whatever the process's locale, with a true minus sign.

#include "graphing/VELTUnitFormatter.h"

#include <clocale>
#include <gtest/gtest.h>
#include <limits>

namespace tavolar {
namespace {

TEST(UnitFormatter, Texts) {
    struct Case {
        std::string actual;
        const char* expected;
    };
    const Case cases[] = {
        {formatFrequency(20), "20"},
        {formatFrequency(31.5), "31.5"},
        {formatFrequency(999.9999), "1k"},
        {formatFrequency(1000), "1k"},
        {formatFrequency(2500), "2.5k"},
        {formatFrequency(20000), "20k"},
        {formatFrequency(1.5e6), "1.5M"},
        {formatFrequency(0.02), "0.02"},
        {formatFrequencyWithUnit(20), "20 Hz"},
        {formatFrequencyWithUnit(12500), "12.5 kHz"},
        {formatMilliseconds(12.5), "12.50 ms"},
        {formatMilliseconds(0.25), "250 µs"},
        {formatMilliseconds(-0.25), "−250 µs"},
        {formatMilliseconds(0), "0.00 ms"},
        {formatDecibels(-6), "−6.0 dB"},
        {formatDecibels(94.2, 1, true), "94.2 dB SPL"},
        {formatDecibels(-0.04), "0.0 dB"},
        {formatDegrees(-90), "−90°"},
        {formatPercent(1.5), "1.5 %"},
        {formatNumber(std::numeric_limits<double>::quiet_NaN(), 1), "NaN"},
        {formatNumber(-std::numeric_limits<double>::infinity(), 1), "−∞"},
        {formatShortNumber(2.50), "2.5"},
        {formatShortNumber(-3.0), "−3"},
        {axisTitle("Phase", "deg"), "Phase (°)"},
        {axisTitle("Frequency", "Hz"), "Frequency (Hz)"},
        {axisTitle("Amplitude", ""), "Amplitude"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.actual, c.expected);
}

TEST(UnitFormatter, DecimalPointWhateverTheLocale) {
    // A locale with a decimal comma, when the system has one; the C locale otherwise (the test then
    // checks nothing it would not check anyway).
    const char* previous = std::setlocale(LC_NUMERIC, nullptr);
    const std::string saved = previous ? previous : "C";
    for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8", "C.UTF-8"})
        if (std::setlocale(LC_NUMERIC, name))
            break;
    EXPECT_EQ(formatNumber(-2.5, 1), "−2.5");
    EXPECT_EQ(formatFrequency(2500), "2.5k");
    std::setlocale(LC_NUMERIC, saved.c_str());
}

} // namespace
} // namespace tavolar
