#pragma once
// The calibrated sound pressure level response in decibels (a decibel graph: smoothed, normalised by
// its peak).

#include "graphs/TavolarFrequencyDomainGraph.h"

namespace tavolar {

class TavolarSPLGraph final : public TavolarFrequencyDomainGraph {
public:
    static constexpr std::string_view className = "TavolarSPLGraph";

    TavolarSPLGraph();
    TavolarSPLGraph(const TavolarSPLGraph& other) = default;
    std::shared_ptr<TavolarGraph> copy() const override { return copyOf(*this); }
    static TavolarSPLGraph initWithCoder(KeyedUnarchiver& coder) {
        return decodedGraph<TavolarSPLGraph>(coder);
    }

    static std::string graphTitle();
    GraphQuantity verticalAxisQuantity() const override;

protected:
    std::unique_ptr<GraphCalculationController> makeGraphCalculationController() const override;
};

} // namespace tavolar
