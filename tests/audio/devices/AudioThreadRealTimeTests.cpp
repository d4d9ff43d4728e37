// Proves the real-time rules: during a whole measurement on a simulated device the audio thread
// neither allocates, frees, nor locks a mutex. The hooks are checked to see such calls first.

#include "AudioThreadAllocationHooks.h"
#include "SimulatedMeasurement.h"
#include "audio/devices/RealTimeContext.h"

#include <cmath>
#include <cstdlib>
#include <gtest/gtest.h>
#include <mutex>

namespace tavolar {
namespace {

TEST(AudioThread, NeitherAllocatesNorLocksDuringAMeasurement) {
    if (!testing::audioThreadHooksInstalled())
        GTEST_SKIP() << "the allocator belongs to the sanitizer in this build";

    // The hooks see what they must: an allocation, a free and a lock inside a callback scope.
    const std::uint64_t allocationsBefore = testing::audioThreadAllocations();
    const std::uint64_t locksBefore = testing::audioThreadLocks();
    {
        RealTimeCallbackScope scope;
        void* volatile memory = std::malloc(64);
        std::free(memory);
        std::mutex mutex;
        mutex.lock();
        mutex.unlock();
    }
    EXPECT_EQ(testing::audioThreadAllocations() - allocationsBefore, 2u);
    EXPECT_EQ(testing::audioThreadLocks() - locksBefore, 1u);
    void* volatile outside = std::malloc(64);
    std::free(outside);
    EXPECT_EQ(testing::audioThreadAllocations() - allocationsBefore, 2u) << "only audio threads are counted";

    // Two sweeps' worth of playback and recording of four channels, in fast mode.
    auto settings = testing::captureSettings("sim:realtime?pace=fast&inputs=4&outputs=2&buffer=64", {0},
                                             {0, 2, 3}, testing::CorrectionChannels{1, 1});
    VELTAudioOutputController output(settings);
    VELTAudioInputController input(settings);
    VELTRealVector stimulus(96000);
    for (std::size_t n = 0; n < stimulus.length(); ++n)
        stimulus[n] = 0.5f * float(std::sin(0.01 * double(n) * double(n) / 96000.0));
    output.setPlaybackVector(stimulus);

    const std::uint64_t allocationsAtStart = testing::audioThreadAllocations();
    const std::uint64_t locksAtStart = testing::audioThreadLocks();
    for (int sweep = 0; sweep < 2; ++sweep) {
        ASSERT_GT(testing::playAndRecord(output, input).notifications, 0);
        auto vectors = input.recordChannelVectors();
        ASSERT_EQ(vectors.size(), 3u);
        ASSERT_TRUE(vectors[0]);
        EXPECT_GE(vectors[0]->length(), stimulus.length());
        input.clearRecording();
    }
    EXPECT_EQ(testing::audioThreadAllocations() - allocationsAtStart, 0u);
    EXPECT_EQ(testing::audioThreadLocks() - locksAtStart, 0u);
    output.teardownWorkerThread();
}

} // namespace
} // namespace tavolar
