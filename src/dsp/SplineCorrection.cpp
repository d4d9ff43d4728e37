#include "dsp/SplineCorrection.h"

#include "dsp/Search.h"
#include "platform/Assertions.h"

namespace tavolar {

void applyFrequencyDomainCorrectionFromSpline(VELTMutableRealVector& vector, const VELTSpline& spline,
                                              const VELTRealVector& frequencyTable) {
    TAVOLAR_PARAMETER_ASSERT(frequencyTable.length() == vector.length());
    const std::uint64_t start = indexOfFirstComponentGreaterThanOrEqualTo(frequencyTable, spline.xMinimum());
    const std::uint64_t end = indexOfLastComponentLessThanOrEqualTo(frequencyTable, spline.xMaximum());
    // A table with no frequency inside the range on either side leaves the vector as it is.
    if (start == kNotFound || end == kNotFound || end <= start)
        return;
    float* bins = vector.mutableComponents();
    const float* frequencies = frequencyTable.components();
    for (std::uint64_t i = start; i < end; ++i)
        bins[i] -= spline.valueForX(frequencies[i]);
}

} // namespace tavolar
