#pragma once
// Contiguous, 64-byte aligned, zero-initialised storage for vector components.
//
// Blocks of 2 MiB and more (long impulse responses and their spectra) start on a 2 MiB boundary and
// are offered to the kernel for transparent huge pages: touching fresh memory a huge page at a
// time instead of 4 KiB at a time takes a large share off transforms that run once on new buffers.
// Where the kernel does not use huge pages, nothing changes.
//
// A few such blocks are kept when freed and handed out again for the same size: analyses and
// deconvolutions make and drop vectors of the same few lengths over and over, and memory already
// touched costs nothing to touch again, while a fresh block costs its page faults every time.

#include <cstddef>
#include <cstdlib>
#include <new>
#include <sys/mman.h>
#include <vector>

namespace tavolar {

inline constexpr std::size_t kVectorAlignment = 64;
inline constexpr std::size_t kHugePageBytes = std::size_t{1} << 21;

namespace aligned_buffer_detail {
// A kept block of exactly this many bytes, or null. Thread-safe; never called for small blocks.
void* takeKeptBlock(std::size_t bytes) noexcept;
// Keeps the block for reuse, or frees it when the cache has no room for it.
void keepOrFree(void* block, std::size_t bytes) noexcept;
// Frees every kept block (tests, and callers that want the memory back).
void releaseKeptBlocks() noexcept;
// Bytes held in kept blocks.
std::size_t keptBytes() noexcept;
// False where freed blocks are never kept (under AddressSanitizer, which must see them freed).
bool keepsBlocks() noexcept;
} // namespace aligned_buffer_detail

// The size in bytes of the block that holds count elements of elementSize bytes.
inline constexpr std::size_t alignedBlockBytes(std::size_t count, std::size_t elementSize) noexcept {
    return (count * elementSize + kVectorAlignment - 1) / kVectorAlignment * kVectorAlignment;
}

template <typename T> struct AlignedAllocator {
    using value_type = T;
    AlignedAllocator() noexcept = default;
    template <typename U> AlignedAllocator(const AlignedAllocator<U>&) noexcept {}
    T* allocate(std::size_t count) {
        if (count == 0)
            return nullptr;
        if (count > (std::size_t(-1) - kHugePageBytes) / sizeof(T))
            throw std::bad_alloc();
        const std::size_t bytes = alignedBlockBytes(count, sizeof(T));
        const bool huge = bytes >= kHugePageBytes;
        if (huge)
            if (void* kept = aligned_buffer_detail::takeKeptBlock(bytes))
                return static_cast<T*>(kept);
        // posix_memalign, unlike aligned_alloc, takes sizes that are no multiple of the alignment.
        void* memory = nullptr;
        if (posix_memalign(&memory, huge ? kHugePageBytes : kVectorAlignment, bytes) != 0)
            throw std::bad_alloc();
        if (huge) // advice only: its failure leaves ordinary pages
            madvise(memory, bytes / kHugePageBytes * kHugePageBytes, MADV_HUGEPAGE);
        return static_cast<T*>(memory);
    }
    void deallocate(T* pointer, std::size_t count) noexcept {
        if (!pointer)
            return;
        const std::size_t bytes = alignedBlockBytes(count, sizeof(T));
        if (bytes >= kHugePageBytes)
            aligned_buffer_detail::keepOrFree(pointer, bytes);
        else
            std::free(pointer);
    }
    template <typename U> bool operator==(const AlignedAllocator<U>&) const noexcept { return true; }
};

template <typename T> using AlignedBuffer = std::vector<T, AlignedAllocator<T>>;

} // namespace tavolar
