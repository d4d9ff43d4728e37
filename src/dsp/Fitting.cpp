#include "dsp/Fitting.h"

#include "platform/Assertions.h"

#include <cmath>
#include <cstddef>

namespace tavolar {

void getSlope(float* m, float* b, float* r, const VELTRealVector& xVec, const VELTRealVector& yVec) {
    if (xVec.length() != yVec.length())
        throw ParameterAssertion("xVec.length == yVec.length");
    TAVOLAR_PARAMETER_ASSERT(m != NULL);
    TAVOLAR_PARAMETER_ASSERT(b != NULL);

    const std::size_t length = xVec.length();
    const float n = static_cast<float>(length);
    const float sumX = xVec.sumOfElements();
    const float sumY = yVec.sumOfElements();
    const float sumXX = xVec.dotProductWithVector(xVec);
    const float sumXY = xVec.dotProductWithVector(yVec);
    const float slope = (sumXY * n - sumX * sumY) / (sumXX * n - sumX * sumX);
    const float intercept = sumY / n - slope * sumX / n;
    *m = slope;
    *b = intercept;
    if (r == nullptr)
        return;

    const float mean = sumY / n;
    const float* x = xVec.components();
    const float* y = yVec.components();
    float totalSquares = 0.0f;
    float residualSquares = 0.0f;
    for (std::size_t i = 0; i < length; ++i) {
        const float deviation = y[i] - mean;
        const float residual = y[i] - slope * x[i] - intercept;
        totalSquares += deviation * deviation;
        residualSquares += residual * residual;
    }
    *r = std::sqrt((totalSquares - residualSquares) / totalSquares);
}

} // namespace tavolar
