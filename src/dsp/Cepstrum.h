#pragma once
// The real cepstrum and the minimum-phase reconstruction built from it by folding the cepstrum.
// Transforms are single precision, forward unscaled and inverse scaled by 1/N.

#include "math/VELTRealVector.h"

namespace tavolar {

// ifft(ln |fft(x)|) over the receiver's N samples, N a power of two (parameter assertion otherwise).
// A spectrum bin of magnitude zero gives minus infinity in the logarithm and is not guarded against.
VELTRealVector cepstrum(const VELTRealVector& signal);

// The minimum-phase signal with the receiver's magnitude spectrum, N samples, N the receiver's length
// rounded up to a power of two as for the Hilbert transform (the receiver is zero-padded). The
// cepstrum c is folded onto positive quefrencies (w[0] = c[0], w[i] = 2 c[i] for 0 < i < N/2,
// w[N/2] = c[N/2] for even N, 0 above) and ifft(exp(fft(w))) is the result. An empty receiver gives
// an empty result.
VELTRealVector minimumPhaseReconstruction(const VELTRealVector& signal);

} // namespace tavolar
