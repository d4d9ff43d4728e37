// The FFT plans and the vector transforms against direct DFTs in double precision, round trips,
// unaligned buffers and many threads sharing one setup.

#include "math/AlignedBuffer.h"
#include "math/ReferenceTransforms.h"
#include "math/VELTComplexVector.h"
#include "math/VELTFFTSetup.h"
#include "math/VELTRealVector.h"
#include "platform/Assertions.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <thread>

namespace tavolar {
namespace {

using reference::Complex;

// Float transforms round each of log2 N stages: -120 dB of the signal's level leaves a wide margin
// over the -135 dB they reach, and fails for any wrong twiddle, bin or scale.
constexpr double kFloatErrorLimitDecibels = -120;
constexpr double kFloatPeakErrorLimitDecibels = -110;
constexpr double kDoubleErrorLimitDecibels = -280;

const std::size_t kLengths[] = {1, 2, 4, 8, 16, 64, 1024, 4096};

// Runs body(index) on that many threads, released together so that they overlap.
template <typename Body> void runTogether(int count, Body body) {
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int index = 0; index < count; ++index)
        threads.emplace_back([&, index] {
            while (!go.load())
                std::this_thread::yield();
            body(index);
        });
    go = true;
    for (auto& thread : threads)
        thread.join();
}

std::vector<Complex> asComplex(std::span<const float> real, std::span<const float> imag = {}) {
    std::vector<Complex> result(real.size());
    for (std::size_t i = 0; i < real.size(); ++i)
        result[i] = {real[i], imag.empty() ? 0.0 : imag[i]};
    return result;
}

std::vector<Complex> asComplex(const VELTComplexVector& v) {
    return asComplex({v.realComponents(), v.length()}, {v.imaginaryComponents(), v.length()});
}

std::vector<Complex> asComplex(const VELTMutableComplexDoubleVector& v) {
    std::vector<Complex> result(v.length());
    for (std::size_t i = 0; i < v.length(); ++i)
        result[i] = {v.realComponents()[i], v.imaginaryComponents()[i]};
    return result;
}

// The full spectrum of a real signal from its bins 0 .. N/2, by Hermitian symmetry.
std::vector<Complex> hermitianExtension(std::span<const Complex> bins, std::size_t n) {
    std::vector<Complex> full(n);
    for (std::size_t k = 0; k < n; ++k)
        full[k] = k <= n / 2 ? bins[k] : std::conj(bins[n - k]);
    return full;
}

TEST(FFT, RealForwardMatchesDirectDftAtEveryLength) {
    for (std::size_t n : kLengths) {
        SCOPED_TRACE(n);
        const VELTRealVector x(reference::randomFloats(n, 10 + n));
        const VELTComplexVector spectrum = x.fft();
        ASSERT_EQ(spectrum.length(), n / 2 + 1);

        const auto expected = reference::dft(asComplex(x.span()));
        const std::vector<Complex> expectedBins(expected.begin(), expected.begin() + n / 2 + 1);
        const auto computed = asComplex(spectrum);
        EXPECT_LT(reference::relativeErrorDecibels(computed, expectedBins), kFloatErrorLimitDecibels);
        EXPECT_LT(reference::peakErrorDecibels(computed, expectedBins), kFloatPeakErrorLimitDecibels);
        // Bins 0 and N/2 of a real signal are real, exactly.
        EXPECT_EQ(spectrum.imaginaryComponents()[0], 0.0f);
        EXPECT_EQ(spectrum.imaginaryComponents()[n / 2], 0.0f);
    }
}

TEST(FFT, RealInverseMatchesDirectInverseDftAndIgnoresImaginaryDcAndNyquist) {
    for (std::size_t n : kLengths) {
        SCOPED_TRACE(n);
        const std::size_t bins = n / 2 + 1;
        VELTComplexVector spectrum(bins);
        const auto re = reference::randomFloats(bins, 20 + n), im = reference::randomFloats(bins, 30 + n);
        std::copy(re.begin(), re.end(), spectrum.mutableRealComponents());
        std::copy(im.begin(), im.end(), spectrum.mutableImaginaryComponents());
        // What a real signal's spectrum holds there; the inverse must not read it.
        spectrum.mutableImaginaryComponents()[0] = 0;
        spectrum.mutableImaginaryComponents()[n / 2] = 0;
        const auto expected = reference::inverseDft(hermitianExtension(asComplex(spectrum), n));

        const VELTComplexVector unchanged = spectrum;
        const VELTRealVector signal = spectrum.ifft();
        ASSERT_EQ(signal.length(), n);
        EXPECT_EQ(spectrum, unchanged) << "the inverse must leave its input alone";
        EXPECT_LT(reference::relativeErrorDecibels(asComplex(signal.span()), expected),
                  kFloatErrorLimitDecibels);

        spectrum.mutableImaginaryComponents()[0] = 123.0f;
        spectrum.mutableImaginaryComponents()[n / 2] = -45.0f;
        EXPECT_EQ(spectrum.ifft(), signal);
    }
}

TEST(FFT, ComplexTransformsMatchDirectDft) {
    for (std::size_t n : kLengths) {
        SCOPED_TRACE(n);
        const auto re = reference::randomFloats(n, 40 + n), im = reference::randomFloats(n, 50 + n);
        VELTComplexVector z(n);
        std::copy(re.begin(), re.end(), z.mutableRealComponents());
        std::copy(im.begin(), im.end(), z.mutableImaginaryComponents());
        const VELTComplexVector unchanged = z;

        const VELTComplexVector forward = z.complexFFT();
        EXPECT_LT(reference::relativeErrorDecibels(asComplex(forward), reference::dft(asComplex(z))),
                  kFloatErrorLimitDecibels);
        const VELTComplexVector inverse = z.complexIFFT();
        EXPECT_LT(reference::relativeErrorDecibels(asComplex(inverse), reference::inverseDft(asComplex(z))),
                  kFloatErrorLimitDecibels);
        EXPECT_EQ(z, unchanged);
    }
}

TEST(FFT, ForwardAndInverseAreExactInverses) {
    // A unit impulse has a flat unit spectrum and comes back as exactly 1.0 at time zero: the
    // scaling is all on the inverse.
    VELTRealVector impulse(1024);
    impulse[0] = 1.0f;
    const VELTComplexVector flat = impulse.fft();
    for (std::size_t k = 0; k < flat.length(); ++k) {
        ASSERT_EQ(flat.realComponents()[k], 1.0f);
        ASSERT_EQ(flat.imaginaryComponents()[k], 0.0f);
    }
    EXPECT_EQ(flat.ifft(), impulse);

    for (std::size_t n :
         {std::size_t{1}, std::size_t{2}, std::size_t{8}, std::size_t{4096}, std::size_t{65536}}) {
        SCOPED_TRACE(n);
        const VELTRealVector x(reference::randomFloats(n, 60 + n));
        const auto back = x.fft().ifft();
        EXPECT_LT(reference::relativeErrorDecibels(asComplex(back.span()), asComplex(x.span())),
                  kFloatErrorLimitDecibels);

        VELTComplexVector z = VELTComplexVector::complexVectorWithRealVector(x);
        std::ranges::copy(reference::randomFloats(n, 70 + n), z.mutableImaginaryComponents());
        EXPECT_LT(reference::relativeErrorDecibels(asComplex(z.complexFFT().complexIFFT()), asComplex(z)),
                  kFloatErrorLimitDecibels);
    }
}

TEST(FFT, DoublePrecisionMatchesDirectDftAndRoundTrips) {
    for (std::size_t n : kLengths) {
        SCOPED_TRACE(n);
        const auto values = reference::randomValues(n, 80 + n);
        const VELTRealDoubleVector x(values);
        const VELTMutableComplexDoubleVector spectrum = x.fft();
        ASSERT_EQ(spectrum.length(), n / 2 + 1);

        std::vector<Complex> input(values.begin(), values.end());
        const auto expected = reference::dft(input);
        EXPECT_LT(reference::relativeErrorDecibels(asComplex(spectrum), {expected.data(), n / 2 + 1}),
                  kDoubleErrorLimitDecibels);

        const VELTRealDoubleVector back = spectrum.ifft();
        ASSERT_EQ(back.length(), n);
        std::vector<Complex> output(back.span().begin(), back.span().end());
        EXPECT_LT(reference::relativeErrorDecibels(output, input), kDoubleErrorLimitDecibels);

        // The same through a prepared plan into caller's vectors.
        const auto setup = VELTFFTDoubleSetup::FFTSetupWithLength(n);
        VELTMutableComplexDoubleVector bins =
            VELTMutableComplexDoubleVector::complexDoubleVectorWithLength(n / 2 + 1);
        x.fftIntoComplexDoubleVector(bins, setup);
        EXPECT_EQ(bins, spectrum);
        VELTRealDoubleVector signal(n);
        bins.ifftIntoRealDoubleVector(signal, setup);
        EXPECT_EQ(signal, back);

        // Full complex transform in double precision.
        std::vector<double> re = reference::randomValues(n, 90 + n), im = reference::randomValues(n, 95 + n);
        std::vector<double> outRe(n), outIm(n), backRe(n), backIm(n);
        setup.forwardComplex(re.data(), im.data(), outRe.data(), outIm.data());
        std::vector<Complex> z(n), computed(n), returned(n);
        for (std::size_t i = 0; i < n; ++i)
            z[i] = {re[i], im[i]};
        for (std::size_t i = 0; i < n; ++i)
            computed[i] = {outRe[i], outIm[i]};
        EXPECT_LT(reference::relativeErrorDecibels(computed, reference::dft(z)), kDoubleErrorLimitDecibels);
        setup.inverseComplex(outRe.data(), outIm.data(), backRe.data(), backIm.data());
        for (std::size_t i = 0; i < n; ++i)
            returned[i] = {backRe[i], backIm[i]};
        EXPECT_LT(reference::relativeErrorDecibels(returned, z), kDoubleErrorLimitDecibels);
    }
}

TEST(FFT, PreparedPlansWriteIntoCallersVectorsAndCheckTheirSizes) {
    const std::size_t n = 256;
    const VELTRealVector x(reference::randomFloats(n, 100));
    const auto setup = VELTFFTSetup::FFTSetupWithLength(n);
    EXPECT_EQ(setup.length(), n);

    // A longer spectrum keeps what lies beyond bin N/2.
    VELTComplexVector spectrum(n / 2 + 3);
    spectrum.mutableRealComponents()[n / 2 + 2] = 7.0f;
    x.fftIntoComplexVector(spectrum, setup);
    EXPECT_EQ(spectrum.realComponents()[n / 2 + 2], 7.0f);
    const VELTComplexVector convenient = x.fft();
    for (std::size_t k = 0; k <= n / 2; ++k)
        ASSERT_EQ(spectrum.realComponents()[k], convenient.realComponents()[k]);

    VELTRealVector signal(n);
    convenient.ifftIntoRealVector(signal, setup);
    EXPECT_EQ(signal, convenient.ifft());

    VELTComplexVector tooShort(n / 2);
    EXPECT_THROW(x.fftIntoComplexVector(tooShort, setup), ParameterAssertion);
    VELTRealVector otherLength(n / 2);
    EXPECT_THROW(otherLength.fftIntoComplexVector(spectrum, setup), ParameterAssertion);
    VELTRealVector shortSignal(n - 1);
    EXPECT_THROW(convenient.ifftIntoRealVector(shortSignal, setup), ParameterAssertion);
    EXPECT_THROW(VELTRealVector(1000).fft(), ParameterAssertion);
    EXPECT_THROW(VELTRealVector().fft(), ParameterAssertion);
    EXPECT_THROW(VELTComplexVector(4).ifft(), ParameterAssertion); // 6 samples: not a power of two
    EXPECT_THROW(VELTComplexVector(3).complexFFT(), ParameterAssertion);
    EXPECT_THROW(VELTFFTSetup::FFTSetupWithLength(0), ParameterAssertion);
    EXPECT_THROW(VELTFFTDoubleSetup::FFTSetupWithLength(48), ParameterAssertion);
}

TEST(FFT, UnalignedBuffersGiveTheSameTransforms) {
    // Spans into vectors at odd offsets: the plans' aligned SIMD paths must not be used for them.
    for (std::size_t n : {std::size_t{2}, std::size_t{16}, std::size_t{1024}}) {
        SCOPED_TRACE(n);
        const auto setup = VELTFFTSetup::FFTSetupWithLength(n);
        const auto values = reference::randomFloats(n, 110 + n);
        const std::size_t bins = n / 2 + 1;
        for (std::size_t offset : {1, 2, 3}) {
            SCOPED_TRACE(offset);
            VELTRealVector input(n + offset), output(n + offset);
            std::ranges::copy(values, input.mutableComponents() + offset);
            VELTRealVector real(bins + offset), imag(bins + 1);
            setup.forwardReal(input.components() + offset, real.mutableComponents() + offset,
                              imag.mutableComponents() + 1);
            const auto expected = reference::dft(asComplex(values));
            const std::vector<Complex> expectedBins(expected.begin(), expected.begin() + bins);
            EXPECT_LT(reference::relativeErrorDecibels(
                          asComplex({real.components() + offset, bins}, {imag.components() + 1, bins}),
                          expectedBins),
                      kFloatErrorLimitDecibels);

            setup.inverseReal(real.components() + offset, imag.components() + 1,
                              output.mutableComponents() + offset);
            EXPECT_LT(reference::relativeErrorDecibels(asComplex({output.components() + offset, n}),
                                                       asComplex(values)),
                      kFloatErrorLimitDecibels);

            VELTRealVector outReal(n + offset), outImag(n + 1);
            setup.forwardComplex(input.components() + offset, input.components() + offset,
                                 outReal.mutableComponents() + offset, outImag.mutableComponents() + 1);
            std::vector<Complex> z(n);
            for (std::size_t i = 0; i < n; ++i)
                z[i] = {values[i], values[i]};
            EXPECT_LT(reference::relativeErrorDecibels(
                          asComplex({outReal.components() + offset, n}, {outImag.components() + 1, n}),
                          reference::dft(z)),
                      kFloatErrorLimitDecibels);
        }
    }
}

TEST(FFT, InterleavedRealTransformsMatchDirectDftAlignedOrNot) {
    // Offsets 0 (the plans' own alignment) and 1 to 3 floats (the unaligned plans).
    for (std::size_t n : kLengths) {
        SCOPED_TRACE(n);
        const auto setup = VELTFFTInterleavedSetup::FFTSetupWithLength(n);
        ASSERT_EQ(setup.length(), n);
        const auto values = reference::randomFloats(n, 140 + n);
        const std::size_t bins = n / 2 + 1;
        const auto expected = reference::dft(asComplex(values));
        const std::vector<Complex> expectedBins(expected.begin(), expected.begin() + bins);
        for (std::size_t offset : {0, 1, 2, 3}) {
            SCOPED_TRACE(offset);
            AlignedBuffer<float> input(n + offset), output(n + offset), spectrumFloats(2 * bins + 4);
            std::ranges::copy(values, input.begin() + static_cast<std::ptrdiff_t>(offset));
            // An offset of 2 floats is one whole complex value: a spectrum off the plans' alignment.
            auto* spectrum = reinterpret_cast<std::complex<float>*>(spectrumFloats.data() + 2 * (offset % 2));
            setup.forwardReal(input.data() + offset, spectrum);
            EXPECT_TRUE(std::ranges::equal(values, std::span(input).subspan(offset)))
                << "the forward transform must leave its input alone";
            std::vector<Complex> computed(spectrum, spectrum + bins);
            EXPECT_LT(reference::relativeErrorDecibels(computed, expectedBins), kFloatErrorLimitDecibels);

            // The inverse is unscaled and must not read the imaginary parts of DC and Nyquist.
            spectrum[0].imag(77.0f);
            spectrum[n / 2].imag(n == 1 ? 77.0f : -5.0f);
            setup.inverseRealUnscaled(spectrum, output.data() + offset);
            std::vector<Complex> roundTrip(n), scaledValues(n);
            for (std::size_t i = 0; i < n; ++i) {
                roundTrip[i] = output[offset + i];
                scaledValues[i] = static_cast<double>(n) * values[i];
            }
            EXPECT_LT(reference::relativeErrorDecibels(roundTrip, scaledValues), kFloatErrorLimitDecibels);
        }
    }
}

TEST(FFT, ManyThreadsShareOneSetupAndPlanNewLengthsTogether) {
    const std::size_t n = 4096;
    const auto setup = VELTFFTSetup::FFTSetupWithLength(n);
    constexpr int kThreads = 8, kSignals = 4, kRounds = 25;
    std::vector<VELTRealVector> signals;
    std::vector<VELTComplexVector> expected;
    for (int s = 0; s < kSignals; ++s) {
        signals.emplace_back(reference::randomFloats(n, 120 + s));
        VELTComplexVector spectrum(n / 2 + 1);
        signals.back().fftIntoComplexVector(spectrum, setup);
        expected.push_back(spectrum);
    }

    std::atomic<int> mismatches{0};
    runTogether(kThreads, [&](int t) {
        // Each thread also asks for a length nobody has planned yet, so planning runs while
        // other threads execute.
        const std::size_t ownLength = std::size_t{1} << (5 + t % 4);
        const VELTRealVector own(reference::randomFloats(ownLength, 130 + t));
        VELTComplexVector spectrum(n / 2 + 1);
        VELTRealVector back(n);
        for (int round = 0; round < kRounds; ++round) {
            const int s = (t + round) % kSignals;
            signals[s].fftIntoComplexVector(spectrum, setup);
            if (spectrum != expected[s])
                ++mismatches;
            spectrum.ifftIntoRealVector(back, setup);
            const auto error =
                reference::relativeErrorDecibels(asComplex(back.span()), asComplex(signals[s].span()));
            if (error > kFloatErrorLimitDecibels)
                ++mismatches;
            if (round == kRounds / 2) {
                const auto roundTrip = own.fft().ifft();
                if (reference::relativeErrorDecibels(asComplex(roundTrip.span()), asComplex(own.span())) >
                    kFloatErrorLimitDecibels)
                    ++mismatches;
            }
        }
    });
    EXPECT_EQ(mismatches.load(), 0);
}

// The unaligned interleaved plans are made on first need; threads that all need them at once get
// one set and the same numbers as the aligned plans.
TEST(FFT, InterleavedUnalignedPlansAreMadeOnceUnderConcurrentFirstUse) {
    const std::size_t n = 512; // planned by no other test
    const auto setup = VELTFFTInterleavedSetup::FFTSetupWithLength(n);
    const auto values = reference::randomFloats(n, 77);
    const std::size_t bins = n / 2 + 1;
    AlignedBuffer<std::complex<float>> alignedSpectrum(bins);
    setup.forwardReal(values.data(), alignedSpectrum.data());
    const auto expected = reference::dft(asComplex(values));

    constexpr int kThreads = 6;
    std::atomic<int> mismatches{0};
    runTogether(kThreads, [&](int) {
        AlignedBuffer<float> input(n + 1);
        std::ranges::copy(values, input.begin() + 1);
        AlignedBuffer<std::complex<float>> spectrum(bins);
        setup.forwardReal(input.data() + 1, spectrum.data());
        const std::vector<Complex> computed(spectrum.begin(), spectrum.end());
        if (reference::relativeErrorDecibels(computed, {expected.begin(), expected.begin() + bins}) >
            kFloatErrorLimitDecibels)
            ++mismatches;
    });
    EXPECT_EQ(mismatches.load(), 0);
}

TEST(FFT, PlanningEffortAndWisdom) {
    const VELTFFTPlanning previous = VELTFFTSetup::planning();
    VELTFFTSetup::setPlanning(VELTFFTPlanning::measure);
    const std::size_t n = 2048; // longer than the automatic policy measures
    const VELTRealVector x(reference::randomFloats(n, 140));
    const auto measured = x.fft();
    VELTFFTSetup::setPlanning(previous);

    const auto expected = reference::dft(asComplex(x.span()));
    EXPECT_LT(reference::relativeErrorDecibels(asComplex(measured), {expected.data(), n / 2 + 1}),
              kFloatErrorLimitDecibels);

    const std::string wisdom = VELTFFTSetup::exportWisdom();
    EXPECT_FALSE(wisdom.empty());
    EXPECT_TRUE(VELTFFTSetup::importWisdom(wisdom));
    EXPECT_FALSE(VELTFFTSetup::importWisdom("not wisdom"));
    EXPECT_FALSE(VELTFFTDoubleSetup::importWisdom("(not wisdom either)"));
    EXPECT_TRUE(VELTFFTDoubleSetup::importWisdom(VELTFFTDoubleSetup::exportWisdom()));
}

} // namespace
} // namespace tavolar
