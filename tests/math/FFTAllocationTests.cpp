// Running a prepared transform takes no memory: the C allocation functions are replaced in this
// test program by counting ones that pass through to the C library. Left out of sanitizer builds,
// whose run-time libraries replace the same functions.

#include "math/VELTComplexVector.h"
#include "math/VELTFFTSetup.h"
#include "math/VELTRealVector.h"

#include <cstddef>
#include <gtest/gtest.h>

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
}

namespace {
thread_local bool counting = false;
thread_local int allocations = 0;

void note() noexcept {
    if (counting)
        ++allocations;
}
} // namespace

extern "C" {
void* malloc(std::size_t size) {
    note();
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    note();
    return __libc_calloc(count, size);
}
void* realloc(void* pointer, std::size_t size) {
    note();
    return __libc_realloc(pointer, size);
}
void* memalign(std::size_t alignment, std::size_t size) {
    note();
    return __libc_memalign(alignment, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    note();
    return __libc_memalign(alignment, size);
}
int posix_memalign(void** pointer, std::size_t alignment, std::size_t size) {
    note();
    *pointer = __libc_memalign(alignment, size);
    return *pointer ? 0 : 12; // ENOMEM
}
}

namespace tavolar {
namespace {

template <typename Work> int allocationsDuring(Work work) {
    allocations = 0;
    counting = true;
    work();
    counting = false;
    return allocations;
}

TEST(FFTAllocation, PreparedTransformsTakeNoMemory) {
    // Measured (8, 256) and estimated (65536) plans; beyond 2^19 points FFTW's own in-place
    // transposition may take a small buffer, which is documented.
    for (std::size_t n : {std::size_t{8}, std::size_t{256}, std::size_t{65536}}) {
        SCOPED_TRACE(n);
        const auto setup = VELTFFTSetup::FFTSetupWithLength(n);
        const auto doubleSetup = VELTFFTDoubleSetup::FFTSetupWithLength(n);
        const auto interleavedSetup = VELTFFTInterleavedSetup::FFTSetupWithLength(n);
        AlignedBuffer<std::complex<float>> interleavedSpectrum(n / 2 + 1);
        VELTRealVector signal = VELTRealVector::onesWithLength(n), back(n);
        VELTComplexVector spectrum(n / 2 + 1), z(n), transformed(n);
        VELTRealDoubleVector doubleSignal(n), doubleBack(n);
        VELTMutableComplexDoubleVector doubleSpectrum(n / 2 + 1);
        EXPECT_EQ(allocationsDuring([&] {
                      signal.fftIntoComplexVector(spectrum, setup);
                      spectrum.ifftIntoRealVector(back, setup);
                      setup.forwardComplex(z.realComponents(), z.imaginaryComponents(),
                                           transformed.mutableRealComponents(),
                                           transformed.mutableImaginaryComponents());
                      setup.inverseComplex(z.realComponents(), z.imaginaryComponents(),
                                           transformed.mutableRealComponents(),
                                           transformed.mutableImaginaryComponents());
                      doubleSignal.fftIntoComplexDoubleVector(doubleSpectrum, doubleSetup);
                      doubleSpectrum.ifftIntoRealDoubleVector(doubleBack, doubleSetup);
                      interleavedSetup.forwardReal(signal.components(), interleavedSpectrum.data());
                      interleavedSetup.inverseRealUnscaled(interleavedSpectrum.data(),
                                                           back.mutableComponents());
                  }),
                  0);
        EXPECT_FLOAT_EQ(back[n - 1], static_cast<float>(n)); // the unscaled round trip, last
        // The counter does see allocations.
        EXPECT_GT(allocationsDuring([&] { EXPECT_EQ(signal.fft().length(), n / 2 + 1); }), 0);
    }
}

} // namespace
} // namespace tavolar

#endif
