#pragma once
// Rows by columns of floats over one real vector, row by row.

#include "math/VELTRealVector.h"

#include <cstddef>

namespace tavolar {

class VELTRealMatrix {
public:
    VELTRealMatrix() = default;
    VELTRealMatrix(std::size_t rows, std::size_t columns); // zero-filled
    // Views the vector row by row; its length must be rows * columns (parameter assertion).
    VELTRealMatrix(VELTRealVector vector, std::size_t rows, std::size_t columns);

    std::size_t rows() const noexcept { return rows_; }
    std::size_t columns() const noexcept { return columns_; }
    const VELTRealVector& vector() const noexcept { return vector_; }
    // The underlying vector, for operations on all values at once (its length must not change).
    VELTRealVector& mutableVector() noexcept { return vector_; }
    std::span<const float> rowAtIndex(std::size_t row) const;
    std::span<float> mutableRowAtIndex(std::size_t row);
    float valueAt(std::size_t row, std::size_t column) const { return vector_[row * columns_ + column]; }
    void setValue(float value, std::size_t row, std::size_t column) {
        vector_[row * columns_ + column] = value;
    }

private:
    VELTRealVector vector_;
    std::size_t rows_ = 0;
    std::size_t columns_ = 0;
};

using VELTMutableRealMatrix = VELTRealMatrix;

} // namespace tavolar
