#include "SweepMeasurementSimulation.h"
#include "audio/MicrophoneCalibrationRecord.h"
#include "core/VELTMeasurementRecord.h"
#include "core/VELTSpline.h"
#include "platform/Assertions.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <memory>

namespace tavolar {
namespace {

using namespace simulation;

std::shared_ptr<VELTMeasurementRecord> recordOf(const VELTRealVector& impulse,
                                                std::int64_t sampleRate = kSampleRate) {
    auto record = VELTMeasurementRecord::record();
    record->setSampleRate(sampleRate);
    record->setImpulseResponse(impulse);
    return record;
}

// A minimum-phase chain (a boost, a cut and a one-pole low-pass: every zero inside the unit circle),
// its impulse response delayed by whole samples.
FilterChain minimumPhaseChain(double fs) {
    const double pole = 0.5;
    return FilterChain{{peaking(1000, 6, 2, fs), peaking(100, -8, 1, fs), Biquad{1 - pole, 0, 0, -pole, 0}}};
}

VELTRealVector impulseResponseOf(const FilterChain& chain, std::size_t length, std::size_t delay) {
    std::vector<double> unit(length, 0.0);
    unit[delay] = 1.0;
    return toFloat(chain.filter(unit));
}

// Every curve of the record against the chain's exact response on the unit circle: the delay is all
// of the excess phase, and the group delay is the derivative of the exact phase plus the delay.
TEST(VELTMeasurementRecordFFT, CurvesOfADelayedMinimumPhaseDeviceMatchItsExactResponse) {
    const double fs = kSampleRate, delay = 37;
    const FilterChain chain = minimumPhaseChain(fs);
    auto record = recordOf(impulseResponseOf(chain, 65536, 37));
    record->setImpulseResponseWindow(VELTWindow(0, 32768));
    record->setStartFrequency(20);
    record->setEndFrequency(20000);
    const std::size_t n = 32768;
    const VELTRealVector frequencies = record->frequencyTableWithFFTLength(n);
    const VELTRealVector magnitude = record->fftMagnitudeResponseWithFFTLength(n);
    const VELTRealVector linear = record->fftAbsResponseWithFFTLength(n);
    const VELTRealVector phase = record->fftPhaseResponseWithFFTLength(n);
    const VELTRealVector minimum = record->minimumPhaseResponseWithFFTLength(n);
    const VELTRealVector excess = record->excessPhaseResponseWithFFTLength(n);
    const VELTRealVector groupDelay = record->groupDelayWithFFTLength(n);
    ASSERT_GT(frequencies.length(), 13000u);
    for (const VELTRealVector* curve : {&magnitude, &linear, &phase, &minimum, &excess, &groupDelay})
        ASSERT_EQ(curve->length(), frequencies.length());
    for (std::size_t i = 0; i < frequencies.length(); ++i) {
        const double f = frequencies[i];
        const std::complex<double> exact = chain.response(f, fs);
        const double exactDegrees = std::arg(exact) * 180.0 / kPi, delayDegrees = 360.0 * f * delay / fs;
        ASSERT_NEAR(magnitude[i], decibels(std::abs(exact)), 1e-3) << f;
        ASSERT_NEAR(linear[i], std::abs(exact), std::abs(exact) * 1e-4) << f;
        // The unwrapped phases may start a whole turn away.
        ASSERT_NEAR(wrappedDegrees(phase[i] - exactDegrees + delayDegrees), 0.0, 0.05) << f;
        ASSERT_NEAR(wrappedDegrees(minimum[i] - exactDegrees), 0.0, 0.02) << f;
        ASSERT_NEAR(wrappedDegrees(excess[i] + delayDegrees), 0.0, 0.05) << f;
        const double step = 0.01;
        const double dPhase = std::arg(chain.response(f + step, fs) / chain.response(f - step, fs));
        const double exactDelay = (-dPhase / (2.0 * kPi * 2.0 * step) + delay / fs) * 1000.0; // ms
        ASSERT_NEAR(groupDelay[i], exactDelay, 0.002) << f;
    }

    // The minimum-phase copy gives back the undelayed device, against a first sample of 0.6.
    const VELTRealVector undelayed = impulseResponseOf(chain, 65536, 0);
    const VELTRealVector reconstructed = *record->minimumPhaseCopy()->impulseResponse();
    ASSERT_EQ(reconstructed.length(), undelayed.length());
    for (std::size_t i = 0; i < undelayed.length(); ++i)
        ASSERT_NEAR(reconstructed[i], undelayed[i], 1e-5f) << i;
}

TEST(VELTMeasurementRecordFFT, LevelsReferencesAndCalibration) {
    VELTRealVector unit(4096);
    unit[0] = 0.5f;
    auto record = recordOf(unit);
    record->setImpulseResponseWindow(VELTWindow(0, 2048));
    record->setStartFrequency(20);
    record->setEndFrequency(20000);
    const std::size_t n = 4096;
    VELTRealVector frequencies = record->frequencyTableWithFFTLength(n);
    const float half = -6.0206f; // 20 log10(0.5)
    VELTRealVector magnitude = record->fftMagnitudeResponseWithFFTLength(n);
    VELTRealVector level = record->fftSPLResponseWithFFTLength(n);
    ASSERT_EQ(magnitude.length(), frequencies.length());
    for (std::size_t i = 0; i < magnitude.length(); ++i) {
        EXPECT_NEAR(magnitude[i], half, 1e-4);
        EXPECT_NEAR(level[i], half + 94.0f, 1e-4); // no reference in use: 94 dB at full scale
    }
    record->setSPLReferenceLevel(-10);
    EXPECT_NEAR(record->fftSPLResponseWithFFTLength(n)[0], half + 94.0f, 1e-4);
    record->setUseSPLReferenceLevel(true);
    EXPECT_NEAR(record->fftSPLResponseWithFFTLength(n)[0], half + 104.0f, 1e-4);

    // A microphone reading 3 dB hot and 10 degrees late between 100 Hz and 10 kHz.
    auto flat = [](float level) {
        return std::make_shared<const VELTSpline>(VELTRealVector{100, 1000, 10000},
                                                  VELTRealVector{level, level, level});
    };
    record->setMicrophoneCalibrationRecord(
        std::make_shared<const MicrophoneCalibrationRecord>("Mic", std::nullopt, flat(3), flat(10)));
    EXPECT_NEAR(record->fftMagnitudeResponseWithFFTLength(n)[50], half, 1e-4); // not in use yet
    record->setUseMicrophoneCalibrationRecord(true);
    VELTRealVector corrected = record->fftMagnitudeResponseWithFFTLength(n);
    VELTRealVector correctedLevel = record->fftSPLResponseWithFFTLength(n);
    VELTRealVector phase = record->fftPhaseResponseWithFFTLength(n);
    VELTRealVector excess = record->excessPhaseResponseWithFFTLength(n);
    for (std::size_t i = 0; i < frequencies.length(); ++i) {
        // The bin at or below the last knot is deliberately left uncorrected.
        bool inside = frequencies[i] >= 100.0f && frequencies[i] < 10000.0f - 48000.0f / n;
        EXPECT_NEAR(corrected[i], inside ? half - 3.0f : half, 1e-4) << frequencies[i];
        EXPECT_NEAR(correctedLevel[i], corrected[i] + 104.0f, 1e-4) << frequencies[i];
        EXPECT_NEAR(phase[i], inside ? -10.0f : 0.0f, 1e-4) << frequencies[i];
        EXPECT_NEAR(excess[i], 0.0f, 1e-3) << frequencies[i]; // applied to both phases, it cancels
    }
}

TEST(VELTMeasurementRecordFFT, ValidRangeEdges) {
    VELTMeasurementRecord record;
    record.setSampleRate(44100);
    // Bins of 10.77 Hz: 20 Hz lies between bins 1 and 2, and bin 1 is included.
    record.setStartFrequency(20);
    record.setEndFrequency(30000);
    EXPECT_EQ(record.validRangeForFFTLength(4096), (BinRange{1, 2047})); // up to, not including, bin 2048
    VELTRealVector table = record.frequencyTableWithFFTLength(4096);
    ASSERT_EQ(table.length(), 2047u);
    EXPECT_NEAR(table[0], 10.7666, 1e-3);

    // A start frequency on a bin keeps the bin below it too; an end frequency on a bin keeps that
    // bin, one between bins keeps the bin above.
    record.setStartFrequency(44100.0f / 4096.0f * 5.0f);
    record.setEndFrequency(44100.0f / 4096.0f * 100.0f);
    EXPECT_EQ(record.validRangeForFFTLength(4096), (BinRange{4, 97}));
    record.setEndFrequency(44100.0f / 4096.0f * 100.5f);
    EXPECT_EQ(record.validRangeForFFTLength(4096), (BinRange{4, 97}));
    record.setEndFrequency(44100.0f / 4096.0f * 99.5f);
    EXPECT_EQ(record.validRangeForFFTLength(4096), (BinRange{4, 96}));

    // Not-a-number frequencies match nothing: from the first bin to before the last.
    record.setStartFrequency(std::numeric_limits<float>::quiet_NaN());
    record.setEndFrequency(std::numeric_limits<float>::quiet_NaN());
    EXPECT_EQ(record.validRangeForFFTLength(4096), (BinRange{0, 2048}));
    EXPECT_EQ(record.validRangeForFFTLength(1), (BinRange{0, 0}));
}

TEST(VELTMeasurementRecordFFT, OlderFamilyUsesALengthDerivedFromTheWindow) {
    VELTRealVector impulse(65536);
    impulse[3] = 1.0f;
    impulse[9] = -0.5f;
    auto record = recordOf(impulse);
    record->setStartFrequency(20);
    record->setEndFrequency(20000);
    struct Case {
        std::int64_t duration;
        bool compatibility;
        std::size_t length;
    };
    for (Case c :
         {Case{3000, false, 32768}, Case{3000, true, 4096}, Case{40000, false, 65536}, Case{2048, true, 2048},
          Case{1, true, 2048}, Case{0, false, 32768}, Case{32769, false, 65536}}) {
        record->setImpulseResponseWindow(VELTWindow(0, c.duration));
        record->setCompatibilityMode(c.compatibility);
        EXPECT_EQ(record->fftLength(), c.length) << c.duration;
    }
}

TEST(VELTMeasurementRecordFFT, WithoutAnImpulseResponseOnlyTheMagnitudeFails) {
    VELTMeasurementRecord record;
    record.setSampleRate(48000);
    record.setEndFrequency(20000);
    EXPECT_THROW(record.fftMagnitudeResponseWithFFTLength(1024), AssertionFailure);
    EXPECT_THROW(record.fftSPLResponseWithFFTLength(1024), AssertionFailure);
    EXPECT_EQ(record.fftPhaseResponseWithFFTLength(1024).length(), 0u);
    EXPECT_EQ(record.minimumPhaseResponseWithFFTLength(1024).length(), 0u);
    EXPECT_EQ(record.excessPhaseResponseWithFFTLength(1024).length(), 0u);
    EXPECT_EQ(record.groupDelayWithFFTLength(1024).length(), 0u);
}

} // namespace
} // namespace tavolar
