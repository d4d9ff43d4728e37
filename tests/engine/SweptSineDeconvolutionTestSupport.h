#pragma once
// Signals for the deconvolution tests, worked out independently in double precision: peaking
// biquads from their analytic design formula, filtering and delay, and the frequency response of an
// impulse response by direct summation of its discrete-time Fourier transform.

#include "engine/IsolatedUserDefaults.h"
#include "math/VELTRealVector.h"

#include <cmath>
#include <complex>
#include <cstddef>
#include <numbers>
#include <span>
#include <vector>

namespace tavolar::testing {

// A second-order section with a0 normalised to 1.
struct Biquad {
    double b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0;

    // Peaking equaliser: gainDecibels at centreFrequency, bandwidth set by q.
    static Biquad peaking(double sampleRate, double centreFrequency, double gainDecibels, double q) {
        const double amplitude = std::pow(10.0, gainDecibels / 40.0);
        const double omega = 2.0 * std::numbers::pi * centreFrequency / sampleRate;
        const double alpha = std::sin(omega) / (2.0 * q);
        const double a0 = 1.0 + alpha / amplitude;
        return {(1.0 + alpha * amplitude) / a0, -2.0 * std::cos(omega) / a0, (1.0 - alpha * amplitude) / a0,
                -2.0 * std::cos(omega) / a0, (1.0 - alpha / amplitude) / a0};
    }

    // H(e^{j omega}) at frequency (Hz).
    std::complex<double> response(double frequency, double sampleRate) const {
        const std::complex<double> z1 = std::polar(1.0, -2.0 * std::numbers::pi * frequency / sampleRate);
        return (b0 + z1 * (b1 + z1 * b2)) / (1.0 + z1 * (a1 + z1 * a2));
    }

    std::vector<double> filter(std::span<const double> x) const {
        std::vector<double> y(x.size());
        double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
        for (std::size_t n = 0; n < x.size(); ++n) {
            y[n] = b0 * x[n] + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2;
            x2 = x1;
            x1 = x[n];
            y2 = y1;
            y1 = y[n];
        }
        return y;
    }
};

inline std::vector<double> toDouble(const VELTRealVector& vector) {
    return std::vector<double>(vector.components(), vector.components() + vector.length());
}

inline VELTRealVector toFloat(std::span<const double> samples) {
    VELTRealVector vector(samples.size());
    for (std::size_t i = 0; i < samples.size(); ++i)
        vector[i] = static_cast<float>(samples[i]);
    return vector;
}

// x delayed by delay samples and cut (or zero-extended) to length.
inline std::vector<double> delayed(std::span<const double> x, std::size_t delay, std::size_t length) {
    std::vector<double> y(length, 0.0);
    for (std::size_t n = delay; n < length && n - delay < x.size(); ++n)
        y[n] = x[n - delay];
    return y;
}

// The discrete-time Fourier transform of a circular impulse response at frequency (Hz), taken about
// sample `origin`: samples from L/2 on stand for negative times.
inline std::complex<double> frequencyResponse(std::span<const float> impulse, double frequency,
                                              double sampleRate, double origin = 0.0) {
    const double omega = 2.0 * std::numbers::pi * frequency / sampleRate;
    const auto length = static_cast<std::ptrdiff_t>(impulse.size());
    const std::complex<double> step = std::polar(1.0, -omega);
    std::complex<double> sum = 0.0;
    std::complex<double> phasor;
    for (std::ptrdiff_t n = 0; n < length; ++n) {
        // The phasor is advanced by multiplication and recomputed exactly every 512 samples and
        // where time jumps from positive to negative.
        if (n % 512 == 0 || n == length / 2) {
            const std::ptrdiff_t time = n < length / 2 ? n : n - length;
            phasor = std::polar(1.0, -omega * (static_cast<double>(time) - origin));
        }
        sum += static_cast<double>(impulse[static_cast<std::size_t>(n)]) * phasor;
        phasor *= step;
    }
    return sum;
}

// The DFT of samples zero-padded to length, bin k, in double precision by direct summation.
inline std::complex<double> dftBin(std::span<const double> samples, std::size_t length, std::size_t k) {
    std::complex<double> sum = 0.0;
    for (std::size_t n = 0; n < samples.size() && n < length; ++n)
        sum += samples[n] * std::polar(1.0, -2.0 * std::numbers::pi * static_cast<double>((k * n) % length) /
                                                static_cast<double>(length));
    return sum;
}

// Frequencies from 20 Hz to 20 kHz in third-octave steps.
inline std::vector<double> audioBandFrequencies() {
    std::vector<double> frequencies;
    for (double f = 20.0; f <= 20000.0 * 1.001; f *= std::pow(2.0, 1.0 / 3.0))
        frequencies.push_back(f);
    return frequencies;
}

// The index of the first sample of largest magnitude.
inline std::size_t peakIndex(const VELTRealVector& vector) {
    std::size_t index = 0;
    for (std::size_t i = 1; i < vector.length(); ++i)
        if (std::fabs(vector[i]) > std::fabs(vector[index]))
            index = i;
    return index;
}

inline double decibels(double magnitude) {
    return 20.0 * std::log10(magnitude);
}

// The phase difference a - b in degrees, wrapped to -180 .. 180.
inline double phaseDifferenceDegrees(std::complex<double> a, std::complex<double> b) {
    return std::arg(a / b) * 180.0 / std::numbers::pi;
}

} // namespace tavolar::testing
