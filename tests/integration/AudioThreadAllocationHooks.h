#pragma once
// Counts heap allocations and mutex locks made on audio threads (inside a RealTimeCallbackScope) by
// replacing malloc and its relatives and pthread_mutex_lock for the whole test program. Under
// AddressSanitizer and ThreadSanitizer, which own the allocator themselves, nothing is replaced and
// the counts stay 0.

#include <cstdint>

namespace tavolar::testing {

std::uint64_t audioThreadAllocations() noexcept;
std::uint64_t audioThreadLocks() noexcept;

} // namespace tavolar::testing
