#include "dsp/SplineCorrection.h"

#include "platform/Assertions.h"

#include <gtest/gtest.h>

namespace tavolar {
namespace {

VELTRealVector tableInStepsOf(float step, std::size_t count) {
    VELTRealVector table(count);
    for (std::size_t i = 0; i < count; ++i)
        table[i] = step * static_cast<float>(i);
    return table;
}

TEST(SplineCorrection, SubtractsInsideRangeAndLeavesLastBinAlone) {
    // Table 0, 10, 20 ... Hz; spline from 15 to 45 Hz: start at 20 Hz, end at 40 Hz, and the 40 Hz bin
    // is deliberately left as it is.
    const VELTSpline spline({15.0f, 30.0f, 45.0f}, {1.0f, 3.0f, 2.0f});
    const VELTRealVector table = tableInStepsOf(10.0f, 8);
    VELTRealVector response{5, 5, 5, 5, 5, 5, 5, 5};
    applyFrequencyDomainCorrectionFromSpline(response, spline, table);
    for (std::size_t i : {0u, 1u, 4u, 5u, 6u, 7u})
        EXPECT_EQ(response[i], 5.0f) << "bin " << i;
    EXPECT_EQ(response[2], 5.0f - spline.valueForX(20.0f));
    EXPECT_EQ(response[3], 5.0f - 3.0f);
    EXPECT_NE(response[2], 5.0f);
}

TEST(SplineCorrection, MicrophoneCurveOnRealFFTBins) {
    // A correction over 20 Hz to 20 kHz applied to the bins of a 1024-point transform at 48 kHz.
    const VELTSpline spline({20, 100, 1000, 5000, 10000, 20000}, {-3, -0.5f, 0, 1, 2.5f, -1});
    const VELTRealVector table = VELTRealVector::realVectorWithFrequencyTable(48000, 1024);
    VELTRealVector response(table.length());
    for (std::size_t i = 0; i < response.length(); ++i)
        response[i] = -20.0f + 0.01f * static_cast<float>(i);
    const VELTRealVector original = response;
    applyFrequencyDomainCorrectionFromSpline(response, spline, table);

    // Bin k lies at 46.875 k Hz: bins 1 to 426 lie within 20 Hz .. 20 kHz; 426 (19968.75 Hz) is the
    // last and stays, bin 0 (0 Hz) and bins above 426 stay too.
    std::size_t changed = 0;
    for (std::size_t k = 0; k < response.length(); ++k) {
        if (k >= 1 && k < 426) {
            EXPECT_EQ(response[k], original[k] - spline.valueForX(table[k])) << "bin " << k;
            ++changed;
        } else {
            EXPECT_EQ(response[k], original[k]) << "bin " << k;
        }
    }
    EXPECT_EQ(changed, 425u);
}

TEST(SplineCorrection, TablesOutsideTheRangeChangeNothing) {
    const VELTSpline spline({100.0f, 200.0f}, {1.0f, 2.0f});
    // Nothing at or above the first knot.
    VELTRealVector low{1, 2, 3};
    applyFrequencyDomainCorrectionFromSpline(low, spline, VELTRealVector{0, 10, 50});
    EXPECT_EQ(low, (VELTRealVector{1, 2, 3}));
    // Nothing at or below the last knot.
    VELTRealVector high{1, 2, 3};
    applyFrequencyDomainCorrectionFromSpline(high, spline, VELTRealVector{300, 400, 500});
    EXPECT_EQ(high, (VELTRealVector{1, 2, 3}));
    // One bin inside: start and end coincide, and that bin is the one left alone.
    VELTRealVector one{1, 2, 3};
    applyFrequencyDomainCorrectionFromSpline(one, spline, VELTRealVector{0, 150, 300});
    EXPECT_EQ(one, (VELTRealVector{1, 2, 3}));
    // A spline without knots spans nothing beyond 0 Hz.
    VELTRealVector none{1, 2, 3};
    applyFrequencyDomainCorrectionFromSpline(none, VELTSpline({}, {}), VELTRealVector{0, 10, 20});
    EXPECT_EQ(none, (VELTRealVector{1, 2, 3}));

    VELTRealVector shorter{1, 2};
    EXPECT_THROW(applyFrequencyDomainCorrectionFromSpline(shorter, spline, VELTRealVector{0, 150, 300}),
                 ParameterAssertion);
}

} // namespace
} // namespace tavolar
