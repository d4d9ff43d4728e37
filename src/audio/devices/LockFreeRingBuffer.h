#pragma once
// A single-producer single-consumer ring buffer of trivially copyable elements for talking to and
// from an audio thread. The capacity is a power of two fixed at construction; reading and writing
// never allocate, lock or block. Each side sees the free or filled region as at most two spans (before
// and after the wrap), so a callback copies with at most two copies.
//
// Ordering: the producer publishes its writes with a release store of the write index and reads the
// read index with acquire; the consumer does the mirror image. The indices count elements without
// wrapping (64-bit), so full and empty are told apart without a spare slot.

#include "platform/Assertions.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <type_traits>

namespace tavolar {

template <typename T> class LockFreeRingBuffer {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    // Two spans that together hold the elements of one region in order.
    struct Regions {
        std::span<T> first;
        std::span<T> second;
        std::size_t size() const noexcept { return first.size() + second.size(); }
    };

    // capacity is rounded up to a power of two (at least 1).
    explicit LockFreeRingBuffer(std::size_t capacity)
        : capacity_(std::bit_ceil(std::max<std::size_t>(capacity, 1))), mask_(capacity_ - 1),
          storage_(std::make_unique<T[]>(capacity_)) {}

    LockFreeRingBuffer(const LockFreeRingBuffer&) = delete;
    LockFreeRingBuffer& operator=(const LockFreeRingBuffer&) = delete;

    std::size_t capacity() const noexcept { return capacity_; }

    // Consumer side: elements ready to read.
    std::size_t readAvailable() const noexcept {
        return static_cast<std::size_t>(writeIndex_.load(std::memory_order_acquire) -
                                        readIndex_.load(std::memory_order_relaxed));
    }
    // Producer side: room to write.
    std::size_t writeAvailable() const noexcept {
        return capacity_ - static_cast<std::size_t>(writeIndex_.load(std::memory_order_relaxed) -
                                                    readIndex_.load(std::memory_order_acquire));
    }

    // Producer: the free region, up to maximum elements; fill it, then commitWrite.
    Regions writeRegions(std::size_t maximum) noexcept {
        std::size_t count = std::min(maximum, writeAvailable());
        return regionsAt(writeIndex_.load(std::memory_order_relaxed), count);
    }
    void commitWrite(std::size_t count) noexcept {
        writeIndex_.store(writeIndex_.load(std::memory_order_relaxed) + count, std::memory_order_release);
    }

    // Consumer: the filled region, up to maximum elements; read it, then commitRead.
    Regions readRegions(std::size_t maximum) noexcept {
        std::size_t count = std::min(maximum, readAvailable());
        return regionsAt(readIndex_.load(std::memory_order_relaxed), count);
    }
    void commitRead(std::size_t count) noexcept {
        readIndex_.store(readIndex_.load(std::memory_order_relaxed) + count, std::memory_order_release);
    }

    // Copies as many elements as fit; answers how many were written.
    std::size_t write(std::span<const T> elements) noexcept {
        Regions regions = writeRegions(elements.size());
        std::copy_n(elements.data(), regions.first.size(), regions.first.data());
        std::copy_n(elements.data() + regions.first.size(), regions.second.size(), regions.second.data());
        commitWrite(regions.size());
        return regions.size();
    }
    // Copies as many elements as are ready; answers how many were read.
    std::size_t read(std::span<T> elements) noexcept {
        Regions regions = readRegions(elements.size());
        std::copy_n(regions.first.data(), regions.first.size(), elements.data());
        std::copy_n(regions.second.data(), regions.second.size(), elements.data() + regions.first.size());
        commitRead(regions.size());
        return regions.size();
    }

    // Empties the buffer. Only while neither side is running.
    void reset() noexcept {
        readIndex_.store(0, std::memory_order_relaxed);
        writeIndex_.store(0, std::memory_order_release);
    }

private:
    Regions regionsAt(std::uint64_t index, std::size_t count) noexcept {
        std::size_t start = static_cast<std::size_t>(index) & mask_;
        std::size_t firstCount = std::min(count, capacity_ - start);
        return Regions{std::span<T>(storage_.get() + start, firstCount),
                       std::span<T>(storage_.get(), count - firstCount)};
    }

    const std::size_t capacity_;
    const std::size_t mask_;
    std::unique_ptr<T[]> storage_;
    alignas(64) std::atomic<std::uint64_t> writeIndex_{0};
    alignas(64) std::atomic<std::uint64_t> readIndex_{0};
};

} // namespace tavolar
