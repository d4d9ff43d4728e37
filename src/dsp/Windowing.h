#pragma once
// Tapers applied in place to impulse-response segments before they are transformed, and the
// cutting of a window's segment out of a circular impulse response.
//
// All tapers use 32-bit float arithmetic throughout, with 2 pi taken as the float 6.2831855, so
// that results match the stored analyses bit for bit. Each runs in place and may be called from
// any thread on a vector no other thread touches.

#include "math/VELTRealVector.h"

#include <cstdint>

namespace tavolar {

class VELTWindow;

// The taper selected by a window's stored type. A stored value outside 1 to 6 means no taper,
// so the type is kept as a plain integer wherever it is stored and interpreted only here.
enum class VELTWindowType : std::uint64_t {
    Rectangular = 0,
    Hamming = 1,
    HalfHamming = 2,
    Hanning = 3,
    HalfHanning = 4,
    Bingham = 5,     // cosine-tapered flat top, taper fraction 0.2
    HalfBingham = 6, // only the falling taper of a Bingham window
};

// Symmetric Hamming window: both ends scaled by 0.08. A single component becomes not-a-number
// (0/0 in the phase); that unguarded case is kept as it is.
void applyHammingWindow(VELTMutableRealVector& vector);
// Falling half of a symmetric Hamming window of twice the length: the last component gets 0.08.
void applyHalfHammingWindow(VELTMutableRealVector& vector);
// Symmetric Hanning window: both ends scaled to 0.
void applyHanningWindow(VELTMutableRealVector& vector);
// Falling half of a symmetric Hanning window of twice the length: the last component becomes 0.
void applyHalfHanningWindow(VELTMutableRealVector& vector);
// Raised-cosine tapers over the first and last 10 % of the vector; the middle is untouched.
// Vectors of fewer than 10 components are left unchanged.
void applyBinghamWindow(VELTMutableRealVector& vector);
// Only the falling taper of a Bingham window of twice the length, over the last 20 % of the vector.
void applyHalfBinghamWindow(VELTMutableRealVector& vector);

// Applies the taper of a stored window type; 0 and every value outside 1 to 6 leave the vector as it is.
void applyWindowWithType(VELTMutableRealVector& vector, std::int64_t type);
void applyWindowWithType(VELTMutableRealVector& vector, VELTWindowType type);

// The segment of a circular impulse response (index 0 is time zero, negative times stored at the
// end) between the window's begin and end, tapered by its type. An inverted or empty window, or one
// ending beyond half the vector, gives an empty vector. A range that cannot be cut out of the vector
// raises AssertionFailure "Impossible window range encountered.".
VELTMutableRealVector realVectorInWindow(const VELTRealVector& impulseResponse, const VELTWindow& window);

} // namespace tavolar
