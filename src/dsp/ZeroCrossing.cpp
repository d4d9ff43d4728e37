#include "dsp/ZeroCrossing.h"

#include "platform/Assertions.h"

#include <cstddef>

namespace tavolar {

void getZeroCrossingIndex(const VELTRealVector& vector, std::int64_t* index) {
    if (index == nullptr)
        throw NamedException("NullArguments", "NULL argument given when getting zero crossing");
    *index = -1;
    const std::size_t length = vector.length();
    if (length < 2)
        return;
    const float* x = vector.components();
    const bool startsNegative = x[0] < 0.0f;
    for (std::size_t i = 1; i < length; ++i) {
        if ((x[i] < 0.0f) != startsNegative) {
            *index = static_cast<std::int64_t>(i);
            return;
        }
    }
}

} // namespace tavolar
