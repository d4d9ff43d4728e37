#include "AudioThreadAllocationHooks.h"

#include "audio/devices/RealTimeContext.h"

#include <atomic>
#include <cstddef>
#include <dlfcn.h>
#include <pthread.h>

namespace {

std::atomic<std::uint64_t> allocations{0};
std::atomic<std::uint64_t> locks{0};

inline void countAllocation() noexcept {
    if (tavolar::isInsideAudioCallback())
        allocations.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

namespace tavolar::testing {
std::uint64_t audioThreadAllocations() noexcept {
    return allocations.load();
}
std::uint64_t audioThreadLocks() noexcept {
    return locks.load();
}
} // namespace tavolar::testing

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* pointer, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* pointer);

void* malloc(std::size_t size) {
    countAllocation();
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    countAllocation();
    return __libc_calloc(count, size);
}
void* realloc(void* pointer, std::size_t size) {
    countAllocation();
    return __libc_realloc(pointer, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    countAllocation();
    return __libc_memalign(alignment, size);
}
void* memalign(std::size_t alignment, std::size_t size) {
    countAllocation();
    return __libc_memalign(alignment, size);
}
int posix_memalign(void** result, std::size_t alignment, std::size_t size) {
    countAllocation();
    *result = __libc_memalign(alignment, size);
    return *result ? 0 : 12; // ENOMEM
}
void free(void* pointer) {
    // Freeing on the audio thread is as forbidden as allocating: it may take the allocator's locks.
    if (pointer)
        countAllocation();
    __libc_free(pointer);
}

using MutexLock = int (*)(pthread_mutex_t*);
// Resolved before main, while no audio thread runs.
static MutexLock realMutexLock = reinterpret_cast<MutexLock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));

int pthread_mutex_lock(pthread_mutex_t* mutex) {
    if (tavolar::isInsideAudioCallback())
        locks.fetch_add(1, std::memory_order_relaxed);
    if (!realMutexLock)
        realMutexLock = reinterpret_cast<MutexLock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    return realMutexLock(mutex);
}
}

#endif
