#include "dsp/Indexing.h"

namespace tavolar {

std::uint64_t indexAtIndex(const IndexSet& set, std::uint64_t position) noexcept {
    if (position >= set.size())
        return kNotFound;
    auto member = set.begin();
    for (std::uint64_t i = 0; i < position; ++i)
        ++member;
    return *member;
}

} // namespace tavolar
