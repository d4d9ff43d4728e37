#include "dsp/WeightingFilters.h"

#include "dsp/WeightingFilterTables.h"

#include <algorithm>

namespace tavolar {

namespace {

using weighting_filter_tables::WeightingRow;

void getFilter(const std::array<WeightingRow, 6>& table, std::int64_t sampleRate,
               std::optional<VELTRealDoubleVector>* a, std::optional<VELTRealDoubleVector>* b) {
    const auto row = std::find_if(table.begin(), table.end(), [&](const WeightingRow& candidate) {
        return candidate.sampleRate == sampleRate;
    });
    const bool found = row != table.end();
    if (a)
        *a = found ? std::optional(VELTRealDoubleVector(row->denominator)) : std::nullopt;
    if (b)
        *b = found ? std::optional(VELTRealDoubleVector(row->numerator)) : std::nullopt;
}

VELTRealVector filtered(const std::array<WeightingRow, 6>& table, const VELTRealVector& signal,
                        std::uint32_t sampleRate) {
    std::optional<VELTRealDoubleVector> a, b;
    getFilter(table, sampleRate, &a, &b);
    // A missing filter is passed on as two empty coefficient vectors, which filter to [0.0].
    return VELTRealVector::filteredVector(b.value_or(VELTRealDoubleVector()),
                                          a.value_or(VELTRealDoubleVector()), signal);
}

} // namespace

void VELTGetAWeightingFilter(std::int64_t sampleRate, std::optional<VELTRealDoubleVector>* a,
                             std::optional<VELTRealDoubleVector>* b) {
    getFilter(weighting_filter_tables::kAWeighting, sampleRate, a, b);
}

void VELTGetCWeightingFilter(std::int64_t sampleRate, std::optional<VELTRealDoubleVector>* a,
                             std::optional<VELTRealDoubleVector>* b) {
    getFilter(weighting_filter_tables::kCWeighting, sampleRate, a, b);
}

VELTRealVector AWeightingFilteredVectorWithSampleRate(const VELTRealVector& signal,
                                                      std::uint32_t sampleRate) {
    return filtered(weighting_filter_tables::kAWeighting, signal, sampleRate);
}

VELTRealVector CWeightingFilteredVectorWithSampleRate(const VELTRealVector& signal,
                                                      std::uint32_t sampleRate) {
    return filtered(weighting_filter_tables::kCWeighting, signal, sampleRate);
}

} // namespace tavolar
