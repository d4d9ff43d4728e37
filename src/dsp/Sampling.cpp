#include "dsp/Sampling.h"

namespace tavolar {

void convertSampleIndicesToMillisecondsUsingSampleRate(VELTMutableRealVector& vector,
                                                       std::int64_t sampleRate) {
    vector.scaleBy(1000.0f / static_cast<float>(sampleRate));
}

} // namespace tavolar
