#include "dsp/SplineCorrection.h"

#include <gtest/gtest.h>

namespace tavolar {
namespace {

// The correction is subtracted from the first bin at or above the first knot up to, but not
// including, the last bin at or below the last knot. A straight two-knot spline makes the
// corrected values easy to work out.
TEST(SplineCorrection, SubtractsFromTheFirstBinInRangeUpToTheLastExclusive) {
    const VELTSpline line({100.0f, 200.0f}, {1.0f, 2.0f});
    struct Case {
        VELTRealVector table, expected;
    };
    const Case cases[] = {
        {{0, 100, 150, 200, 300}, {9, 8, 7.5f, 9, 9}},
        {{0, 120, 160, 180, 300}, {9, 7.8f, 7.4f, 9, 9}},
        {{0, 10, 50}, {9, 9, 9}},     // nothing at or above the first knot
        {{300, 400, 500}, {9, 9, 9}}, // nothing at or below the last knot
        {{0, 150, 300}, {9, 9, 9}},   // one bin inside: it is the one left alone
    };
    for (const Case& c : cases) {
        VELTRealVector response = VELTRealVector::onesWithLength(c.table.length());
        response.scaleBy(9.0f);
        applyFrequencyDomainCorrectionFromSpline(response, line, c.table);
        for (std::size_t i = 0; i < response.length(); ++i)
            EXPECT_FLOAT_EQ(response[i], c.expected[i]) << c.table[1] << " Hz table, bin " << i;
    }
    // A spline without knots spans nothing beyond 0 Hz.
    VELTRealVector none{1, 2, 3};
    applyFrequencyDomainCorrectionFromSpline(none, VELTSpline({}, {}), VELTRealVector{0, 10, 20});
    EXPECT_EQ(none, (VELTRealVector{1, 2, 3}));
}

} // namespace
} // namespace tavolar
