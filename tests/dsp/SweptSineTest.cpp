// The exponential sweep stimulus: buffer sizes, silences, samples against the analytic sweep, and
// the instantaneous frequency measured from zero crossings.

#include "dsp/SweptSine.h"

#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <numbers>
#include <vector>

namespace tavolar {
namespace {

// x(t) = A sin(2 pi f1 T / R (e^(t R / T) - 1)), R = ln(f2 / f1): the phase whose derivative is
// 2 pi f1 e^(t R / T), an instantaneous frequency growing exponentially from f1 to f2 over T.
double analyticSweep(double f1, double f2, double seconds, double amplitude, double t) {
    const double rate = std::log(f2 / f1);
    return amplitude *
           std::sin(2.0 * std::numbers::pi * f1 * seconds / rate * (std::exp(t * rate / seconds) - 1.0));
}

// Frequencies estimated from the spacing of successive zero crossings (interpolated linearly),
// each paired with the time midway between the two crossings.
struct FrequencyEstimate {
    double time;
    double frequency;
};

std::vector<FrequencyEstimate> zeroCrossingFrequencies(const VELTRealVector& signal, std::size_t first,
                                                       std::size_t count, double sampleRate) {
    std::vector<double> crossings;
    for (std::size_t i = first + 1; i < first + count; ++i) {
        const double a = signal[i - 1], b = signal[i];
        if ((a < 0.0) != (b < 0.0) && a != b)
            crossings.push_back((static_cast<double>(i - 1 - first) + a / (a - b)) / sampleRate);
    }
    std::vector<FrequencyEstimate> estimates;
    for (std::size_t k = 1; k < crossings.size(); ++k)
        estimates.push_back(
            {0.5 * (crossings[k] + crossings[k - 1]), 0.5 / (crossings[k] - crossings[k - 1])});
    return estimates;
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

    // Ten seconds at 48000 Hz: 480000 sweep samples, 24000 before, 96000 after.
    stimulus = realVectorWithLogSweepFrom(1.0f, 24000.0f, 10000.0f, 1.0f, 500.0f, 2000.0f, 0, 0, 48000.0f);
    ASSERT_EQ(stimulus.length(), 600000u);
    expectZeros(stimulus, 0, 24000);
    expectZeros(stimulus, 504000, 96000);
    EXPECT_GT(stimulus[24001], 0.0f);

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
    double largest = 0;
    for (std::size_t n = 0; n < sweep.length(); ++n) {
        ASSERT_NEAR(sweep[n], analyticSweep(f1, f2, seconds, 0.8, n / fs), 1e-5) << n;
        largest = std::max(largest, std::fabs(double(sweep[n])));
    }
    EXPECT_LE(largest, 0.8f);
    EXPECT_GT(largest, 0.799);

    // The sine is narrowed to float before the amplitude multiplies it, so any amplitude is an exact
    // float scaling of the unit sweep; lead-in and lead-out change nothing.
    const auto unit = realVectorWithLogSweepFrom(20.0f, 20000.0f, 500.0f, 1.0f, 0, 0, 0, 0, 48000.0f);
    const auto faded =
        realVectorWithLogSweepFrom(20.0f, 20000.0f, 500.0f, 0.8f, 0, 0, 250.0f, 100.0f, 48000.0f);
    for (std::size_t n = 0; n < sweep.length(); ++n)
        ASSERT_EQ(sweep[n], 0.8f * unit[n]) << n;
    EXPECT_EQ(faded, sweep);
}

TEST(SweptSine, InstantaneousFrequencyGrowsExponentially) {
    const double fs = 48000, f1 = 20, f2 = 20000, seconds = 2.0;
    const auto stimulus =
        realVectorWithLogSweepFrom(20.0f, 20000.0f, 2000.0f, 1.0f, 100.0f, 0, 0, 0, 48000.0f);
    const std::size_t leading = 4800;
    ASSERT_EQ(stimulus.length(), leading + 96000);
    const auto estimates = zeroCrossingFrequencies(stimulus, leading, 96000, fs);
    // Sample the estimates at several points of the sweep, from 50 Hz to 4 kHz (above that, with
    // fewer than 12 samples a period, linear interpolation of the crossings is no longer accurate).
    std::size_t checked = 0;
    for (double target : {50.0, 200.0, 1000.0, 2000.0, 4000.0}) {
        const double time = seconds * std::log(target / f1) / std::log(f2 / f1);
        const FrequencyEstimate* nearest = &estimates.front();
        for (const auto& estimate : estimates)
            if (std::fabs(estimate.time - time) < std::fabs(nearest->time - time))
                nearest = &estimate;
        const double expected = f1 * std::exp(nearest->time * std::log(f2 / f1) / seconds);
        EXPECT_NEAR(nearest->frequency, expected, 0.005 * expected) << "near " << target << " Hz";
        ++checked;
    }
    EXPECT_EQ(checked, 5u);

    // The sweep reaches its end frequency at its last sample: the last half period measured on a
    // sweep up to 2 kHz lies within 0.25 ms of the end, where the frequency is within 0.5 % of 2 kHz.
    const auto toTwoKilohertz =
        realVectorWithLogSweepFrom(20.0f, 2000.0f, 1000.0f, 1.0f, 0, 0, 0, 0, 48000.0f);
    const auto tail = zeroCrossingFrequencies(toTwoKilohertz, 0, toTwoKilohertz.length(), fs);
    ASSERT_FALSE(tail.empty());
    EXPECT_NEAR(tail.back().time, 1.0, 0.5e-3);
    EXPECT_NEAR(tail.back().frequency, 2000.0, 10.0);
}

TEST(SweptSine, DegenerateArgumentsLeaveOnlyTheSilences) {
    // No sweep samples: zero or negative durations, or durations shorter than one sample.
    for (float duration : {0.0f, -100.0f, 0.5f}) {
        const auto stimulus = realVectorWithLogSweepFrom(1, 1000, duration, 1, 10, 20, 0, 0, 1000);
        ASSERT_EQ(stimulus.length(), 30u) << duration;
        expectZeros(stimulus, 0, 30);
    }
    EXPECT_EQ(realVectorWithLogSweepFrom(1, 1000, 1000, 1, 10, 20, 0, 0, 0).length(), 0u);
    // A start frequency of zero or a negative end frequency makes the rate non-finite: every sweep
    // sample is not a number, the silences stay silent.
    for (float start : {0.0f, 100.0f}) {
        const float end = start == 0.0f ? 1000.0f : -1000.0f;
        const auto stimulus = realVectorWithLogSweepFrom(start, end, 10, 1, 5, 5, 0, 0, 1000);
        ASSERT_EQ(stimulus.length(), 20u);
        expectZeros(stimulus, 0, 5);
        for (std::size_t n = 5; n < 15; ++n)
            EXPECT_FALSE(std::isfinite(stimulus[n])) << n;
        expectZeros(stimulus, 15, 5);
    }
}

} // namespace
} // namespace tavolar
