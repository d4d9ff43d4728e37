// The peak-cut harmonic operations, checked against harmonic impulses placed by hand where a sweep
// puts them and cut, tapered and transformed in the test, in double precision.

#include "core/VELTMeasurementRecord.h"

#include <cmath>
#include <complex>
#include <gtest/gtest.h>
#include <numbers>
#include <vector>

namespace tavolar {
namespace {

constexpr double kPi = std::numbers::pi;
constexpr std::int64_t kRate = 48000;
constexpr std::size_t kLength = 65536;

// A 20 Hz to 20 kHz sweep of one second.
VELTLogSweepSettings bandSweep() {
    VELTLogSweepSettings sweep;
    sweep.setFullRangeSweep(false);
    sweep.setStartFreq(20);
    sweep.setEndFreq(20000);
    sweep.setDuration(1000);
    return sweep;
}

// Harmonic n of that sweep arrives T ln(n) / ln(f2 / f1) before the linear impulse: in samples,
// truncated toward zero.
std::int64_t harmonicDelay(int order) {
    return static_cast<std::int64_t>(48000.0 * std::log(double(order)) / std::log(1000.0));
}

// The half Bingham taper of a segment of length m: a cosine fade over its last 20 %.
std::vector<double> halfBinghamTaper(std::size_t m) {
    std::vector<double> taper(m, 1.0);
    auto fade = static_cast<std::size_t>(std::floor(0.5 * 0.2 * 2.0 * double(m)));
    double width = (2.0 * double(m) + 1.0) * 0.2;
    for (std::size_t j = 1; j <= fade; ++j)
        taper[m - j] = 0.5 * (1.0 - std::cos(2.0 * kPi * double(j) / width));
    return taper;
}

// |DFT| of a segment zero-padded to n, at one bin.
double dftMagnitude(const std::vector<double>& segment, std::size_t n, std::size_t bin) {
    std::complex<double> sum = 0.0;
    for (std::size_t k = 0; k < segment.size() && k < n; ++k)
        sum += segment[k] * std::polar(1.0, -2.0 * kPi * double(bin * k) / double(n));
    return std::abs(sum);
}

std::shared_ptr<VELTMeasurementRecord> sweptRecord(const VELTRealVector& impulse) {
    auto record = VELTMeasurementRecord::record();
    record->setSampleRate(kRate);
    record->setLogSweepSettings(bandSweep());
    record->setImpulseResponse(impulse);
    return record;
}

// Harmonic impulses of a known shape placed at the positions a sweep gives them, behind a main
// impulse at sample 48 (1 ms); the cuts and spectra are worked out here independently. Order 2
// lies across the end of the circular response.
TEST(VELTMeasurementRecordHarmonics, CutsTapersAndTransformsEachOrderFromItsPeak) {
    const std::int64_t peak = 48;
    VELTRealVector impulse(kLength);
    impulse[peak] = 1.0f;
    impulse[peak + 1] = 0.4f;
    const double levels[] = {0, 0, 0.05, 0.02, 0.01};
    std::vector<std::int64_t> positions(5, peak);
    for (int order = 2; order <= 4; ++order) {
        positions[order] = (std::int64_t(kLength) + peak - harmonicDelay(order)) % std::int64_t(kLength);
        // A short ringing pulse that starts at the harmonic's position.
        for (int k = 0; k < 6; ++k)
            impulse[positions[order] + k] = float(levels[order] * std::pow(-0.6, k));
    }
    auto record = sweptRecord(impulse);
    record->setStartFrequency(20);
    record->setEndFrequency(20000);
    ASSERT_EQ(record->impulsePeak(), peak);
    // Order 2 of the 20 Hz to 20 kHz sweep of one second: T ln(2) / ln(1000), truncated to samples.
    EXPECT_NEAR(record->timeOffsetToHarmonic(2), -100.34, 0.005);
    EXPECT_EQ(record->sampleOffsetToHarmonic(2), -4816);
    // Order 1 is the linear response, and lower orders have no harmonic at all.
    for (std::int64_t order : {-3, 0, 1}) {
        EXPECT_EQ(record->timeOffsetToHarmonic(order), 0.0);
        EXPECT_EQ(record->sampleOffsetToHarmonic(order), 0);
        EXPECT_EQ(record->sampleIndexOfHarmonic(order), peak);
        EXPECT_FALSE(record->impulseResponseOfHarmonic(order));
        EXPECT_FALSE(record->frequencyResponseOfHarmonic(order, 4096));
    }

    const std::uint32_t n = 8192;
    BinRange range = record->validRangeForFFTLength(n);
    for (int order = 2; order <= 4; ++order) {
        SCOPED_TRACE(order);
        EXPECT_EQ(record->sampleOffsetToHarmonic(order), -harmonicDelay(order));
        EXPECT_EQ(record->sampleIndexOfHarmonic(order), positions[order]);
        auto cut = record->impulseResponseOfHarmonic(order);
        ASSERT_TRUE(cut);
        // From the harmonic's position up to the next lower order's (the main impulse for order 2).
        std::int64_t end = positions[order - 1];
        std::size_t length =
            std::size_t((end - positions[order] + std::int64_t(kLength)) % std::int64_t(kLength));
        ASSERT_EQ(cut->length(), length);
        std::vector<double> taper = halfBinghamTaper(length);
        std::vector<double> expected(length);
        for (std::size_t k = 0; k < length; ++k)
            expected[k] = double(impulse[(std::size_t(positions[order]) + k) % kLength]) * taper[k];
        for (std::size_t k = 0; k < length; ++k)
            ASSERT_NEAR((*cut)[k], expected[k], 1e-7) << k;

        auto magnitude = record->frequencyResponseOfHarmonic(order, n);
        ASSERT_TRUE(magnitude);
        ASSERT_EQ(magnitude->length(), range.length);
        for (std::size_t i = 0; i < range.length; i += 97)
            EXPECT_NEAR((*magnitude)[i], dftMagnitude(expected, n, range.location + i), 1e-5) << i;

        auto table = record->frequencyTableOfHarmonic(order, n);
        ASSERT_TRUE(table);
        for (std::size_t i = 0; i < range.length; i += 211)
            EXPECT_NEAR((*table)[i], double(range.location + i) * 48000.0 / n / order, 1e-3);

        // In percent of a fundamental read at floor(i / n): a flat fundamental of 2.0 with one zero.
        VELTRealVector fundamental(range.length);
        for (std::size_t i = 0; i < range.length; ++i)
            fundamental[i] = 2.0f;
        fundamental[5] = 0.0f;
        fundamental[6] = std::numeric_limits<float>::quiet_NaN();
        auto percent = record->frequencyResponseOfHarmonic(order, fundamental, n);
        ASSERT_TRUE(percent);
        for (std::size_t i = 0; i < range.length; ++i) {
            std::size_t j = i / std::size_t(order);
            double expectedPercent = (j == 5 || j == 6) ? 0.0 : (*magnitude)[i] / 2.0 * 100.0;
            ASSERT_NEAR((*percent)[i], expectedPercent, 1e-4) << i;
        }
    }
}

} // namespace
} // namespace tavolar
