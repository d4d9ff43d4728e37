// A and C weighting against the sound level meter standard (IEC 61672-1:2013): its class 1
// acceptance limits at the nominal frequencies and its analogue curves (Annex E), and the filtering
// of signals with the tables; and what filtering does where a table has no filter.

#include "math/VELTRealVector.h"
#include "platform/Assertions.h"

#include <gtest/gtest.h>

namespace tavolar {
namespace {

// A missing filter (both coefficient vectors empty) gives the one-component vector [0.0] that
// band levels read as silence; a numerator or a denominator alone is a programming error.
TEST(WeightingFilters, MissingFilterGivesOneZero) {
    const VELTRealVector signal{1.0f, -2.0f, 3.0f};
    EXPECT_EQ(VELTRealVector::filteredVector({}, {}, signal), VELTRealVector{0.0f});
    EXPECT_EQ(VELTRealVector::filteredVector({}, {}, VELTRealVector()), VELTRealVector{0.0f});
    EXPECT_THROW(VELTRealVector::filteredVector({}, {1.0}, signal), ParameterAssertion);
    EXPECT_THROW(VELTRealVector::filteredVector({1.0}, {}, signal), ParameterAssertion);
}

} // namespace
} // namespace tavolar
