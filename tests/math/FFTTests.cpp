// The FFT plans and the vector transforms against direct DFTs in double precision, round trips,
// unaligned buffers and many threads sharing one setup.

#include "math/AlignedBuffer.h"
#include "math/ReferenceTransforms.h"
#include "math/VELTComplexVector.h"
#include "math/VELTFFTSetup.h"
#include "math/VELTRealVector.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <thread>

namespace tavolar {
namespace {

using reference::Complex;

// Float transforms round each of log2 N stages: -120 dB of the signal's level leaves a wide margin
// over the -135 dB they reach, and fails for any wrong twiddle, bin or scale.
constexpr double kFloatErrorLimitDecibels = -120;
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

// Split parts as complex values; without imaginary parts, a real signal.
template <typename T> std::vector<Complex> asComplex(const T* real, const T* imag, std::size_t n) {
    std::vector<Complex> result(n);
    for (std::size_t i = 0; i < n; ++i)
        result[i] = {real[i], imag ? imag[i] : T(0)};
    return result;
}

template <typename Vector> std::vector<Complex> asComplex(const Vector& v) {
    return asComplex(v.realComponents(), v.imaginaryComponents(), v.length());
}

template <typename T> std::vector<Complex> asComplex(std::span<const T> real) {
    return asComplex(real.data(), static_cast<const T*>(nullptr), real.size());
}

std::vector<Complex> asComplex(const std::vector<float>& real) {
    return asComplex(std::span<const float>(real));
}

void expectClose(std::span<const Complex> computed, std::span<const Complex> expected,
                 double limit = kFloatErrorLimitDecibels) {
    EXPECT_LT(reference::relativeErrorDecibels(computed, expected), limit);
}

// The full spectrum of a real signal from its bins 0 .. N/2, by Hermitian symmetry.
std::vector<Complex> hermitianExtension(std::span<const Complex> bins, std::size_t n) {
    std::vector<Complex> full(n);
    for (std::size_t k = 0; k < n; ++k)
        full[k] = k <= n / 2 ? bins[k] : std::conj(bins[n - k]);
    return full;
}

// The four transforms of a setup through buffers 0 to 3 floats off the plans' alignment (the real
// parts, the signals and the transformed signals; the imaginary parts one float further), which
// must run the unaligned plans, and the vectors' transforms on aligned buffers.
TEST(FFT, SinglePrecisionTransformsMatchDirectDftsAtEveryLengthAndAlignment) {
    for (std::size_t n : kLengths) {
        SCOPED_TRACE(n);
        const auto setup = VELTFFTSetup::FFTSetupWithLength(n);
        ASSERT_EQ(setup.length(), n);
        const std::size_t bins = n / 2 + 1;
        const auto re = reference::randomFloats(n, 10 + n), im = reference::randomFloats(n, 20 + n);
        const auto binsRe = reference::randomFloats(bins, 30 + n),
                   binsIm = reference::randomFloats(bins, 40 + n);
        const auto forward = reference::dft(asComplex(re.data(), im.data(), n));
        const auto inverse = reference::inverseDft(asComplex(re.data(), im.data(), n));
        const auto realForward = reference::dft(asComplex(re));
        const std::span<const Complex> expectedBins(realForward.data(), bins);
        // What a real signal's spectrum holds at DC and Nyquist; the inverse must not read them.
        auto spectrum = asComplex(binsRe.data(), binsIm.data(), bins);
        spectrum.front().imag(0);
        spectrum.back().imag(0);
        const auto expectedSignal = reference::inverseDft(hermitianExtension(spectrum, n));

        for (std::size_t offset : {0, 1, 2, 3}) {
            SCOPED_TRACE(offset);
            const std::size_t other = (offset + 1) % 4;
            AlignedBuffer<float> inRe(n + 4), inIm(n + 4), outRe(n + 4), outIm(n + 4);
            std::ranges::copy(re, inRe.begin() + static_cast<std::ptrdiff_t>(offset));
            std::ranges::copy(im, inIm.begin() + static_cast<std::ptrdiff_t>(other));
            setup.forwardReal(inRe.data() + offset, outRe.data() + offset, outIm.data() + other);
            expectClose(asComplex(outRe.data() + offset, outIm.data() + other, bins), expectedBins);
            // Bins 0 and N/2 of a real signal are real, exactly.
            EXPECT_EQ(outIm[other], 0.0f);
            EXPECT_EQ(outIm[other + n / 2], 0.0f);
            setup.forwardComplex(inRe.data() + offset, inIm.data() + other, outRe.data() + offset,
                                 outIm.data() + other);
            expectClose(asComplex(outRe.data() + offset, outIm.data() + other, n), forward);
            setup.inverseComplex(inRe.data() + offset, inIm.data() + other, outRe.data() + offset,
                                 outIm.data() + other);
            expectClose(asComplex(outRe.data() + offset, outIm.data() + other, n), inverse);
            EXPECT_TRUE(std::ranges::equal(re, std::span(inRe).subspan(offset, n)));
            EXPECT_TRUE(std::ranges::equal(im, std::span(inIm).subspan(other, n)));

            std::ranges::copy(binsRe, inRe.begin() + static_cast<std::ptrdiff_t>(offset));
            std::ranges::copy(binsIm, inIm.begin() + static_cast<std::ptrdiff_t>(other));
            setup.inverseReal(inRe.data() + offset, inIm.data() + other, outRe.data() + offset);
            expectClose(asComplex(outRe.data() + offset, static_cast<const float*>(nullptr), n),
                        expectedSignal);
            EXPECT_TRUE(std::ranges::equal(binsRe, std::span(inRe).subspan(offset, bins)));
        }

        const VELTComplexVector realSpectrum = VELTRealVector(re).fft();
        ASSERT_EQ(realSpectrum.length(), bins);
        expectClose(asComplex(realSpectrum), expectedBins);
        VELTComplexVector given(bins), z(n);
        std::ranges::copy(binsRe, given.mutableRealComponents());
        std::ranges::copy(binsIm, given.mutableImaginaryComponents());
        const VELTRealVector signal = given.ifft();
        ASSERT_EQ(signal.length(), n);
        expectClose(asComplex(signal.span()), expectedSignal);
        std::ranges::copy(re, z.mutableRealComponents());
        std::ranges::copy(im, z.mutableImaginaryComponents());
        expectClose(asComplex(z.complexFFT()), forward);
        expectClose(asComplex(z.complexIFFT()), inverse);
    }
}

// The double plans share the float plans' code; their vectors' transforms have their own.
TEST(FFT, DoublePrecisionVectorsMatchDirectDftsAtEveryLength) {
    for (std::size_t n : kLengths) {
        SCOPED_TRACE(n);
        const auto re = reference::randomValues(n, 80 + n);
        const auto signal = asComplex(std::span<const double>(re));
        const auto expected = reference::dft(signal);
        const VELTRealDoubleVector x(re);
        const VELTMutableComplexDoubleVector spectrum = x.fft();
        ASSERT_EQ(spectrum.length(), n / 2 + 1);
        expectClose(asComplex(spectrum), {expected.data(), n / 2 + 1}, kDoubleErrorLimitDecibels);
        const VELTRealDoubleVector back = spectrum.ifft();
        ASSERT_EQ(back.length(), n);
        expectClose(asComplex(back.span()), signal, kDoubleErrorLimitDecibels);
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
        auto scaledValues = asComplex(values);
        for (Complex& value : scaledValues)
            value *= static_cast<double>(n);
        for (std::size_t offset : {0, 1, 2, 3}) {
            SCOPED_TRACE(offset);
            AlignedBuffer<float> input(n + offset), output(n + offset), spectrumFloats(2 * bins + 4);
            std::ranges::copy(values, input.begin() + static_cast<std::ptrdiff_t>(offset));
            // An offset of 2 floats is one whole complex value: a spectrum off the plans' alignment.
            auto* spectrum = reinterpret_cast<std::complex<float>*>(spectrumFloats.data() + 2 * (offset % 2));
            setup.forwardReal(input.data() + offset, spectrum);
            EXPECT_TRUE(std::ranges::equal(values, std::span(input).subspan(offset)))
                << "the forward transform must leave its input alone";
            expectClose(std::vector<Complex>(spectrum, spectrum + bins), {expected.data(), bins});

            // The inverse is unscaled and must not read the imaginary parts of DC and Nyquist.
            spectrum[0].imag(77.0f);
            spectrum[n / 2].imag(n == 1 ? 77.0f : -5.0f);
            setup.inverseRealUnscaled(spectrum, output.data() + offset);
            expectClose(asComplex(output.data() + offset, static_cast<const float*>(nullptr), n),
                        scaledValues);
        }
    }
}

// Threads share one setup, plan lengths nobody has planned yet while others execute, and make the
// unaligned interleaved plans (made on first need) all at once.
TEST(FFT, ManyThreadsShareOneSetupAndPlanTogether) {
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
    const std::size_t m = 512; // planned by no other test
    const auto interleaved = VELTFFTInterleavedSetup::FFTSetupWithLength(m);
    const auto values = reference::randomFloats(m, 77);
    const auto interleavedExpected = reference::dft(asComplex(values));

    std::atomic<int> mismatches{0};
    runTogether(kThreads, [&](int t) {
        const std::size_t ownLength = std::size_t{1} << (5 + t % 4);
        const VELTRealVector own(reference::randomFloats(ownLength, 130 + t));
        VELTComplexVector spectrum(n / 2 + 1);
        for (int round = 0; round < kRounds; ++round) {
            const int s = (t + round) % kSignals;
            signals[s].fftIntoComplexVector(spectrum, setup);
            if (spectrum != expected[s])
                ++mismatches;
            if (round == 0) {
                const auto roundTrip = own.fft().ifft();
                if (reference::relativeErrorDecibels(asComplex(roundTrip.span()), asComplex(own.span())) >
                    kFloatErrorLimitDecibels)
                    ++mismatches;
                AlignedBuffer<float> input(m + 1);
                std::ranges::copy(values, input.begin() + 1);
                AlignedBuffer<std::complex<float>> bins(m / 2 + 1);
                interleaved.forwardReal(input.data() + 1, bins.data());
                expectClose(std::vector<Complex>(bins.begin(), bins.end()),
                            {interleavedExpected.data(), m / 2 + 1});
            }
        }
    });
    EXPECT_EQ(mismatches.load(), 0);
}

} // namespace
} // namespace tavolar
