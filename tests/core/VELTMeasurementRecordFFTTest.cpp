#include "SweepMeasurementSimulation.h"
#include "audio/MicrophoneCalibrationRecord.h"
#include "core/VELTMeasurementRecord.h"
#include "core/VELTSpline.h"
#include "platform/Assertions.h"

#include <algorithm>
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

// A loudspeaker-like chain measured through the whole sweep path: 2nd-order high-pass at 40 Hz, a
// +6 dB peak at 1 kHz (Q 2), a 2nd-order low-pass at 12 kHz and 300 samples of delay, with noise at
// -100 dBFS on the recording.
TEST(VELTMeasurementRecordFFT, MeasuredDeviceMatchesItsExactResponse) {
    const double fs = kSampleRate;
    const std::size_t delay = 300;
    FilterChain device{
        {highPass(40, std::sqrt(0.5), fs), peaking(1000, 6, 2, fs), lowPass(12000, std::sqrt(0.5), fs)}};

    VELTRealVector stimulus = defaultSweep().stimulusSignalWithSampleRate(kSampleRate);
    std::vector<double> response = delayed(device.filter(toDouble(stimulus)), delay);
    addNoise(response, 1e-5, 1);
    auto record = recordOf(deconvolved(response, stimulus));
    record->setImpulseResponseWindow(VELTWindow(0, 32768));
    record->setStartFrequency(20);
    record->setEndFrequency(20000);

    const std::size_t n = 65536;
    VELTRealVector frequencies = record->frequencyTableWithFFTLength(n);
    VELTRealVector magnitude = record->fftMagnitudeResponseWithFFTLength(n);
    VELTRealVector phase = record->fftPhaseResponseWithFFTLength(n);
    VELTRealVector linear = record->fftAbsResponseWithFFTLength(n);
    ASSERT_EQ(magnitude.length(), frequencies.length());
    ASSERT_EQ(phase.length(), frequencies.length());

    double worstMagnitude = 0, worstPhase = 0;
    std::size_t compared = 0;
    for (std::size_t i = 0; i < frequencies.length(); ++i) {
        double f = frequencies[i];
        if (f < 20.0 || f > 20000.0)
            continue;
        std::complex<double> exact = device.response(f, fs);
        double magnitudeError = magnitude[i] - decibels(std::abs(exact));
        // The measured phase includes the delay; its unwrapping may start a whole turn away.
        double expectedPhase = std::arg(exact) * 180.0 / kPi - 360.0 * f * double(delay) / fs;
        double phaseError = wrappedDegrees(phase[i] - expectedPhase);
        worstMagnitude = std::max(worstMagnitude, std::fabs(magnitudeError));
        worstPhase = std::max(worstPhase, std::fabs(phaseError));
        EXPECT_NEAR(linear[i], std::abs(exact), std::abs(exact) * 0.006) << f;
        ++compared;
    }
    EXPECT_GT(compared, 27000u);
    // Measured: 0.01 dB and 0.07 degrees.
    EXPECT_LT(worstMagnitude, 0.05) << "dB";
    EXPECT_LT(worstPhase, 1.0) << "degrees";

    // The device's own impulse response peaks one sample after its onset (the low-pass smooths the
    // onset), so the measured peak lies that far after the delay.
    std::vector<double> unit(64, 0.0);
    unit[0] = 1.0;
    std::vector<double> own = device.filter(unit);
    auto onsetToPeak =
        std::distance(own.begin(), std::max_element(own.begin(), own.end(), [](double a, double b) {
                          return std::fabs(a) < std::fabs(b);
                      }));
    EXPECT_EQ(onsetToPeak, 1);
    EXPECT_EQ(record->impulsePeak(), static_cast<std::int64_t>(delay) + onsetToPeak);
    EXPECT_FLOAT_EQ(record->impulsePeakInMilliseconds(), 301.0f * (1000.0f / 48000.0f));
}

// A minimum-phase chain (a boost, a cut and a one-pole low-pass: every zero inside the unit circle).
FilterChain minimumPhaseChain(double fs) {
    const double pole = 0.5;
    return FilterChain{{peaking(1000, 6, 2, fs), peaking(100, -8, 1, fs), Biquad{1 - pole, 0, 0, -pole, 0}}};
}

VELTRealVector impulseResponseOf(const FilterChain& chain, std::size_t length, std::size_t delay = 0) {
    std::vector<double> unit(length, 0.0);
    unit[delay] = 1.0;
    return toFloat(chain.filter(unit));
}

TEST(VELTMeasurementRecordFFT, MinimumPhaseCopyOfAMinimumPhaseDeviceGivesItBack) {
    const double fs = kSampleRate;
    FilterChain chain = minimumPhaseChain(fs);
    VELTRealVector impulse = impulseResponseOf(chain, 65536);
    auto record = recordOf(impulse);
    record->setImpulseResponseWindow(VELTWindow(0, 32768));
    record->setStartFrequency(20);
    record->setEndFrequency(20000);

    auto copy = record->minimumPhaseCopy();
    VELTRealVector reconstructed = *copy->impulseResponse();
    ASSERT_EQ(reconstructed.length(), impulse.length());
    float worstSample = 0;
    for (std::size_t i = 0; i < impulse.length(); ++i)
        worstSample = std::max(worstSample, std::fabs(reconstructed[i] - impulse[i]));
    EXPECT_LT(worstSample, 1e-5f); // against a first sample of 0.6

    const std::size_t n = 32768;
    VELTRealVector frequencies = record->frequencyTableWithFFTLength(n);
    VELTRealVector excess = record->excessPhaseResponseWithFFTLength(n);
    VELTRealVector minimum = record->minimumPhaseResponseWithFFTLength(n);
    ASSERT_EQ(excess.length(), frequencies.length());
    for (std::size_t i = 0; i < frequencies.length(); ++i) {
        EXPECT_NEAR(excess[i], 0.0, 0.02) << frequencies[i]; // degrees
        double exact = std::arg(chain.response(frequencies[i], fs)) * 180.0 / kPi;
        EXPECT_NEAR(wrappedDegrees(minimum[i] - exact), 0.0, 0.02) << frequencies[i];
    }

    // Delayed by 50 samples the device is no longer minimum phase: its excess phase is the delay's.
    auto delayed = recordOf(impulseResponseOf(chain, 65536, 50));
    delayed->setImpulseResponseWindow(VELTWindow(0, 32768));
    delayed->setStartFrequency(20);
    delayed->setEndFrequency(20000);
    VELTRealVector delayExcess = delayed->excessPhaseResponseWithFFTLength(n);
    for (std::size_t i = 0; i < frequencies.length(); ++i)
        EXPECT_NEAR(wrappedDegrees(delayExcess[i] + 360.0 * frequencies[i] * 50.0 / fs), 0.0, 0.05)
            << frequencies[i];
}

TEST(VELTMeasurementRecordFFT, GroupDelayMatchesTheDerivativeOfTheExactPhase) {
    const double fs = kSampleRate;
    FilterChain chain = minimumPhaseChain(fs);
    auto record = recordOf(impulseResponseOf(chain, 65536, 37));
    record->setImpulseResponseWindow(VELTWindow(0, 32768));
    record->setStartFrequency(20);
    record->setEndFrequency(20000);
    const std::size_t n = 32768;
    VELTRealVector frequencies = record->frequencyTableWithFFTLength(n);
    VELTRealVector delay = record->groupDelayWithFFTLength(n);
    ASSERT_EQ(delay.length(), frequencies.length());
    for (std::size_t i = 0; i < frequencies.length(); i += 7) {
        double f = frequencies[i], step = 0.01;
        double dPhase = std::arg(chain.response(f + step, fs) / chain.response(f - step, fs));
        double exact = -dPhase / (2.0 * kPi * 2.0 * step) * 1000.0 + 37.0 * 1000.0 / fs; // ms
        EXPECT_NEAR(delay[i], exact, 0.002) << f;
    }
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
    VELTRealVector linear = record->fftAbsResponseWithFFTLength(n);
    for (std::size_t i = 0; i < linear.length(); ++i)
        EXPECT_NEAR(linear[i], 0.5f, 1e-5);

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
    VELTRealVector phase = record->fftPhaseResponseWithFFTLength(n);
    VELTRealVector excess = record->excessPhaseResponseWithFFTLength(n);
    for (std::size_t i = 0; i < frequencies.length(); ++i) {
        // The bin at or below the last knot is deliberately left uncorrected.
        bool inside = frequencies[i] >= 100.0f && frequencies[i] < 10000.0f - 48000.0f / n;
        EXPECT_NEAR(corrected[i], inside ? half - 3.0f : half, 1e-4) << frequencies[i];
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

    // An end frequency on a bin keeps that bin; one between bins keeps the bin above.
    record.setStartFrequency(0);
    record.setEndFrequency(44100.0f / 4096.0f * 100.0f);
    EXPECT_EQ(record.validRangeForFFTLength(4096), (BinRange{0, 101}));
    record.setEndFrequency(44100.0f / 4096.0f * 100.5f);
    EXPECT_EQ(record.validRangeForFFTLength(4096), (BinRange{0, 101}));
    record.setEndFrequency(44100.0f / 4096.0f * 99.5f);
    EXPECT_EQ(record.validRangeForFFTLength(4096), (BinRange{0, 100}));

    // Not-a-number frequencies match nothing: from the first bin to before the last.
    record.setStartFrequency(std::numeric_limits<float>::quiet_NaN());
    record.setEndFrequency(std::numeric_limits<float>::quiet_NaN());
    EXPECT_EQ(record.validRangeForFFTLength(4096), (BinRange{0, 2048}));
    // A start above every bin starts at bin 0 as well.
    record.setStartFrequency(1e6f);
    record.setEndFrequency(1e6f);
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
    record->setImpulseResponseWindow(VELTWindow(0, 3000, 6));
    record->setCompatibilityMode(true);
    EXPECT_EQ(record->validRange(), record->validRangeForFFTLength(4096));
    EXPECT_EQ(record->frequencyTable(), record->frequencyTableWithFFTLength(4096));
    EXPECT_EQ(record->fftMagnitudeResponse(), record->fftMagnitudeResponseWithFFTLength(4096));
    EXPECT_EQ(record->fftAbsResponse(), record->fftAbsResponseWithFFTLength(4096));
    EXPECT_EQ(record->fftPhaseResponse(), record->fftPhaseResponseWithFFTLength(4096));
    EXPECT_EQ(record->minimumPhaseResponse(), record->minimumPhaseResponseWithFFTLength(4096));
    EXPECT_EQ(record->excessPhaseResponse(), record->excessPhaseResponseWithFFTLength(4096));
}

TEST(VELTMeasurementRecordFFT, WithoutAnImpulseResponseOnlyTheMagnitudeFails) {
    VELTMeasurementRecord record;
    record.setSampleRate(48000);
    record.setEndFrequency(20000);
    try {
        record.fftMagnitudeResponseWithFFTLength(1024);
        FAIL() << "no assertion";
    } catch (const AssertionFailure& failure) {
        EXPECT_STREQ(failure.what(), "Did not get impulse response");
    }
    EXPECT_THROW(record.fftSPLResponseWithFFTLength(1024), AssertionFailure);
    EXPECT_EQ(record.fftPhaseResponseWithFFTLength(1024).length(), 0u);
    EXPECT_EQ(record.minimumPhaseResponseWithFFTLength(1024).length(), 0u);
    EXPECT_EQ(record.excessPhaseResponseWithFFTLength(1024).length(), 0u);
    EXPECT_EQ(record.groupDelayWithFFTLength(1024).length(), 0u);
}

} // namespace
} // namespace tavolar
