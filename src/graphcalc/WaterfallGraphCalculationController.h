#pragma once
// The waterfall graph's controller: one WaterfallMeasurementProcessingOperation per record, with the
// waterfall settings of the calculation (its own FFT length, not the records' largest). Each record
// gives one surface, already normalised in dB by its operation. Post-processing passes surfaces as
// they come: smoothing, the cut to the valid band and the combination of records are defined on
// curves and would turn a surface into a curve, and a second normalisation would change nothing.

#include "graphcalc/GraphCalculationController.h"

namespace tavolar {

class WaterfallGraphCalculationController : public FrequencyDomainGraphCalculationController {
public:
    using FrequencyDomainGraphCalculationController::FrequencyDomainGraphCalculationController;

    std::shared_ptr<MeasurementProcessingOperation>
    processingOperationForRecord(const std::shared_ptr<VELTMeasurementRecord>& record) override;
    GraphDataArray postProcessGraphDataArray(GraphDataArray graphData,
                                             const GraphCalculationSettings& settings) override;
};

} // namespace tavolar
