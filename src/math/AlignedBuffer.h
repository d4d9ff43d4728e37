#pragma once
// Contiguous, 64-byte aligned, zero-initialised storage for vector components.

#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

namespace tavolar {

inline constexpr std::size_t kVectorAlignment = 64;

template <typename T> struct AlignedAllocator {
    using value_type = T;
    AlignedAllocator() noexcept = default;
    template <typename U> AlignedAllocator(const AlignedAllocator<U>&) noexcept {}
    T* allocate(std::size_t count) {
        if (count == 0)
            return nullptr;
        std::size_t bytes = (count * sizeof(T) + kVectorAlignment - 1) / kVectorAlignment * kVectorAlignment;
        void* memory = std::aligned_alloc(kVectorAlignment, bytes);
        if (!memory)
            throw std::bad_alloc();
        return static_cast<T*>(memory);
    }
    void deallocate(T* pointer, std::size_t) noexcept { std::free(pointer); }
    template <typename U> bool operator==(const AlignedAllocator<U>&) const noexcept { return true; }
};

template <typename T> using AlignedBuffer = std::vector<T, AlignedAllocator<T>>;

} // namespace tavolar
