#pragma once
// The first change of sign in a float vector.

#include "math/VELTRealVector.h"

#include <cstdint>

namespace tavolar {

// Writes into *index the first index i >= 1 whose component lies on the other side of zero from
// component 0 (negative versus not negative), or -1 when the vector has fewer than 2 components or
// never crosses. A null index raises NamedException "NullArguments".
void getZeroCrossingIndex(const VELTRealVector& vector, std::int64_t* index);

} // namespace tavolar
