// Frequency-domain curves of a record: each is derived from the windowed impulse response,
// zero-padded (or cut) to the FFT length N, and answered over the valid range of bins.

#include "core/VELTMeasurementRecord.h"
#include "dsp/Cepstrum.h"
#include "dsp/Decibels.h"
#include "dsp/Deg2Rad.h"
#include "dsp/Phase.h"
#include "dsp/SPL.h"
#include "dsp/Sampling.h"
#include "dsp/SplineCorrection.h"
#include "dsp/Windowing.h"
#include "math/VELTComplexVector.h"
#include "platform/Assertions.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>

namespace tavolar {

namespace {

VELTRealVector binsInRange(const VELTRealVector& bins, BinRange range) {
    return bins.realVectorInRange(range.location, range.length);
}

} // namespace

BinRange VELTMeasurementRecord::validRangeForFFTLength(std::size_t fftLength) const {
    VELTRealVector table =
        VELTRealVector::realVectorWithFrequencyTable(static_cast<std::uint64_t>(sampleRate()), fftLength);
    std::size_t count = table.length();
    if (count == 0)
        return BinRange{};
    std::size_t last = count - 1;
    float start = startFrequency();
    float end = endFrequency();

    // One bin below the start frequency is included.
    std::size_t first = 0;
    for (std::size_t i = 0; i < count; ++i) {
        if (table[i] >= start) {
            first = i >= 1 ? i - 1 : 0;
            break;
        }
    }
    // The bin that first reaches the end frequency, counted down from the top, closes the range; the
    // table's last bin never belongs to it. A not-a-number frequency matches nothing and leaves the
    // range at its widest.
    std::size_t stop = last;
    if (last > first) {
        for (std::size_t j = last; j > first; --j) {
            if (end >= table[j]) {
                stop = j < last ? j + 1 : last;
                break;
            }
        }
    }
    return BinRange{first, stop - first};
}

VELTRealVector VELTMeasurementRecord::frequencyTableWithFFTLength(std::size_t fftLength) const {
    VELTRealVector table =
        VELTRealVector::realVectorWithFrequencyTable(static_cast<std::uint64_t>(sampleRate()), fftLength);
    return binsInRange(table, validRangeForFFTLength(fftLength));
}

namespace {

// The record's impulse response cut to its window, or nothing when it has no impulse response. The
// response is looked up once, since a normalised one is made afresh on every lookup.
std::optional<VELTMutableRealVector> windowedResponse(const VELTMeasurementRecord& record) {
    auto impulse = record.impulseResponse();
    if (!impulse)
        return std::nullopt;
    return realVectorInWindow(*impulse, record.impulseResponseWindow());
}

// Bin magnitudes of the record's windowed impulse response at length N over the valid range.
VELTRealVector magnitudeBins(const VELTMeasurementRecord& record, std::size_t fftLength) {
    std::optional<VELTMutableRealVector> response = windowedResponse(record);
    TAVOLAR_ASSERT(response.has_value(), "Did not get impulse response");
    VELTMutableRealVector& windowed = *response;
    windowed.setLength(fftLength);
    return binsInRange(windowed.fft().abs(), record.validRangeForFFTLength(fftLength));
}

} // namespace

VELTRealVector VELTMeasurementRecord::fftMagnitudeResponseWithFFTLength(std::size_t fftLength) const {
    VELTMutableRealVector magnitude = magnitudeBins(*this, fftLength);
    convertAbsToMagnitude(magnitude);
    applyFrequencyDomainCorrectionIfNeededToVector(magnitude, fftLength);
    return magnitude;
}

VELTRealVector VELTMeasurementRecord::fftSPLResponseWithFFTLength(std::size_t fftLength) const {
    VELTMutableRealVector level = magnitudeBins(*this, fftLength);
    convertAbsToMagnitudeWithReference(level, useSPLReferenceLevel() ? SPLReferenceLevel() : 0.0f);
    applyFrequencyDomainCorrectionIfNeededToVector(level, fftLength);
    return level;
}

VELTRealVector VELTMeasurementRecord::fftAbsResponseWithFFTLength(std::size_t fftLength) const {
    VELTMutableRealVector magnitude = fftMagnitudeResponseWithFFTLength(fftLength);
    convertMagnitudeToAbs(magnitude);
    return magnitude;
}

VELTRealVector VELTMeasurementRecord::phaseDegreesOfSpectrumOf(VELTRealVector signal,
                                                               std::size_t fftLength) const {
    signal.setLength(fftLength);
    VELTRealVector wrapped = binsInRange(signal.fft().phaseInRadians(), validRangeForFFTLength(fftLength));
    VELTMutableRealVector phase = unwrappedPhaseRadians(wrapped);
    convertRadiansToDegrees(phase);
    applyFrequencyDomainPhaseCorrectionIfNeededToVector(phase, fftLength);
    return phase;
}

VELTRealVector VELTMeasurementRecord::fftPhaseResponseWithFFTLength(std::size_t fftLength) const {
    std::optional<VELTMutableRealVector> windowed = windowedResponse(*this);
    if (!windowed)
        return VELTRealVector();
    return phaseDegreesOfSpectrumOf(std::move(*windowed), fftLength);
}

VELTRealVector VELTMeasurementRecord::minimumPhaseResponseWithFFTLength(std::size_t fftLength) const {
    std::optional<VELTMutableRealVector> windowed = windowedResponse(*this);
    if (!windowed)
        return VELTRealVector();
    windowed->setLength(fftLength);
    return phaseDegreesOfSpectrumOf(minimumPhaseReconstruction(*windowed), fftLength);
}

VELTRealVector VELTMeasurementRecord::excessPhaseResponseWithFFTLength(std::size_t fftLength) const {
    VELTMutableRealVector phase = fftPhaseResponseWithFFTLength(fftLength);
    VELTMutableRealVector minimumPhase = minimumPhaseResponseWithFFTLength(fftLength);
    minimumPhase.scaleBy(-1.0f);
    phase.add(minimumPhase);
    return phase;
}

VELTRealVector VELTMeasurementRecord::groupDelayWithFFTLength(std::size_t fftLength) const {
    std::optional<VELTMutableRealVector> windowed = windowedResponse(*this);
    if (!windowed)
        return VELTRealVector();
    VELTMutableRealVector& impulse = *windowed;
    VELTMutableRealVector weighted = impulse;
    for (std::size_t k = 0; k < weighted.length(); ++k)
        weighted[k] = static_cast<float>(k) * impulse[k];
    impulse.setLength(fftLength);
    weighted.setLength(fftLength);
    VELTComplexVector quotient = weighted.fft();
    quotient.complexDivideBy(impulse.fft());
    VELTMutableRealVector delay = binsInRange(quotient.real(), validRangeForFFTLength(fftLength));
    convertSampleIndicesToMillisecondsUsingSampleRate(delay, sampleRate());
    return delay;
}

void VELTMeasurementRecord::applyFrequencyDomainCorrectionIfNeededToVector(VELTMutableRealVector& vector,
                                                                           std::size_t fftLength) const {
    auto calibration = microphoneCalibrationRecord();
    if (!calibration || !useMicrophoneCalibrationRecord() || !calibration->magnitudeSpline())
        return;
    applyFrequencyDomainCorrectionFromSpline(vector, *calibration->magnitudeSpline(),
                                             frequencyTableWithFFTLength(fftLength));
}

void VELTMeasurementRecord::applyFrequencyDomainPhaseCorrectionIfNeededToVector(VELTMutableRealVector& vector,
                                                                                std::size_t fftLength) const {
    auto calibration = microphoneCalibrationRecord();
    if (!calibration || !useMicrophoneCalibrationRecord() || !calibration->phaseSpline())
        return;
    applyFrequencyDomainCorrectionFromSpline(vector, *calibration->phaseSpline(),
                                             frequencyTableWithFFTLength(fftLength));
}

// ---- The older family, at a length derived from the window

std::size_t VELTMeasurementRecord::fftLength() const {
    // The next power of two in 32-bit arithmetic, as the stored analyses were made with: a window of
    // 0 samples wraps round to 0 and so takes the minimum.
    std::uint32_t length = static_cast<std::uint32_t>(windowDuration()) - 1u;
    length |= length >> 1;
    length |= length >> 2;
    length |= length >> 4;
    length |= length >> 8;
    length |= length >> 16;
    length += 1u;
    std::size_t minimum = compatibilityMode() ? 2048 : 32768;
    return std::max<std::size_t>(length, minimum);
}

BinRange VELTMeasurementRecord::validRange() const {
    return validRangeForFFTLength(fftLength());
}
VELTRealVector VELTMeasurementRecord::frequencyTable() const {
    return frequencyTableWithFFTLength(fftLength());
}
VELTRealVector VELTMeasurementRecord::fftAbsResponse() const {
    return fftAbsResponseWithFFTLength(fftLength());
}
VELTRealVector VELTMeasurementRecord::fftMagnitudeResponse() const {
    return fftMagnitudeResponseWithFFTLength(fftLength());
}
VELTRealVector VELTMeasurementRecord::fftPhaseResponse() const {
    return fftPhaseResponseWithFFTLength(fftLength());
}
VELTRealVector VELTMeasurementRecord::minimumPhaseResponse() const {
    return minimumPhaseResponseWithFFTLength(fftLength());
}
VELTRealVector VELTMeasurementRecord::excessPhaseResponse() const {
    return excessPhaseResponseWithFFTLength(fftLength());
}

} // namespace tavolar
