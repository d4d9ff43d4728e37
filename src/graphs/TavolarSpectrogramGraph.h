#pragma once
// The spectrogram: the level over frequency and time as colours, from overlapping slices.

#include "graphs/TavolarWaterfallGraph.h"

namespace tavolar {

class TavolarSpectrogramGraph final : public TavolarWaterfallGraph {
public:
    static constexpr std::string_view className = "TavolarSpectrogramGraph";

    TavolarSpectrogramGraph();
    TavolarSpectrogramGraph(const TavolarSpectrogramGraph& other) = default;
    std::shared_ptr<TavolarGraph> copy() const override { return copyOf(*this); }
    static TavolarSpectrogramGraph initWithCoder(KeyedUnarchiver& coder) {
        return decodedGraph<TavolarSpectrogramGraph>(coder);
    }

    static std::string graphTitle();
    // The waterfall's settings and the "overlap" of neighbouring slices (a fraction).
    std::vector<GraphSetting> graphSettings() const override;
    void drawInRect(VELTPainter& painter, const VELTRect& rect) const override;

protected:
    std::unique_ptr<GraphCalculationController> makeGraphCalculationController() const override;
};

} // namespace tavolar
