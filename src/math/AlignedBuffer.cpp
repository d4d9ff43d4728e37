#include "math/AlignedBuffer.h"

#include <array>
#include <mutex>

namespace tavolar::aligned_buffer_detail {

namespace {

// Room for the vectors and spectra of a few deconvolutions or analyses of long recordings; a block
// larger than a share of it is never kept, so that one huge vector cannot push out the rest.
constexpr std::size_t kKeptBytesLimit = std::size_t{48} << 20;
constexpr std::size_t kKeptBlockLimit = std::size_t{16} << 20;
constexpr std::size_t kKeptBlockCount = 8;

// Under AddressSanitizer a freed block must stay poisoned so that a use after free is caught.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kKeeping = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kKeeping = false;
#else
constexpr bool kKeeping = true;
#endif
#else
constexpr bool kKeeping = true;
#endif

struct KeptBlock {
    void* block = nullptr;
    std::size_t bytes = 0;
};

// Newest last; the oldest is given up first when room is needed.
struct Cache {
    std::mutex mutex;
    std::array<KeptBlock, kKeptBlockCount> blocks{};
    std::size_t count = 0;
    std::size_t bytes = 0;

    void removeAt(std::size_t index) noexcept {
        bytes -= blocks[index].bytes;
        for (std::size_t i = index; i + 1 < count; ++i)
            blocks[i] = blocks[i + 1];
        blocks[--count] = {};
    }
};

Cache& cache() noexcept {
    // Never destroyed: vectors with static storage may be freed after it would be.
    static Cache* const instance = new Cache;
    return *instance;
}

} // namespace

void* takeKeptBlock(std::size_t bytes) noexcept {
    if (!kKeeping || bytes > kKeptBlockLimit)
        return nullptr;
    Cache& kept = cache();
    std::lock_guard lock(kept.mutex);
    for (std::size_t index = kept.count; index-- > 0;)
        if (kept.blocks[index].bytes == bytes) {
            void* block = kept.blocks[index].block;
            kept.removeAt(index);
            return block;
        }
    return nullptr;
}

void keepOrFree(void* block, std::size_t bytes) noexcept {
    if (!kKeeping || bytes > kKeptBlockLimit) {
        std::free(block);
        return;
    }
    Cache& kept = cache();
    std::array<void*, kKeptBlockCount> released{};
    std::size_t releasedCount = 0;
    {
        std::lock_guard lock(kept.mutex);
        while (kept.count != 0 && (kept.count == kKeptBlockCount || kept.bytes + bytes > kKeptBytesLimit)) {
            released[releasedCount++] = kept.blocks[0].block;
            kept.removeAt(0);
        }
        kept.blocks[kept.count++] = {block, bytes};
        kept.bytes += bytes;
    }
    // Returning memory to the system can take a while; not under the lock.
    for (std::size_t index = 0; index < releasedCount; ++index)
        std::free(released[index]);
}

void releaseKeptBlocks() noexcept {
    Cache& kept = cache();
    std::array<void*, kKeptBlockCount> released{};
    std::size_t releasedCount = 0;
    {
        std::lock_guard lock(kept.mutex);
        while (kept.count != 0) {
            released[releasedCount++] = kept.blocks[0].block;
            kept.removeAt(0);
        }
    }
    for (std::size_t index = 0; index < releasedCount; ++index)
        std::free(released[index]);
}

std::size_t keptBytes() noexcept {
    Cache& kept = cache();
    std::lock_guard lock(kept.mutex);
    return kept.bytes;
}

bool keepsBlocks() noexcept {
    return kKeeping;
}

} // namespace tavolar::aligned_buffer_detail
