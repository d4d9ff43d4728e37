#pragma once
// Prepared FFT plans for one power-of-two length, over FFTW.
//
// Scaling: forward transforms are unscaled; inverse transforms are scaled by 1/N, so every
// forward/inverse pair is an exact inverse. Layout: a real transform of N samples gives bins
// 0 .. N/2 (N/2 + 1 split-complex values); bins 0 and N/2 have zero imaginary parts.
// Aliasing: input and output never alias; inputs are not modified.
// Threads: a setup is immutable once made and may be used from any number of threads at once.
// Plans are made once per length and kind under one process-wide mutex and cached for the life
// of the process; executing never locks or allocates, given buffers of the vector types
// (64-byte aligned). Unaligned buffers are accepted and are executed through an unaligned plan.

#include <cstddef>
#include <memory>

namespace tavolar {

class VELTFFTSetup {
public:
    // A plan for transforms of length (a power of two of at least 1; parameter assertion otherwise).
    static VELTFFTSetup FFTSetupWithLength(std::size_t length);
    std::size_t length() const noexcept;

    // Real forward: in[length] -> real[length/2+1], imag[length/2+1].
    void forwardReal(const float* in, float* real, float* imag) const noexcept;
    // Real inverse, scaled by 1/length: real/imag[length/2+1] -> out[length]. Inputs are preserved.
    void inverseReal(const float* real, const float* imag, float* out) const noexcept;
    // Complex forward and inverse (scaled by 1/length) of length values, split storage.
    void forwardComplex(const float* inReal, const float* inImag, float* outReal, float* outImag) const noexcept;
    void inverseComplex(const float* inReal, const float* inImag, float* outReal, float* outImag) const noexcept;

    struct Plans;

private:
    explicit VELTFFTSetup(std::shared_ptr<const Plans> plans) : plans_(std::move(plans)) {}
    std::shared_ptr<const Plans> plans_;
};

class VELTFFTDoubleSetup {
public:
    static VELTFFTDoubleSetup FFTSetupWithLength(std::size_t length);
    std::size_t length() const noexcept;

    void forwardReal(const double* in, double* real, double* imag) const noexcept;
    void inverseReal(const double* real, const double* imag, double* out) const noexcept;
    void forwardComplex(const double* inReal, const double* inImag, double* outReal,
                        double* outImag) const noexcept;
    void inverseComplex(const double* inReal, const double* inImag, double* outReal,
                        double* outImag) const noexcept;

    struct Plans;

private:
    explicit VELTFFTDoubleSetup(std::shared_ptr<const Plans> plans) : plans_(std::move(plans)) {}
    std::shared_ptr<const Plans> plans_;
};

} // namespace tavolar
