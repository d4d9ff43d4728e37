#pragma once
// The frequency-domain graphs as pictures: for each graph, its title, the controller that computes
// its curves, and the plot (axes, extents, title modifier) that the layout draws from the curves.

#include "graphcalc/GraphCalculationController.h"
#include "graphing/VELTGraphLayout.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar {

enum class FrequencyGraphKind { Magnitude, SPL, Phase, MinimumPhase, ExcessPhase, GroupDelay };

struct FrequencyGraphDescription {
    FrequencyGraphKind kind;
    std::string_view name;  // on the command line: "magnitude", "group-delay"
    std::string_view title; // "Frequency Response"
    bool smoothed;          // whether the smoothing setting applies to the curves
};

const std::vector<FrequencyGraphDescription>& frequencyGraphDescriptions();
std::optional<FrequencyGraphDescription> frequencyGraphNamed(std::string_view name);

// "(1/12 Octave Smoothing)" for a smoothing fraction of 1/12 octave; empty without smoothing.
std::string smoothingTitleModifier(float smoothingFraction);

// The controller that computes the graph's curves with the settings.
std::unique_ptr<GraphCalculationController>
makeFrequencyGraphController(FrequencyGraphKind kind, const GraphCalculationSettings& settings);

// The plot of computed curves: title and modifier, the curves' quantities on the axes (frequency on
// a logarithmic axis), and extents fitting the curves (nothing when no curve has a point to show).
std::optional<VELTGraphPlot> frequencyGraphPlot(const FrequencyGraphDescription& graph, GraphDataArray curves,
                                                const GraphCalculationSettings& settings);

} // namespace tavolar
