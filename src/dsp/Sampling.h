#pragma once
// Conversions between sample indices and time.

#include "math/VELTRealVector.h"

#include <cstdint>

namespace tavolar {

// Scales every component, a sample index, by 1000 / sampleRate (computed in float), giving milliseconds.
void convertSampleIndicesToMillisecondsUsingSampleRate(VELTMutableRealVector& vector,
                                                       std::int64_t sampleRate);

} // namespace tavolar
