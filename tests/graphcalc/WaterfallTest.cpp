// Waterfalls and spectrograms of responses whose decay and frequency are known in closed form, the
// slices' placement and time axis, cancellation, the working-set pool, and the control tag tables.

#include "core/VELTMeasurementRecord.h"
#include "dsp/Decibels.h"
#include "graphcalc/FFTOverlapTagValueTransformer.h"
#include "graphcalc/FFTSizeTagValueTransformer.h"
#include "graphcalc/SpectrogramGraphCalculationController.h"
#include "graphcalc/WaterfallMeasurementProcessingOperation.h"
#include "graphcalc/WaterfallSliceCountTagValueTransformer.h"
#include "graphcalc/WaterfallSliceOperation.h"

#include <bit>
#include <cmath>
#include <gtest/gtest.h>
#include <thread>

namespace tavolar {
namespace {

constexpr double kRate = 48000.0;

std::shared_ptr<VELTMeasurementRecord> recordOf(VELTRealVector impulse) {
    auto record = VELTMeasurementRecord::record();
    record->setSampleRate(48000);
    record->setImpulseResponse(std::move(impulse));
    return record;
}

const GraphData3D& onlySurface(const GraphDataArray& graphData) {
    EXPECT_EQ(graphData.size(), 1u);
    auto surface = dynamic_cast<const GraphData3D*>(graphData.at(0).get());
    EXPECT_NE(surface, nullptr);
    return *surface;
}

TEST(WaterfallTagValueTransformers, TablesFallbacksAndMissingValues) {
    using Size = FFTSizeTagValueTransformer;
    using Overlap = FFTOverlapTagValueTransformer;
    using Count = WaterfallSliceCountTagValueTransformer;
    struct Case {
        std::optional<std::int64_t> tag;
        std::optional<std::int64_t> size, sizeTag;   // tag -> size, size of the same row -> tag
        std::optional<float> overlap;                // tag -> overlap
        std::optional<std::int64_t> count, countTag; // tag -> count, count of the same row -> tag
    };
    const Case cases[] = {
        {0, 8192, 0, 0.015625f, 25, 0}, {1, 16384, 1, 0.03125f, 50, 1}, {2, 32768, 2, 0.0625f, 75, 2},
        {3, 65536, 3, 0.125f, 100, 3},  {4, 131072, 4, 0.25f, 0, 0},    {5, 262144, 5, 0.5f, 0, 0},
        {6, 8192, 0, 0.015625f, 0, 0},  {-1, 8192, 0, 0.015625f, 0, 0}, {std::nullopt, {}, {}, {}, {}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.tag ? std::to_string(*c.tag) : "none");
        EXPECT_EQ(Size::transformedValue(c.tag), c.size);
        EXPECT_EQ(Size::reverseTransformedValue(c.size), c.sizeTag);
        EXPECT_EQ(Overlap::transformedValue(c.tag), c.overlap);
        EXPECT_EQ(Count::transformedValue(c.tag), c.count);
        EXPECT_EQ(Count::reverseTransformedValue(c.count), c.countTag);
    }
    // The overlap's fractions come back to their own tags, anything else to 0.
    for (std::int64_t tag = 0; tag < 6; ++tag)
        EXPECT_EQ(Overlap::reverseTransformedValue(Overlap::transformedValue(tag)), tag);
    EXPECT_EQ(Overlap::reverseTransformedValue(0.3f), 0);
    EXPECT_EQ(Overlap::reverseTransformedValue(std::nullopt), std::nullopt);
}

// The vectorised decibels against the library's logarithm, over every float power from the smallest
// subnormal up (mantissas around the polynomial's ends included), and the values it treats apart.
TEST(Waterfall, DecibelsOfPowerMatchTheLogarithm) {
    for (std::uint32_t bits = 1; bits < 0x7F800000u; bits += bits < 0x00800000u ? 0x1357u : 0x3F1u) {
        const float power = std::bit_cast<float>(bits);
        ASSERT_NEAR(FFTWaterfallWorkingSet::decibelsOfPower(power), 10.0 * std::log10(double(power)), 1e-4)
            << power;
    }
    EXPECT_NEAR(FFTWaterfallWorkingSet::decibelsOfPower(0.0f), 20.0f * std::log10(kDecibelFloor), 1e-3f);
    EXPECT_EQ(FFTWaterfallWorkingSet::decibelsOfPower(INFINITY), INFINITY);
    EXPECT_TRUE(std::isnan(FFTWaterfallWorkingSet::decibelsOfPower(NAN)));
}

// Decaying sines exp(-t / tau) sin(2 pi f t) lose 20 log10(e) * spacing / tau dB from one slice to
// the next at their own frequency, whatever the window, as long as each slice is seen through the
// same window from its own start.
TEST(Waterfall, DecayOfEachSineMatchesItsTimeConstant) {
    struct Sine {
        std::size_t bin; // of an 8192-point transform at 48 kHz
        double tau;      // s
    };
    const Sine sines[] = {{85, 0.050}, {341, 0.012}, {1195, 0.004}};
    VELTRealVector impulse(65536);
    for (std::size_t n = 0; n < 20000; ++n)
        for (const Sine& sine : sines)
            impulse[n] += static_cast<float>(std::exp(-double(n) / kRate / sine.tau) *
                                             std::sin(2.0 * M_PI * double(sine.bin) / 8192.0 * double(n)));
    GraphCalculationSettings settings;
    settings.waterfall = {.windowType = 4, .startAtPeak = false, .duration = 18.0f, .sliceCount = 10};
    WaterfallGraphCalculationController controller(settings);
    GraphDataArray result = controller.calculate({recordOf(impulse)});
    const GraphData3D& surface = onlySurface(result);
    ASSERT_EQ(surface.rows(), 10u);
    ASSERT_EQ(surface.columns(), 4097u);
    EXPECT_FLOAT_EQ(surface.x()[1], 48000.0f / 8192.0f);
    EXPECT_FLOAT_EQ(surface.x()[4096], 24000.0f);
    EXPECT_EQ(surface.sampleRate(), 48000);
    EXPECT_EQ(surface.zQuantity(), (GraphQuantity{"Time", "ms"}));
    EXPECT_EQ(surface.y().max(), 0.0f);

    const double spacing = 0.002; // 18 ms over 9 gaps
    for (const Sine& sine : sines) {
        // Least-squares slope of the level at the sine's bin against the slice index.
        double sumK = 0, sumL = 0, sumKK = 0, sumKL = 0;
        for (std::size_t k = 0; k < surface.rows(); ++k) {
            const double level = surface.valueAt(k, sine.bin);
            sumK += double(k), sumL += level, sumKK += double(k * k), sumKL += double(k) * level;
        }
        const double n = double(surface.rows());
        const double slope = (n * sumKL - sumK * sumL) / (n * sumKK - sumK * sumK);
        EXPECT_NEAR(slope, -20.0 * std::log10(std::exp(1.0)) * spacing / sine.tau, 0.5) << sine.bin;
    }
}

// A log sweep from f1 to f2 over T has the instantaneous frequency f1 (f2 / f1)^(t / T): each slice's
// loudest bin lies there, at the time of the slice's centre.
TEST(Waterfall, SpectrogramOfALogSweepFollowsItsInstantaneousFrequency) {
    const double f1 = 300.0, f2 = 12000.0, duration = 1.0, rate = std::log(f2 / f1) / duration;
    VELTRealVector impulse(131072);
    for (std::size_t n = 0; n < std::size_t(duration * kRate); ++n) {
        const double t = double(n) / kRate;
        impulse[n] = static_cast<float>(std::sin(2.0 * M_PI * f1 / rate * (std::exp(rate * t) - 1.0)));
    }
    GraphCalculationSettings settings;
    settings.waterfall = {.windowType = 3, .startAtPeak = false, .duration = 1000.0f, .fftLength = 2048};
    settings.waterfall.overlap = 0.5f;
    SpectrogramGraphCalculationController controller(settings);
    GraphDataArray result = controller.calculate({recordOf(impulse)});
    const GraphData3D& surface = onlySurface(result);
    ASSERT_EQ(surface.rows(), (48000u - 2048u) / 1024u + 1u);
    std::size_t checked = 0;
    for (std::size_t k = 0; k < surface.rows(); ++k) {
        EXPECT_FLOAT_EQ(surface.z()[k], float((1024.0 * double(k) + 1024.0) / 48.0)) << k;
        std::span<const float> row = surface.rowAtIndex(k);
        const auto loudest = std::size_t(std::max_element(row.begin(), row.end()) - row.begin());
        const double expected = f1 * std::exp(rate * surface.z()[k] / 1000.0);
        EXPECT_LT(std::abs(std::log2(surface.x()[loudest] / expected)), 1.0 / 12.0) << k;
        ++checked;
    }
    EXPECT_GT(checked, 40u);
}

// Slices are placed from the origin (time zero, or the peak) and the time axis counts from it.
TEST(Waterfall, SlicePlacementAndTimeAxis) {
    VELTRealVector impulse(16384);
    impulse[480] = 1.0f; // the peak, 10 ms after time zero
    auto record = recordOf(impulse);
    struct Case {
        bool spectrogram, atPeak;
        float start, duration;
        std::int64_t fftLength, count;
        std::size_t rows;
        std::int64_t firstBegin, spacing; // samples
        float firstTime, timeStep;        // ms
        std::int64_t lastEnd;
    };
    const Case cases[] = {
        // Waterfall: starts spread over duration, or over a quarter of the FFT length.
        {false, false, 1.5f, 9.0f, 1024, 10, 10, 72, 48, 1.5f, 1.0f, 72 + 9 * 48 + 1024},
        {false, true, 1.5f, 9.0f, 1024, 10, 10, 480 + 72, 48, 1.5f, 1.0f, 480 + 72 + 9 * 48 + 1024},
        {false, true, -2.0f, 0.0f, 1024, 5, 5, 480 - 96, 64, -2.0f, 64.0f / 48.0f, 480 - 96 + 4 * 64 + 1024},
        {false, false, 0.0f, 0.0f, 1024, 1, 1, 0, 0, 0.0f, 0.0f, 1024},
        {false, false, 0.0f, 9.0f, 1024, 0, 0, 0, 0, 0.0f, 0.0f, 0},
        // The last slices are cut at the end of the stored response (its midpoint).
        {false, false, 100.0f, 60.0f, 4096, 4, 4, 4800, 960, 100.0f, 20.0f, 8192},
        // Spectrogram: hops of fftLength (1 - overlap), times at the slices' centres.
        {true, false, 0.0f, 100.0f, 1024, 0, (4800 - 1024) / 768 + 1, 0, 768, 512.0f / 48.0f, 16.0f,
         4 * 768 + 1024},
        {true, true, 0.0f, 0.0f, 2048, 0, (8192 - 480 - 2048) / 1536 + 1, 480, 1536, 1024.0f / 48.0f, 32.0f,
         480 + 3 * 1536 + 2048},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.spectrogram << c.atPeak << " start " << c.start << " count " << c.count);
        WaterfallSettings settings{.startAtPeak = c.atPeak, .startTime = c.start, .duration = c.duration};
        settings.fftLength = c.fftLength, settings.sliceCount = c.count, settings.overlap = 0.25f;
        std::unique_ptr<WaterfallMeasurementProcessingOperation> operation;
        if (c.spectrogram)
            operation = std::make_unique<SpectrogramMeasurementProcessingOperation>(record, settings);
        else
            operation = std::make_unique<WaterfallMeasurementProcessingOperation>(record, settings);
        WaterfallSlicePlan plan = operation->slicePlan(impulse.length());
        ASSERT_EQ(plan.windows.size(), c.rows);
        ASSERT_EQ(plan.times.length(), c.rows);
        for (std::size_t k = 0; k < c.rows; ++k) {
            EXPECT_EQ(plan.windows[k].begin(), c.firstBegin + std::int64_t(k) * c.spacing) << k;
            EXPECT_NEAR(plan.times[k], c.firstTime + float(k) * c.timeStep, 1e-4) << k;
        }
        if (c.rows > 0) {
            EXPECT_EQ(plan.windows.back().end(), c.lastEnd);
        }
    }
}

// A slice reads its samples across time zero (negative times are stored at the end), and nothing
// that reaches past the midpoint.
TEST(Waterfall, SliceSamplesAcrossTimeZero) {
    VELTRealVector impulse(16);
    for (std::size_t i = 0; i < 16; ++i)
        impulse[i] = float(i + 1);
    auto response = std::make_shared<const VELTRealVector>(impulse);
    auto matrix = std::make_shared<VELTMutableRealMatrix>(1, 5);
    auto output = std::make_shared<OperationQueue>();
    auto pool = std::make_shared<FFTWaterfallWorkingSetPool>(
        [] { return std::make_unique<FFTWaterfallWorkingSet>(8, 0); });
    struct Case {
        std::int64_t begin, end;
        VELTRealVector samples;
    };
    const Case cases[] = {
        {-2, 3, {15, 16, 1, 2, 3}}, {-3, -1, {14, 15}}, {5, 8, {6, 7, 8}}, {5, 9, {}}, {3, 3, {}}};
    for (const Case& c : cases)
        EXPECT_EQ(FFTWaterfallSliceOperation(response, VELTWindow(c.begin, c.end), matrix, 0, output, pool)
                      .inputVector(),
                  c.samples)
            << c.begin << " " << c.end;
}

// Rows reach the matrix in batches whose make-up depends on timing: each must land in its own row,
// and the surface's peak be found, however many slices run at once.
TEST(Waterfall, SameSurfaceWhateverTheSlicesRunningAtOnce) {
    VELTRealVector impulse(32768);
    for (std::size_t n = 0; n < 8000; ++n)
        impulse[n] = std::sin(0.37f * float(n)) * std::exp(-float(n) / 900.0f);
    auto record = recordOf(impulse);
    const WaterfallSettings settings{
        .windowType = 4, .startAtPeak = false, .fftLength = 512, .sliceCount = 300};
    GraphDataArray surfaces[3];
    for (int width : {1, 2, 4}) {
        auto operation = std::make_shared<WaterfallMeasurementProcessingOperation>(record, settings);
        operation->setMaxConcurrentSliceCount(width);
        operation->start();
        surfaces[width / 2] = operation->graphDataArray();
    }
    EXPECT_EQ(onlySurface(surfaces[0]).y().max(), 0.0f);
    EXPECT_EQ(onlySurface(surfaces[1]).y(), onlySurface(surfaces[0]).y());
    EXPECT_EQ(onlySurface(surfaces[2]).y(), onlySurface(surfaces[0]).y());
}

TEST(Waterfall, CancelledOperationsMakeNothing) {
    VELTRealVector impulse(262144);
    for (std::size_t n = 0; n < impulse.length(); ++n)
        impulse[n] = std::sin(float(n));
    auto record = recordOf(impulse);
    WaterfallSettings settings{.startAtPeak = false, .fftLength = 65536, .sliceCount = 400};

    auto before = std::make_shared<WaterfallMeasurementProcessingOperation>(record, settings);
    before->cancel();
    before->start();
    EXPECT_TRUE(before->graphDataArray().empty());

    auto during = std::make_shared<WaterfallMeasurementProcessingOperation>(record, settings);
    std::thread runner([&] { during->start(); });
    while (!during->isExecuting() && !during->isFinished())
        std::this_thread::yield();
    during->cancel();
    runner.join();
    EXPECT_TRUE(during->isFinished());
    EXPECT_TRUE(during->graphDataArray().empty());
}

// However many borrowers there are, the pool makes no more objects than were out at once, and a
// thread that gives an object back takes the same one again without the queue.
TEST(Waterfall, PoolMakesNoMoreThanTheBorrowersAtOnce) {
    std::atomic<int> made{0};
    ResourcePool<int> pool([&] { return std::make_unique<int>(++made); });
    EXPECT_EQ(pool.queue().label(), "com.tavolar.graphcalc.resourcePool");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                auto first = pool.borrow(), second = pool.borrow();
                const int* kept = second.get();
                pool.giveBack(std::move(first));
                pool.giveBack(std::move(second));
                auto again = pool.borrow();
                EXPECT_EQ(again.get(), kept);
                pool.giveBack(std::move(again));
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_LE(pool.madeCount(), 4u * 2u + 4u); // a given-back object may still be on its way to the list
    ResourcePool<int> other([] { return std::make_unique<int>(-1); });
    EXPECT_EQ(*other.borrow(), -1) << "an object kept for one pool was taken for another";
}

} // namespace
} // namespace tavolar
