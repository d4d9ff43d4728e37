#include "graphcalc/SpectrogramGraphCalculationController.h"

#include "graphcalc/WaterfallMeasurementProcessingOperation.h"

namespace tavolar {

std::shared_ptr<MeasurementProcessingOperation>
SpectrogramGraphCalculationController::processingOperationForRecord(
    const std::shared_ptr<VELTMeasurementRecord>& record) {
    return std::make_shared<SpectrogramMeasurementProcessingOperation>(record,
                                                                       calculationSettings().waterfall);
}

} // namespace tavolar
