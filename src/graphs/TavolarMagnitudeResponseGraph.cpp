#include "graphs/TavolarMagnitudeResponseGraph.h"

#include "platform/TavolarLocalizedString.h"

namespace tavolar {

TavolarMagnitudeResponseGraph::TavolarMagnitudeResponseGraph() {
    setTitle(graphTitle());
}

std::shared_ptr<TavolarGraph> TavolarMagnitudeResponseGraph::copy() const {
    return copyOf(*this);
}

std::string TavolarMagnitudeResponseGraph::graphTitle() {
    return TavolarLocalizedString("Frequency Response", "Title for the frequency response graph");
}

std::unique_ptr<GraphCalculationController>
TavolarMagnitudeResponseGraph::makeGraphCalculationController() const {
    return std::make_unique<MagnitudeResponseGraphCalculationController>(graphCalculationSettings());
}

} // namespace tavolar
