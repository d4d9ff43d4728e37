#pragma once
// A swept-sine measurement worked out in the test, independently of the library's analysis: devices
// under test made of bilinear-transform biquads (whose exact response is evaluated on the unit
// circle) and memoryless polynomials, driven by the stimulus the engine plays and deconvolved as the
// engine does.

#include "engine/SweptSineDeconvolution.h"
#include "engine/VELTLogSweepSettings.h"
#include "math/VELTFFTSetup.h"
#include "math/VELTRealVector.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <cstdint>
#include <functional>
#include <numbers>
#include <vector>

namespace tavolar::simulation {

inline constexpr std::int64_t kSampleRate = 48000;
inline constexpr double kPi = std::numbers::pi;

// A normalised biquad, b0 + b1 z^-1 + b2 z^-2 over 1 + a1 z^-1 + a2 z^-2, run in double precision.
struct Biquad {
    double b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0;

    // The exact response at a frequency: the transfer function on the unit circle.
    std::complex<double> response(double frequency, double sampleRate) const {
        std::complex<double> z1 = std::polar(1.0, -2.0 * kPi * frequency / sampleRate);
        std::complex<double> z2 = z1 * z1;
        return (b0 + b1 * z1 + b2 * z2) / (1.0 + a1 * z1 + a2 * z2);
    }

    std::vector<double> filter(const std::vector<double>& x) const {
        std::vector<double> y(x.size());
        double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
        for (std::size_t n = 0; n < x.size(); ++n) {
            double out = b0 * x[n] + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2;
            x2 = x1;
            x1 = x[n];
            y2 = y1;
            y1 = out;
            y[n] = out;
        }
        return y;
    }
};

// The analogue prototypes mapped by the bilinear transform with the centre frequency prewarped.
inline Biquad normalised(double b0, double b1, double b2, double a0, double a1, double a2) {
    return Biquad{b0 / a0, b1 / a0, b2 / a0, a1 / a0, a2 / a0};
}

inline Biquad lowPass(double frequency, double q, double sampleRate) {
    double w = 2.0 * kPi * frequency / sampleRate, alpha = std::sin(w) / (2.0 * q), c = std::cos(w);
    return normalised((1 - c) / 2, 1 - c, (1 - c) / 2, 1 + alpha, -2 * c, 1 - alpha);
}

inline Biquad highPass(double frequency, double q, double sampleRate) {
    double w = 2.0 * kPi * frequency / sampleRate, alpha = std::sin(w) / (2.0 * q), c = std::cos(w);
    return normalised((1 + c) / 2, -(1 + c), (1 + c) / 2, 1 + alpha, -2 * c, 1 - alpha);
}

inline Biquad peaking(double frequency, double gainDecibels, double q, double sampleRate) {
    double w = 2.0 * kPi * frequency / sampleRate, alpha = std::sin(w) / (2.0 * q), c = std::cos(w);
    double a = std::pow(10.0, gainDecibels / 40.0);
    return normalised(1 + alpha * a, -2 * c, 1 - alpha * a, 1 + alpha / a, -2 * c, 1 - alpha / a);
}

// A chain of biquads.
struct FilterChain {
    std::vector<Biquad> stages;

    std::complex<double> response(double frequency, double sampleRate) const {
        std::complex<double> product = 1.0;
        for (const Biquad& stage : stages)
            product *= stage.response(frequency, sampleRate);
        return product;
    }
    std::vector<double> filter(std::vector<double> x) const {
        for (const Biquad& stage : stages)
            x = stage.filter(x);
        return x;
    }
};

inline std::vector<double> toDouble(const VELTRealVector& vector) {
    return std::vector<double>(vector.components(), vector.components() + vector.length());
}

inline VELTRealVector toFloat(const std::vector<double>& values) {
    VELTRealVector vector(values.size());
    for (std::size_t i = 0; i < values.size(); ++i)
        vector[i] = static_cast<float>(values[i]);
    return vector;
}

// The engine's deconvolution by plain spectral division, as a measurement without loop-back uses it.
inline VELTRealVector deconvolved(const std::vector<double>& response, const VELTRealVector& stimulus) {
    return realVectorByDeconvolvingResponseWithoutRegularization(toFloat(response), stimulus, nullptr);
}

// Applies a memoryless nonlinearity as an analogue device recorded through an ideal converter would:
// evaluated at four times the rate (exact for polynomials up to the third power), so that harmonics
// above half the sample rate are removed instead of folding back into the band.
inline std::vector<double> shapedWithoutAliasing(const std::vector<double>& x,
                                                 const std::function<double(double)>& curve) {
    constexpr std::size_t factor = 4;
    std::size_t length = std::bit_ceil(x.size()), upLength = length * factor;
    VELTFFTDoubleSetup setup = VELTFFTDoubleSetup::FFTSetupWithLength(length);
    VELTFFTDoubleSetup upSetup = VELTFFTDoubleSetup::FFTSetupWithLength(upLength);
    std::vector<double> padded(length, 0.0), real(upLength / 2 + 1, 0.0), imag(upLength / 2 + 1, 0.0);
    std::copy(x.begin(), x.end(), padded.begin());
    setup.forwardReal(padded.data(), real.data(), imag.data());
    real[length / 2] /= 2.0; // the Nyquist bin is shared by the positive and negative halves
    imag[length / 2] = 0.0;
    std::vector<double> up(upLength);
    upSetup.inverseReal(real.data(), imag.data(), up.data());
    for (double& sample : up)
        sample = curve(sample * factor);
    upSetup.forwardReal(up.data(), real.data(), imag.data());
    std::fill(real.begin() + std::ptrdiff_t(length / 2), real.end(), 0.0);
    std::fill(imag.begin() + std::ptrdiff_t(length / 2), imag.end(), 0.0);
    setup.inverseReal(real.data(), imag.data(), padded.data());
    for (double& sample : padded)
        sample /= factor;
    padded.resize(x.size());
    return padded;
}

// An angle in degrees brought into -180 .. 180.
inline double wrappedDegrees(double degrees) {
    return std::remainder(degrees, 360.0);
}

inline double decibels(double linear) {
    return 20.0 * std::log10(linear);
}

} // namespace tavolar::simulation
