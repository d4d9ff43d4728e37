#include "graphcalc/RecordCurves.h"

#include "core/HarmonicAnalysis.h"
#include "dsp/Decibels.h"
#include "dsp/OctaveBands.h"
#include "dsp/SPL.h"
#include "dsp/SplineCorrection.h"
#include "dsp/WeightingFilters.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <numbers>

namespace tavolar {

double phaseReferenceShift(const VELTMeasurementRecord& record, PhaseTimeReference reference) {
    const double rate = static_cast<double>(record.sampleRate());
    const double begin = static_cast<double>(record.windowBegin()) / rate;
    switch (reference) {
    case PhaseTimeReference::WindowStart:
        return 0.0;
    case PhaseTimeReference::Peak:
        return static_cast<double>(record.impulsePeak()) / rate - begin;
    case PhaseTimeReference::TimeZero:
        break;
    }
    return -begin;
}

void shiftTimeReference(VELTRealVector& values, bool groupDelay, const VELTRealVector& frequencies,
                        double shift) {
    if (shift == 0.0)
        return;
    const std::size_t count = std::min(values.length(), frequencies.length());
    for (std::size_t at = 0; at < count; ++at) {
        const double value = values[at];
        values[at] =
            static_cast<float>(groupDelay ? value - 1000.0 * shift : value + 360.0 * frequencies[at] * shift);
    }
}

void wrapDegrees(VELTRealVector& phase) {
    for (float& value : phase.mutableSpan())
        value = static_cast<float>(std::remainder(static_cast<double>(value), 360.0));
}

VELTRealVector percentFromDecibels(const VELTRealVector& decibels) {
    VELTRealVector percent(decibels.length());
    for (std::size_t i = 0; i < decibels.length(); ++i)
        percent[i] = 100.0f * std::pow(10.0f, decibels[i] / 20.0f);
    return percent;
}

HarmonicCurveSet harmonicCurvesOfRecord(const VELTMeasurementRecord& record,
                                        const HarmonicCurveRequest& request) {
    HarmonicCurveSet set;
    if (!record.logSweepSettings()) {
        set.failure = HarmonicCurveFailure::NoSweep;
        return set;
    }
    if (!(record.sweepStartFrequency() > 0.0f && record.sweepEndFrequency() > record.sweepStartFrequency() &&
          record.sweepDuration() > 0.0f)) {
        set.failure = HarmonicCurveFailure::SweepDoesNotRise;
        return set;
    }
    HarmonicAnalysis analysis(record);
    set.highestOrder = analysis.maximumOrder();
    for (std::int64_t order : request.orders)
        if (order > set.highestOrder) {
            set.failure = HarmonicCurveFailure::OrderTooHigh;
            return set;
        }
    const std::size_t length = std::max(request.fftLength, analysis.minimumFFTLength());

    std::map<std::int64_t, HarmonicDistortion> distortion;
    std::map<std::int64_t, HarmonicResponse> response;
    std::size_t rows = std::numeric_limits<std::size_t>::max();
    for (std::int64_t order : request.orders) {
        distortion.emplace(order, analysis.distortionOfOrder(order, length));
        response.emplace(order, analysis.responseOfOrder(order, length));
        rows = std::min(rows, distortion.at(order).frequencies.length());
    }
    // Total distortion sums orders 2 to 9, or as many as the response holds apart.
    set.summedOrders = std::min(HarmonicAnalysis::kTotalDistortionOrders, set.highestOrder);
    std::optional<HarmonicDistortion> total, noise;
    if ((request.total || request.noiseFloor) && set.summedOrders < 2) {
        set.failure = HarmonicCurveFailure::TooShortForTotal;
        return set;
    }
    if (request.total) {
        total = analysis.totalHarmonicDistortion(length, set.summedOrders);
        rows = std::min(rows, total->frequencies.length());
    }
    if (request.noiseFloor) {
        noise = analysis.noiseFloor(length, set.summedOrders);
        if (!noise) {
            set.failure = HarmonicCurveFailure::TooShortForNoise;
            return set;
        }
        rows = std::min(rows, noise->frequencies.length());
    }
    if (request.orders.empty() && !total && !noise)
        return set;
    const VELTRealVector& excitation = !request.orders.empty()
                                           ? distortion.at(request.orders.front()).frequencies
                                       : total ? total->frequencies
                                               : noise->frequencies;
    const float lowest = std::max(record.startFrequency(), record.sweepStartFrequency());
    // Order n of an excitation at f lies at n f, and is measured only where the sweep had energy
    // there too: every chosen order is, up to the sweep's end divided by the highest order.
    const float validEnd = record.endFrequency() > 0.0f
                               ? std::min(record.endFrequency(), record.sweepEndFrequency())
                               : record.sweepEndFrequency();
    // Without order curves the rows reach as far as the total distortion does, to the 2nd order's end.
    const float top = std::min(
        validEnd, record.sweepEndFrequency() /
                      static_cast<float>(request.orders.empty() ? std::int64_t{2} : request.orders.back()));
    std::vector<std::size_t> kept;
    for (std::size_t row = 0; row < rows; ++row)
        if (excitation[row] > 0.0f && excitation[row] >= lowest && excitation[row] <= top)
            kept.push_back(row);
    auto pick = [&](const VELTRealVector& values) {
        VELTRealVector picked(kept.size());
        for (std::size_t at = 0; at < kept.size(); ++at)
            picked[at] = values[kept[at]];
        return picked;
    };
    set.frequencies = pick(excitation);
    for (std::int64_t order : request.orders) {
        set.orders.emplace_back(order, pick(distortion.at(order).levels));
        VELTRealVector phase = pick(response.at(order).phase);
        for (float& value : phase.mutableSpan())
            value = static_cast<float>(static_cast<double>(value) * 180.0 / std::numbers::pi);
        wrapDegrees(phase);
        set.phases.emplace_back(order, std::move(phase));
    }
    if (total)
        set.total = pick(total->levels);
    if (noise)
        set.noiseFloor = pick(noise->levels);
    return set;
}

std::pair<std::optional<BandLevels>, std::optional<BandLevelFailure>>
bandLevelsOfRecord(const VELTMeasurementRecord& record, bool octave, char weighting) {
    if (!record.impulseResponse() || record.sampleRate() <= 0)
        return {std::nullopt, BandLevelFailure::NoImpulseResponse};
    const std::int64_t rate = record.sampleRate();
    if (std::find(std::begin(kBandSampleRates), std::end(kBandSampleRates), rate) ==
        std::end(kBandSampleRates))
        return {std::nullopt, BandLevelFailure::UnsupportedSampleRate};
    VELTRealVector signal = record.windowedImpulseResponse();
    if (signal.length() == 0)
        return {std::nullopt, BandLevelFailure::EmptyWindow};
    if (weighting == 'a')
        signal = AWeightingFilteredVectorWithSampleRate(signal, static_cast<std::uint32_t>(rate));
    else if (weighting == 'c')
        signal = CWeightingFilteredVectorWithSampleRate(signal, static_cast<std::uint32_t>(rate));
    const BandDecomposition bands =
        octave ? octaveBandsWithSampleRate(signal, rate) : thirdOctaveBandsWithSampleRate(signal, rate);
    BandLevels result{bands.displayBands(), bands.bands(), bands.powerValues(), std::nullopt};
    convertAbsToMagnitude(result.levels);
    // As the SPL curve of the frequency response: 94 dB at the reference, less the microphone's
    // correction at each band's centre.
    const bool reference = record.useSPLReferenceLevel() && record.hasSPLReference();
    const auto calibration =
        record.useMicrophoneCalibrationRecord() ? record.microphoneCalibrationRecord() : nullptr;
    if (reference || calibration) {
        result.spl = bands.powerValues();
        convertAbsToMagnitudeWithReference(*result.spl,
                                           record.useSPLReferenceLevel() ? record.SPLReferenceLevel() : 0.0f);
        if (calibration && calibration->magnitudeSpline())
            applyFrequencyDomainCorrectionFromSpline(*result.spl, *calibration->magnitudeSpline(),
                                                     result.exact);
    }
    return {std::move(result), std::nullopt};
}

} // namespace tavolar
