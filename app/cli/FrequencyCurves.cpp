// Frequency curves of a record for export and the Python package.

#include "FrequencyCurves.h"

#include "dsp/Decibels.h"
#include "dsp/Smoothing.h"
#include "dsp/WeightingFilters.h"
#include "graphcalc/RecordCurves.h"

#include <complex>
#include <fmt/format.h>
#include <functional>
#include <numbers>

namespace tavolar::cli {

namespace {

VELTRealVector frequencyCurve(const VELTMeasurementRecord& record, std::string_view name,
                              std::size_t fftLength) {
    if (name == "magnitude")
        return record.fftMagnitudeResponseWithFFTLength(fftLength);
    if (name == "spl")
        return record.fftSPLResponseWithFFTLength(fftLength);
    if (name == "phase")
        return record.fftPhaseResponseWithFFTLength(fftLength);
    if (name == "minimum-phase")
        return record.minimumPhaseResponseWithFFTLength(fftLength);
    if (name == "excess-phase")
        return record.excessPhaseResponseWithFFTLength(fftLength);
    return record.groupDelayWithFFTLength(fftLength);
}

} // namespace

Expected<VELTRealVector> weightingDecibels(const VELTMeasurementRecord& record, char weighting,
                                           const VELTRealVector& frequencies, std::string_view what) {
    std::optional<VELTRealDoubleVector> a, b;
    (weighting == 'a' ? VELTGetAWeightingFilter : VELTGetCWeightingFilter)(record.sampleRate(), &a, &b);
    if (!a || !b)
        return makeUnexpected(
            fmt::format("{} has a sample rate of {} Hz, for which there is no {}-weighting filter.", what,
                        record.sampleRate(), weighting == 'a' ? 'A' : 'C'),
            "Weighting works at 44100, 48000, 88200, 96000, 176400 and 192000 Hz.");
    auto evaluate = [](const VELTRealDoubleVector& p, std::complex<double> zInverse) {
        std::complex<double> sum = 0.0;
        for (std::size_t k = p.length(); k-- > 0;)
            sum = sum * zInverse + p[k];
        return sum;
    };
    VELTRealVector gains(frequencies.length());
    const double rate = static_cast<double>(record.sampleRate());
    for (std::size_t i = 0; i < frequencies.length(); ++i) {
        const std::complex<double> zInverse =
            std::polar(1.0, -2.0 * std::numbers::pi * frequencies[i] / rate);
        const double magnitude = std::abs(evaluate(*b, zInverse) / evaluate(*a, zInverse));
        gains[i] = static_cast<float>(20.0 * std::log10(magnitude + kDecibelFloor));
    }
    return gains;
}

Expected<FrequencyCurves> frequencyCurvesOfRecord(const VELTMeasurementRecord& record,
                                                  const FrequencyCurveRequest& request,
                                                  std::string_view what) {
    const VELTMeasurementRecord* source = &record;
    std::shared_ptr<VELTMeasurementRecord> wholeSpectrum;
    if (request.smoothing || request.pointsPerOctave) {
        wholeSpectrum = record.cachedCopy();
        wholeSpectrum->setStartFrequency(0.0f);
        wholeSpectrum->setEndFrequency(static_cast<float>(record.sampleRate()));
        source = wholeSpectrum.get();
    }
    const std::size_t fftLength = request.fftLength;
    const VELTRealVector sourceAxis = source->frequencyTableWithFFTLength(fftLength);
    const BinRange valid = record.validRangeForFFTLength(fftLength);
    const std::size_t offset = valid.location - source->validRangeForFFTLength(fftLength).location;
    std::optional<VELTRealVector> weights;
    if (request.weighting) {
        auto gains = weightingDecibels(record, *request.weighting, sourceAxis, what);
        if (!gains)
            return std::unexpected(gains.error());
        weights = std::move(*gains);
    }

    FrequencyCurves result;
    std::function<VELTRealVector(const VELTRealVector&)> onAxis = [](const VELTRealVector& values) {
        return values;
    };
    if (request.pointsPerOctave) {
        // The grid points within the valid bins: never 0 Hz, never beyond Nyquist.
        const auto rate = static_cast<std::uint32_t>(record.sampleRate());
        const float fraction = 1.0f / static_cast<float>(*request.pointsPerOctave);
        const VELTRealVector table = tableForSmoothedPointsWithFraction(fraction, rate);
        std::vector<std::size_t> kept;
        for (std::size_t at = 0; at < table.length() && valid.length > 0; ++at)
            if (table[at] >= sourceAxis[offset] && table[at] <= sourceAxis[offset + valid.length - 1])
                kept.push_back(at);
        auto pick = [kept](const VELTRealVector& values) {
            VELTRealVector picked(kept.size());
            for (std::size_t at = 0; at < kept.size(); ++at)
                picked[at] = values[kept[at]];
            return picked;
        };
        result.frequencies = pick(table);
        onAxis = [=](const VELTRealVector& values) {
            return pick(smoothedPointsWithFraction(values, fraction, rate));
        };
    } else if (request.smoothing) {
        result.frequencies = record.frequencyTableWithFFTLength(fftLength);
        onAxis = [&](const VELTRealVector& values) { return values.realVectorInRange(offset, valid.length); };
    } else {
        result.frequencies = sourceAxis;
    }

    for (const std::string& name : request.names) {
        VELTRealVector values = frequencyCurve(*source, name, fftLength);
        if (name == "phase" || name == "excess-phase" || name == "group-delay")
            shiftTimeReference(values, name == "group-delay", sourceAxis,
                               phaseReferenceShift(record, request.phaseReference));
        if (name == "magnitude" || name == "spl") {
            if (weights)
                values.add(*weights);
            if (request.smoothing && values.length() >= 2) {
                const float fraction = 1.0f / static_cast<float>(*request.smoothing);
                if (request.powerSmoothing) {
                    convertPowerToAbs(values);
                    smoothPowersWithOctaveFraction(values, fraction);
                    convertAbsToPower(values);
                } else {
                    smoothWithOctaveFraction(values, fraction);
                }
            }
        }
        if (name.ends_with("phase") && !request.unwrapped)
            wrapDegrees(values);
        result.curves.push_back(onAxis(values));
    }
    return result;
}

} // namespace tavolar::cli
