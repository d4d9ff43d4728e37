#include "engine/SweptSineDeconvolution.h"

#include "dsp/SweptSine.h"
#include "engine/SweptSineDeconvolutionTestSupport.h"
#include "engine/VELTLogSweepSettings.h"
#include "platform/UserDefaults.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <gtest/gtest.h>
#include <limits>
#include <optional>
#include <random>
#include <vector>

namespace tavolar {
namespace {

using testing::Biquad;
using testing::peakIndex;

constexpr double kSampleRate = 48000.0;

bool hasNaN(const VELTRealVector& vector) {
    return std::any_of(vector.span().begin(), vector.span().end(), [](float x) { return std::isnan(x); });
}

// Checks the measured response against the analytic one over 20 Hz .. 20 kHz after removing the
// delay: magnitude within 0.05 dB, phase within 1 degree.
void expectMatchesAnalyticResponse(const VELTRealVector& impulse, const Biquad& filter, std::size_t delay) {
    for (double frequency : testing::audioBandFrequencies()) {
        const std::complex<double> measured =
            testing::frequencyResponse(impulse.span(), frequency, kSampleRate, static_cast<double>(delay));
        const std::complex<double> expected = filter.response(frequency, kSampleRate);
        EXPECT_NEAR(testing::decibels(std::abs(measured)), testing::decibels(std::abs(expected)), 0.05)
            << frequency << " Hz";
        EXPECT_NEAR(testing::phaseDifferenceDegrees(measured, expected), 0.0, 1.0) << frequency << " Hz";
    }
}

TEST(SweptSineDeconvolution, TransformLengthIsTheNextPowerOfTwoIn32BitArithmetic) {
    EXPECT_EQ(deconvolutionTransformLength(10, 7), 16u);
    EXPECT_EQ(deconvolutionTransformLength(1000, 26), 2048u); // lenR + lenS - 1 = 1025
    EXPECT_EQ(deconvolutionTransformLength(1000, 25), 1024u); // = 1024
    EXPECT_EQ(deconvolutionTransformLength(513, 512), 1024u);
    EXPECT_EQ(deconvolutionTransformLength(1, 1), 1u);
    EXPECT_EQ(deconvolutionTransformLength(2, 1), 2u);
    EXPECT_EQ(deconvolutionTransformLength(168000, 168000), 524288u);
    EXPECT_EQ(deconvolutionTransformLength(std::size_t{1} << 30, (std::size_t{1} << 30) + 1),
              std::size_t{1} << 31);
    // Sums below two wrap round to nothing to transform, and an empty result.
    EXPECT_EQ(deconvolutionTransformLength(0, 0), 0u);
    EXPECT_EQ(deconvolutionTransformLength(1, 0), 0u);
    EXPECT_EQ(
        realVectorByDeconvolvingResponseWithoutRegularization(VELTRealVector{1.0f}, VELTRealVector{}, nullptr)
            .length(),
        0u);
}

// A known device under test measured with the default sweep, directly and behind an interface whose
// own filter and delay reach the loop-back reference too. Divided by the stimulus, or by the
// reference when there is one, plainly and lightly regularised, in single and in double precision,
// the impulse response carries the device's analytic response alone, its peak at the device's delay.
TEST(SweptSineDeconvolution, RecoversAKnownFilterAndItsDelayFromTheDefaultSweep) {
    const VELTRealVector stimulus = VELTLogSweepSettings().stimulusSignalWithSampleRate(48000);
    ASSERT_EQ(stimulus.length(), 168000u);
    struct Case {
        std::optional<Biquad> interface;
        Biquad device;
        std::size_t interfaceDelay, deviceDelay;
    };
    const Case cases[] = {{std::nullopt, Biquad::peaking(kSampleRate, 1000.0, 6.0, 1.0), 0, 300},
                          {Biquad::peaking(kSampleRate, 8000.0, -3.0, 0.7),
                           Biquad::peaking(kSampleRate, 2500.0, -9.0, 2.0), 50, 200}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.interface ? "behind an interface" : "direct");
        const std::vector<double> throughInterface =
            c.interface ? c.interface->filter(testing::toDouble(stimulus)) : testing::toDouble(stimulus);
        const std::vector<double> reference =
            testing::delayed(throughInterface, c.interfaceDelay, stimulus.length());
        const std::vector<double> response = testing::delayed(
            c.device.filter(throughInterface), c.interfaceDelay + c.deviceDelay, stimulus.length());
        const VELTRealVector floatReference = testing::toFloat(reference);
        const VELTRealDoubleVector doubleReference(reference);

        const VELTRealVector impulse = realVectorByDeconvolvingResponseWithoutRegularization(
            testing::toFloat(response), stimulus, c.interface ? &floatReference : nullptr);
        ASSERT_EQ(impulse.length(), 524288u);
        EXPECT_EQ(peakIndex(impulse), c.deviceDelay);
        expectMatchesAnalyticResponse(impulse, c.device, c.deviceDelay);
        // A tiny lambda changes nothing where the sweep has energy.
        const VELTRealVector regularised = realVectorByDeconvolvingResponseWithRegularization(
            testing::toFloat(response), stimulus, c.interface ? &floatReference : nullptr, 1e-9);
        EXPECT_EQ(peakIndex(regularised), c.deviceDelay);
        expectMatchesAnalyticResponse(regularised, c.device, c.deviceDelay);

        // Double precision throughout must agree far more closely still.
        const VELTRealDoubleVector doubleImpulse = realDoubleVectorByDeconvolvingResponse(
            VELTRealDoubleVector(response), VELTRealDoubleVector(testing::toDouble(stimulus)),
            c.interface ? &doubleReference : nullptr);
        ASSERT_EQ(doubleImpulse.length(), 524288u);
        for (double frequency : {20.0, 1000.0, 20000.0}) {
            std::complex<double> measured = 0.0;
            for (std::size_t n = 0; n < 4096;
                 ++n) // the filter has decayed far below double precision by then
                measured += doubleImpulse[c.deviceDelay + n] *
                            std::polar(1.0, -2.0 * std::numbers::pi * frequency / kSampleRate *
                                                static_cast<double>(n));
            const std::complex<double> expected = c.device.response(frequency, kSampleRate);
            EXPECT_NEAR(std::abs(measured / expected), 1.0, 1e-6) << frequency << " Hz";
            EXPECT_NEAR(std::arg(measured / expected), 0.0, 1e-6) << frequency << " Hz";
        }
    }
}

// The regularised division against its formula evaluated bin by bin in double precision, on a short
// band-limited sweep whose spectrum spans many decades so that lambda matters in some bins and not
// in others. The result's spectrum is compared in every bin.
TEST(SweptSineDeconvolution, RegularisedDivisionFollowsItsFormulaInEveryBin) {
    const VELTRealVector stimulus =
        realVectorWithLogSweepFrom(2000.0f, 8000.0f, 8.0f, 0.5f, 1.0f, 1.0f, 0, 0, 48000.0f);
    const std::vector<double> stimulusSamples = testing::toDouble(stimulus);
    const Biquad interface = Biquad::peaking(kSampleRate, 6000.0, 4.0, 0.7);
    const Biquad device = Biquad::peaking(kSampleRate, 4000.0, 8.0, 3.0);
    const std::vector<double> referenceSamples = testing::delayed(interface.filter(stimulusSamples), 3, 480);
    const std::vector<double> responseSamples = testing::delayed(device.filter(referenceSamples), 11, 480);
    const VELTRealVector reference = testing::toFloat(referenceSamples);
    const VELTRealVector response = testing::toFloat(responseSamples);
    const std::size_t length = deconvolutionTransformLength(response.length(), stimulus.length());
    ASSERT_EQ(length, 1024u);

    std::vector<std::complex<double>> responseSpectrum, stimulusSpectrum, referenceSpectrum;
    double largestPower = 0;
    for (std::size_t k = 0; k <= length / 2; ++k) {
        responseSpectrum.push_back(testing::dftBin(testing::toDouble(response), length, k));
        stimulusSpectrum.push_back(testing::dftBin(stimulusSamples, length, k));
        referenceSpectrum.push_back(testing::dftBin(testing::toDouble(reference), length, k));
        largestPower = std::max(largestPower, std::norm(stimulusSpectrum.back()));
    }

    for (const double lambda : {1e-9, 1e-3 * largestPower, largestPower}) {
        for (const bool withReference : {false, true}) {
            const VELTRealVector impulse = realVectorByDeconvolvingResponseWithRegularization(
                response, stimulus, withReference ? &reference : nullptr, lambda);
            ASSERT_EQ(impulse.length(), length);
            const std::vector<double> impulseSamples = testing::toDouble(impulse);
            const double lambdaUsed = static_cast<float>(lambda);
            double largestExpected = 0;
            std::vector<std::complex<double>> expected;
            for (std::size_t k = 0; k <= length / 2; ++k) {
                std::complex<double> s = stimulusSpectrum[k];
                if (withReference)
                    s *= referenceSpectrum[k] * std::conj(s) / (std::norm(s) + lambdaUsed);
                expected.push_back(responseSpectrum[k] * std::conj(s) / (std::norm(s) + lambdaUsed));
                largestExpected = std::max(largestExpected, std::abs(expected.back()));
            }
            for (std::size_t k = 0; k <= length / 2; ++k)
                ASSERT_NEAR(std::abs(testing::dftBin(impulseSamples, length, k) - expected[k]), 0.0,
                            1e-4 * largestExpected)
                    << "bin " << k << " lambda " << lambda << (withReference ? " with reference" : "");
        }
    }

    // A large lambda shrinks the response where the sweep has little energy: outside its band the
    // regularised result falls far below the plain division's.
    const VELTRealVector plain =
        realVectorByDeconvolvingResponseWithoutRegularization(response, stimulus, nullptr);
    const VELTRealVector shrunk =
        realVectorByDeconvolvingResponseWithRegularization(response, stimulus, nullptr, 1e-3 * largestPower);
    const double outside = 20000.0;
    EXPECT_LT(std::abs(testing::frequencyResponse(shrunk.span(), outside, kSampleRate)),
              0.1 * std::abs(testing::frequencyResponse(plain.span(), outside, kSampleRate)));
}

// The plain division leaves NaN and infinity to its caller; the regularised one divides a silent
// stimulus into silence.
TEST(SweptSineDeconvolution, DegenerateStimulusPassesNaNOnUnderPlainDivision) {
    const VELTRealVector silence(64);
    VELTRealVector response(64);
    response[3] = 0.5f;
    EXPECT_TRUE(hasNaN(realVectorByDeconvolvingResponseWithoutRegularization(response, silence, nullptr)));
    EXPECT_TRUE(hasNaN(realVectorByDeconvolvingResponseWithoutRegularization(response, response, &silence)));
    EXPECT_TRUE(
        realVectorByDeconvolvingResponseWithRegularization(response, silence, nullptr, 1e-9).isAllZeroes());
    EXPECT_TRUE(hasNaN(realVectorByDeconvolvingResponseWithRegularization(
        response, response, nullptr, std::numeric_limits<double>::quiet_NaN())));

    VELTRealDoubleVector doubleResponse(64);
    doubleResponse[3] = 0.5;
    const auto impulse =
        realDoubleVectorByDeconvolvingResponse(doubleResponse, VELTRealDoubleVector(64), nullptr);
    EXPECT_TRUE(std::ranges::any_of(impulse.span(), [](double x) { return std::isnan(x); }));
}

// The user defaults choose the variant at every call.
TEST(SweptSineDeconvolution, UserDefaultsChooseTheVariantAndLambda) {
    UserDefaults& defaults = UserDefaults::standard();
    auto clear = [&defaults] {
        defaults.removeObjectForKey(kUseRegularizationDuringDeconvolutionKey);
        defaults.removeObjectForKey(kRegularizationDuringDeconvolutionLambdaKey);
    };
    struct ClearAtEnd {
        decltype(clear)& action;
        ~ClearAtEnd() { action(); }
    } clearAtEnd{clear};
    clear();

    // A faint stimulus, so that lambdas of 1e-9 and 1e-6 both change the result.
    const VELTRealVector stimulus =
        realVectorWithLogSweepFrom(500.0f, 5000.0f, 5.0f, 1e-4f, 1.0f, 1.0f, 0, 0, 48000.0f);
    const VELTRealVector response =
        testing::toFloat(Biquad::peaking(kSampleRate, 2000.0, 3.0, 1.0).filter(testing::toDouble(stimulus)));
    const VELTRealVector plain =
        realVectorByDeconvolvingResponseWithoutRegularization(response, stimulus, nullptr);
    const VELTRealVector byDefault = realVectorByDeconvolvingResponseWithRegularization(
        response, stimulus, nullptr, kDefaultDeconvolutionRegularizationLambda);
    const VELTRealVector strong =
        realVectorByDeconvolvingResponseWithRegularization(response, stimulus, nullptr, 1e-6);
    ASSERT_NE(plain, byDefault);
    ASSERT_NE(byDefault, strong);

    // Off or absent divides plainly, a stored lambda notwithstanding; on, lambda is the stored value
    // when it is greater than zero (a NaN passing too) and the default otherwise.
    struct State {
        std::optional<bool> use;
        std::optional<double> lambda;
        const VELTRealVector* expected; // null: NaN throughout
    };
    const State states[] = {{std::nullopt, std::nullopt, &plain},
                            {std::nullopt, 1e-6, &plain},
                            {false, 1e-6, &plain},
                            {true, 1e-6, &strong},
                            {true, 0.0, &byDefault},
                            {true, -1.0, &byDefault},
                            {true, std::nullopt, &byDefault},
                            {true, std::nan(""), nullptr},
                            {false, std::nan(""), &plain}};
    for (const State& state : states) {
        clear();
        if (state.use)
            defaults.setBool(*state.use, kUseRegularizationDuringDeconvolutionKey);
        if (state.lambda)
            defaults.setDouble(*state.lambda, kRegularizationDuringDeconvolutionLambdaKey);
        const VELTRealVector result = realVectorByDeconvolvingResponse(response, stimulus, nullptr);
        if (state.expected)
            EXPECT_EQ(result, *state.expected) << &state - states;
        else
            EXPECT_TRUE(hasNaN(result)) << &state - states;
    }
}

// Deconvolvers sharing one quotient give the bits of one that forms its own, and a new reference
// prepared for one of them leaves the other's quotient alone; in place, too.
TEST(SweptSineDeconvolution, DeconvolversSharingAQuotientGiveTheBitsOfOneOnItsOwn) {
    std::mt19937 random(7);
    std::normal_distribution<float> noise;
    auto signal = [&](std::size_t length) {
        VELTRealVector made(length);
        std::ranges::generate(made.mutableSpan(), [&] { return noise(random); });
        return made;
    };
    const VELTRealVector stimulus = signal(300), reference = signal(300), response = signal(400);
    const std::size_t length = deconvolutionTransformLength(400, 300);
    SweptSineDeconvolver first(stimulus.span());
    first.prepare(length, nullptr, 1e-3);
    VELTRealVector output(length);
    SweptSineDeconvolver second = first.sharingQuotient(output.mutableSpan());
    second.prepare(length, &reference, 1e-3);
    for (const VELTRealVector* correction : {&reference, static_cast<const VELTRealVector*>(nullptr)}) {
        (correction ? second : first).deconvolve(response.span(), output.mutableSpan());
        EXPECT_EQ(output,
                  realVectorByDeconvolvingResponseWithRegularization(response, stimulus, correction, 1e-3));
    }
    // In place, once the quotient is formed: the response as the first samples of the output.
    VELTRealVector inPlace = response;
    inPlace.setLength(length);
    first.deconvolve(inPlace.span().first(400), inPlace.mutableSpan(), true);
    EXPECT_EQ(inPlace, output);
}

} // namespace
} // namespace tavolar
