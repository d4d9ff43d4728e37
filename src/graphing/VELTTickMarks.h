#pragma once
// Tick marks of graph axes, as a pure function of the axis range, its length and the widths its
// labels would take, so that label density is decided by what fits rather than by a fixed count.
//
// Linear axes step by 1, 2, 2.5 or 5 times a power of ten (decibel axes read 1, 2, 2.5, 5, 10 dB).
// Logarithmic axes label the values acousticians read (20, 50, 100, 200, 500, 1k ...), falling back
// to every decade or every few decades as the axis gets crowded, with minor ticks at each integer
// multiple of a decade; a logarithmic range under a decade gets linear steps instead.

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar {

struct TickMark {
    double value = 0.0;
    bool major = false; // major ticks carry a label; minor ticks have none
    std::string label;
    bool operator==(const TickMark&) const = default;
};

// The width a label takes on the axis, in the unit of the axis length (points for a painter).
using TickLabelWidth = std::function<double(std::string_view)>;
// The text of a label: the value and the decimals its step needs.
using TickLabelText = std::function<std::string(double value, int decimals)>;

struct TickMarkOptions {
    // Labels may fill at most this fraction of the axis.
    double maximumFill = 0.8;
    // The least free space between neighbouring labels, in the unit of the axis length.
    double minimumGap = 4.0;
    // Logarithmic axes draw minor ticks only where a decade is at least this long.
    double minimumDecadeForMinorTicks = 24.0;
    // Linear axes: the steps to choose from, smallest first, in place of 1, 2, 2.5 and 5 times the
    // powers of ten (phase axes step by 45 or 90 degrees), with minorDivisions minor steps in each.
    std::vector<double> steps;
    int minorDivisions = 3;
};

// Ticks in ascending order within [minimum, maximum]. An empty or inverted range, a non-finite bound
// or a length that is not positive gives none; a range of zero span gives one labelled tick.
std::vector<TickMark> linearTickMarks(double minimum, double maximum, double length,
                                      const TickLabelWidth& width, const TickLabelText& text,
                                      const TickMarkOptions& options = {});

// The same on a logarithmic axis; a minimum that is not positive gives none.
std::vector<TickMark> logarithmicTickMarks(double minimum, double maximum, double length,
                                           const TickLabelWidth& width, const TickLabelText& text,
                                           const TickMarkOptions& options = {});

// The step linearTickMarks chose for a range: the distance between labelled ticks (0 when none).
double linearTickStep(double minimum, double maximum, double length, const TickLabelWidth& width,
                      const TickLabelText& text, const TickMarkOptions& options = {});

// The range widened outwards to multiples of the step (a range of zero span stays as it is).
std::pair<double, double> roundedOutwards(double minimum, double maximum, double step);

} // namespace tavolar
