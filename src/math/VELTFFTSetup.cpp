// FFT plans over FFTW, made once per length and precision and shared by every setup of that length.
//
// FFTW runs its interleaved complex transforms fastest, and its new-array execution keeps a plan
// valid for other arrays only while the distance between real and imaginary parts stays what it
// was at planning, which the caller's split arrays do not promise. So the plans here only ever see
// complex values whose parts are a fixed distance apart, and short vectorised passes of our own
// move data between the caller's arrays:
//
// - Forward real, N = 4q samples: the signal is read as interleaved pairs z[m] = x[2m] + i x[2m+1];
//   two q-point transforms take the even and the odd pairs, one into the real array and one into
//   the imaginary array, and one pass recombines them in place into bins 0 .. N/2.
// - Inverse real: one pass forms the half-length spectrum of z interleaved in the output signal, with
//   the 1/N scaling folded in; an in-place N/2-point inverse leaves x in order there.
// - Complex: the real and imaginary parts are transformed as real signals, each in halfcomplex
//   layout straight into its output array, and one pass combines them; the inverse is the forward
//   transform with real and imaginary parts swapped on both sides.
//
// None of them needs scratch memory, and none modifies its input.

#include "math/VELTFFTSetup.h"

#include "math/AlignedBuffer.h"
#include "platform/Assertions.h"

#include <atomic>
#include <bit>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <fftw3.h>
#include <mutex>
#include <numbers>
#include <unordered_map>

namespace tavolar {
namespace {

// Every call into either FFTW planner goes through this lock: the planners are not thread-safe.
// Never destroyed, like the plan cache, so that a plan set released during exit can still take it.
std::mutex& plannerMutex() {
    static auto* mutex = new std::mutex;
    return *mutex;
}

std::atomic<VELTFFTPlanning> planningPolicy{VELTFFTPlanning::automatic};

// Lengths up to this are measured under the automatic policy: planning them takes tens of
// milliseconds, while measuring 1024 points already took half a second on a busy machine.
constexpr std::size_t kLongestAutomaticallyMeasuredLength = 256;

// One name for the float and double entry points of FFTW, so that the plans are written once.
template <typename T> struct Fftw;

template <> struct Fftw<float> {
    using Plan = fftwf_plan;
    using Complex = fftwf_complex;
    using Dimension = fftwf_iodim;
    static Plan planSplit(const Dimension& d, float* ri, float* ii, float* ro, float* io, unsigned flags) {
        return fftwf_plan_guru_split_dft(1, &d, 0, nullptr, ri, ii, ro, io, flags);
    }
    static Plan planInterleaved(const Dimension& d, Complex* in, Complex* out, int sign, unsigned flags) {
        return fftwf_plan_guru_dft(1, &d, 0, nullptr, in, out, sign, flags);
    }
    static void executeSplit(Plan p, float* ri, float* ii, float* ro, float* io) {
        fftwf_execute_split_dft(p, ri, ii, ro, io);
    }
    static void executeInterleaved(Plan p, Complex* in, Complex* out) { fftwf_execute_dft(p, in, out); }
    static Plan planRealForward(int n, float* in, Complex* out, unsigned flags) {
        return fftwf_plan_dft_r2c_1d(n, in, out, flags);
    }
    static Plan planRealBackward(int n, Complex* in, float* out, unsigned flags) {
        return fftwf_plan_dft_c2r_1d(n, in, out, flags);
    }
    static void executeRealForward(Plan p, float* in, Complex* out) { fftwf_execute_dft_r2c(p, in, out); }
    static void executeRealBackward(Plan p, Complex* in, float* out) { fftwf_execute_dft_c2r(p, in, out); }
    static void destroy(Plan p) { fftwf_destroy_plan(p); }
    static int alignmentOf(const float* p) { return fftwf_alignment_of(const_cast<float*>(p)); }
    static char* exportWisdom() { return fftwf_export_wisdom_to_string(); }
    static bool importWisdom(const char* text) { return fftwf_import_wisdom_from_string(text) != 0; }
};

template <> struct Fftw<double> {
    using Plan = fftw_plan;
    using Complex = fftw_complex;
    using Dimension = fftw_iodim;
    static Plan planSplit(const Dimension& d, double* ri, double* ii, double* ro, double* io,
                          unsigned flags) {
        return fftw_plan_guru_split_dft(1, &d, 0, nullptr, ri, ii, ro, io, flags);
    }
    static Plan planInterleaved(const Dimension& d, Complex* in, Complex* out, int sign, unsigned flags) {
        return fftw_plan_guru_dft(1, &d, 0, nullptr, in, out, sign, flags);
    }
    static void executeSplit(Plan p, double* ri, double* ii, double* ro, double* io) {
        fftw_execute_split_dft(p, ri, ii, ro, io);
    }
    static void executeInterleaved(Plan p, Complex* in, Complex* out) { fftw_execute_dft(p, in, out); }
    static void destroy(Plan p) { fftw_destroy_plan(p); }
    static int alignmentOf(const double* p) { return fftw_alignment_of(const_cast<double*>(p)); }
    static char* exportWisdom() { return fftw_export_wisdom_to_string(); }
    static bool importWisdom(const char* text) { return fftw_import_wisdom_from_string(text) != 0; }
};

enum class Effort { estimate, measure };

// Picks the planner flags for one plan; called with the planner lock held. Under the automatic
// policy a long plan is still measured when wisdom already knows it, which costs nothing.
template <typename T, typename MakePlan> typename Fftw<T>::Plan planWithEffort(Effort effort, MakePlan make) {
    if (effort == Effort::measure)
        return make(FFTW_MEASURE);
    if (auto plan = make(FFTW_MEASURE | FFTW_WISDOM_ONLY))
        return plan;
    return make(FFTW_ESTIMATE);
}

// Where a real transform of N = 4q samples puts its N/2 + 1 bins: split into two arrays (bins
// 0 .. N/2 of each), or halfcomplex in one array of N (real part of bin k at k for k <= N/2,
// imaginary part at N - k for 0 < k < N/2).
enum class Layout { split, halfcomplex };

// The recombining pass of the forward real transform. Before it, with z[m] = x[2m] + i x[2m+1],
// A and B are the q-point transforms of z[0], z[2], ... and z[1], z[3], ..., each stored with its
// real parts at [0, q) and imaginary parts at [q, 2q) of its own array (base0 and base1). The
// half-length transform of z is Z[k] = A[k] + V^k B[k] and Z[k+q] = A[k] - V^k B[k] with
// V = exp(-4 pi i / N), and the real signal's bins are X[k] = E + W^k O, X[N/2-k] = conj(E - W^k O)
// with E = (Z[k] + conj Z[N/2-k]) / 2, O = (Z[k] - conj Z[N/2-k]) / 2i and W = exp(-2 pi i / N).
// Bins k, q-k, q+k and 2q-k need exactly A and B at k and q-k, and in both layouts they are stored
// in exactly the eight places that held those: each group is rewritten in place. This loop does the
// groups 0 < k < q/2; l0, l1, l4, l5 run upwards from k = 1 (base0[k], base0[q+k], base1[k],
// base1[q+k]), l2, l3, l6, l7 downwards (base0[q-k], base0[2q-k], base1[q-k], base1[2q-k]). The
// eight ranges never overlap, and saying so (restrict) lets the compiler vectorise the loop.
template <typename T, Layout layout>
void recombineQuads(T* __restrict l0, T* __restrict l1, T* __restrict l2, T* __restrict l3, T* __restrict l4,
                    T* __restrict l5, T* __restrict l6, T* __restrict l7, const T* __restrict cw,
                    const T* __restrict sw, const T* __restrict cv, const T* __restrict sv,
                    std::size_t count) noexcept {
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t j = count - 1 - i;
        const T ar1 = l0[i], ai1 = l1[i], ar2 = l2[j], ai2 = l3[j]; // A[k], A[q-k]
        const T br1 = l4[i], bi1 = l5[i], br2 = l6[j], bi2 = l7[j]; // B[k], B[q-k]
        // V^k B[k] with V^k = cv - i sv, and V^(q-k) B[q-k] with V^(q-k) = -conj V^k.
        const T pr = cv[i] * br1 + sv[i] * bi1, pi = cv[i] * bi1 - sv[i] * br1;
        const T tr = sv[i] * bi2 - cv[i] * br2, ti = -(cv[i] * bi2 + sv[i] * br2);
        const T z1r = ar1 + pr, z1i = ai1 + pi; // Z[k]
        const T z3r = ar1 - pr, z3i = ai1 - pi; // Z[q+k]
        const T z2r = ar2 + tr, z2i = ai2 + ti; // Z[q-k]
        const T z4r = ar2 - tr, z4i = ai2 - ti; // Z[2q-k]
        // Bins k and 2q-k from Z[k] and Z[2q-k], with W^k = cw - i sw (twice E and O).
        const T e1r = z1r + z4r, e1i = z1i - z4i, o1r = z1i + z4i, o1i = z4r - z1r;
        const T r1r = cw[i] * o1r + sw[i] * o1i, r1i = cw[i] * o1i - sw[i] * o1r;
        // Bins q-k and q+k from Z[q-k] and Z[q+k], with W^(q-k) = -i conj W^k = sw - i cw.
        const T e2r = z2r + z3r, e2i = z2i - z3i, o2r = z2i + z3i, o2i = z3r - z2r;
        const T r2r = sw[i] * o2r + cw[i] * o2i, r2i = sw[i] * o2i - cw[i] * o2r;
        l0[i] = T(0.5) * (e1r + r1r); // Re X[k]
        l1[i] = T(0.5) * (e2r - r2r); // Re X[q+k]
        l2[j] = T(0.5) * (e2r + r2r); // Re X[q-k]
        l3[j] = T(0.5) * (e1r - r1r); // Re X[2q-k]
        const T xk = T(0.5) * (e1i + r1i), xqpk = T(0.5) * (r2i - e2i), xqmk = T(0.5) * (e2i + r2i),
                xhk = T(0.5) * (r1i - e1i); // Im X[k], X[q+k], X[q-k], X[2q-k]
        if constexpr (layout == Layout::split) {
            l4[i] = xk;
            l5[i] = xqpk;
            l6[j] = xqmk;
            l7[j] = xhk;
        } else {
            l4[i] = xhk; // base1[k] is place N - (2q-k)
            l5[i] = xqmk;
            l6[j] = xqpk;
            l7[j] = xk;
        }
    }
}

// The same for the groups k = 0 (bins 0, q and 2q) and k = q/2 (bins q/2 and 3q/2), whose members
// coincide. Scalar, once per transform.
template <typename T, Layout layout> void recombineEnds(T* base0, T* base1, std::size_t q) noexcept {
    using C = std::complex<T>;
    const std::size_t n = 4 * q;
    auto store = [&](std::size_t k, C value) {
        if constexpr (layout == Layout::split) {
            base0[k] = value.real();
            base1[k] = value.imag();
        } else {
            base0[k] = value.real();
            if (k != 0 && k != n / 2)
                base0[n - k] = value.imag();
        }
    };
    // k = 0: Z[0] = A[0] + B[0], Z[q] = A[0] - B[0]; X[0] and X[2q] are real, X[q] = conj Z[q].
    const C a0(base0[0], base0[q]), b0(base1[0], base1[q]);
    const C z0 = a0 + b0, zq = a0 - b0;
    if constexpr (layout == Layout::split) {
        base0[2 * q] = z0.real() - z0.imag();
        base1[2 * q] = 0;
    } else {
        base1[0] = z0.real() - z0.imag(); // base1[0] is place 2q
    }
    store(0, C(z0.real() + z0.imag(), 0));
    store(q, std::conj(zq));
    if (q < 2)
        return;
    // k = m = q/2: V^m = -i, W^m = exp(-i pi / 4); bins m and 2q - m = q + m.
    const std::size_t m = q / 2;
    const C a(base0[m], base0[q + m]), b(base1[m], base1[q + m]);
    const C zm = a - C(0, 1) * b, zqm = a + C(0, 1) * b;
    const C even = (zm + std::conj(zqm)) / T(2), odd = (zm - std::conj(zqm)) / C(0, 2);
    const C w(std::numbers::sqrt2_v<T> / 2, -std::numbers::sqrt2_v<T> / 2);
    store(m, even + w * odd);
    store(q + m, std::conj(even - w * odd));
}

// Y = A + i B from the halfcomplex transforms of the real and imaginary parts (in re and im): for
// 0 < k < N/2, Y[k] = (Ar - Bi) + i (Ai + Br) and Y[N-k] = (Ar + Bi) + i (Br - Ai), where A[k] =
// re[k] + i re[N-k] and B[k] = im[k] + i im[N-k]; bins 0 and N/2 are right as they stand.
template <typename T>
void combineHalfcomplexPairs(T* __restrict lowRe, T* __restrict lowIm, T* __restrict highRe,
                             T* __restrict highIm, std::size_t count) noexcept {
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t j = count - 1 - i;
        const T ar = lowRe[i], ai = highRe[j], br = lowIm[i], bi = highIm[j];
        lowRe[i] = ar - bi;
        lowIm[i] = ai + br;
        highRe[j] = ar + bi;
        highIm[j] = br - ai;
    }
}

// The inverse real transform's first pass, over pairs (k, h-k) for 0 < k < h/2 (h = N/2): from
// bins X[k] and X[h-k] it forms Z[k] / h = (E + i O) / h, E = (X[k] + conj X[h-k]) / 2,
// O = (X[k] - conj X[h-k]) / 2 W^k, which an in-place inverse transform of h points then turns into
// z[m] = x[2m] + i x[2m+1]. Z[k] and Z[h-k] come from the same sums; they are written by two loops,
// each storing upwards, because the compiler does not vectorise interleaved stores that run
// downwards. This one writes Z[k].
template <typename T>
void splitPairsLow(const T* __restrict lowReal, const T* __restrict lowImag, const T* __restrict highReal,
                   const T* __restrict highImag, T* __restrict out, const T* __restrict c,
                   const T* __restrict s, T scale, std::size_t pairs) noexcept {
    for (std::size_t i = 0; i < pairs; ++i) {
        const std::size_t j = pairs - 1 - i;
        const T ar = lowReal[i], ai = lowImag[i], br = highReal[j], bi = highImag[j];
        const T evenReal = ar + br, evenImag = ai - bi;                  // 2 E
        const T differenceReal = ar - br, differenceImag = ai + bi;      // X[k] - conj X[h-k]
        const T oddReal = differenceReal * c[i] - differenceImag * s[i]; // 2 O: rotated by conj W^k
        const T oddImag = differenceReal * s[i] + differenceImag * c[i];
        out[2 * i] = (evenReal - oddImag) * scale;
        out[2 * i + 1] = (evenImag + oddReal) * scale;
    }
}

// Writes Z[h-k] = conj E + i conj O, walking the high bins upwards.
template <typename T>
void splitPairsHigh(const T* __restrict lowReal, const T* __restrict lowImag, const T* __restrict highReal,
                    const T* __restrict highImag, T* __restrict out, const T* __restrict c,
                    const T* __restrict s, T scale, std::size_t pairs) noexcept {
    for (std::size_t j = 0; j < pairs; ++j) {
        const std::size_t i = pairs - 1 - j;
        const T ar = lowReal[i], ai = lowImag[i], br = highReal[j], bi = highImag[j];
        const T evenReal = ar + br, evenImag = ai - bi;
        const T differenceReal = ar - br, differenceImag = ai + bi;
        const T oddReal = differenceReal * c[i] - differenceImag * s[i];
        const T oddImag = differenceReal * s[i] + differenceImag * c[i];
        out[2 * j] = (evenReal + oddImag) * scale;
        out[2 * j + 1] = (oddReal - evenImag) * scale;
    }
}

template <typename T> void scaleInPlace(T* p, std::size_t n, T factor) noexcept {
    for (std::size_t i = 0; i < n; ++i)
        p[i] *= factor;
}

// The plans of one length and precision and the twiddle factors of the passes above. Immutable
// after construction; FFTW's execute functions may run its plans from any thread at once.
//
// FFTW's new-array execution requires each array to have the alignment it had at planning and
// split arrays to keep the distance between real and imaginary parts. The caller's real and
// imaginary arrays lie anywhere, so no plan here is ever given them as a pair: every FFTW plan
// reads and writes complex values whose two parts are a fixed distance apart within one array
// (interleaved, or q apart), and the passes above move data between the caller's arrays.
template <typename T> struct PlanSet {
    using F = Fftw<T>;
    using Plan = typename F::Plan;

    // A plan with the alignment classes (FFTW's alignmentOf) of its input and output at planning.
    struct AlignedPlan {
        Plan plan = nullptr;
        int inputAlignment = 0;
        int outputAlignment = 0;
        bool fits(const T* in, const T* out) const noexcept {
            return F::alignmentOf(in) == inputAlignment && F::alignmentOf(out) == outputAlignment;
        }
    };

    std::size_t length = 0;
    std::size_t half = 0;
    std::size_t quarter = 0;
    Effort effort = Effort::estimate;
    // Forward, N >= 8: q-point transforms reading every other complex value of a real signal read
    // as interleaved pairs (input stride 4) and writing real and imaginary parts q apart. Two
    // alignment classes of input, for the signal and for the signal two values on, and one plan for
    // anything else.
    AlignedPlan quarterForward;
    AlignedPlan quarterForwardShifted;
    Plan quarterForwardUnaligned = nullptr;
    // Inverse, N >= 2: in-place interleaved backward transform of N/2 points.
    AlignedPlan halfBackward;
    Plan halfBackwardUnaligned = nullptr;
    // cos and sin of 2 pi k / N for k = 0 .. N/4, and of 4 pi k / N for k = 0 .. N/8.
    AlignedBuffer<T> cos1, sin1, cos2, sin2;

    PlanSet(std::size_t length, Effort effort)
        : length(length), half(length / 2), quarter(length / 4), effort(effort) {
        makeTwiddles();
        std::lock_guard lock(plannerMutex());
        // Planning arrays: measuring writes into them, and their 64-byte alignment is what the
        // aligned plans are then valid for.
        AlignedBuffer<T> signal(length + 8), spectrum(length + 8);
        if (length >= 8) {
            const typename F::Dimension everyOtherPair{static_cast<int>(quarter), 4, 1};
            auto forward = [&](T* in, unsigned flags) {
                return F::planSplit(everyOtherPair, in, in + 1, spectrum.data(), spectrum.data() + quarter,
                                    flags | FFTW_PRESERVE_INPUT | FFTW_NO_BUFFERING);
            };
            quarterForward = {
                planWithEffort<T>(effort, [&](unsigned f) { return forward(signal.data(), f); }),
                F::alignmentOf(signal.data()), F::alignmentOf(spectrum.data())};
            quarterForwardShifted = {
                planWithEffort<T>(effort, [&](unsigned f) { return forward(signal.data() + 2, f); }),
                F::alignmentOf(signal.data() + 2), F::alignmentOf(spectrum.data())};
            quarterForwardUnaligned = forward(signal.data(), FFTW_ESTIMATE | FFTW_UNALIGNED);
            TAVOLAR_ASSERT(quarterForward.plan && quarterForwardShifted.plan && quarterForwardUnaligned,
                           "FFTW could not plan a transform");
        }
        if (length >= 2) {
            const typename F::Dimension interleaved{static_cast<int>(half), 1, 1};
            auto* c = reinterpret_cast<typename F::Complex*>(signal.data());
            // Without buffering, an in-place plan allocates nothing while it runs for lengths up to
            // 2^19 and one transposition buffer of under 1 % of the signal beyond that; with it, FFTW
            // allocates on every call.
            auto backward = [&](unsigned flags) {
                return F::planInterleaved(interleaved, c, c, FFTW_BACKWARD, flags | FFTW_NO_BUFFERING);
            };
            halfBackward = {planWithEffort<T>(effort, backward), F::alignmentOf(signal.data()),
                            F::alignmentOf(signal.data())};
            halfBackwardUnaligned = backward(FFTW_ESTIMATE | FFTW_UNALIGNED);
            TAVOLAR_ASSERT(halfBackward.plan && halfBackwardUnaligned, "FFTW could not plan a transform");
        }
    }

    PlanSet(const PlanSet&) = delete;
    PlanSet& operator=(const PlanSet&) = delete;

    ~PlanSet() {
        std::lock_guard lock(plannerMutex());
        for (Plan plan : {quarterForward.plan, quarterForwardShifted.plan, quarterForwardUnaligned,
                          halfBackward.plan, halfBackwardUnaligned})
            if (plan)
                F::destroy(plan);
    }

    void makeTwiddles() {
        auto fill = [&](AlignedBuffer<T>& c, AlignedBuffer<T>& s, std::size_t count, double step) {
            c.resize(count);
            s.resize(count);
            for (std::size_t k = 0; k < count; ++k) {
                c[k] = static_cast<T>(std::cos(step * static_cast<double>(k)));
                s[k] = static_cast<T>(std::sin(step * static_cast<double>(k)));
            }
        };
        const double step = 2.0 * std::numbers::pi / static_cast<double>(length);
        fill(cos1, sin1, length / 4 + 1, step);
        fill(cos2, sin2, length / 8 + 1, 2 * step);
    }

    // One q-point transform of every other pair of in, real and imaginary parts q apart from out.
    void quarterTransform(const T* in, T* out) const noexcept {
        Plan plan = quarterForward.fits(in, out)          ? quarterForward.plan
                    : quarterForwardShifted.fits(in, out) ? quarterForwardShifted.plan
                                                          : quarterForwardUnaligned;
        T* signal = const_cast<T*>(in); // planned with FFTW_PRESERVE_INPUT: only read
        F::executeSplit(plan, signal, signal + 1, out, out + quarter);
    }

    // The real transform of in (length samples) into base0 and base1 in the given layout; for the
    // halfcomplex layout base1 is base0 + N/2.
    template <Layout layout> void transformReal(const T* in, T* base0, T* base1) const noexcept {
        if (length < 8) {
            transformShortReal<layout>(in, base0, base1);
            return;
        }
        const std::size_t q = quarter;
        quarterTransform(in, base0);
        quarterTransform(in + 2, base1);
        recombineEnds<T, layout>(base0, base1, q);
        const std::size_t m = q / 2;
        recombineQuads<T, layout>(base0 + 1, base0 + q + 1, base0 + m + 1, base0 + q + m + 1, base1 + 1,
                                  base1 + q + 1, base1 + m + 1, base1 + q + m + 1, cos1.data() + 1,
                                  sin1.data() + 1, cos2.data() + 1, sin2.data() + 1, m - 1);
    }

    // Lengths 1, 2 and 4 written out.
    template <Layout layout> void transformShortReal(const T* x, T* base0, T* base1) const noexcept {
        T re[3] = {}, im[3] = {};
        if (length == 1) {
            re[0] = x[0];
        } else if (length == 2) {
            re[0] = x[0] + x[1];
            re[1] = x[0] - x[1];
        } else {
            re[0] = (x[0] + x[2]) + (x[1] + x[3]);
            re[1] = x[0] - x[2];
            im[1] = x[3] - x[1];
            re[2] = (x[0] + x[2]) - (x[1] + x[3]);
        }
        if constexpr (layout == Layout::split) {
            for (std::size_t k = 0; k <= half; ++k) {
                base0[k] = re[k];
                base1[k] = im[k];
            }
        } else {
            for (std::size_t k = 0; k <= half; ++k)
                base0[k] = re[k];
            if (length == 4)
                base0[3] = im[1];
        }
    }

    void forwardReal(const T* in, T* real, T* imag) const noexcept {
        transformReal<Layout::split>(in, real, imag);
    }

    void inverseReal(const T* real, const T* imag, T* out) const noexcept {
        if (length == 1) {
            out[0] = real[0];
            return;
        }
        splitIntoHalfSpectrum(real, imag, out);
        Plan plan = halfBackward.fits(out, out) ? halfBackward.plan : halfBackwardUnaligned;
        auto* c = reinterpret_cast<typename F::Complex*>(out);
        F::executeInterleaved(plan, c, c);
    }

    // Y = A + i B with A and B the transforms of the real and imaginary parts, each computed as a
    // real transform in halfcomplex layout straight into its output array.
    void forwardComplex(const T* inReal, const T* inImag, T* outReal, T* outImag) const noexcept {
        transformReal<Layout::halfcomplex>(inReal, outReal, outReal + half);
        transformReal<Layout::halfcomplex>(inImag, outImag, outImag + half);
        if (length > 2)
            combineHalfcomplexPairs(outReal + 1, outImag + 1, outReal + half + 1, outImag + half + 1,
                                    half - 1);
    }

    // Swapping real and imaginary parts on both sides turns the forward transform into the backward
    // one.
    void inverseComplex(const T* inReal, const T* inImag, T* outReal, T* outImag) const noexcept {
        forwardComplex(inImag, inReal, outImag, outReal);
        const T scale = T(1) / static_cast<T>(length);
        scaleInPlace(outReal, length, scale);
        scaleInPlace(outImag, length, scale);
    }

    // Z / h from bins 0 .. h, interleaved into out, scaled by 1/N overall; the imaginary parts of
    // bins 0 and h are not read.
    void splitIntoHalfSpectrum(const T* real, const T* imag, T* out) const noexcept {
        const std::size_t h = half;
        const T scale = T(1) / static_cast<T>(length);
        out[0] = (real[0] + real[h]) * scale;
        out[1] = (real[0] - real[h]) * scale;
        if (h < 2)
            return;
        out[h] = 2 * scale * real[h / 2]; // Z[h/2] = conj X[h/2]
        out[h + 1] = -2 * scale * imag[h / 2];
        const std::size_t pairs = h / 2 - 1;
        splitPairsLow(real + 1, imag + 1, real + h / 2 + 1, imag + h / 2 + 1, out + 2, cos1.data() + 1,
                      sin1.data() + 1, scale, pairs);
        splitPairsHigh(real + 1, imag + 1, real + h / 2 + 1, imag + h / 2 + 1, out + h + 2, cos1.data() + 1,
                       sin1.data() + 1, scale, pairs);
    }
};

// FFTW's real-to-complex and complex-to-real plans of one length, for the interleaved setup. Plans
// are valid for the alignment classes they were made with; other buffers run unaligned plans, made
// when first needed: their twiddle tables are as large as the transform (46 MB at 2^23 points), and
// buffers of this library's vectors always fit the aligned ones.
struct InterleavedPlanSet {
    using F = Fftw<float>;
    using Plan = F::Plan;

    std::size_t length = 0;
    Effort effort = Effort::estimate;
    Plan forward = nullptr, backward = nullptr;
    mutable Plan forwardUnaligned = nullptr, backwardUnaligned = nullptr;
    mutable std::once_flag unalignedPlanned;
    int signalAlignment = 0, spectrumAlignment = 0;

    InterleavedPlanSet(std::size_t length, Effort effort) : length(length), effort(effort) {
        std::lock_guard lock(plannerMutex());
        // Planning arrays: measuring writes into them.
        AlignedBuffer<float> signal(length + 8), spectrum(length + 8);
        auto* complex = reinterpret_cast<F::Complex*>(spectrum.data());
        const int n = static_cast<int>(length);
        signalAlignment = F::alignmentOf(signal.data());
        spectrumAlignment = F::alignmentOf(spectrum.data());
        forward = planWithEffort<float>(
            effort, [&](unsigned flags) { return F::planRealForward(n, signal.data(), complex, flags); });
        backward = planWithEffort<float>(
            effort, [&](unsigned flags) { return F::planRealBackward(n, complex, signal.data(), flags); });
        TAVOLAR_ASSERT(forward && backward, "FFTW could not plan a transform");
    }

    InterleavedPlanSet(const InterleavedPlanSet&) = delete;
    InterleavedPlanSet& operator=(const InterleavedPlanSet&) = delete;

    ~InterleavedPlanSet() {
        std::lock_guard lock(plannerMutex());
        for (Plan plan : {forward, forwardUnaligned, backward, backwardUnaligned})
            if (plan)
                F::destroy(plan);
    }

    bool fits(const float* signal, const std::complex<float>* spectrum) const noexcept {
        return F::alignmentOf(signal) == signalAlignment &&
               F::alignmentOf(reinterpret_cast<const float*>(spectrum)) == spectrumAlignment;
    }

    // Estimated plans neither read nor write the arrays they are made with, so the caller's serve.
    void planUnaligned(float* signal, std::complex<float>* spectrum) const noexcept {
        std::call_once(unalignedPlanned, [&] {
            std::lock_guard lock(plannerMutex());
            const int n = static_cast<int>(length);
            auto* complex = reinterpret_cast<F::Complex*>(spectrum);
            forwardUnaligned = F::planRealForward(n, signal, complex, FFTW_ESTIMATE | FFTW_UNALIGNED);
            backwardUnaligned = F::planRealBackward(n, complex, signal, FFTW_ESTIMATE | FFTW_UNALIGNED);
            TAVOLAR_ASSERT(forwardUnaligned && backwardUnaligned, "FFTW could not plan a transform");
        });
    }

    void forwardReal(const float* in, std::complex<float>* out) const noexcept {
        auto* signal = const_cast<float*>(in); // an out-of-place real-to-complex plan only reads it
        if (fits(in, out)) {
            F::executeRealForward(forward, signal, reinterpret_cast<F::Complex*>(out));
            return;
        }
        planUnaligned(signal, out);
        F::executeRealForward(forwardUnaligned, signal, reinterpret_cast<F::Complex*>(out));
    }

    void inverseRealUnscaled(std::complex<float>* in, float* out) const noexcept {
        if (fits(out, in)) {
            F::executeRealBackward(backward, reinterpret_cast<F::Complex*>(in), out);
            return;
        }
        planUnaligned(out, in);
        F::executeRealBackward(backwardUnaligned, reinterpret_cast<F::Complex*>(in), out);
    }
};

void assertPlannableLength(std::size_t length) {
    TAVOLAR_PARAMETER_ASSERT(std::has_single_bit(length));
    TAVOLAR_PARAMETER_ASSERT(length <= (std::size_t{1} << 30));
}

template <typename T> std::string exportWisdomOf() {
    std::lock_guard lock(plannerMutex());
    char* text = Fftw<T>::exportWisdom();
    std::string result = text ? text : "";
    std::free(text);
    return result;
}

template <typename T> bool importWisdomInto(const std::string& wisdom) {
    std::lock_guard lock(plannerMutex());
    return Fftw<T>::importWisdom(wisdom.c_str());
}

} // namespace

struct VELTFFTSetup::Plans : PlanSet<float> {
    using PlanSet::PlanSet;
};

struct VELTFFTDoubleSetup::Plans : PlanSet<double> {
    using PlanSet::PlanSet;
};

struct VELTFFTInterleavedSetup::Plans : InterleavedPlanSet {
    using InterleavedPlanSet::InterleavedPlanSet;
};

namespace {

// Process-wide cache of plan sets by length; never destroyed, so setups held by static objects
// stay valid until the very end.
template <typename Plans> class PlanCache {
public:
    static PlanCache& shared() {
        static auto* cache = new PlanCache;
        return *cache;
    }

    std::shared_ptr<const Plans> plansForLength(std::size_t length) {
        const Effort wanted = effortFor(length);
        auto goodEnough = [&](const std::shared_ptr<const Plans>& plans) {
            return plans && (wanted == Effort::estimate || plans->effort == Effort::measure);
        };
        {
            std::lock_guard lock(mutex_);
            if (auto& entry = plans_[length]; goodEnough(entry))
                return entry;
        }
        // Planned without holding the cache, so that threads using lengths already planned never
        // wait for a long measurement. Two threads may plan the same new length at once; the
        // first to finish is kept.
        auto made = std::make_shared<const Plans>(length, wanted);
        std::lock_guard lock(mutex_);
        auto& entry = plans_[length];
        if (!goodEnough(entry))
            entry = std::move(made);
        return entry;
    }

private:
    static Effort effortFor(std::size_t length) {
        switch (planningPolicy.load(std::memory_order_relaxed)) {
        case VELTFFTPlanning::measure:
            return Effort::measure;
        case VELTFFTPlanning::estimate:
            return Effort::estimate;
        case VELTFFTPlanning::automatic:
            break;
        }
        return length <= kLongestAutomaticallyMeasuredLength ? Effort::measure : Effort::estimate;
    }

    std::mutex mutex_;
    std::unordered_map<std::size_t, std::shared_ptr<const Plans>> plans_;
};

} // namespace

VELTFFTSetup VELTFFTSetup::FFTSetupWithLength(std::size_t length) {
    assertPlannableLength(length);
    return VELTFFTSetup(PlanCache<Plans>::shared().plansForLength(length));
}

std::size_t VELTFFTSetup::length() const noexcept {
    return plans_->length;
}

void VELTFFTSetup::setPlanning(VELTFFTPlanning planning) {
    planningPolicy.store(planning);
}

VELTFFTPlanning VELTFFTSetup::planning() {
    return planningPolicy.load();
}

std::string VELTFFTSetup::exportWisdom() {
    return exportWisdomOf<float>();
}

bool VELTFFTSetup::importWisdom(const std::string& wisdom) {
    return importWisdomInto<float>(wisdom);
}

void VELTFFTSetup::forwardReal(const float* in, float* real, float* imag) const noexcept {
    plans_->forwardReal(in, real, imag);
}

void VELTFFTSetup::inverseReal(const float* real, const float* imag, float* out) const noexcept {
    plans_->inverseReal(real, imag, out);
}

void VELTFFTSetup::forwardComplex(const float* inReal, const float* inImag, float* outReal,
                                  float* outImag) const noexcept {
    plans_->forwardComplex(inReal, inImag, outReal, outImag);
}

void VELTFFTSetup::inverseComplex(const float* inReal, const float* inImag, float* outReal,
                                  float* outImag) const noexcept {
    plans_->inverseComplex(inReal, inImag, outReal, outImag);
}

VELTFFTInterleavedSetup VELTFFTInterleavedSetup::FFTSetupWithLength(std::size_t length) {
    assertPlannableLength(length);
    return VELTFFTInterleavedSetup(PlanCache<Plans>::shared().plansForLength(length));
}

std::size_t VELTFFTInterleavedSetup::length() const noexcept {
    return plans_->length;
}

void VELTFFTInterleavedSetup::forwardReal(const float* in, std::complex<float>* out) const noexcept {
    plans_->forwardReal(in, out);
}

void VELTFFTInterleavedSetup::inverseRealUnscaled(std::complex<float>* in, float* out) const noexcept {
    plans_->inverseRealUnscaled(in, out);
}

VELTFFTDoubleSetup VELTFFTDoubleSetup::FFTSetupWithLength(std::size_t length) {
    assertPlannableLength(length);
    return VELTFFTDoubleSetup(PlanCache<Plans>::shared().plansForLength(length));
}

std::size_t VELTFFTDoubleSetup::length() const noexcept {
    return plans_->length;
}

std::string VELTFFTDoubleSetup::exportWisdom() {
    return exportWisdomOf<double>();
}

bool VELTFFTDoubleSetup::importWisdom(const std::string& wisdom) {
    return importWisdomInto<double>(wisdom);
}

void VELTFFTDoubleSetup::forwardReal(const double* in, double* real, double* imag) const noexcept {
    plans_->forwardReal(in, real, imag);
}

void VELTFFTDoubleSetup::inverseReal(const double* real, const double* imag, double* out) const noexcept {
    plans_->inverseReal(real, imag, out);
}

void VELTFFTDoubleSetup::forwardComplex(const double* inReal, const double* inImag, double* outReal,
                                        double* outImag) const noexcept {
    plans_->forwardComplex(inReal, inImag, outReal, outImag);
}

void VELTFFTDoubleSetup::inverseComplex(const double* inReal, const double* inImag, double* outReal,
                                        double* outImag) const noexcept {
    plans_->inverseComplex(inReal, inImag, outReal, outImag);
}

} // namespace tavolar
