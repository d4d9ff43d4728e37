#pragma once
// The extents of a graph (the X and Y ranges it shows) and the filter that imposes limits on
// automatic extents.

#include "graphing/VELTGraphData.h"

#include <map>
#include <optional>
#include <string>

namespace tavolar {

struct VELTGraphExtents {
    double xMin = 0.0;
    double xMax = 0.0;
    double yMin = 0.0;
    double yMax = 0.0;
    bool operator==(const VELTGraphExtents&) const = default;
};

// The smallest extents holding every finite point of the curves (for surfaces, X and Z), or nothing
// when no curve has a finite point.
std::optional<VELTGraphExtents> extentsFittingGraphData(const GraphDataArray& graphData);

class VELTGraphExtentsFilter {
public:
    VELTGraphExtentsFilter() = default;
    VELTGraphExtentsFilter(std::optional<double> xMin, std::optional<double> xMax, std::optional<double> yMin,
                           std::optional<double> yMax);

    // The extents with each set limit imposed: a minimum raises the lower bound and a maximum lowers
    // the upper one; a range that a limit would turn inside out keeps the limit and spans nothing.
    VELTGraphExtents filter(VELTGraphExtents extents) const;

    // The set limits under the keys "xMin", "xMax", "yMin" and "yMax".
    std::map<std::string, double> dictionaryRepresentation() const;
    static VELTGraphExtentsFilter
    fromDictionaryRepresentation(const std::map<std::string, double>& dictionary);

    std::optional<double> xMin, xMax, yMin, yMax;
    bool operator==(const VELTGraphExtentsFilter&) const = default;
};

} // namespace tavolar
