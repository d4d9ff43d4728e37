#pragma once
// The magnitude (frequency) response in decibels, computed by the magnitude response controller.

#include "graphs/TavolarFrequencyDomainGraph.h"

namespace tavolar {

class TavolarMagnitudeResponseGraph final : public TavolarFrequencyDomainGraph {
public:
    static constexpr std::string_view className = "TavolarMagnitudeResponseGraph";

    TavolarMagnitudeResponseGraph();
    TavolarMagnitudeResponseGraph(const TavolarMagnitudeResponseGraph& other) = default;
    std::shared_ptr<TavolarGraph> copy() const override;

    static std::string graphTitle();
    static TavolarMagnitudeResponseGraph initWithCoder(KeyedUnarchiver& coder) {
        return decodedGraph<TavolarMagnitudeResponseGraph>(coder);
    }

protected:
    std::unique_ptr<GraphCalculationController> makeGraphCalculationController() const override;
};

} // namespace tavolar
