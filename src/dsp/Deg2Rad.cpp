#include "dsp/Deg2Rad.h"

namespace tavolar {

void convertDegreesToRadians(VELTMutableRealVector& vector) noexcept {
    vector.scaleBy(0.017453292f);
}
void convertRadiansToDegrees(VELTMutableRealVector& vector) noexcept {
    vector.scaleBy(57.29578f);
}

} // namespace tavolar
