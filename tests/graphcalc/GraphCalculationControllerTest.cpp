// Calculation controllers over records whose responses are known: the pipeline's steps checked
// against values worked out here from the records' own whole-spectrum curves.

#include "graphcalc/GraphCalculationController.h"

#include "core/VELTMeasurementRecord.h"
#include "platform/RunLoop.h"

#include <chrono>
#include <cmath>
#include <gtest/gtest.h>
#include <thread>

namespace tavolar {
namespace {

using namespace std::chrono_literals;

// A record of a decaying 1 kHz resonance plus an impulse, whose window spans `windowSamples`.
std::shared_ptr<VELTMeasurementRecord> recordWith(double gain, std::int64_t windowSamples) {
    VELTRealVector impulse(131072);
    for (std::size_t n = 0; n < 4800; ++n)
        impulse[n] = static_cast<float>(gain * std::exp(-double(n) / 400.0) *
                                        std::sin(2.0 * M_PI * 1000.0 * n / 48000.0));
    impulse[0] += static_cast<float>(gain);
    auto record = VELTMeasurementRecord::record();
    record->setSampleRate(48000);
    record->setImpulseResponse(std::move(impulse));
    record->setWindowBegin(-100);
    record->setWindowEnd(windowSamples - 100);
    return record;
}

// The record's magnitude over every bin from 0 Hz, and its valid band.
struct Whole {
    VELTRealVector x, y;
    float start, end;
};
Whole whole(const VELTMeasurementRecord& record, std::size_t fftLength) {
    auto copy = record.cachedCopy();
    copy->setStartFrequency(0);
    copy->setEndFrequency(48000);
    VELTRealVector table = record.frequencyTableWithFFTLength(fftLength);
    return {copy->frequencyTableWithFFTLength(fftLength), copy->fftMagnitudeResponseWithFFTLength(fftLength),
            table[0], table[table.length() - 1]};
}

GraphCalculationSettings with(std::int64_t mode, float smoothing = 0, bool normalize = false) {
    GraphCalculationSettings settings;
    settings.multiSelectMode = mode;
    settings.smoothingFraction = smoothing;
    settings.normalize = normalize;
    return settings;
}

TEST(GraphCalculationController, MagnitudeCurvesAtTheLargestFFTLengthCutToTheValidBand) {
    auto a = recordWith(1.0, 40000), b = recordWith(0.5, 20000); // FFT lengths 65536 and 32768
    ASSERT_EQ(a->fftLength(), 65536u);
    ASSERT_EQ(b->fftLength(), 32768u);
    MagnitudeResponseGraphCalculationController controller(with(0));
    GraphDataArray curves = controller.calculate({a, b});
    EXPECT_EQ(controller.fftSize(), 65536);
    ASSERT_EQ(curves.size(), 2u);
    for (std::size_t r = 0; r < 2; ++r) {
        Whole expected = whole(r == 0 ? *a : *b, 65536);
        const VELTGraphData& curve = *curves[r];
        EXPECT_EQ(curve.sampleRate(), 48000);
        EXPECT_EQ(curve.xQuantity(), (GraphQuantity{"Frequency", "Hz"}));
        ASSERT_GT(curve.x().length(), 30000u);
        EXPECT_EQ(curve.x()[0], expected.start);
        EXPECT_EQ(curve.x()[curve.x().length() - 1], expected.end);
        auto offset = static_cast<std::size_t>(std::lround(expected.start / (48000.0 / 65536)));
        for (std::size_t i = 0; i < curve.y().length(); i += 997)
            EXPECT_EQ(curve.y()[i], expected.y[offset + i]) << i;
    }
    EXPECT_TRUE(controller.calculate({}).empty());
    EXPECT_EQ(controller.fftSize(), 0);
}

// Modes combine the two curves point by point; values beyond 4 combine like the mean. Normalised,
// a decibel curve peaks at exactly 0 dB and a flat one becomes zeros.
TEST(GraphCalculationController, CombinesAndNormalises) {
    auto a = recordWith(1.0, 40000), b = recordWith(0.25, 40000);
    MagnitudeResponseGraphCalculationController controller(with(0));
    GraphDataArray separate = controller.calculate({a, b});
    ASSERT_EQ(separate.size(), 2u);
    const VELTRealVector &ya = separate[0]->y(), &yb = separate[1]->y();
    struct Case {
        std::int64_t mode;
        std::function<double(double, double)> combine;
    };
    for (const Case& c : {Case{1, [](double p, double q) { return (p + q) / 2; }},
                          Case{2, [](double p, double q) { return p - q; }},
                          Case{3, [](double p, double q) { return p + q; }},
                          Case{4, [](double p, double q) { return std::sqrt((p * p + q * q) / 2); }},
                          Case{7, [](double p, double q) { return (p + q) / 2; }}}) {
        controller.setSettings(with(c.mode));
        GraphDataArray combined = controller.calculate({a, b});
        ASSERT_EQ(combined.size(), 1u) << c.mode;
        EXPECT_EQ(combined[0]->x().length(), ya.length());
        for (std::size_t i = 0; i < ya.length(); i += 1231)
            EXPECT_NEAR(combined[0]->y()[i], c.combine(ya[i], yb[i]), 1e-3 * (1 + std::fabs(ya[i])))
                << c.mode;
    }
    controller.setSettings(with(0, 0, true));
    for (const auto& curve : controller.calculate({a, b})) {
        float peak = 0;
        std::size_t at = 0;
        curve->y().getMaximum(peak, at);
        EXPECT_EQ(peak, 0.0f);
    }
    auto flat = FrequencyDomainDecibelGraphCalculationController(with(0)).normalizeFilter();
    auto linear = FrequencyDomainLinearGraphCalculationController(with(0)).normalizeFilter();
    VELTGraphData constant(VELTRealVector{1, 2, 3}, VELTRealVector{-7, -7, -7}, {});
    EXPECT_EQ((*flat)(constant)->y(), (VELTRealVector{0, 0, 0}));
    EXPECT_EQ((*linear)(constant)->y(), (VELTRealVector{-1, -1, -1}));
    EXPECT_FALSE(FrequencyDomainGraphCalculationController(with(0)).normalizeFilter().has_value());
}

// 1/3-octave smoothing averages bins counted from 0 Hz (bin k: the mean of bins trunc(k 2^-1/3) to
// trunc(k 2^1/3) of the whole spectrum), also for a record whose band starts at 20 Hz; the curve is
// thinned to the smoothing grid's bins within the band.
TEST(GraphCalculationController, SmoothsOverBinsCountedFromZeroHertz) {
    auto a = recordWith(1.0, 40000);
    a->setStartFrequency(20);
    MagnitudeResponseGraphCalculationController controller(with(0, 1.0f / 3.0f));
    GraphDataArray curves = controller.calculate({a});
    ASSERT_EQ(curves.size(), 1u);
    Whole expected = whole(*a, 65536);
    const double bin = 48000.0 / 65536.0;
    std::size_t checked = 0;
    for (std::size_t i = 0; i < curves[0]->x().length(); ++i) {
        EXPECT_GE(curves[0]->x()[i], expected.start);
        auto k = static_cast<std::size_t>(std::lround(curves[0]->x()[i] / bin));
        if (k > 400)
            continue;
        auto low = std::size_t(float(k) * std::exp2(-1.0f / 3.0f)),
             high = std::size_t(float(k) * std::exp2(1.0f / 3.0f));
        double mean = 0;
        for (std::size_t j = low; j <= high; ++j)
            mean += expected.y[j];
        EXPECT_NEAR(curves[0]->y()[i], mean / double(high - low + 1), 1e-3) << k;
        ++checked;
    }
    EXPECT_GE(checked, 6u);
    EXPECT_LT(curves[0]->x().length(), 40u);
}

// Curves on different axes are brought onto the first one's, over the range they share, by a spline
// in log frequency: a curve linear in log frequency is reproduced exactly.
TEST(GraphCalculationController, InterpolatesOntoTheFirstCurvesAxis) {
    auto line = [](std::vector<float> xs) {
        std::vector<float> ys;
        for (float x : xs)
            ys.push_back(3.0f * std::log10(x));
        return VELTGraphData::graphDataWithX(VELTRealVector(std::span<const float>(xs)),
                                             VELTRealVector(std::span<const float>(ys)), VELTColor{});
    };
    GraphDataArray curves{line({10, 20, 40, 80, 160}), line({15, 30, 60, 120, 240, 480})};
    GraphDataArray grouped = FrequencyDomainGraphCalculationController::interpolatedGraphDataGroups(curves);
    ASSERT_EQ(grouped.size(), 2u);
    EXPECT_EQ(grouped[0]->x(), (VELTRealVector{20, 40, 80, 160}));
    for (const auto& curve : grouped)
        for (std::size_t i = 0; i < curve->x().length(); ++i)
            EXPECT_NEAR(curve->y()[i], 3.0 * std::log10(curve->x()[i]), 1e-4);
}

// Asynchronous calculations deliver on the main queue; a second one supersedes the first, whose
// handler never runs; an empty list still calls the handler.
TEST(GraphCalculationController, DeliversOnTheMainQueueAndCancelsSupersededCalculations) {
    MagnitudeResponseGraphCalculationController controller(with(0));
    RecordArray records;
    for (int r = 0; r < 6; ++r)
        records.push_back(recordWith(1.0 + r, 40000));
    int first = 0, second = 0, empty = 0;
    std::thread::id deliveredOn;
    controller.calculate(records, [&](GraphDataArray) { ++first; });
    controller.calculate({records[0]}, [&](GraphDataArray result) {
        ++second;
        EXPECT_EQ(result.size(), 1u);
        deliveredOn = std::this_thread::get_id();
    });
    EXPECT_TRUE(RunLoop::runUntil([&] { return second == 1; }, 20s));
    RunLoop::runUntil([] { return false; }, 200ms);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(deliveredOn, std::this_thread::get_id());
    controller.calculate({}, [&](GraphDataArray result) { empty += result.empty() ? 1 : 100; });
    EXPECT_TRUE(RunLoop::runUntil([&] { return empty == 1; }, 5s));
}

} // namespace
} // namespace tavolar
