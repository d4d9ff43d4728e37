#pragma once
// The phase of the frequency response, in degrees counted from a time reference, wrapped into
// -180..180 (with ticks every 45 or 90 degrees) unless unwrapped. The minimum-phase, excess-phase
// and group-delay graphs are phase graphs of another curve. Phases are never smoothed.

#include "graphcalc/RecordGraphCalculationControllers.h"
#include "graphs/TavolarFrequencyDomainGraph.h"

namespace tavolar {

class TavolarPhaseGraph : public TavolarFrequencyDomainGraph {
public:
    static constexpr std::string_view className = "TavolarPhaseGraph";

    TavolarPhaseGraph() : TavolarPhaseGraph(FrequencyCurveKind::Phase) {}
    TavolarPhaseGraph(const TavolarPhaseGraph& other) = default;
    std::shared_ptr<TavolarGraph> copy() const override { return copyOf(*this); }
    static TavolarPhaseGraph initWithCoder(KeyedUnarchiver& coder) {
        return decodedGraph<TavolarPhaseGraph>(coder);
    }

    static std::string graphTitle();
    FrequencyCurveKind kind() const noexcept { return kind_; }
    bool unwrapPhase() const { return graphCalculationSettings().unwrapPhase; }
    PhaseTimeReference phaseReference() const { return graphCalculationSettings().phaseReference; }

    bool isSmoothed() const override { return false; }
    // "unwrapPhase" (not for group delay) and "phaseReference" (a PhaseTimeReference value).
    std::vector<GraphSetting> graphSettings() const override;
    GraphQuantity verticalAxisQuantity() const override;
    // Wrapped phases fill their whole circle; group delays cover the bulk of their values.
    std::optional<VELTGraphExtents> extentsFittingGraphData() const override;
    VELTGraphPlot graphPlot() const override;

protected:
    // A graph of the curve of kind, titled title.
    TavolarPhaseGraph(FrequencyCurveKind kind, std::string title = graphTitle());
    std::unique_ptr<GraphCalculationController> makeGraphCalculationController() const override;

private:
    bool isWrapped() const { return kind_ != FrequencyCurveKind::GroupDelay && !unwrapPhase(); }
    FrequencyCurveKind kind_;
};

} // namespace tavolar
