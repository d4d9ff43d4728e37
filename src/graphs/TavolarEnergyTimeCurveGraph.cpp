#include "graphs/TavolarEnergyTimeCurveGraph.h"

#include "graphcalc/RecordGraphCalculationControllers.h"
#include "platform/TavolarLocalizedString.h"

namespace tavolar {

TavolarEnergyTimeCurveGraph::TavolarEnergyTimeCurveGraph() {
    setTitle(graphTitle());
    updateAxisLabels();
}

std::string TavolarEnergyTimeCurveGraph::graphTitle() {
    return TavolarLocalizedString("Energy-Time Curve", "Title for the energy-time curve graph");
}

GraphQuantity TavolarEnergyTimeCurveGraph::horizontalAxisQuantity() const {
    return {TavolarLocalizedString("Time", "Axis title"), "ms"};
}

GraphQuantity TavolarEnergyTimeCurveGraph::verticalAxisQuantity() const {
    return {TavolarLocalizedString("Level", "Axis title"), "dB"};
}

std::unique_ptr<GraphCalculationController>
TavolarEnergyTimeCurveGraph::makeGraphCalculationController() const {
    return std::make_unique<EnergyTimeCurveGraphCalculationController>(graphCalculationSettings());
}

} // namespace tavolar
