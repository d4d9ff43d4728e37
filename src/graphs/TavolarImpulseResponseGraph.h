#pragma once
// The impulse response over the record's centred timeline in milliseconds, linear or in dB, with the
// window's shape as a second curve.

#include "graphs/TavolarGraph.h"

namespace tavolar {

class TavolarImpulseResponseGraph final : public TavolarGraph {
public:
    static constexpr std::string_view className = "TavolarImpulseResponseGraph";

    TavolarImpulseResponseGraph();
    TavolarImpulseResponseGraph(const TavolarImpulseResponseGraph& other) = default;
    std::shared_ptr<TavolarGraph> copy() const override { return copyOf(*this); }
    static TavolarImpulseResponseGraph initWithCoder(KeyedUnarchiver& coder) {
        return decodedGraph<TavolarImpulseResponseGraph>(coder);
    }

    static std::string graphTitle();
    bool decibels() const { return graphCalculationSettings().decibels; }

    // "decibels": levels in dB rather than linear.
    std::vector<GraphSetting> graphSettings() const override;
    GraphQuantity horizontalAxisQuantity() const override;
    GraphQuantity verticalAxisQuantity() const override;

protected:
    std::unique_ptr<GraphCalculationController> makeGraphCalculationController() const override;
};

} // namespace tavolar
