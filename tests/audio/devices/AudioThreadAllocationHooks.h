#pragma once
// Counts heap allocations and mutex locks made on audio threads (inside a RealTimeCallbackScope) by
// replacing malloc and its relatives and pthread_mutex_lock for the whole test program. Unavailable
// under AddressSanitizer and ThreadSanitizer, which own the allocator themselves.

#include <cstdint>

namespace tavolar::testing {

// False when the hooks are not compiled in (sanitizer builds).
bool audioThreadHooksInstalled() noexcept;
std::uint64_t audioThreadAllocations() noexcept;
std::uint64_t audioThreadLocks() noexcept;

} // namespace tavolar::testing
