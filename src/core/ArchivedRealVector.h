#pragma once
// The archivable form of a float vector kept inside another archived object (a record's impulse
// response): an object of class "VELTRealVector" whose samples are one float vector.

#include "math/VELTRealVector.h"
#include "platform/KeyedArchiver.h"

#include <string_view>

namespace tavolar {

class ArchivedRealVector {
public:
    static constexpr std::string_view className = "VELTRealVector";

    ArchivedRealVector() = default;
    explicit ArchivedRealVector(VELTRealVector vector) : vector_(std::move(vector)) {}

    const VELTRealVector& vector() const noexcept { return vector_; }
    VELTRealVector takeVector() noexcept { return std::move(vector_); }

    // The samples as little-endian floats under "Components".
    void encodeWithCoder(KeyedArchiver& coder) const;
    // A missing "Components" gives an empty vector.
    static ArchivedRealVector initWithCoder(KeyedUnarchiver& coder);

private:
    VELTRealVector vector_;
};

} // namespace tavolar
