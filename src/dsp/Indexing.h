#pragma once
// Positional access to index sets.

#include "dsp/Search.h"
#include "platform/KeyedArchiver.h"

#include <cstdint>

namespace tavolar {

// The position-th smallest member of the set (position 0 is the first), or kNotFound past the last.
std::uint64_t indexAtIndex(const IndexSet& set, std::uint64_t position) noexcept;

} // namespace tavolar
