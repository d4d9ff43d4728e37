#pragma once
// The excess phase of the frequency response: a phase graph of that curve.

#include "graphs/TavolarPhaseGraph.h"
#include "platform/TavolarLocalizedString.h"

namespace tavolar {

class TavolarExcessPhaseGraph final : public TavolarPhaseGraph {
public:
    static constexpr std::string_view className = "TavolarExcessPhaseGraph";

    TavolarExcessPhaseGraph() : TavolarPhaseGraph(FrequencyCurveKind::ExcessPhase, graphTitle()) {}
    TavolarExcessPhaseGraph(const TavolarExcessPhaseGraph& other) = default;
    std::shared_ptr<TavolarGraph> copy() const override { return copyOf(*this); }
    static TavolarExcessPhaseGraph initWithCoder(KeyedUnarchiver& coder) {
        return decodedGraph<TavolarExcessPhaseGraph>(coder);
    }

    static std::string graphTitle() {
        return TavolarLocalizedString("Excess Phase", "Title for the excess phase graph");
    }
};

} // namespace tavolar
