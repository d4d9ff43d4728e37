#include "graphcalc/WaterfallGraphCalculationController.h"

#include "graphcalc/WaterfallMeasurementProcessingOperation.h"

namespace tavolar {

std::shared_ptr<MeasurementProcessingOperation>
WaterfallGraphCalculationController::processingOperationForRecord(
    const std::shared_ptr<VELTMeasurementRecord>& record) {
    return std::make_shared<WaterfallMeasurementProcessingOperation>(record, calculationSettings().waterfall);
}

GraphDataArray
WaterfallGraphCalculationController::postProcessGraphDataArray(GraphDataArray graphData,
                                                               const GraphCalculationSettings&) {
    return graphData;
}

} // namespace tavolar
