// A graph's curves written as CSV hold, value for value, what `tavolar export` writes for the same
// curve and settings: both compute through the same library.

#include "CliTestSupport.h"
#include "graphcalc/RecordGraphCalculationControllers.h"

namespace tavolar::testing {
namespace {

class GraphExport : public CommandLineTest {
protected:
    // The record as the document stores it, with its impulse response.
    std::shared_ptr<VELTMeasurementRecord> storedRecord(const std::string& document) const {
        auto opened = openDocument(folder / document, MeasurementDocument::Access::ReadOnly);
        EXPECT_TRUE(opened);
        auto uuid = json({"info", document, "1", "--json"})[0]["uuid"].get<std::string>();
        auto archive = opened->recordArchive(uuid);
        auto samples = opened->impulseResponse(uuid);
        auto record = std::make_shared<VELTMeasurementRecord>(
            *KeyedUnarchiver::unarchivedObjectOfClass<VELTMeasurementRecord>(**archive));
        record->setImpulseResponse(VELTRealVector(std::span<const float>((*samples)->samples)));
        return record;
    }
};

TEST_F(GraphExport, GraphCSVEqualsTheExportedCurves) {
    ASSERT_TRUE(succeeds({"measure", "-o", "g.tavolar", "--fast", "-q", "-d", "sim:poly?h2=0.02&h3=0.01"}));
    auto record = storedRecord("g.tavolar");
    GraphCalculationSettings settings;
    settings.harmonicOrders = {2, 3, 4};
    struct Case {
        Arguments export_;
        std::function<std::unique_ptr<GraphCalculationController>()> controller;
        std::size_t curves; // the graph's first curves that the file holds
    };
    auto phase = [&](FrequencyCurveKind kind) {
        return [=] { return std::make_unique<PhaseGraphCalculationController>(kind, settings); };
    };
    const Case cases[] = {
        {{"-c", "magnitude"},
         [&] { return std::make_unique<MagnitudeResponseGraphCalculationController>(settings); },
         1},
        {{"-c", "spl"}, [&] { return std::make_unique<SPLResponseGraphCalculationController>(settings); }, 1},
        {{"-c", "phase"}, phase(FrequencyCurveKind::Phase), 1},
        {{"-c", "minimum-phase"}, phase(FrequencyCurveKind::MinimumPhase), 1},
        {{"-c", "excess-phase"}, phase(FrequencyCurveKind::ExcessPhase), 1},
        {{"-c", "group-delay"}, phase(FrequencyCurveKind::GroupDelay), 1},
        {{"-c", "impulse"},
         [&] { return std::make_unique<ImpulseResponseGraphCalculationController>(settings); },
         1},
        {{"-c", "etc"},
         [&] { return std::make_unique<EnergyTimeCurveGraphCalculationController>(settings); },
         1},
        {{"-c", "harmonics,thd,noise-floor", "--orders", "2-4"},
         [&] { return std::make_unique<HarmonicDistortionGraphCalculationController>(settings); },
         5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.export_[1]);
        std::filesystem::remove_all(folder / "out");
        std::filesystem::create_directory(folder / "out");
        ASSERT_TRUE(succeeds(Arguments{"export", "g.tavolar", "1", "-o", "out/x.csv"} + c.export_));
        std::filesystem::path written;
        for (const auto& entry : std::filesystem::directory_iterator(folder / "out"))
            written = entry.path();
        GraphDataArray curves = c.controller()->calculate({record});
        ASSERT_GE(curves.size(), c.curves);
        curves.resize(c.curves);
        std::optional<std::string> text = csvTextForGraphData(curves);
        ASSERT_TRUE(text.has_value());
        EXPECT_EQ(*text, fileBytes(written));
    }
}

} // namespace
} // namespace tavolar::testing
