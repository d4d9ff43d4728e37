#include "core/VELTCorrectionRecord.h"

namespace tavolar {

namespace {
// The version entry is keyed by the class name itself; it is written but not interpreted.
constexpr std::string_view kVersionKey = "VELTCorrectionRecord";
constexpr std::string_view kVersion = "1.0";
constexpr std::string_view kNameKey = "Name";
constexpr std::string_view kMagnitudeSplineKey = "MagnitudeSpline";
constexpr std::string_view kPhaseSplineKey = "PhaseSpline";

} // namespace

VELTCorrectionRecord::VELTCorrectionRecord(std::string name,
                                           std::shared_ptr<const VELTSpline> magnitudeSpline,
                                           std::shared_ptr<const VELTSpline> phaseSpline)
    : name_(std::move(name)), magnitudeSpline_(std::move(magnitudeSpline)),
      phaseSpline_(std::move(phaseSpline)) {}

void VELTCorrectionRecord::encodeWithCoder(KeyedArchiver& coder) const {
    coder.encodeString(kVersion, kVersionKey);
    coder.encodeString(name_, kNameKey);
    encodeSpline(coder, magnitudeSpline_, kMagnitudeSplineKey);
    encodeSpline(coder, phaseSpline_, kPhaseSplineKey);
}

VELTCorrectionRecord VELTCorrectionRecord::initWithCoder(KeyedUnarchiver& coder) {
    VELTCorrectionRecord record;
    record.name_ = coder.decodeString(kNameKey).value_or(std::string());
    record.magnitudeSpline_ = decodeSpline(coder, kMagnitudeSplineKey);
    record.phaseSpline_ = decodeSpline(coder, kPhaseSplineKey);
    return record;
}

} // namespace tavolar
