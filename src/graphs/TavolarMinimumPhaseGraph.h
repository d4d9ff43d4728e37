#pragma once
// The minimum phase of the frequency response: a phase graph of that curve.

#include "graphs/TavolarPhaseGraph.h"
#include "platform/TavolarLocalizedString.h"

namespace tavolar {

class TavolarMinimumPhaseGraph final : public TavolarPhaseGraph {
public:
    static constexpr std::string_view className = "TavolarMinimumPhaseGraph";

    TavolarMinimumPhaseGraph() : TavolarPhaseGraph(FrequencyCurveKind::MinimumPhase, graphTitle()) {}
    TavolarMinimumPhaseGraph(const TavolarMinimumPhaseGraph& other) = default;
    std::shared_ptr<TavolarGraph> copy() const override { return copyOf(*this); }
    static TavolarMinimumPhaseGraph initWithCoder(KeyedUnarchiver& coder) {
        return decodedGraph<TavolarMinimumPhaseGraph>(coder);
    }

    static std::string graphTitle() {
        return TavolarLocalizedString("Minimum Phase", "Title for the minimum phase graph");
    }
};

} // namespace tavolar
