#pragma once
// Loops shared by the float and double vectors, written so that the compiler vectorises them:
// reductions keep eight independent lanes (a vector register's worth, which the compiler may not
// form by itself because it must not reorder floating-point sums), and nothing calls per component
// through a pointer. Internal to the maths library.

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace tavolar::kernels {

inline constexpr std::size_t kLanes = 8;

// Sum of map(p[i]) accumulated in double precision, so that long float vectors keep their digits.
template <typename T, typename Map> double sumOf(const T* p, std::size_t n, Map map) noexcept {
    double lanes[kLanes] = {};
    std::size_t i = 0;
    for (; i + kLanes <= n; i += kLanes)
        for (std::size_t j = 0; j < kLanes; ++j)
            lanes[j] += map(static_cast<double>(p[i + j]));
    double sum = 0;
    for (; i < n; ++i)
        sum += map(static_cast<double>(p[i]));
    for (double lane : lanes)
        sum += lane;
    return sum;
}

template <typename T> double dotProduct(const T* a, const T* b, std::size_t n) noexcept {
    double lanes[kLanes] = {};
    std::size_t i = 0;
    for (; i + kLanes <= n; i += kLanes)
        for (std::size_t j = 0; j < kLanes; ++j)
            lanes[j] += static_cast<double>(a[i + j]) * static_cast<double>(b[i + j]);
    double sum = 0;
    for (; i < n; ++i)
        sum += static_cast<double>(a[i]) * static_cast<double>(b[i]);
    for (double lane : lanes)
        sum += lane;
    return sum;
}

// Largest map(p[i]), NaN components skipped; NaN when there is no other component (or none).
template <typename T, typename Map> T largestOf(const T* p, std::size_t n, Map map) noexcept {
    constexpr T lowest = -std::numeric_limits<T>::infinity();
    T lanes[kLanes];
    for (T& lane : lanes)
        lane = lowest;
    std::size_t i = 0;
    for (; i + kLanes <= n; i += kLanes)
        for (std::size_t j = 0; j < kLanes; ++j) {
            const T value = map(p[i + j]);
            lanes[j] = value > lanes[j] ? value : lanes[j];
        }
    T largest = lowest;
    for (; i < n; ++i) {
        const T value = map(p[i]);
        largest = value > largest ? value : largest;
    }
    for (T lane : lanes)
        largest = lane > largest ? lane : largest;
    if (largest == lowest) {
        // Either a real minus infinity or nothing but NaNs.
        for (std::size_t k = 0; k < n; ++k)
            if (map(p[k]) == lowest)
                return lowest;
        return std::numeric_limits<T>::quiet_NaN();
    }
    return largest;
}

// Index of the first component whose map equals value; 0 when there is none (a NaN value).
template <typename T, typename Map>
std::size_t firstIndexOf(const T* p, std::size_t n, T value, Map map) noexcept {
    for (std::size_t i = 0; i < n; ++i)
        if (map(p[i]) == value)
            return i;
    return 0;
}

inline constexpr auto identity = [](auto x) { return x; };
inline constexpr auto negated = [](auto x) { return -x; };
inline constexpr auto magnitude = [](auto x) { return std::abs(x); };
inline constexpr auto squared = [](auto x) { return x * x; };

// Tests run in blocks so that each block is a vectorised reduction and a long vector that fails
// early is not read to its end.
inline constexpr std::size_t kBlock = 1024;

// True when some component is not +0.0 or -0.0 (NaN counts as non-zero).
template <typename T> bool anyNonZero(const T* p, std::size_t n) noexcept {
    using Bits = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;
    for (std::size_t start = 0; start < n; start += kBlock) {
        const std::size_t end = std::min(n, start + kBlock);
        Bits bits = 0;
        for (std::size_t i = start; i < end; ++i)
            bits |= std::bit_cast<Bits>(p[i]) << 1; // the sign bit drops out, so -0.0 is zero
        if (bits != 0)
            return true;
    }
    return false;
}

template <typename T> bool anyNaN(const T* p, std::size_t n) noexcept {
    for (std::size_t start = 0; start < n; start += kBlock) {
        const std::size_t end = std::min(n, start + kBlock);
        int found = 0;
        for (std::size_t i = start; i < end; ++i)
            found |= p[i] != p[i];
        if (found)
            return true;
    }
    return false;
}

// x * 0 is 0 for every finite x and NaN for infinities and NaNs, so the lanes' sum is 0 exactly
// when all components are finite.
template <typename T> bool allFinite(const T* p, std::size_t n) noexcept {
    for (std::size_t start = 0; start < n; start += kBlock) {
        const std::size_t end = std::min(n, start + kBlock);
        T lanes[kLanes] = {};
        std::size_t i = start;
        for (; i + kLanes <= end; i += kLanes)
            for (std::size_t j = 0; j < kLanes; ++j)
                lanes[j] += p[i + j] * T(0);
        T sum = 0;
        for (; i < end; ++i)
            sum += p[i] * T(0);
        for (T lane : lanes)
            sum += lane;
        if (sum != T(0))
            return false;
    }
    return true;
}

// out[(i + shift) mod n] = in[i], in place.
template <typename T> void rotateRight(T* p, std::size_t n, std::int64_t shift) noexcept {
    if (n == 0)
        return;
    const auto length = static_cast<std::int64_t>(n);
    std::int64_t right = shift % length;
    if (right < 0)
        right += length;
    std::rotate(p, p + (n - static_cast<std::size_t>(right)), p + n);
}

} // namespace tavolar::kernels
