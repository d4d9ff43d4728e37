#pragma once
// A natural cubic spline through knots (x, y): the shape of a correction curve over frequency.
// The second derivatives are computed on first evaluation, in 32-bit float, and kept.

#include "math/VELTRealVector.h"
#include "platform/KeyedArchiver.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string_view>

namespace tavolar {

class VELTSpline {
public:
    static constexpr std::string_view className = "VELTSpline";

    // x strictly ascending and as long as y (TAVOLAR_PARAMETER_ASSERT on unequal lengths; the
    // ordering is not checked here: coincident neighbours raise "BadSplineData" when evaluated).
    VELTSpline(VELTRealVector x, VELTRealVector y);
    static VELTSpline splineWithX(VELTRealVector x, VELTRealVector y);

    // Copies carry x, y, y2 and ready; each copy has its own lock for the lazy calculation.
    VELTSpline(const VELTSpline& other);
    VELTSpline& operator=(const VELTSpline& other);

    const VELTRealVector& x() const noexcept { return x_; }
    const VELTRealVector& y() const noexcept { return y_; }
    // Setting x or y keeps ready as it is; build a new spline rather than editing one.
    void setX(VELTRealVector x) { x_ = std::move(x); }
    void setY(VELTRealVector y) { y_ = std::move(y); }
    // The second derivatives at the knots; all zero until calculated.
    const VELTRealVector& y2() const noexcept { return y2_; }
    bool ready() const noexcept { return ready_.load(std::memory_order_acquire); }

    // Fills y2 with the second derivatives of the natural spline (zero at both ends). It does not
    // set ready: only evaluation does.
    void calculateSpline();

    // The spline's value at X. Below the first knot and at or above the last one the end cubics
    // extrapolate. Requires at least two knots. Raises NamedException "BadSplineData" when the
    // interval containing X has zero width. Safe to call from several threads at once.
    float valueForX(float X) const;
    // valueForX for every component of xs.
    VELTRealVector valuesForXVector(const VELTRealVector& xs) const;

    // The first and last knot, or 0.0 for a spline without knots.
    float xMinimum() const noexcept;
    float xMaximum() const noexcept;

    void encodeWithCoder(KeyedArchiver& coder) const;
    // Rebuilds the spline through the ordinary constructor: y2 is recomputed on first use.
    static VELTSpline initWithCoder(KeyedUnarchiver& coder);

private:
    void fillSecondDerivatives(VELTRealVector& y2) const;
    void makeReady() const;

    VELTRealVector x_;
    VELTRealVector y_;
    // Filled lazily by a const evaluation, under calculationLock_; ready_ publishes it.
    mutable VELTRealVector y2_;
    mutable std::atomic<bool> ready_{false};
    mutable std::mutex calculationLock_;
};

// A shared spline under key, or null when there is none; the correction and calibration records
// keep their curves this way.
void encodeSpline(KeyedArchiver& coder, const std::shared_ptr<const VELTSpline>& spline,
                  std::string_view key);
std::shared_ptr<const VELTSpline> decodeSpline(KeyedUnarchiver& coder, std::string_view key);

} // namespace tavolar
