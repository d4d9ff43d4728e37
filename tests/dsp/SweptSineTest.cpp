// The exponential sweep stimulus: buffer sizes, silences and samples against the analytic sweep.

#include "dsp/SweptSine.h"

#include <cmath>
#include <gtest/gtest.h>
#include <numbers>

namespace tavolar {
namespace {

// x(t) = A sin(2 pi f1 T / R (e^(t R / T) - 1)), R = ln(f2 / f1): the phase whose derivative is
// 2 pi f1 e^(t R / T), an instantaneous frequency growing exponentially from f1 to f2 over T.
double analyticSweep(double f1, double f2, double seconds, double amplitude, double t) {
    const double rate = std::log(f2 / f1);
    return amplitude *
           std::sin(2.0 * std::numbers::pi * f1 * seconds / rate * (std::exp(t * rate / seconds) - 1.0));
}

void expectZeros(const VELTRealVector& signal, std::size_t first, std::size_t count) {
    for (std::size_t i = first; i < first + count; ++i)
        ASSERT_EQ(signal[i], 0.0f) << "at " << i;
}

TEST(SweptSine, SweepAndSilenceLengthsAreTruncatedSampleCounts) {
    // One second at 44100 Hz with 500 ms and 2000 ms of silence.
    auto stimulus =
        realVectorWithLogSweepFrom(1.0f, 22050.0f, 1000.0f, 1.0f, 500.0f, 2000.0f, 0, 0, 44100.0f);
    ASSERT_EQ(stimulus.length(), 154350u);
    expectZeros(stimulus, 0, 22050);
    expectZeros(stimulus, 22050 + 44100, 88200);
    // The sweep starts at a rising zero crossing, right after the leading silence.
    EXPECT_EQ(stimulus[22050], 0.0f);
    EXPECT_GT(stimulus[22051], 0.0f);
    EXPECT_NE(stimulus[22050 + 44099], 0.0f);

    // No rounding: 1000.5 ms at 1000 Hz is 1000 samples, 2.9 ms of silence at 1000 Hz is 2 samples.
    EXPECT_EQ(realVectorWithLogSweepFrom(10, 400, 1000.5f, 1, 0, 0, 0, 0, 1000).length(), 1000u);
    stimulus = realVectorWithLogSweepFrom(10, 400, 10.0f, 1, 2.9f, 1.9f, 0, 0, 1000);
    ASSERT_EQ(stimulus.length(), 10u + 2u + 1u);
    expectZeros(stimulus, 0, 2);
    EXPECT_EQ(stimulus[2], 0.0f);
    EXPECT_EQ(stimulus[12], 0.0f);
}

TEST(SweptSine, SamplesFollowTheAnalyticSweep) {
    const double fs = 48000, f1 = 20, f2 = 20000, seconds = 0.5;
    const auto sweep = realVectorWithLogSweepFrom(20.0f, 20000.0f, 500.0f, 0.8f, 0, 0, 0, 0, 48000.0f);
    ASSERT_EQ(sweep.length(), 24000u);
    for (std::size_t n = 0; n < sweep.length(); ++n)
        ASSERT_NEAR(sweep[n], analyticSweep(f1, f2, seconds, 0.8, n / fs), 1e-5) << n;

    // The sine is narrowed to float before the amplitude multiplies it, so any amplitude is an exact
    // float scaling of the unit sweep; lead-in and lead-out change nothing.
    const auto unit = realVectorWithLogSweepFrom(20.0f, 20000.0f, 500.0f, 1.0f, 0, 0, 0, 0, 48000.0f);
    const auto faded =
        realVectorWithLogSweepFrom(20.0f, 20000.0f, 500.0f, 0.8f, 0, 0, 250.0f, 100.0f, 48000.0f);
    for (std::size_t n = 0; n < sweep.length(); ++n)
        ASSERT_EQ(sweep[n], 0.8f * unit[n]) << n;
    EXPECT_EQ(faded, sweep);
}

TEST(SweptSine, DegenerateArgumentsLeaveOnlyTheSilences) {
    // No sweep samples: zero or negative durations, durations shorter than one sample, no sample rate.
    for (float duration : {0.0f, -100.0f, 0.5f}) {
        const auto stimulus = realVectorWithLogSweepFrom(1, 1000, duration, 1, 10, 20, 0, 0, 1000);
        ASSERT_EQ(stimulus.length(), 30u) << duration;
        expectZeros(stimulus, 0, 30);
    }
    EXPECT_EQ(realVectorWithLogSweepFrom(1, 1000, 1000, 1, 10, 20, 0, 0, 0).length(), 0u);
}

} // namespace
} // namespace tavolar
