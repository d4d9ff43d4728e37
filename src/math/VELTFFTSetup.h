#pragma once
// Prepared FFT plans for one power-of-two length, over FFTW.
//
// Scaling: forward transforms are unscaled; inverse transforms are scaled by 1/N, so every
// forward/inverse pair is an exact inverse. Layout: a real transform of N samples gives bins
// 0 .. N/2 (N/2 + 1 split-complex values); bins 0 and N/2 have zero imaginary parts.
// The real and imaginary arrays may lie anywhere (no fixed distance between them is assumed).
// Aliasing: outputs must not overlap inputs or each other; inputs are never modified.
// Threads: a setup is immutable once made and may be used from any number of threads at once.
// Plans are made once per length and precision under one process-wide mutex and cached for the
// life of the process. Executing never locks and needs no scratch memory; nothing is allocated for
// lengths up to 2^19, and from 2^20 on FFTW itself takes one small temporary buffer (66 KB at 2^23)
// per transform. Buffers of the vector types (64-byte aligned) run the aligned SIMD plans; any
// other alignment is accepted and runs through an unaligned plan.
// Planning effort: see VELTFFTPlanning; the effort changes the speed of a plan, never its result
// beyond rounding.

#include <complex>
#include <cstddef>
#include <memory>
#include <string>

namespace tavolar {

// How hard the planner works for plans made from now on. Measuring times candidate algorithms
// on the machine (seconds for lengths of 2^16 and more) and gives plans up to twice as fast;
// estimating is instant. Automatic measures lengths up to 256 and estimates longer ones, except
// that any length whose measured plan is already known from imported wisdom is measured.
enum class VELTFFTPlanning { automatic, estimate, measure };

// A shared, immutable handle on the cached single-precision plans of one length.
class VELTFFTSetup {
public:
    // A plan for transforms of length (a power of two of at least 1; parameter assertion otherwise).
    // The first request for a length plans it (under the process-wide planner lock); later ones
    // share the cached plan.
    static VELTFFTSetup FFTSetupWithLength(std::size_t length);
    std::size_t length() const noexcept;

    // Planning effort for setups of both precisions made afterwards; a length already planned
    // with less effort is planned again when next requested.
    static void setPlanning(VELTFFTPlanning planning);
    static VELTFFTPlanning planning();
    // Measured plans of single precision as text, so that a host can keep them between runs;
    // importing returns false for text that is not such wisdom.
    static std::string exportWisdom();
    static bool importWisdom(const std::string& wisdom);

    // Real forward: in[length] -> real[length/2+1], imag[length/2+1].
    void forwardReal(const float* in, float* real, float* imag) const noexcept;
    // Real inverse, scaled by 1/length: real/imag[length/2+1] -> out[length]. Inputs are preserved;
    // the imaginary parts of bins 0 and length/2 are not read.
    void inverseReal(const float* real, const float* imag, float* out) const noexcept;
    // Complex forward and inverse (scaled by 1/length) of length values, split storage.
    void forwardComplex(const float* inReal, const float* inImag, float* outReal,
                        float* outImag) const noexcept;
    void inverseComplex(const float* inReal, const float* inImag, float* outReal,
                        float* outImag) const noexcept;

    struct Plans;

private:
    explicit VELTFFTSetup(std::shared_ptr<const Plans> plans) : plans_(std::move(plans)) {}
    std::shared_ptr<const Plans> plans_;
};

// Single-precision real transforms with the spectrum interleaved (std::complex<float>, bins
// 0 .. N/2), FFTW's own fastest layout, for code that keeps spectra to itself (deconvolution).
// Scaling: forward unscaled, inverse unscaled too (forward then inverse multiplies by N), so that a
// caller who scales its spectrum anyway folds 1/N into that pass. Aliasing: out-of-place only; the
// forward transform preserves its input, the inverse overwrites its input spectrum. Threads, plan
// cache and planning effort as for VELTFFTSetup (these plans are cached apart from it). Buffers
// aligned like the vector types run the aligned SIMD plans, anything else an unaligned plan, which
// is made (under the planner lock, allocating) the first time a length meets such a buffer. With
// aligned buffers, executing never locks and allocates nothing up to 2^19 points.
class VELTFFTInterleavedSetup {
public:
    static VELTFFTInterleavedSetup FFTSetupWithLength(std::size_t length);
    std::size_t length() const noexcept;

    // in[length] -> out[length/2+1].
    void forwardReal(const float* in, std::complex<float>* out) const noexcept;
    // in[length/2+1] -> out[length], unscaled; in is overwritten. The imaginary parts of bins 0 and
    // length/2 are ignored.
    void inverseRealUnscaled(std::complex<float>* in, float* out) const noexcept;

    struct Plans;

private:
    explicit VELTFFTInterleavedSetup(std::shared_ptr<const Plans> plans) : plans_(std::move(plans)) {}
    std::shared_ptr<const Plans> plans_;
};

// The same plans in double precision, with the same layout, scaling and threading contract.
class VELTFFTDoubleSetup {
public:
    // Plans are made with the effort set by VELTFFTSetup::setPlanning.
    static VELTFFTDoubleSetup FFTSetupWithLength(std::size_t length);
    std::size_t length() const noexcept;

    // Measured plans of double precision as text (see VELTFFTSetup::exportWisdom).
    static std::string exportWisdom();
    static bool importWisdom(const std::string& wisdom);

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
