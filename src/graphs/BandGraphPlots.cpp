#include "graphs/BandGraphPlots.h"

#include "graphcalc/RecordGraphCalculationControllers.h"
#include "graphing/VELTUnitFormatter.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace tavolar {

double nominalBandCentre(double exactCentre) {
    // The preferred numbers of third-octave bands within a decade; octave bands are among them.
    static constexpr std::array<double, 10> kMantissas{1.0, 1.25, 1.6, 2.0, 2.5, 3.15, 4.0, 5.0, 6.3, 8.0};
    if (!(exactCentre > 0.0) || !std::isfinite(exactCentre))
        return exactCentre;
    const double exponent = std::floor(std::log10(exactCentre));
    double best = exactCentre, distance = INFINITY;
    for (double power = exponent - 1.0; power <= exponent + 1.0; power += 1.0)
        for (double mantissa : kMantissas) {
            const double candidate = mantissa * std::pow(10.0, power);
            const double d = std::abs(std::log(candidate / exactCentre));
            if (d < distance) {
                distance = d;
                best = candidate;
            }
        }
    return best;
}

std::optional<VELTGraphExtents> bandGraphExtents(const GraphDataArray& bands, bool thirdOctaveBands) {
    auto extents = automaticGraphExtents(bands, true);
    if (!extents)
        return extents;
    extents->yMin = std::max(extents->yMin - 3.0, extents->yMax - 60.0);
    extents->yMax += 3.0;
    const double halfBand = std::pow(2.0, thirdOctaveBands ? 1.0 / 6.0 : 0.5);
    extents->xMin /= halfBand;
    extents->xMax *= halfBand;
    return extents;
}

std::vector<TickMark> bandTickMarks(const VELTGraphData& bands, bool thirdOctaveBands) {
    std::vector<TickMark> ticks;
    for (std::size_t i = 0; i < bands.x().length(); ++i) {
        const double nominal = nominalBandCentre(bands.x()[i]);
        const double octaves = std::log2(nominal / 1000.0);
        const bool labelled = !thirdOctaveBands || std::abs(octaves - std::round(octaves)) < 0.1;
        ticks.push_back({bands.x()[i], labelled, labelled ? formatFrequency(nominal) : ""});
    }
    return ticks;
}

Expected<GraphPicture> bandPicture(const RecordArray& records, const PlotSettings& settings,
                                   const GraphCalculationSettings& calculation) {
    GraphPicture picture;
    picture.style = PictureStyle::Bars;
    GraphDataArray curves = BandLevelGraphCalculationController(calculation).calculate(records);
    const bool third = calculation.thirdOctaveBands;
    VELTGraphPlot& plot = picture.plot;
    plot.title = third ? "Third-Octave Band Levels" : "Octave Band Levels";
    if (settings.weighting != 'z')
        plot.titleModifier = settings.weighting == 'a' ? "(A-Weighted)" : "(C-Weighted)";
    plot.logarithmicX = true;
    plot.bars = true;
    plot.xQuantity = {"Frequency", "Hz"};
    plot.yQuantity = curves.empty() ? GraphQuantity{"Level", "dB"} : curves.front()->yQuantity();
    auto extents = bandGraphExtents(curves, third);
    if (!extents)
        return makeUnexpected("The records hold no band levels to draw.");
    plot.extents = *extents;
    plot.xTicks = bandTickMarks(*curves.front(), third);
    plot.curves = std::move(curves);
    return picture;
}

} // namespace tavolar
