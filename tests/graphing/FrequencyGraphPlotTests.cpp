// The plots of frequency-domain graphs: titles, axes and the ranges they choose for their curves.

#include "graphs/FrequencyGraphPlots.h"

#include <cmath>
#include <gtest/gtest.h>

namespace tavolar {
namespace {

std::shared_ptr<const VELTGraphData> curve(const std::vector<float>& y, GraphQuantity quantity) {
    std::vector<float> x(y.size());
    for (std::size_t i = 0; i < x.size(); ++i)
        x[i] = 20.0f * static_cast<float>(i + 1);
    auto data =
        VELTGraphData::graphDataWithX(VELTRealVector(std::span<const float>(x)),
                                      VELTRealVector(std::span<const float>(y)), VELTColor::blackColor());
    data->setQuantities({"Frequency", "Hz"}, std::move(quantity));
    return data;
}

TEST(FrequencyGraphPlot, TitlesAxesAndRanges) {
    std::vector<float> flat(200, 94.2f);
    // Group delay of 4 to 6 ms, with two wild swings where the level has notches: the range is the
    // values' own, widened by half a millisecond.
    std::vector<float> delay(200);
    for (std::size_t i = 0; i < delay.size(); ++i)
        delay[i] = 5.0f + static_cast<float>(std::sin(double(i)));
    delay[50] = 3000.0f;
    delay[150] = -800.0f;
    std::vector<float> phase(200, 10.0f);
    struct Case {
        std::string_view graph;
        float smoothing;
        std::vector<float> y;
        GraphQuantity quantity;
        std::string title, modifier;
        double yMin, yMax;
        std::vector<double> ySteps;
    };
    const Case cases[] = {
        {"magnitude",
         1.0f / 12.0f,
         flat,
         {"Magnitude", "dB"},
         "Frequency Response",
         "(1/12 Octave Smoothing)",
         93.7,
         94.7,
         {}},
        {"spl", 0.0f, flat, {"SPL", "dB"}, "SPL", "", 93.7, 94.7, {}},
        {"phase", 1.0f / 3.0f, phase, {"Phase", "deg"}, "Phase", "", -180, 180, {45, 90, 180}},
        {"group-delay", 0.0f, delay, {"Group delay", "ms"}, "Group Delay", "", 3.5, 6.5, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.graph);
        auto graph = frequencyGraphNamed(c.graph);
        ASSERT_TRUE(graph);
        GraphCalculationSettings settings;
        settings.smoothingFraction = c.smoothing;
        auto plot = frequencyGraphPlot(*graph, {curve(c.y, c.quantity)}, settings);
        ASSERT_TRUE(plot);
        EXPECT_EQ(plot->title, c.title);
        EXPECT_EQ(plot->titleModifier, c.modifier);
        EXPECT_TRUE(plot->logarithmicX);
        EXPECT_EQ(plot->yQuantity, c.quantity);
        EXPECT_NEAR(plot->extents.yMin, c.yMin, 0.05);
        EXPECT_NEAR(plot->extents.yMax, c.yMax, 0.05);
        EXPECT_EQ(plot->ySteps, c.ySteps);
    }
    EXPECT_FALSE(frequencyGraphNamed("waveform"));
    EXPECT_EQ(smoothingTitleModifier(1.0f / 48.0f), "(1/48 Octave Smoothing)");
}

} // namespace
} // namespace tavolar
