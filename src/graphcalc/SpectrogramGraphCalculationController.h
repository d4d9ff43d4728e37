#pragma once
// The spectrogram graph's controller: a spectrogram of each record's impulse response
// (SpectrogramMeasurementProcessingOperation) from the waterfall settings, passed on as the
// waterfall's surfaces are.

#include "graphcalc/WaterfallGraphCalculationController.h"

namespace tavolar {

class SpectrogramGraphCalculationController final : public WaterfallGraphCalculationController {
public:
    using WaterfallGraphCalculationController::WaterfallGraphCalculationController;

    std::shared_ptr<MeasurementProcessingOperation>
    processingOperationForRecord(const std::shared_ptr<VELTMeasurementRecord>& record) override;
};

} // namespace tavolar
