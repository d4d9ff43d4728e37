#pragma once
// The waterfall (cumulative spectral decay): the spectrum of the impulse response seen through
// windows starting one after the other, drawn as slices one behind the other over frequency and time.

#include "graphs/TavolarFrequencyDomainGraph.h"

namespace tavolar {

class TavolarWaterfallGraph : public TavolarFrequencyDomainGraph {
public:
    static constexpr std::string_view className = "TavolarWaterfallGraph";
    // The levels shown reach this far below the surface's peak.
    static constexpr double kLevelFloor = 60.0;

    TavolarWaterfallGraph();
    TavolarWaterfallGraph(const TavolarWaterfallGraph& other) = default;
    std::shared_ptr<TavolarGraph> copy() const override { return copyOf(*this); }
    static TavolarWaterfallGraph initWithCoder(KeyedUnarchiver& coder) {
        return decodedGraph<TavolarWaterfallGraph>(coder);
    }

    static std::string graphTitle();
    WaterfallSettings waterfallSettings() const { return graphCalculationSettings().waterfall; }

    // The slices' "windowType", "startAtPeak", "startTime" (ms), "duration" (ms), "fftLength" and
    // "sliceCount".
    std::vector<GraphSetting> graphSettings() const override;
    GraphQuantity verticalAxisQuantity() const override;
    // Frequency across and time in depth.
    std::optional<VELTGraphExtents> extentsFittingGraphData() const override;
    // The dB shown: from kLevelFloor below the peak of the surfaces up to it.
    std::pair<double, double> levelRange() const;
    void drawInRect(VELTPainter& painter, const VELTRect& rect) const override;

protected:
    explicit TavolarWaterfallGraph(std::string title);
    std::unique_ptr<GraphCalculationController> makeGraphCalculationController() const override;
};

} // namespace tavolar
