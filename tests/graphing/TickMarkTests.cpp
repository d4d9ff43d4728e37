// Tick marks: which values an axis labels for a range and a length, given how wide the labels are.

#include "graphing/VELTTickMarks.h"
#include "graphing/VELTUnitFormatter.h"

#include <cmath>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tavolar {
namespace {

// Labels as wide as a 9 pt font sets them, roughly: 5 points a character (not a byte: the minus sign
// takes three).
double fiveAPiece(std::string_view text) {
    double characters = 0.0;
    for (unsigned char c : text)
        characters += (c & 0xC0) != 0x80 ? 1.0 : 0.0;
    return 5.0 * characters;
}

std::string frequencyLabel(double value, int) {
    return formatFrequency(value);
}
std::string plainLabel(double value, int decimals) {
    return formatNumber(value, decimals);
}

std::vector<std::string> labels(const std::vector<TickMark>& ticks) {
    std::vector<std::string> result;
    for (const TickMark& tick : ticks)
        if (tick.major)
            result.push_back(tick.label);
    return result;
}

using Labels = std::vector<std::string>;

TEST(TickMarks, LabelsOfRangesAndLengths) {
    struct Case {
        const char* what;
        bool logarithmic;
        double minimum, maximum, length;
        Labels expected;
    };
    const Case cases[] = {
        {"audio band, wide axis",
         true,
         20,
         20000,
         400,
         {"20", "50", "100", "200", "500", "1k", "2k", "5k", "10k", "20k"}},
        {"audio band, narrow axis: decades only", true, 20, 20000, 120, {"100", "1k", "10k"}},
        {"a decade and a bit, every multiple fits",
         true,
         100,
         1000,
         600,
         {"100", "200", "300", "400", "500", "600", "700", "800", "900", "1k"}},
        {"twelve decades on a short axis: every second decade",
         true,
         1e-3,
         1e9,
         200,
         {"0.01", "1", "100", "10k", "1M", "100M"}},
        {"under a decade: linear steps",
         true,
         100,
         500,
         300,
         {"100", "150", "200", "250", "300", "350", "400", "450", "500"}},
        {"19.5 to 20.5 Hz",
         true,
         19.5,
         20.5,
         300,
         {"19.5", "19.6", "19.7", "19.8", "19.9", "20", "20.1", "20.2", "20.3", "20.4", "20.5"}},
        {"19.5 to 20.5 Hz, narrow", true, 19.5, 20.5, 100, {"19.5", "20", "20.5"}},
        {"zero span", true, 20, 20, 300, {"20"}},
        {"negative minimum on a logarithmic axis", true, -10, 1000, 300, {}},
        {"zero minimum on a logarithmic axis", true, 0, 1000, 300, {}},
        {"inverted range", false, 10, -10, 300, {}},
        {"no length", false, 0, 10, 0, {}},
        {"a span beyond the doubles", false, -1e308, 1e308, 300, {}},
        {"decibels, 2 dB steps", false, -10, 0, 150, {"−10", "−8", "−6", "−4", "−2", "0"}},
        {"decibels, 25 dB steps", false, 0, 100, 80, {"0", "25", "50", "75", "100"}},
        {"decibels, 10 dB steps", false, -60, 0, 150, {"−60", "−50", "−40", "−30", "−20", "−10", "0"}},
        {"decibels, crowded: 20 dB steps", false, -60, 0, 80, {"−60", "−40", "−20", "0"}},
        {"a flat curve's 1 dB span", false, 93.7, 94.7, 200, {"93.8", "94.0", "94.2", "94.4", "94.6"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto ticks = c.logarithmic ? logarithmicTickMarks(c.minimum, c.maximum, c.length, fiveAPiece,
                                                          c.logarithmic ? frequencyLabel : plainLabel)
                                   : linearTickMarks(c.minimum, c.maximum, c.length, fiveAPiece, plainLabel);
        EXPECT_EQ(labels(ticks), c.expected);
        for (std::size_t i = 1; i < ticks.size(); ++i)
            EXPECT_LT(ticks[i - 1].value, ticks[i].value);
        for (const TickMark& tick : ticks) {
            EXPECT_GE(tick.value, c.minimum - 1e-9 * std::abs(c.minimum));
            EXPECT_LE(tick.value, c.maximum + 1e-9 * std::abs(c.maximum));
        }
    }
}

TEST(TickMarks, LogarithmicMinorTicksFallOnEveryIntegerMultiple) {
    auto ticks = logarithmicTickMarks(20, 20000, 400, fiveAPiece, frequencyLabel);
    std::vector<double> minors;
    for (const TickMark& tick : ticks) {
        if (!tick.major && tick.value < 1000) {
            EXPECT_TRUE(tick.label.empty());
            minors.push_back(tick.value);
        }
    }
    EXPECT_EQ(minors, (std::vector<double>{30, 40, 60, 70, 80, 90, 300, 400, 600, 700, 800, 900}));
    // A decade a few points long keeps only its decade ticks.
    for (const TickMark& tick : logarithmicTickMarks(1e-3, 1e9, 200, fiveAPiece, frequencyLabel)) {
        if (!tick.major) {
            EXPECT_DOUBLE_EQ(std::pow(10.0, std::round(std::log10(tick.value))), tick.value);
        }
    }
}

TEST(TickMarks, WiderLabelsNeverOverlapNorFillMoreThanTheLimit) {
    for (double length : {60.0, 150.0, 300.0, 700.0}) {
        for (double characterWidth : {3.0, 6.0, 12.0}) {
            auto width = [&](std::string_view text) {
                return characterWidth * static_cast<double>(text.size());
            };
            auto ticks = logarithmicTickMarks(10, 40000, length, width, frequencyLabel);
            double filled = 0.0, previousRight = -1e9;
            for (const TickMark& tick : ticks) {
                if (!tick.major)
                    continue;
                const double centre = (std::log10(tick.value) - 1.0) / (std::log10(40000.0) - 1.0) * length;
                const double w = width(tick.label);
                EXPECT_GT(centre - w / 2.0, previousRight)
                    << length << " " << characterWidth << " " << tick.label;
                previousRight = centre + w / 2.0;
                filled += w;
            }
            EXPECT_LE(filled, 0.8 * length + 1e-9);
        }
    }
}

TEST(TickMarks, PhaseAxesStepByTheirOwnSteps) {
    TickMarkOptions options;
    options.steps = {45.0, 90.0, 180.0};
    struct Case {
        double length;
        Labels expected;
    };
    const Case cases[] = {
        {300, {"−180", "−135", "−90", "−45", "0", "45", "90", "135", "180"}},
        {100, {"−180", "−90", "0", "90", "180"}},
    };
    for (const Case& c : cases) {
        auto ticks = linearTickMarks(-180, 180, c.length, fiveAPiece, plainLabel, options);
        EXPECT_EQ(labels(ticks), c.expected) << c.length;
        // Three minor steps to each step: 15 or 30 degrees apart.
        EXPECT_NEAR(ticks[1].value - ticks[0].value, c.expected.size() == 9 ? 15.0 : 30.0, 1e-9);
    }
    EXPECT_TRUE(linearTickMarks(0, 1e9, 300, fiveAPiece, plainLabel, options).empty());
}

TEST(TickMarks, RangesRoundOutwardsToTheStep) {
    EXPECT_EQ(roundedOutwards(-43.2, 7.9, 10.0), (std::pair<double, double>{-50.0, 10.0}));
    EXPECT_EQ(roundedOutwards(-40.0, 0.0, 10.0), (std::pair<double, double>{-40.0, 0.0}));
    EXPECT_EQ(roundedOutwards(1.0, 1.0, 10.0), (std::pair<double, double>{1.0, 1.0}));
    EXPECT_DOUBLE_EQ(linearTickStep(-60, 0, 150, fiveAPiece, plainLabel), 10.0);
}

} // namespace
} // namespace tavolar
