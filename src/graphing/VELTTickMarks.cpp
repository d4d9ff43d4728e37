#include "graphing/VELTTickMarks.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace tavolar {

namespace {

constexpr std::array<double, 4> kMantissas{1.0, 2.0, 2.5, 5.0};
// Beyond this many labels an axis is never readable; candidate steps that give more are skipped.
constexpr double kMostLabels = 500.0;

bool usable(double minimum, double maximum, double length) {
    return std::isfinite(minimum) && std::isfinite(maximum) && std::isfinite(maximum - minimum) &&
           std::isfinite(length) && length > 0.0 && minimum <= maximum;
}

struct Label {
    double value;
    double position; // along the axis, in the unit of its length
    std::string text;
};

// Whether the labels fit: no two closer than half their widths plus the gap, and all of them
// together within the fill limit.
bool fits(const std::vector<Label>& labels, double length, const TickLabelWidth& width,
          const TickMarkOptions& options) {
    double total = 0.0;
    double previousPosition = 0.0;
    double previousHalf = 0.0;
    for (std::size_t i = 0; i < labels.size(); ++i) {
        const double w = width(labels[i].text);
        total += w;
        if (i > 0 && labels[i].position - previousPosition < previousHalf + w / 2.0 + options.minimumGap)
            return false;
        previousPosition = labels[i].position;
        previousHalf = w / 2.0;
    }
    return total <= options.maximumFill * length;
}

// Decimals that show a step exactly: 0.25 needs two, 2.5 one, 50 none.
int decimalsOfStep(double step) {
    for (int decimals = 0; decimals < 15; ++decimals) {
        const double scaled = step * std::pow(10.0, decimals);
        if (std::abs(scaled - std::round(scaled)) < 1e-6 * std::max(1.0, scaled))
            return decimals;
    }
    return 15;
}

struct LinearChoice {
    double step = 0.0;
    double mantissa = 1.0; // 0 for a step of the options' own
};

LinearChoice chooseLinearStep(double minimum, double maximum, double length, const TickLabelWidth& width,
                              const TickLabelText& text, const TickMarkOptions& options) {
    const double span = maximum - minimum;
    auto labelsFit = [&](double step) {
        const int decimals = decimalsOfStep(step);
        std::vector<Label> labels;
        for (double k = std::ceil(minimum / step - 1e-9); k <= std::floor(maximum / step + 1e-9); k += 1.0)
            labels.push_back({k * step, (k * step - minimum) / span * length, text(k * step, decimals)});
        return fits(labels, length, width, options);
    };
    if (!options.steps.empty()) {
        for (double step : options.steps)
            if (span / step <= kMostLabels && labelsFit(step))
                return {step, 0.0};
        return {options.steps.back(), 0.0};
    }
    const int top = static_cast<int>(std::floor(std::log10(span))) + 1;
    LinearChoice last;
    for (int exponent = top - 4; exponent <= top + 1; ++exponent) {
        for (double mantissa : kMantissas) {
            const double step = mantissa * std::pow(10.0, exponent);
            const double first = std::ceil(minimum / step - 1e-9);
            const double last_ = std::floor(maximum / step + 1e-9);
            if (last_ - first + 1.0 > kMostLabels)
                continue;
            last = {step, mantissa};
            const int decimals = decimalsOfStep(step);
            std::vector<Label> labels;
            for (double k = first; k <= last_; k += 1.0) {
                const double value = k * step;
                labels.push_back({value, (value - minimum) / span * length, text(value, decimals)});
            }
            if (fits(labels, length, width, options))
                return {step, mantissa};
        }
    }
    return last;
}

} // namespace

std::pair<double, double> roundedOutwards(double minimum, double maximum, double step) {
    if (!(step > 0.0) || !std::isfinite(minimum) || !std::isfinite(maximum) || minimum == maximum)
        return {minimum, maximum};
    return {std::floor(minimum / step + 1e-9) * step, std::ceil(maximum / step - 1e-9) * step};
}

double linearTickStep(double minimum, double maximum, double length, const TickLabelWidth& width,
                      const TickLabelText& text, const TickMarkOptions& options) {
    if (!usable(minimum, maximum, length) || minimum == maximum)
        return 0.0;
    return chooseLinearStep(minimum, maximum, length, width, text, options).step;
}

std::vector<TickMark> linearTickMarks(double minimum, double maximum, double length,
                                      const TickLabelWidth& width, const TickLabelText& text,
                                      const TickMarkOptions& options) {
    if (!usable(minimum, maximum, length))
        return {};
    if (minimum == maximum)
        return {{minimum, true, text(minimum, decimalsOfStep(std::abs(minimum)))}};
    const LinearChoice choice = chooseLinearStep(minimum, maximum, length, width, text, options);
    const double step = choice.step;
    const int decimals = decimalsOfStep(step);
    // Minor ticks split a step of 2 into quarters and the others into fifths, so that every minor tick
    // falls on a round value (2.5 into halves of a unit).
    const int divisions = choice.mantissa == 0.0   ? std::max(options.minorDivisions, 1)
                          : choice.mantissa == 2.0 ? 4
                                                   : 5;
    const double minorStep = step / divisions;
    std::vector<TickMark> ticks;
    const double first = std::ceil(minimum / minorStep - 1e-9);
    const double last = std::floor(maximum / minorStep + 1e-9);
    // Steps of the caller's own may be far too fine for the range: no axis is drawn with that many.
    if (last - first > 50.0 * kMostLabels)
        return {};
    for (double k = first; k <= last; k += 1.0) {
        const bool major = std::fmod(std::abs(k), static_cast<double>(divisions)) == 0.0;
        double value = k * minorStep;
        if (std::abs(value) < minorStep * 1e-9)
            value = 0.0;
        ticks.push_back({value, major, major ? text(value, decimals) : std::string()});
    }
    return ticks;
}

std::vector<TickMark> logarithmicTickMarks(double minimum, double maximum, double length,
                                           const TickLabelWidth& width, const TickLabelText& text,
                                           const TickMarkOptions& options) {
    if (!usable(minimum, maximum, length) || !(minimum > 0.0))
        return {};
    if (maximum / minimum < 10.0)
        return linearTickMarks(minimum, maximum, length, width, text, options);

    const double logMinimum = std::log10(minimum);
    const double logSpan = std::log10(maximum) - logMinimum;
    const double decadeLength = length / logSpan;
    auto position = [&](double value) { return (std::log10(value) - logMinimum) / logSpan * length; };
    const int firstDecade = static_cast<int>(std::floor(logMinimum)) - 1;
    const int lastDecade = static_cast<int>(std::ceil(std::log10(maximum))) + 1;
    auto inside = [&](double value) {
        return value >= minimum * (1.0 - 1e-9) && value <= maximum * (1.0 + 1e-9);
    };
    // Decimals that show a value exactly (0.02 Hz needs two).
    auto decimalsOf = [](double value) { return value >= 1.0 ? 0 : decimalsOfStep(value); };

    // Candidate label sets from dense to sparse: the multiples labelled in each labelled decade, and
    // which decades are labelled (every one, or every second, third ...).
    struct Candidate {
        std::vector<int> multiples;
        int decadeStride;
    };
    std::vector<Candidate> candidates{{{1, 2, 3, 4, 5, 6, 7, 8, 9}, 1}, {{1, 2, 5}, 1}, {{1}, 1}};
    for (int stride : {2, 3, 4, 5, 6, 10, 20})
        candidates.push_back({{1}, stride});

    std::vector<double> labelled;
    for (const Candidate& candidate : candidates) {
        std::vector<Label> labels;
        for (int decade = firstDecade; decade <= lastDecade; ++decade) {
            if (((decade % candidate.decadeStride) + candidate.decadeStride) % candidate.decadeStride != 0)
                continue;
            const double base = std::pow(10.0, decade);
            for (int multiple : candidate.multiples) {
                const double value = multiple * base;
                if (inside(value))
                    labels.push_back({value, position(value), text(value, decimalsOf(value))});
            }
        }
        labelled.clear();
        for (const Label& label : labels)
            labelled.push_back(label.value);
        if (fits(labels, length, width, options))
            break;
    }

    const bool minorTicks = decadeLength >= options.minimumDecadeForMinorTicks;
    std::vector<TickMark> ticks;
    for (int decade = firstDecade; decade <= lastDecade; ++decade) {
        const double base = std::pow(10.0, decade);
        for (int multiple = 1; multiple <= 9; ++multiple) {
            const double value = multiple * base;
            if (!inside(value))
                continue;
            const bool major = std::any_of(labelled.begin(), labelled.end(),
                                           [&](double v) { return std::abs(v - value) <= 1e-9 * value; });
            if (major)
                ticks.push_back({value, true, text(value, decimalsOf(value))});
            else if (minorTicks || multiple == 1)
                ticks.push_back({value, false, {}});
        }
    }
    return ticks;
}

} // namespace tavolar
