#include "graphs/TavolarSPLGraph.h"

#include "graphcalc/RecordGraphCalculationControllers.h"
#include "platform/TavolarLocalizedString.h"

namespace tavolar {

TavolarSPLGraph::TavolarSPLGraph() {
    setTitle(graphTitle());
    updateAxisLabels();
}

std::string TavolarSPLGraph::graphTitle() {
    return TavolarLocalizedString("SPL", "Title for the SPL graph");
}

GraphQuantity TavolarSPLGraph::verticalAxisQuantity() const {
    return {TavolarLocalizedString("SPL", "Axis title"),
            "dB" + stringForScale(verticalAxisDataScaleFactor())};
}

std::unique_ptr<GraphCalculationController> TavolarSPLGraph::makeGraphCalculationController() const {
    return std::make_unique<SPLResponseGraphCalculationController>(graphCalculationSettings());
}

} // namespace tavolar
