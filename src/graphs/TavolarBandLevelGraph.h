#pragma once
// Octave or third-octave band levels, A-, C- or un-weighted, drawn as one bar per band labelled with
// the bands' nominal centres.

#include "graphs/TavolarGraph.h"

namespace tavolar {

class TavolarBandLevelGraph final : public TavolarGraph {
public:
    static constexpr std::string_view className = "TavolarBandLevelGraph";
    // The weightings as the "weighting" setting numbers them.
    enum class Weighting : std::int64_t { None = 0, A = 1, C = 2 };

    TavolarBandLevelGraph();
    TavolarBandLevelGraph(const TavolarBandLevelGraph& other) = default;
    std::shared_ptr<TavolarGraph> copy() const override { return copyOf(*this); }
    static TavolarBandLevelGraph initWithCoder(KeyedUnarchiver& coder) {
        return decodedGraph<TavolarBandLevelGraph>(coder);
    }

    // "Third-Octave Band Levels" or "Octave Band Levels".
    static std::string graphTitle(bool thirdOctaveBands);
    bool thirdOctaveBands() const { return graphCalculationSettings().thirdOctaveBands; }
    Weighting weighting() const;

    // "thirdOctaveBands" and "weighting" (a Weighting value).
    std::vector<GraphSetting> graphSettings() const override;
    GraphQuantity horizontalAxisQuantity() const override;
    GraphQuantity verticalAxisQuantity() const override;
    void refreshTitleModifier() override;
    // The bars rise from at most 60 dB below the loudest band, and the outer bars are whole.
    std::optional<VELTGraphExtents> extentsFittingGraphData() const override;
    VELTGraphPlot graphPlot() const override;

protected:
    void graphSettingDidChange(std::string_view keyPath) override;
    std::unique_ptr<GraphCalculationController> makeGraphCalculationController() const override;
};

} // namespace tavolar
