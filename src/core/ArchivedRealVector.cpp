#include "core/ArchivedRealVector.h"

#include <span>

namespace tavolar {

namespace {
constexpr std::string_view kComponentsKey = "Components";
}

void ArchivedRealVector::encodeWithCoder(KeyedArchiver& coder) const {
    coder.encodeFloatVector(vector_.span(), kComponentsKey);
}

ArchivedRealVector ArchivedRealVector::initWithCoder(KeyedUnarchiver& coder) {
    auto components = coder.decodeFloatVector(kComponentsKey);
    if (!components)
        return ArchivedRealVector();
    return ArchivedRealVector(VELTRealVector(std::span<const float>(*components)));
}

} // namespace tavolar
