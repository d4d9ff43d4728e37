#pragma once
// The graph of every plot whose horizontal axis is frequency: it holds the octave smoothing, the
// combination of several selected records, normalisation, a logarithmic or linear frequency axis and
// a vertical scale factor (the calculation controller applies them), shows the smoothing after the
// title, and fits its vertical extents to the data across at least 1 dB.

#include "graphcalc/GraphCalculationSettings.h"
#include "graphing/VELTCollapsingFrequencyNumberFormatter.h"
#include "graphs/TavolarGraph.h"

namespace tavolar {

class TavolarFrequencyDomainGraph : public TavolarGraph {
public:
    static constexpr std::string_view className = "TavolarFrequencyDomainGraph";
    // The user default of the smoothing of new graphs (denominator of the octave fraction).
    static constexpr std::string_view kSmoothingFractionDefaultsKey =
        "RZFrequencyDomainGraphSmoothingFraction";
    static constexpr std::int64_t kDefaultSmoothingFraction = 12;
    // The action of the smoothing key equivalents; their tag is the smoothing fraction.
    static constexpr std::string_view kSetSmoothingAction = "setFrequencyDisplaySmoothing:";

    // Registers the smoothing default with the standard user defaults (once per process).
    static void registerDefaults();

    TavolarFrequencyDomainGraph();
    TavolarFrequencyDomainGraph(const TavolarFrequencyDomainGraph& other) = default;
    std::shared_ptr<TavolarGraph> copy() const override;

    // Denominator of the octave fraction (12 is 1/12 octave); 0 leaves the curves unsmoothed.
    double smoothingFraction() const noexcept { return smoothingFraction_; }
    // Also updates the title modifier and marks the graph as needing a reload.
    void setSmoothingFraction(double fraction);
    // A TavolarFrequencyDomainGraphMultiSelectMode value; others combine like the mean.
    std::int64_t multiSelectMode() const noexcept { return multiSelectMode_; }
    void setMultiSelectMode(std::int64_t mode);
    bool normalize() const noexcept { return normalize_; }
    void setNormalize(bool normalize);
    bool logFrequencyScale() const noexcept { return logFrequencyScale_; }
    // Replaces the horizontal axis by a logarithmic or linear one and brings the extents into its range.
    void setLogFrequencyScale(bool logarithmic);
    // The factor the vertical data is scaled by, shown in the vertical axis title. Not archived.
    double verticalAxisDataScaleFactor() const noexcept { return verticalAxisDataScaleFactor_; }
    void setVerticalAxisDataScaleFactor(double factor);

    // Also gives the axis the frequency formatter.
    void setHorizontalAxis(VELTAxis axis) override;
    static VELTCollapsingFrequencyNumberFormatter frequencyFormatter() { return {}; }

    // Whether the smoothing applies to this graph's curves (not to phases and delays, whose average
    // means nothing): without it there is no smoothing note, shortcut or undoable smoothing.
    virtual bool isSmoothed() const { return true; }

    // " x2k" above 1000, " x500" above 100 (1000 itself is " x1000"), and nothing from 100 down.
    static std::string stringForScale(double scale);
    // "(1/12 Octave Smoothing)" with smoothing, nothing without.
    void updateTitleModifier();
    void refreshTitleModifier() override { updateTitleModifier(); }

    // The base extents, with a vertical span under 1 widened to 1 around its middle.
    std::optional<VELTGraphExtents> extentsFittingGraphData() const override;
    // Brings the extents into the range of the horizontal axis: a logarithmic axis needs a positive
    // minimum, and every axis a maximum above its minimum.
    void validateAllExtents();

    GraphQuantity horizontalAxisQuantity() const override;
    GraphQuantity verticalAxisQuantity() const override;
    std::vector<KeyEquivalent> keyEquivalents() const override;
    bool performAction(std::string_view action, std::int64_t tag) override;
    std::vector<std::string> measurementRecordKeyPathsAffectingDisplay() const override;
    UndoActionNames undoablePropertyKeyPaths() const override;
    std::vector<std::string> keyPathsOfPropertiesAffectingDisplay() const override;
    std::optional<double> numberForKeyPath(std::string_view keyPath) const override;
    bool setNumberForKeyPath(std::string_view keyPath, double value) override;
    GraphCalculationSettings graphCalculationSettings() const override;

    void encodeWithCoder(KeyedArchiver& coder) const override;
    void decodeArchivedValues(KeyedUnarchiver& coder) override;
    static TavolarFrequencyDomainGraph initWithCoder(KeyedUnarchiver& coder) {
        return decodedGraph<TavolarFrequencyDomainGraph>(coder);
    }

private:
    double smoothingFraction_ = 0.0;
    std::int64_t multiSelectMode_ = 0;
    bool normalize_ = false;
    bool logFrequencyScale_ = true;
    double verticalAxisDataScaleFactor_ = 1.0;
};

} // namespace tavolar
