#include "graphs/TavolarImpulseResponseGraph.h"

#include "graphcalc/RecordGraphCalculationControllers.h"
#include "platform/TavolarLocalizedString.h"

namespace tavolar {

TavolarImpulseResponseGraph::TavolarImpulseResponseGraph() {
    setTitle(graphTitle());
    updateAxisLabels();
}

std::string TavolarImpulseResponseGraph::graphTitle() {
    return TavolarLocalizedString("Impulse Response", "Title for the impulse response graph");
}

std::vector<GraphSetting> TavolarImpulseResponseGraph::graphSettings() const {
    return {makeGraphSetting(
        "decibels", TavolarLocalizedString("Toggle Decibel Scale", "Undo action name"),
        [](auto& s) -> auto& { return s.decibels; })};
}

GraphQuantity TavolarImpulseResponseGraph::horizontalAxisQuantity() const {
    return {TavolarLocalizedString("Time", "Axis title"), "ms"};
}

GraphQuantity TavolarImpulseResponseGraph::verticalAxisQuantity() const {
    if (decibels())
        return {TavolarLocalizedString("Level", "Axis title"), "dB"};
    return {TavolarLocalizedString("Amplitude", "Axis title"), ""};
}

std::unique_ptr<GraphCalculationController>
TavolarImpulseResponseGraph::makeGraphCalculationController() const {
    return std::make_unique<ImpulseResponseGraphCalculationController>(graphCalculationSettings());
}

} // namespace tavolar
