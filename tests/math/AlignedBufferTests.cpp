#include "math/AlignedBuffer.h"

#include <atomic>
#include <cstdint>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace tavolar {
namespace {

using namespace aligned_buffer_detail;

constexpr std::size_t kMiB = std::size_t{1} << 20;

std::uintptr_t address(const void* pointer) {
    return reinterpret_cast<std::uintptr_t>(pointer);
}

TEST(AlignedBuffer, SmallAndLargeBlocksAreAlignedAndZeroed) {
    for (std::size_t count : {std::size_t{1}, std::size_t{1000}, kMiB / 2 + 3, 3 * kMiB}) {
        AlignedBuffer<float> buffer(count);
        EXPECT_EQ(address(buffer.data()) % kVectorAlignment, 0u) << count;
        if (count * sizeof(float) >= kHugePageBytes) {
            EXPECT_EQ(address(buffer.data()) % kHugePageBytes, 0u) << count;
        }
        for (float value : buffer)
            ASSERT_EQ(value, 0.0f) << count;
    }
}

// A vector of a length met before reuses the block of the last one freed, and still starts at
// zero; other lengths, small blocks and blocks beyond the cache's share get their own memory.
TEST(AlignedBuffer, FreedLargeBlocksAreReusedForTheSameSizeWithinBounds) {
    if (!keepsBlocks())
        GTEST_SKIP() << "freed blocks are not kept in this build";
    releaseKeptBlocks();
    const std::size_t count = kMiB; // 4 MiB of floats
    const float* first = nullptr;
    {
        AlignedBuffer<float> buffer(count);
        first = buffer.data();
        buffer.assign(count, 7.0f);
    }
    EXPECT_EQ(keptBytes(), alignedBlockBytes(count, sizeof(float)));
    {
        AlignedBuffer<float> other(count + 64); // another size: not that block
        EXPECT_NE(other.data(), first);
        AlignedBuffer<float> again(count);
        EXPECT_EQ(again.data(), first);
        EXPECT_EQ(again.front(), 0.0f);
        EXPECT_EQ(again.back(), 0.0f);
    }

    // Small blocks are never kept, nor is one that would take more than its share.
    releaseKeptBlocks();
    { AlignedBuffer<float> small(1000); }
    EXPECT_EQ(keptBytes(), 0u);
    { AlignedBuffer<float> huge(40 * kMiB / sizeof(float)); }
    EXPECT_EQ(keptBytes(), 0u);

    // Many frees keep a bounded number of bytes.
    std::vector<AlignedBuffer<float>> buffers;
    for (std::size_t megabytes = 8; megabytes <= 16; ++megabytes)
        buffers.emplace_back(megabytes * kMiB / sizeof(float));
    buffers.clear();
    EXPECT_LE(keptBytes(), 48 * kMiB);
    releaseKeptBlocks();
    EXPECT_EQ(keptBytes(), 0u);
}

// Threads that make and drop vectors of shared sizes never get the same block at once.
TEST(AlignedBuffer, ThreadsNeverShareAKeptBlock) {
    releaseKeptBlocks();
    std::vector<std::thread> threads;
    std::atomic<int> clashes{0};
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([&, thread] {
            for (int round = 0; round < 200; ++round) {
                AlignedBuffer<std::uint32_t> buffer(kMiB / 2 + static_cast<std::size_t>(round % 3) * 16);
                const auto mark = static_cast<std::uint32_t>(thread * 1000 + round);
                buffer.front() = mark;
                buffer.back() = mark;
                std::this_thread::yield();
                if (buffer.front() != mark || buffer.back() != mark)
                    ++clashes;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(clashes.load(), 0);
    releaseKeptBlocks();
}

} // namespace
} // namespace tavolar
