#pragma once
// A wake-up signal from a real-time thread to a worker: release never blocks, allocates or takes a
// lock (a POSIX semaphore post), so an audio callback may call it; the worker waits with a timeout.

#include <cerrno>
#include <ctime>
#include <semaphore.h>

namespace tavolar {

class BinarySemaphore {
public:
    BinarySemaphore() { sem_init(&semaphore_, 0, 0); }
    ~BinarySemaphore() { sem_destroy(&semaphore_); }
    BinarySemaphore(const BinarySemaphore&) = delete;
    BinarySemaphore& operator=(const BinarySemaphore&) = delete;

    // Runs on the audio thread as well as elsewhere.
    void release() noexcept {
        int value = 0;
        if (sem_getvalue(&semaphore_, &value) == 0 && value > 0)
            return;
        sem_post(&semaphore_);
    }
    // Waits until released or until milliseconds have passed.
    void waitFor(long milliseconds) noexcept {
        timespec deadline{};
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_nsec += milliseconds % 1000 * 1'000'000L;
        deadline.tv_sec += milliseconds / 1000 + deadline.tv_nsec / 1'000'000'000L;
        deadline.tv_nsec %= 1'000'000'000L;
        while (sem_timedwait(&semaphore_, &deadline) != 0 && errno == EINTR) {
        }
    }

private:
    sem_t semaphore_;
};

} // namespace tavolar
