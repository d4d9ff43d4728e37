#pragma once
// Plain double-precision references for the maths tests: direct DFTs written from the definition,
// error measures in decibels, and reproducible random data.

#include <cmath>
#include <complex>
#include <cstddef>
#include <numbers>
#include <random>
#include <span>
#include <vector>

namespace tavolar::reference {

using Complex = std::complex<double>;

// exp(sign 2 pi i m / n) for m = 0 .. n-1, so that the DFT's exponents are looked up exactly mod n.
inline std::vector<Complex> unitRoots(std::size_t n, double sign) {
    std::vector<Complex> roots(n);
    for (std::size_t m = 0; m < n; ++m) {
        const double angle = sign * 2.0 * std::numbers::pi * static_cast<double>(m) / static_cast<double>(n);
        roots[m] = {std::cos(angle), std::sin(angle)};
    }
    return roots;
}

// X[k] = sum x[n] exp(-2 pi i k n / N), unscaled.
inline std::vector<Complex> dft(std::span<const Complex> x) {
    const std::size_t n = x.size();
    const auto roots = unitRoots(n, -1.0);
    std::vector<Complex> result(n);
    for (std::size_t k = 0; k < n; ++k) {
        Complex sum = 0;
        for (std::size_t t = 0; t < n; ++t)
            sum += x[t] * roots[(k * t) % n];
        result[k] = sum;
    }
    return result;
}

// x[n] = (1/N) sum X[k] exp(+2 pi i k n / N).
inline std::vector<Complex> inverseDft(std::span<const Complex> spectrum) {
    const std::size_t n = spectrum.size();
    const auto roots = unitRoots(n, 1.0);
    std::vector<Complex> result(n);
    for (std::size_t t = 0; t < n; ++t) {
        Complex sum = 0;
        for (std::size_t k = 0; k < n; ++k)
            sum += spectrum[k] * roots[(k * t) % n];
        result[t] = sum / static_cast<double>(n);
    }
    return result;
}

// Error of a computed sequence against a reference as a level in dB relative to the reference:
// 20 log10 (rms(error) / rms(reference)). -140 dB is float rounding; -300 dB double rounding.
inline double relativeErrorDecibels(std::span<const Complex> computed, std::span<const Complex> expected) {
    double errorEnergy = 0, referenceEnergy = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        errorEnergy += std::norm(computed[i] - expected[i]);
        referenceEnergy += std::norm(expected[i]);
    }
    if (errorEnergy == 0)
        return -1000;
    return 10.0 * std::log10(errorEnergy / referenceEnergy);
}

inline std::vector<double> randomValues(std::size_t n, unsigned seed, double low = -1.0, double high = 1.0) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<double> distribution(low, high);
    std::vector<double> values(n);
    for (double& value : values)
        value = distribution(generator);
    return values;
}

inline std::vector<float> randomFloats(std::size_t n, unsigned seed, double low = -1.0, double high = 1.0) {
    const auto values = randomValues(n, seed, low, high);
    return {values.begin(), values.end()};
}

} // namespace tavolar::reference
