#pragma once
// The group delay of the frequency response: a phase graph of that curve.

#include "graphs/TavolarPhaseGraph.h"
#include "platform/TavolarLocalizedString.h"

namespace tavolar {

class TavolarGroupDelayGraph final : public TavolarPhaseGraph {
public:
    static constexpr std::string_view className = "TavolarGroupDelayGraph";

    TavolarGroupDelayGraph() : TavolarPhaseGraph(FrequencyCurveKind::GroupDelay, graphTitle()) {}
    TavolarGroupDelayGraph(const TavolarGroupDelayGraph& other) = default;
    std::shared_ptr<TavolarGraph> copy() const override { return copyOf(*this); }
    static TavolarGroupDelayGraph initWithCoder(KeyedUnarchiver& coder) {
        return decodedGraph<TavolarGroupDelayGraph>(coder);
    }

    static std::string graphTitle() {
        return TavolarLocalizedString("Group Delay", "Title for the group delay graph");
    }
};

} // namespace tavolar
