#include "engine/VELTRZSweptSineRecording.h"

#include <utility>

namespace tavolar {

VELTRZSweptSineRecording::VELTRZSweptSineRecording(std::vector<VELTRealVector> recordChannels,
                                                   std::optional<VELTRealVector> correctionChannel)
    : recordChannels_(std::move(recordChannels)), correctionChannel_(std::move(correctionChannel)) {}

} // namespace tavolar
