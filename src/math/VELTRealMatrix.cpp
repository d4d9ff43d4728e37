#include "math/VELTRealMatrix.h"

#include "platform/Assertions.h"

namespace tavolar {

VELTRealMatrix::VELTRealMatrix(std::size_t rows, std::size_t columns)
    : vector_(rows * columns), rows_(rows), columns_(columns) {}

VELTRealMatrix::VELTRealMatrix(VELTRealVector vector, std::size_t rows, std::size_t columns)
    : vector_(std::move(vector)), rows_(rows), columns_(columns) {
    TAVOLAR_PARAMETER_ASSERT(vector_.length() == rows * columns);
}

std::span<const float> VELTRealMatrix::rowAtIndex(std::size_t row) const {
    TAVOLAR_PARAMETER_ASSERT(row < rows_);
    return vector_.span().subspan(row * columns_, columns_);
}

std::span<float> VELTRealMatrix::mutableRowAtIndex(std::size_t row) {
    TAVOLAR_PARAMETER_ASSERT(row < rows_);
    return vector_.mutableSpan().subspan(row * columns_, columns_);
}

} // namespace tavolar
