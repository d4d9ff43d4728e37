#include "graphs/TavolarHarmonicDistortionGraph.h"

#include "graphcalc/RecordGraphCalculationControllers.h"
#include "platform/TavolarLocalizedString.h"

#include <algorithm>

namespace tavolar {

TavolarHarmonicDistortionGraph::TavolarHarmonicDistortionGraph() {
    setTitle(graphTitle());
    updateTitleModifier();
    updateAxisLabels();
}

std::string TavolarHarmonicDistortionGraph::graphTitle() {
    return TavolarLocalizedString("Harmonic Distortion", "Title for the harmonic distortion graph");
}

void TavolarHarmonicDistortionGraph::setHarmonicOrders(std::vector<std::int64_t> orders) {
    std::erase_if(orders, [](std::int64_t order) { return order < 2; });
    std::sort(orders.begin(), orders.end());
    orders.erase(std::unique(orders.begin(), orders.end()), orders.end());
    if (orders == orders_)
        return;
    orders_ = std::move(orders);
    didChangeValueForKey("harmonicOrders");
    setNeedsReload(true);
}

std::vector<GraphSetting> TavolarHarmonicDistortionGraph::graphSettings() const {
    return {
        makeGraphSetting(
            "percent", TavolarLocalizedString("Toggle Percent Scale", "Undo action name"),
            [](auto& s) -> auto& { return s.percent; }),
        makeGraphSetting(
            "totalHarmonicDistortion",
            TavolarLocalizedString("Toggle Total Harmonic Distortion", "Undo action name"),
            [](auto& s) -> auto& { return s.totalHarmonicDistortion; }),
        makeGraphSetting(
            "noiseFloor", TavolarLocalizedString("Toggle Noise Floor", "Undo action name"),
            [](auto& s) -> auto& { return s.noiseFloor; }),
    };
}

GraphQuantity TavolarHarmonicDistortionGraph::verticalAxisQuantity() const {
    return {TavolarLocalizedString("Distortion", "Axis title"),
            graphCalculationSettings().percent ? "%" : "dB"};
}

GraphCalculationSettings TavolarHarmonicDistortionGraph::graphCalculationSettings() const {
    GraphCalculationSettings settings = TavolarFrequencyDomainGraph::graphCalculationSettings();
    settings.harmonicOrders = orders_;
    return settings;
}

void TavolarHarmonicDistortionGraph::encodeWithCoder(KeyedArchiver& coder) const {
    TavolarFrequencyDomainGraph::encodeWithCoder(coder);
    std::vector<float> orders(orders_.begin(), orders_.end());
    coder.encodeFloatVector(orders, "harmonicOrders");
}

void TavolarHarmonicDistortionGraph::decodeArchivedValues(KeyedUnarchiver& coder) {
    TavolarFrequencyDomainGraph::decodeArchivedValues(coder);
    if (auto orders = coder.decodeFloatVector("harmonicOrders")) {
        std::vector<std::int64_t> decoded;
        for (float order : *orders)
            if (order >= 2.0f && order <= 1000.0f)
                decoded.push_back(static_cast<std::int64_t>(order));
        setHarmonicOrders(std::move(decoded));
    }
}

std::unique_ptr<GraphCalculationController>
TavolarHarmonicDistortionGraph::makeGraphCalculationController() const {
    return std::make_unique<HarmonicDistortionGraphCalculationController>(graphCalculationSettings());
}

} // namespace tavolar
