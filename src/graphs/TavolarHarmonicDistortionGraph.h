#pragma once
// Harmonic distortion over frequency: the chosen harmonic orders, the total harmonic distortion and
// the noise floor, in dB or in percent of the fundamental. The curves of one record are never
// combined with each other, and they are not smoothed.

#include "graphs/TavolarFrequencyDomainGraph.h"

namespace tavolar {

class TavolarHarmonicDistortionGraph final : public TavolarFrequencyDomainGraph {
public:
    static constexpr std::string_view className = "TavolarHarmonicDistortionGraph";

    TavolarHarmonicDistortionGraph();
    TavolarHarmonicDistortionGraph(const TavolarHarmonicDistortionGraph& other) = default;
    std::shared_ptr<TavolarGraph> copy() const override { return copyOf(*this); }
    static TavolarHarmonicDistortionGraph initWithCoder(KeyedUnarchiver& coder) {
        return decodedGraph<TavolarHarmonicDistortionGraph>(coder);
    }

    static std::string graphTitle();

    // The orders drawn (2 is the second harmonic); orders below 2 are left out. Archived, not undoable.
    const std::vector<std::int64_t>& harmonicOrders() const noexcept { return orders_; }
    void setHarmonicOrders(std::vector<std::int64_t> orders);

    bool isSmoothed() const override { return false; }
    // "percent", "totalHarmonicDistortion" and "noiseFloor".
    std::vector<GraphSetting> graphSettings() const override;
    GraphQuantity verticalAxisQuantity() const override;
    GraphCalculationSettings graphCalculationSettings() const override;

    void encodeWithCoder(KeyedArchiver& coder) const override;
    void decodeArchivedValues(KeyedUnarchiver& coder) override;

protected:
    std::unique_ptr<GraphCalculationController> makeGraphCalculationController() const override;

private:
    std::vector<std::int64_t> orders_{2, 3};
};

} // namespace tavolar
