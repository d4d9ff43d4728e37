#pragma once
// The energy-time curve: the envelope of the impulse response in dB over time in milliseconds.

#include "graphs/TavolarGraph.h"

namespace tavolar {

class TavolarEnergyTimeCurveGraph final : public TavolarGraph {
public:
    static constexpr std::string_view className = "TavolarEnergyTimeCurveGraph";

    TavolarEnergyTimeCurveGraph();
    TavolarEnergyTimeCurveGraph(const TavolarEnergyTimeCurveGraph& other) = default;
    std::shared_ptr<TavolarGraph> copy() const override { return copyOf(*this); }
    static TavolarEnergyTimeCurveGraph initWithCoder(KeyedUnarchiver& coder) {
        return decodedGraph<TavolarEnergyTimeCurveGraph>(coder);
    }

    static std::string graphTitle();
    GraphQuantity horizontalAxisQuantity() const override;
    GraphQuantity verticalAxisQuantity() const override;

protected:
    std::unique_ptr<GraphCalculationController> makeGraphCalculationController() const override;
};

} // namespace tavolar
