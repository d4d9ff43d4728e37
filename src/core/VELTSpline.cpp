#include "core/VELTSpline.h"

#include "core/ArchivedRealVector.h"
#include "platform/Assertions.h"

namespace tavolar {

namespace {
constexpr std::string_view kVersionKey = "VELTSplineVersion";
constexpr std::string_view kVersion = "1.0";
constexpr std::string_view kXKey = "X";
constexpr std::string_view kYKey = "Y";

// A column as a vector object, or as a bare float vector (the form this program wrote before it
// wrote vector objects); absent gives an empty vector.
VELTRealVector decodeColumn(KeyedUnarchiver& coder, std::string_view key) {
    if (coder.classNameForKey(key) == "FloatVector")
        return VELTRealVector(
            std::span<const float>(coder.decodeFloatVector(key).value_or(std::vector<float>{})));
    auto archived = coder.decodeObjectOfClass<ArchivedRealVector>(key);
    return archived ? archived->takeVector() : VELTRealVector();
}
} // namespace

VELTSpline::VELTSpline(VELTRealVector x, VELTRealVector y)
    : x_(std::move(x)), y_(std::move(y)), y2_(x_.length()) {
    TAVOLAR_PARAMETER_ASSERT(x_.length() == y_.length());
}

VELTSpline VELTSpline::splineWithX(VELTRealVector x, VELTRealVector y) {
    return VELTSpline(std::move(x), std::move(y));
}

VELTSpline::VELTSpline(const VELTSpline& other) : x_(other.x_), y_(other.y_) {
    std::lock_guard lock(other.calculationLock_);
    y2_ = other.y2_;
    ready_.store(other.ready_.load(std::memory_order_acquire), std::memory_order_release);
}

VELTSpline& VELTSpline::operator=(const VELTSpline& other) {
    if (this == &other)
        return *this;
    VELTRealVector y2;
    bool ready;
    {
        std::lock_guard lock(other.calculationLock_);
        y2 = other.y2_;
        ready = other.ready_.load(std::memory_order_acquire);
    }
    std::lock_guard lock(calculationLock_);
    x_ = other.x_;
    y_ = other.y_;
    y2_ = std::move(y2);
    ready_.store(ready, std::memory_order_release);
    return *this;
}

// The tridiagonal system of the natural spline solved by decomposition and back substitution, in
// float throughout: stored curves were made this way, and evaluation must reproduce them.
void VELTSpline::fillSecondDerivatives(VELTRealVector& y2) const {
    const std::size_t n = x_.length();
    y2 = VELTRealVector(n);
    if (n < 2)
        return;
    VELTRealVector u(n);
    const float* x = x_.components();
    const float* y = y_.components();
    y2[0] = 0.0f;
    u[0] = 0.0f;
    for (std::size_t i = 1; i + 1 < n; ++i) {
        const float sig = (x[i] - x[i - 1]) / (x[i + 1] - x[i - 1]);
        const float p = sig * y2[i - 1] + 2.0f;
        y2[i] = (sig - 1.0f) / p;
        float slopeChange = (y[i + 1] - y[i]) / (x[i + 1] - x[i]) - (y[i] - y[i - 1]) / (x[i] - x[i - 1]);
        u[i] = (6.0f * slopeChange / (x[i + 1] - x[i - 1]) - sig * u[i - 1]) / p;
    }
    // Natural end: the second derivative vanishes at the last knot.
    y2[n - 1] = 0.0f;
    for (std::size_t k = n - 1; k-- > 0;)
        y2[k] = y2[k] * y2[k + 1] + u[k];
}

void VELTSpline::calculateSpline() {
    VELTRealVector y2;
    fillSecondDerivatives(y2);
    std::lock_guard lock(calculationLock_);
    y2_ = std::move(y2);
}

void VELTSpline::makeReady() const {
    if (ready_.load(std::memory_order_acquire))
        return;
    std::lock_guard lock(calculationLock_);
    if (ready_.load(std::memory_order_relaxed))
        return;
    fillSecondDerivatives(y2_);
    ready_.store(true, std::memory_order_release);
}

float VELTSpline::valueForX(float X) const {
    const std::size_t n = x_.length();
    TAVOLAR_PARAMETER_ASSERT(n >= 2 && y_.length() == n);
    makeReady();
    // A spline whose x was replaced after its first evaluation keeps its old y2 (ready is not
    // cleared); refuse to read past that y2 rather than use it.
    TAVOLAR_ASSERT(y2_.length() == n,
                   "The spline's knots changed after its second derivatives were calculated");
    const float* x = x_.components();
    std::size_t lo = 0;
    std::size_t hi = 1;
    if (!(x[0] <= X && X < x[1])) {
        hi = n - 1;
        while (hi - lo > 1) {
            const std::size_t mid = (lo + hi) / 2;
            if (x[mid] > X)
                hi = mid;
            else
                lo = mid;
        }
    }
    const float h = x[hi] - x[lo];
    if (h == 0.0f)
        throw NamedException("BadSplineData", "Bad x data given in the spline");
    const float a = (x[hi] - X) / h;
    const float b = (X - x[lo]) / h;
    const float* y = y_.components();
    const float* y2 = y2_.components();
    return a * y[lo] + b * y[hi] + ((a * a * a - a) * y2[lo] + (b * b * b - b) * y2[hi]) * (h * h) / 6.0f;
}

VELTRealVector VELTSpline::valuesForXVector(const VELTRealVector& xs) const {
    VELTRealVector values(xs.length());
    for (std::size_t i = 0; i < xs.length(); ++i)
        values[i] = valueForX(xs[i]);
    return values;
}

float VELTSpline::xMinimum() const noexcept {
    return x_.length() == 0 ? 0.0f : x_[0];
}

float VELTSpline::xMaximum() const noexcept {
    return x_.length() == 0 ? 0.0f : x_[x_.length() - 1];
}

void VELTSpline::encodeWithCoder(KeyedArchiver& coder) const {
    coder.encodeString(kVersion, kVersionKey);
    coder.encodeObject(ArchivedRealVector(x_), kXKey);
    coder.encodeObject(ArchivedRealVector(y_), kYKey);
}

VELTSpline VELTSpline::initWithCoder(KeyedUnarchiver& coder) {
    // The version is written for future readers; every version so far has the same layout.
    VELTRealVector x = decodeColumn(coder, kXKey);
    VELTRealVector y = decodeColumn(coder, kYKey);
    if (x.length() != y.length()) {
        coder.failWithError(TavolarError::make("The spline's X and Y vectors differ in length."));
        return VELTSpline({}, {});
    }
    return VELTSpline(std::move(x), std::move(y));
}

void encodeSpline(KeyedArchiver& coder, const std::shared_ptr<const VELTSpline>& spline,
                  std::string_view key) {
    if (spline)
        coder.encodeObject(*spline, key);
    else
        coder.encodeNull(key);
}

std::shared_ptr<const VELTSpline> decodeSpline(KeyedUnarchiver& coder, std::string_view key) {
    auto spline = coder.decodeObjectOfClass<VELTSpline>(key);
    if (!spline)
        return nullptr;
    return std::make_shared<const VELTSpline>(std::move(*spline));
}

} // namespace tavolar
