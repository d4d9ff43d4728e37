// The graphs beyond the magnitude response against analytic values: a pure delay and a first-order
// all-pass (phase and group delay), a decaying tone (energy-time curve), a steady tone (band level)
// and the window drawn beside the impulse response.

#include "graphcalc/RecordGraphCalculationControllers.h"

#include <cmath>
#include <complex>
#include <gtest/gtest.h>
#include <numbers>

namespace tavolar {
namespace {

constexpr double kRate = 48000;

std::shared_ptr<VELTMeasurementRecord> recordOf(const std::function<double(std::size_t)>& sample) {
    VELTRealVector impulse(65536);
    for (std::size_t n = 0; n < 32768; ++n)
        impulse[n] = static_cast<float>(sample(n));
    auto record = VELTMeasurementRecord::record();
    record->setSampleRate(48000);
    record->setImpulseResponse(std::move(impulse));
    record->setWindowBegin(-100);
    record->setWindowEnd(19100);
    return record;
}

// y[n] = a x[n] + x[n - 1] - a y[n - 1], a first-order all-pass, as an impulse response.
std::shared_ptr<VELTMeasurementRecord> allPass(double a) {
    return recordOf([a, previous = 0.0](std::size_t n) mutable {
        double x = n == 0 ? 1.0 : 0.0, x1 = n == 1 ? 1.0 : 0.0;
        previous = a * x + x1 - a * previous;
        return previous;
    });
}

TEST(RecordGraphs, PhaseAndGroupDelayOfADelayAndAnAllPass) {
    GraphCalculationSettings settings; // time zero, wrapped
    struct Case {
        std::shared_ptr<VELTMeasurementRecord> record;
        std::function<std::complex<double>(double)> response; // at angular frequency w
    };
    const double a = -0.6;
    const Case cases[] = {
        {recordOf([](std::size_t n) { return n == 48 ? 1.0 : 0.0; }),
         [](double w) { return std::polar(1.0, -48.0 * w); }},
        {allPass(a),
         [a](double w) {
             std::complex<double> z1 = std::polar(1.0, -w);
             return (a + z1) / (1.0 + a * z1);
         }},
    };
    for (const Case& c : cases) {
        GraphDataArray phase =
            PhaseGraphCalculationController(FrequencyCurveKind::Phase, settings).calculate({c.record});
        GraphDataArray delay =
            PhaseGraphCalculationController(FrequencyCurveKind::GroupDelay, settings).calculate({c.record});
        ASSERT_EQ(phase.size(), 1u);
        ASSERT_EQ(delay.size(), 1u);
        EXPECT_EQ(delay[0]->yQuantity(), (GraphQuantity{"Group delay", "ms"}));
        std::size_t checked = 0;
        for (std::size_t i = 0; i < phase[0]->x().length(); i += 101) {
            const double f = phase[0]->x()[i], w = 2 * std::numbers::pi * f / kRate;
            if (f < 50 || f > 20000)
                continue;
            const double expected = std::arg(c.response(w)) * 180 / std::numbers::pi;
            EXPECT_NEAR(std::remainder(phase[0]->y()[i] - expected, 360.0), 0.0, 0.2) << f;
            // -d arg H / dw in samples, by a central difference, in ms.
            const double dw = 1e-6;
            const double tau = -std::arg(c.response(w + dw) / c.response(w - dw)) / (2 * dw) / kRate * 1000;
            EXPECT_NEAR(delay[0]->y()[i], tau, 2e-3) << f;
            ++checked;
        }
        EXPECT_GT(checked, 100u);
    }
}

TEST(RecordGraphs, EnergyTimeCurveFollowsAnExponentialDecay) {
    const double tau = 0.01; // s
    auto record = recordOf([&](std::size_t n) {
        return std::exp(-double(n) / kRate / tau) * std::cos(2 * std::numbers::pi * 3000 * double(n) / kRate);
    });
    GraphDataArray etc =
        EnergyTimeCurveGraphCalculationController(GraphCalculationSettings{}).calculate({record});
    ASSERT_EQ(etc.size(), 1u);
    EXPECT_EQ(etc[0]->xQuantity(), (GraphQuantity{"Time", "ms"}));
    // Over three time constants: later, the 1/t ringing of the tone's abrupt onset in its Hilbert
    // transform stands out of the decay (0.35 dB at 60 ms).
    std::size_t checked = 0;
    for (std::size_t i = 0; i < etc[0]->x().length(); ++i) {
        const double ms = etc[0]->x()[i];
        if (ms < 2 || ms > 30 || i % 7 != 0)
            continue;
        EXPECT_NEAR(etc[0]->y()[i], 20 * std::log10(std::exp(-ms / 1000 / tau)), 0.1) << ms;
        ++checked;
    }
    EXPECT_GT(checked, 50u);
}

TEST(RecordGraphs, BandLevelOfASteadyToneAndTheImpulseWindow) {
    const double amplitude = 0.3;
    auto tone = recordOf(
        [&](std::size_t n) { return amplitude * std::sin(2 * std::numbers::pi * 1000 * double(n) / kRate); });
    tone->setWindowBegin(0);
    tone->setWindowEnd(19200);
    GraphDataArray bands = BandLevelGraphCalculationController(GraphCalculationSettings{}).calculate({tone});
    ASSERT_EQ(bands.size(), 1u);
    std::size_t at = 0;
    while (at < bands[0]->x().length() && bands[0]->x()[at] != 1000.0f)
        ++at;
    ASSERT_LT(at, bands[0]->x().length());
    EXPECT_NEAR(bands[0]->y()[at], 20 * std::log10(amplitude / std::sqrt(2.0)), 0.1);

    // The window's shape, scaled to the response's peak, beside the response: the peak inside the
    // window, nothing outside; in dB the response's peak reads 20 log10 of it.
    GraphCalculationSettings settings;
    auto delta = recordOf([](std::size_t n) { return n == 48 ? 0.5 : 0.0; });
    GraphDataArray linear = ImpulseResponseGraphCalculationController(settings).calculate({delta});
    settings.decibels = true;
    GraphDataArray decibels = ImpulseResponseGraphCalculationController(settings).calculate({delta});
    ASSERT_EQ(linear.size(), 2u);
    ASSERT_EQ(decibels.size(), 2u);
    for (std::size_t i = 0; i < linear[1]->x().length(); i += 13) {
        const double ms = linear[1]->x()[i];
        const bool inside = ms >= -100 / 48.0 && ms < 19100 / 48.0 - 0.1;
        if (std::fabs(ms + 100 / 48.0) < 0.1 || std::fabs(ms - 19100 / 48.0) < 0.1)
            continue;
        EXPECT_EQ(linear[1]->y()[i], inside ? 0.5f : 0.0f) << ms;
    }
    float peak = 0;
    std::size_t where = 0;
    decibels[0]->y().getMaximum(peak, where);
    EXPECT_NEAR(peak, 20 * std::log10(0.5), 1e-4);
    EXPECT_NEAR(decibels[0]->x()[where], 1.0, 1e-6);
}

} // namespace
} // namespace tavolar
