#include "dsp/OctaveBands.h"

#include "dsp/OctaveBandTables.h"
#include "dsp/Resampling.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <span>

namespace tavolar {

namespace {

using octave_band_tables::FilterRow;
using octave_band_tables::FilterTable;

// The band index below which no band is analysed.
constexpr std::int32_t kLowestBand = -15;
constexpr float kFloatEpsilon = 1.1920929e-7f;

const FilterRow* findRow(const std::array<FilterTable, 6>& tables, std::int64_t sampleRate,
                         std::int32_t band) {
    for (const FilterTable& table : tables) {
        if (table.sampleRate != sampleRate)
            continue;
        for (const FilterRow& row : table.rows)
            if (row.band == band)
                return &row;
    }
    return nullptr;
}

void getFilter(const std::array<FilterTable, 6>& tables, std::int64_t sampleRate, std::int32_t band,
               std::optional<VELTRealDoubleVector>* a, std::optional<VELTRealDoubleVector>* b,
               float* exactCenter, float* nominalCenter) {
    const FilterRow* row = findRow(tables, sampleRate, band);
    if (a)
        *a = row ? std::optional(VELTRealDoubleVector(row->denominator)) : std::nullopt;
    if (b)
        *b = row ? std::optional(VELTRealDoubleVector(row->numerator)) : std::nullopt;
    if (exactCenter)
        *exactCenter = row ? row->exactCenter : 0.0f;
    if (nominalCenter)
        *nominalCenter = row ? row->nominalCenter : 0.0f;
}

struct Filter {
    std::optional<VELTRealDoubleVector> a, b;
    float exactCenter = 0, nominalCenter = 0;
    bool exists() const { return a && b; }
};

// How a bank walks its bands: the bands filtered at the full rate (from the top, every `step`
// indexes), and the full-rate bands whose filters serve each lower octave, top first. At halving m
// they filter bands reused[i] - 3m, down to kLowestBand.
struct BankLayout {
    void (*getter)(std::int64_t, std::int32_t, std::optional<VELTRealDoubleVector>*,
                   std::optional<VELTRealDoubleVector>*, float*, float*);
    std::int32_t topBand;
    std::int32_t lowestDirectBand;
    std::int32_t step;
    std::span<const std::int32_t> reused;
};

constexpr std::array<std::int32_t, 3> kThirdOctaveReused = {4, 3, 2};
constexpr std::array<std::int32_t, 1> kOctaveReused = {9};
const BankLayout kThirdOctaveLayout{VELTGetThirdOctaveFilter, 13, 2, 1, kThirdOctaveReused};
const BankLayout kOctaveLayout{VELTGetOctaveFilter, 12, 9, 3, kOctaveReused};

Filter fetch(const BankLayout& layout, std::int64_t sampleRate, std::int32_t band) {
    Filter filter;
    layout.getter(sampleRate, band, &filter.a, &filter.b, &filter.exactCenter, &filter.nominalCenter);
    return filter;
}

Filter fetchCenters(const BankLayout& layout, std::int64_t sampleRate, std::int32_t band) {
    Filter filter;
    layout.getter(sampleRate, band, nullptr, nullptr, &filter.exactCenter, &filter.nominalCenter);
    return filter;
}

// The signal through a filter; a missing filter gives the one-component [0.0].
VELTRealVector filtered(const Filter& filter, const VELTRealVector& signal) {
    if (!filter.exists())
        return VELTRealVector{0.0f};
    return VELTRealVector::filteredVector(*filter.b, *filter.a, signal);
}

// ---- Several bands over one signal at once.
//
// The filters of a bank are independent recurrences over the same input, so up to four run in the
// lanes of one vector: each sample costs about what one filter alone costs, whose recurrence leaves
// the arithmetic units idle. Every lane computes exactly what VELTRealVector::filteredVector does
// (direct form II transposed in double precision, the same operations in the same order), so a band
// is the same to the bit whichever way it was filtered. On x86-64 the loop is also built for AVX2,
// without FMA, so that nothing is contracted and both builds round alike.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__)
#define TAVOLAR_LANE_LOOP __attribute__((target_clones("avx2", "default")))
#else
#define TAVOLAR_LANE_LOOP
#endif

constexpr std::size_t kLanes = 4;
using Lanes = double __attribute__((vector_size(kLanes * sizeof(double))));

// Coefficients by index, each across the lanes (a[0] is 1 in every table).
template <std::size_t Coefficients> struct LaneFilters {
    Lanes b[Coefficients];
    Lanes a[Coefficients];
};

template <std::size_t Coefficients>
[[gnu::always_inline]] inline void runLanes(const LaneFilters<Coefficients>& filters, const float* in,
                                            std::size_t length, float* const* out) noexcept {
    constexpr std::size_t order = Coefficients - 1;
    Lanes state[Coefficients] = {}; // one spare zero at the end, as filteredVector keeps
    for (std::size_t n = 0; n < length; ++n) {
        const double sample = in[n];
        const Lanes input = {sample, sample, sample, sample};
        const Lanes output = filters.b[0] * input + state[0];
        for (std::size_t i = 0; i < order; ++i)
            state[i] = filters.b[i + 1] * input - filters.a[i + 1] * output + state[i + 1];
        for (std::size_t lane = 0; lane < kLanes; ++lane)
            out[lane][n] = static_cast<float>(output[lane]);
    }
}

TAVOLAR_LANE_LOOP void runLanes7(const LaneFilters<7>& filters, const float* in, std::size_t length,
                                 float* const* out) noexcept {
    runLanes(filters, in, length, out);
}

TAVOLAR_LANE_LOOP void runLanes17(const LaneFilters<17>& filters, const float* in, std::size_t length,
                                  float* const* out) noexcept {
    runLanes(filters, in, length, out);
}

template <std::size_t Coefficients>
void filterGroup(std::span<const Filter* const> group, const VELTRealVector& signal,
                 std::span<VELTRealVector> outputs) {
    LaneFilters<Coefficients> filters{};
    std::vector<float> unused(group.size() < kLanes ? signal.length() : 0);
    float* out[kLanes];
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
        if (lane < group.size()) {
            for (std::size_t i = 0; i < Coefficients; ++i) {
                filters.b[i][lane] = (*group[lane]->b)[i];
                filters.a[i][lane] = (*group[lane]->a)[i];
            }
            outputs[lane] = VELTRealVector(signal.length());
            out[lane] = outputs[lane].mutableComponents();
        } else {
            out[lane] = unused.data();
        }
    }
    if constexpr (Coefficients == 7)
        runLanes7(filters, signal.components(), signal.length(), out);
    else
        runLanes17(filters, signal.components(), signal.length(), out);
}

// The coefficient count a filter runs with in the lanes (7 or 17, with a leading 1), or 0.
std::size_t laneCoefficients(const Filter& filter) {
    if (!filter.exists() || (*filter.a)[0] != 1.0 || filter.a->length() != filter.b->length())
        return 0;
    return filter.a->length() == 7 || filter.a->length() == 17 ? filter.a->length() : 0;
}

// The signal through each filter, as filtered() gives it; those that fit the lanes go four at a time.
std::vector<VELTRealVector> filteredByEach(std::span<const Filter* const> filters,
                                           const VELTRealVector& signal) {
    std::vector<VELTRealVector> outputs(filters.size());
    for (const std::size_t coefficients : {std::size_t{7}, std::size_t{17}}) {
        std::vector<const Filter*> group;
        std::vector<std::size_t> positions;
        auto flush = [&] {
            std::vector<VELTRealVector> results(group.size());
            if (coefficients == 7)
                filterGroup<7>(group, signal, results);
            else
                filterGroup<17>(group, signal, results);
            for (std::size_t i = 0; i < group.size(); ++i)
                outputs[positions[i]] = std::move(results[i]);
            group.clear();
            positions.clear();
        };
        for (std::size_t i = 0; i < filters.size(); ++i)
            if (laneCoefficients(*filters[i]) == coefficients) {
                group.push_back(filters[i]);
                positions.push_back(i);
                if (group.size() == kLanes)
                    flush();
            }
        if (!group.empty())
            flush();
    }
    for (std::size_t i = 0; i < filters.size(); ++i)
        if (laneCoefficients(*filters[i]) == 0)
            outputs[i] = filtered(*filters[i], signal);
    return outputs;
}

bool matches(float nominalCenter, float requested) {
    return std::fabs(nominalCenter - requested) < kFloatEpsilon;
}

std::vector<float> centerFrequencies(const BankLayout& layout, std::int64_t sampleRate) {
    std::vector<float> centers;
    for (std::int32_t band = layout.topBand; band >= kLowestBand; band -= layout.step)
        centers.push_back(fetchCenters(layout, sampleRate, band).nominalCenter);
    return centers;
}

std::optional<VELTRealVector> filteredBand(const BankLayout& layout, const VELTRealVector& signal,
                                           float requested, std::int64_t sampleRate,
                                           std::int64_t* actualSampleRate) {
    std::vector<Filter> reused(layout.reused.size());
    for (std::int32_t band = layout.topBand; band >= layout.lowestDirectBand; band -= layout.step) {
        Filter filter = fetch(layout, sampleRate, band);
        if (filter.exists() && matches(filter.nominalCenter, requested)) {
            if (actualSampleRate)
                *actualSampleRate = sampleRate;
            return filtered(filter, signal);
        }
        for (std::size_t i = 0; i < layout.reused.size(); ++i)
            if (layout.reused[i] == band)
                reused[i] = std::move(filter);
    }

    // The band's level m is known before any halving, so the signal is halved only as far as needed.
    for (std::int32_t halvings = 1;; ++halvings) {
        for (std::size_t i = 0; i < layout.reused.size(); ++i) {
            const std::int32_t band = layout.reused[i] - 3 * halvings;
            if (band < kLowestBand)
                return std::nullopt;
            if (!matches(fetchCenters(layout, sampleRate, band).nominalCenter, requested))
                continue;
            if (actualSampleRate)
                *actualSampleRate = sampleRate / (std::int64_t{1} << halvings);
            if (!reused[i].exists())
                return VELTRealVector{0.0f};
            VELTRealVector running = signal;
            for (std::int32_t m = 0; m < halvings; ++m)
                running = decimate(running, 2.0f);
            VELTRealVector result = filtered(reused[i], running);
            result.scaleBy(static_cast<float>(1 << halvings));
            return result;
        }
    }
}

BandDecomposition decomposition(const BankLayout& layout, const VELTRealVector& signal,
                                std::int64_t sampleRate) {
    std::vector<Band> bands;
    std::vector<float> powerValues, displayBands, exactBands;
    auto append = [&](VELTRealVector output, std::int64_t rate, const Filter& centers) {
        powerValues.push_back(output.RMSAverage());
        displayBands.push_back(centers.nominalCenter);
        exactBands.push_back(centers.exactCenter);
        bands.emplace_back(std::move(output), rate);
    };

    std::vector<Filter> direct, reused(layout.reused.size());
    for (std::int32_t band = layout.topBand; band >= layout.lowestDirectBand; band -= layout.step) {
        Filter filter = fetch(layout, sampleRate, band);
        for (std::size_t i = 0; i < layout.reused.size(); ++i)
            if (layout.reused[i] == band)
                reused[i] = filter;
        if (filter.exists())
            direct.push_back(std::move(filter));
    }
    std::vector<const Filter*> pointers;
    for (const Filter& filter : direct)
        pointers.push_back(&filter);
    std::vector<VELTRealVector> outputs = filteredByEach(pointers, signal);
    for (std::size_t i = 0; i < direct.size(); ++i)
        append(std::move(outputs[i]), sampleRate, direct[i]);

    // Without filters the decimated bands are [0.0] whatever the signal, so it is not halved.
    const bool anyFilter = std::ranges::any_of(reused, [](const Filter& filter) { return filter.exists(); });
    pointers.clear();
    for (const Filter& filter : reused)
        pointers.push_back(&filter);
    VELTRealVector running = signal;
    for (std::int32_t halvings = 1; layout.reused.front() - 3 * halvings >= kLowestBand; ++halvings) {
        if (anyFilter)
            running = decimate(running, 2.0f);
        std::size_t count = 0;
        while (count < layout.reused.size() && layout.reused[count] - 3 * halvings >= kLowestBand)
            ++count;
        outputs = filteredByEach(std::span(pointers).first(count), running);
        for (std::size_t i = 0; i < count; ++i) {
            outputs[i].scaleBy(static_cast<float>(1 << halvings));
            append(std::move(outputs[i]), sampleRate / (std::int64_t{1} << halvings),
                   fetchCenters(layout, sampleRate, layout.reused[i] - 3 * halvings));
        }
    }

    std::ranges::reverse(bands);
    std::ranges::reverse(powerValues);
    std::ranges::reverse(displayBands);
    std::ranges::reverse(exactBands);
    return BandDecomposition(std::move(bands), VELTRealVector(std::span<const float>(powerValues)),
                             VELTRealVector(std::span<const float>(displayBands)),
                             VELTRealVector(std::span<const float>(exactBands)));
}

} // namespace

void VELTGetThirdOctaveFilter(std::int64_t sampleRate, std::int32_t band,
                              std::optional<VELTRealDoubleVector>* a, std::optional<VELTRealDoubleVector>* b,
                              float* exactCenter, float* nominalCenter) {
    getFilter(octave_band_tables::kThirdOctaveFilters, sampleRate, band, a, b, exactCenter, nominalCenter);
}

void VELTGetOctaveFilter(std::int64_t sampleRate, std::int32_t band, std::optional<VELTRealDoubleVector>* a,
                         std::optional<VELTRealDoubleVector>* b, float* exactCenter, float* nominalCenter) {
    getFilter(octave_band_tables::kOctaveFilters, sampleRate, band, a, b, exactCenter, nominalCenter);
}

std::vector<float> octaveBandCenterFrequenciesForSampleRate(std::int64_t sampleRate) {
    return centerFrequencies(kOctaveLayout, sampleRate);
}

std::vector<float> thirdOctaveBandCenterFrequenciesForSampleRate(std::int64_t sampleRate) {
    return centerFrequencies(kThirdOctaveLayout, sampleRate);
}

std::optional<VELTRealVector> octaveFilteredBand(const VELTRealVector& signal, float band,
                                                 std::int64_t sampleRate, std::int64_t* actualSampleRate) {
    return filteredBand(kOctaveLayout, signal, band, sampleRate, actualSampleRate);
}

std::optional<VELTRealVector> thirdOctaveFilteredBand(const VELTRealVector& signal, float band,
                                                      std::int64_t sampleRate,
                                                      std::int64_t* actualSampleRate) {
    return filteredBand(kThirdOctaveLayout, signal, band, sampleRate, actualSampleRate);
}

BandDecomposition octaveBandsWithSampleRate(const VELTRealVector& signal, std::int64_t sampleRate) {
    return decomposition(kOctaveLayout, signal, sampleRate);
}

BandDecomposition thirdOctaveBandsWithSampleRate(const VELTRealVector& signal, std::int64_t sampleRate) {
    return decomposition(kThirdOctaveLayout, signal, sampleRate);
}

} // namespace tavolar
