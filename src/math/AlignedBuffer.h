#pragma once
// Contiguous, 64-byte aligned, zero-initialised storage for vector components.
//
// Blocks of 2 MiB and more (long impulse responses and their spectra) start on a 2 MiB boundary and
// are offered to the kernel for transparent huge pages: touching fresh memory a huge page at a
// time instead of 4 KiB at a time takes a large share off transforms that run once on new buffers.
// Where the kernel does not use huge pages, nothing changes.

#include <cstddef>
#include <cstdlib>
#include <new>
#include <sys/mman.h>
#include <vector>

namespace tavolar {

inline constexpr std::size_t kVectorAlignment = 64;
inline constexpr std::size_t kHugePageBytes = std::size_t{1} << 21;

template <typename T> struct AlignedAllocator {
    using value_type = T;
    AlignedAllocator() noexcept = default;
    template <typename U> AlignedAllocator(const AlignedAllocator<U>&) noexcept {}
    T* allocate(std::size_t count) {
        if (count == 0)
            return nullptr;
        if (count > (std::size_t(-1) - kHugePageBytes) / sizeof(T))
            throw std::bad_alloc();
        std::size_t bytes = (count * sizeof(T) + kVectorAlignment - 1) / kVectorAlignment * kVectorAlignment;
        const bool huge = bytes >= kHugePageBytes;
        // posix_memalign, unlike aligned_alloc, takes sizes that are no multiple of the alignment.
        void* memory = nullptr;
        if (posix_memalign(&memory, huge ? kHugePageBytes : kVectorAlignment, bytes) != 0)
            throw std::bad_alloc();
        if (huge) // advice only: its failure leaves ordinary pages
            madvise(memory, bytes / kHugePageBytes * kHugePageBytes, MADV_HUGEPAGE);
        return static_cast<T*>(memory);
    }
    void deallocate(T* pointer, std::size_t) noexcept { std::free(pointer); }
    template <typename U> bool operator==(const AlignedAllocator<U>&) const noexcept { return true; }
};

template <typename T> using AlignedBuffer = std::vector<T, AlignedAllocator<T>>;

} // namespace tavolar
