// The harmonic impulses of an exponential-sweep measurement. Harmonic n of the excitation arrives
// T ln(n) / ln(f2 / f1) before the linear impulse, so in the circular impulse response it sits near
// the end of the vector. These operations find it at a whole sample, cut it from there up to the next
// lower order, taper the cut's end and transform it.

#include "core/VELTMeasurementRecord.h"
#include "dsp/Windowing.h"
#include "math/VELTComplexVector.h"

#include <cmath>
#include <cstdint>

namespace tavolar {

double VELTMeasurementRecord::timeOffsetToHarmonic(std::int64_t order) const {
    if (order < 2)
        return 0.0;
    double duration = sweepDuration();
    // The frequency ratio in single precision, as the sweep generator forms it.
    float ratio = sweepEndFrequency() / sweepStartFrequency();
    return -(std::log(static_cast<double>(order)) * duration / std::log(static_cast<double>(ratio)));
}

std::int64_t VELTMeasurementRecord::sampleOffsetToHarmonic(std::int64_t order) const {
    if (order < 2)
        return 0;
    return static_cast<std::int64_t>(static_cast<double>(sampleRate()) *
                                     (timeOffsetToHarmonic(order) / 1000.0));
}

std::int64_t VELTMeasurementRecord::sampleIndexOfHarmonic(std::int64_t order) const {
    std::int64_t length = impulseLength();
    if (length == 0)
        return 0;
    auto peak = static_cast<std::int64_t>(static_cast<double>(sampleRate()) *
                                          (static_cast<double>(impulsePeakInMilliseconds()) / 1000.0));
    return (length + sampleOffsetToHarmonic(order) + peak) % length;
}

std::optional<VELTMutableRealVector>
VELTMeasurementRecord::impulseResponseOfHarmonic(std::int64_t order) const {
    if (order < 2)
        return std::nullopt;
    auto impulse = impulseResponse();
    if (!impulse || impulse->length() == 0)
        return std::nullopt;
    auto length = static_cast<std::int64_t>(impulse->length());
    std::int64_t start = sampleIndexOfHarmonic(order);
    std::int64_t end = sampleIndexOfHarmonic(order - 1);
    // A sweep so long that the offsets reach past a whole period of the response leaves nothing to cut.
    if (start < 0 || end < 0 || start >= length || end > length)
        return std::nullopt;

    VELTMutableRealVector harmonic;
    if (end >= start) {
        harmonic = impulse->realVectorInRange(static_cast<std::size_t>(start),
                                              static_cast<std::size_t>(end - start));
    } else {
        // The segment runs off the end of the vector and on from its start.
        harmonic = impulse->realVectorInRange(static_cast<std::size_t>(start),
                                              static_cast<std::size_t>(length - start));
        harmonic.appendVector(impulse->realVectorInRangeNoCopy(0, static_cast<std::size_t>(end)));
    }
    // The cut begins at the harmonic's position; only its end fades out before the next lower order.
    applyHalfBinghamWindow(harmonic);
    return harmonic;
}

std::optional<VELTRealVector>
VELTMeasurementRecord::frequencyResponseOfHarmonic(std::int64_t order, std::uint32_t fftLength) const {
    auto harmonic = impulseResponseOfHarmonic(order);
    if (!harmonic)
        return std::nullopt;
    harmonic->setLength(fftLength);
    BinRange range = validRangeForFFTLength(fftLength);
    return harmonic->fft().abs().realVectorInRange(range.location, range.length);
}

std::optional<VELTRealVector> VELTMeasurementRecord::frequencyTableOfHarmonic(std::int64_t order,
                                                                              std::uint32_t fftLength) const {
    if (order < 2)
        return std::nullopt;
    VELTMutableRealVector table = frequencyTableWithFFTLength(fftLength);
    table.scaleBy(1.0f / static_cast<float>(order));
    return table;
}

std::optional<VELTRealVector>
VELTMeasurementRecord::frequencyResponseOfHarmonic(std::int64_t order, const VELTRealVector& fundamental,
                                                   std::uint32_t fftLength) const {
    auto response = frequencyResponseOfHarmonic(order, fftLength);
    if (!response)
        return std::nullopt;
    // Harmonic bin i was excited at the frequency of bin i / n, where the fundamental is read.
    for (std::size_t i = 0; i < response->length(); ++i) {
        auto j = static_cast<std::size_t>(std::floor(static_cast<float>(i) / static_cast<float>(order)));
        float reference = j < fundamental.length() ? fundamental[j] : 0.0f;
        float& value = (*response)[i];
        value = (reference != 0.0f && !std::isnan(reference)) ? value / reference * 100.0f : 0.0f;
    }
    return response;
}

} // namespace tavolar
