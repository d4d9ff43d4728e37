#pragma once
// A named correction curve: a magnitude and a phase spline over frequency, subtracted from a
// response by the SplineCorrection operations. Copies share the spline objects.

#include "core/VELTSpline.h"
#include "platform/KeyedArchiver.h"

#include <memory>
#include <string>
#include <string_view>

namespace tavolar {

class VELTCorrectionRecord {
public:
    static constexpr std::string_view className = "VELTCorrectionRecord";

    VELTCorrectionRecord() = default;
    VELTCorrectionRecord(std::string name, std::shared_ptr<const VELTSpline> magnitudeSpline,
                         std::shared_ptr<const VELTSpline> phaseSpline);

    const std::string& name() const noexcept { return name_; }
    void setName(std::string name) { name_ = std::move(name); }
    // Either spline may be absent (an archive without it).
    const std::shared_ptr<const VELTSpline>& magnitudeSpline() const noexcept { return magnitudeSpline_; }
    void setMagnitudeSpline(std::shared_ptr<const VELTSpline> spline) {
        magnitudeSpline_ = std::move(spline);
    }
    const std::shared_ptr<const VELTSpline>& phaseSpline() const noexcept { return phaseSpline_; }
    void setPhaseSpline(std::shared_ptr<const VELTSpline> spline) { phaseSpline_ = std::move(spline); }

    void encodeWithCoder(KeyedArchiver& coder) const;
    static VELTCorrectionRecord initWithCoder(KeyedUnarchiver& coder);

private:
    std::string name_;
    std::shared_ptr<const VELTSpline> magnitudeSpline_;
    std::shared_ptr<const VELTSpline> phaseSpline_;
};

} // namespace tavolar
