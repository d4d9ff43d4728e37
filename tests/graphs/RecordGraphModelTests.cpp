// The graph models beyond the magnitude response: each one's title, axes and controller, its settings
// by key path (undoable, steering the calculation, archived, copied), and the shapes of their own.

#include "core/VELTMeasurementRecord.h"
#include "engine/IsolatedUserDefaults.h"
#include "graphcalc/SpectrogramGraphCalculationController.h"
#include "graphs/TavolarBandLevelGraph.h"
#include "graphs/TavolarEnergyTimeCurveGraph.h"
#include "graphs/TavolarExcessPhaseGraph.h"
#include "graphs/TavolarGroupDelayGraph.h"
#include "graphs/TavolarHarmonicDistortionGraph.h"
#include "graphs/TavolarImpulseResponseGraph.h"
#include "graphs/TavolarMinimumPhaseGraph.h"
#include "graphs/TavolarSPLGraph.h"
#include "graphs/TavolarSpectrogramGraph.h"

#include <cmath>
#include <gtest/gtest.h>
#include <typeinfo>

namespace tavolar {
namespace {

template <typename Graph> std::shared_ptr<TavolarGraph> archivedAndRestored(const TavolarGraph& graph) {
    auto data = KeyedArchiver::archivedDataWithRootObject(dynamic_cast<const Graph&>(graph));
    auto restored = KeyedUnarchiver::unarchivedObjectOfClass<Graph>(data);
    if (!restored)
        return nullptr;
    return restored->copy();
}

template <typename Controller> bool isA(GraphCalculationController& controller) {
    return typeid(controller) == typeid(Controller);
}

struct GraphClass {
    std::function<std::shared_ptr<TavolarGraph>()> make;
    std::function<std::shared_ptr<TavolarGraph>(const TavolarGraph&)> roundTrip;
    std::function<bool(GraphCalculationController&)> hasController;
    // One setting, set to value: steers tells whether the calculation's settings show it (none for
    // settings that do not reach the calculation).
    std::string keyPath;
    double value;
    std::function<bool(const GraphCalculationSettings&)> steers;
};

template <typename Graph>
GraphClass graphClass(std::function<bool(GraphCalculationController&)> hasController, std::string keyPath,
                      double value, std::function<bool(const GraphCalculationSettings&)> steers) {
    return {[] { return std::make_shared<Graph>(); },
            archivedAndRestored<Graph>,
            std::move(hasController),
            std::move(keyPath),
            value,
            std::move(steers)};
}

TEST(RecordGraphModels, SettingsAreUndoableSteerTheCalculationAndSurviveArchivesAndCopies) {
    using S = const GraphCalculationSettings&;
    const std::vector<GraphClass> classes = {
        graphClass<TavolarSPLGraph>(isA<SPLResponseGraphCalculationController>, "normalize", 1.0,
                                    [](S s) { return s.normalize; }),
        graphClass<TavolarPhaseGraph>(isA<PhaseGraphCalculationController>, "unwrapPhase", 1.0,
                                      [](S s) { return s.unwrapPhase && s.smoothingFraction == 0.0f; }),
        graphClass<TavolarMinimumPhaseGraph>(
            isA<PhaseGraphCalculationController>, "phaseReference", 2.0,
            [](S s) { return s.phaseReference == PhaseTimeReference::Peak; }),
        graphClass<TavolarExcessPhaseGraph>(
            isA<PhaseGraphCalculationController>, "phaseReference", 0.0,
            [](S s) { return s.phaseReference == PhaseTimeReference::WindowStart; }),
        // 7 is clamped to the last reference.
        graphClass<TavolarGroupDelayGraph>(isA<PhaseGraphCalculationController>, "phaseReference", 7.0,
                                           [](S s) { return s.phaseReference == PhaseTimeReference::Peak; }),
        graphClass<TavolarHarmonicDistortionGraph>(isA<HarmonicDistortionGraphCalculationController>,
                                                   "percent", 1.0, [](S s) { return s.percent; }),
        graphClass<TavolarImpulseResponseGraph>(isA<ImpulseResponseGraphCalculationController>, "decibels",
                                                1.0, [](S s) { return s.decibels; }),
        // A graph whose only settings are the base's, which do not reach the calculation.
        graphClass<TavolarEnergyTimeCurveGraph>(isA<EnergyTimeCurveGraphCalculationController>,
                                                "extentsLocked", 1.0, nullptr),
        graphClass<TavolarBandLevelGraph>(isA<BandLevelGraphCalculationController>, "thirdOctaveBands", 0.0,
                                          [](S s) { return !s.thirdOctaveBands; }),
        graphClass<TavolarWaterfallGraph>(isA<WaterfallGraphCalculationController>, "sliceCount", 40.0,
                                          [](S s) { return s.waterfall.sliceCount == 40; }),
        graphClass<TavolarSpectrogramGraph>(isA<SpectrogramGraphCalculationController>, "overlap", 0.5,
                                            [](S s) { return s.waterfall.overlap == 0.5f; }),
    };
    for (const GraphClass& entry : classes) {
        std::shared_ptr<TavolarGraph> graph = entry.make();
        SCOPED_TRACE(graph->title());
        InMemoryUndoManager undo;
        graph->setUndoManager(&undo);
        EXPECT_TRUE(entry.hasController(graph->graphCalculationController()));
        auto steers = [&](const TavolarGraph& graph) {
            return entry.steers ? entry.steers(graph.graphCalculationSettings())
                                : graph.numberForKeyPath(entry.keyPath) == entry.value;
        };
        EXPECT_FALSE(steers(*graph));
        const double before = *graph->numberForKeyPath(entry.keyPath);

        ASSERT_TRUE(graph->changeKeyPath(entry.keyPath, entry.value));
        EXPECT_TRUE(steers(*graph));
        EXPECT_TRUE(graph->needsReload());
        EXPECT_TRUE(graph->undoablePropertyKeyPaths().contains(entry.keyPath));
        const auto display = graph->keyPathsOfPropertiesAffectingDisplay();
        EXPECT_NE(std::find(display.begin(), display.end(), entry.keyPath), display.end());

        auto copy = graph->copy();
        auto restored = entry.roundTrip(*graph);
        ASSERT_TRUE(restored);
        for (const auto& other : {copy, restored}) {
            EXPECT_EQ(typeid(*other), typeid(*graph));
            EXPECT_TRUE(steers(*other));
        }
        undo.undo();
        EXPECT_EQ(graph->numberForKeyPath(entry.keyPath), before);
        EXPECT_FALSE(steers(*graph));
    }
}

std::shared_ptr<VELTMeasurementRecord> delayedImpulse() {
    VELTRealVector impulse(8192);
    impulse[40] = 1.0f;
    impulse[41] = -0.5f;
    auto record = VELTMeasurementRecord::record();
    record->setSampleRate(48000);
    record->setImpulseResponse(std::move(impulse));
    record->setWindowBegin(-100);
    record->setWindowEnd(4000);
    record->setStartFrequency(20.0f);
    record->setEndFrequency(20000.0f);
    return record;
}

TEST(RecordGraphModels, PhasesWrapIntoTheCircleAndBandsDrawBars) {
    TavolarPhaseGraph phase;
    phase.setMeasurementRecords({delayedImpulse()});
    phase.reloadDataSynchronously();
    ASSERT_EQ(phase.graphDataArray().size(), 1u);
    EXPECT_FALSE(phase.graphPlot().ySteps.empty());
    phase.changeKeyPath("unwrapPhase", 1.0);
    phase.reloadDataSynchronously();
    EXPECT_TRUE(phase.graphPlot().ySteps.empty());
    EXPECT_LT(phase.extents().yMin, -180.0); // the delay turns the phase through many circles

    TavolarBandLevelGraph bands;
    bands.changeKeyPath("weighting", 1.0);
    bands.setMeasurementRecords({delayedImpulse()});
    bands.reloadDataSynchronously();
    const VELTGraphPlot plot = bands.graphPlot();
    EXPECT_TRUE(plot.bars);
    ASSERT_FALSE(plot.xTicks.empty());
    EXPECT_LT(plot.extents.xMin, plot.curves.front()->x()[0]); // the outer bars are whole
}

} // namespace
} // namespace tavolar
