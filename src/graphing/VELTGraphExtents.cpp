#include "graphing/VELTGraphExtents.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace tavolar {

std::optional<VELTGraphExtents> extentsFittingGraphData(const GraphDataArray& graphData) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    VELTGraphExtents extents{infinity, -infinity, infinity, -infinity};
    bool found = false;
    auto include = [&](double x, double y) {
        if (!std::isfinite(x) || !std::isfinite(y))
            return;
        extents.xMin = std::min(extents.xMin, x), extents.xMax = std::max(extents.xMax, x);
        extents.yMin = std::min(extents.yMin, y), extents.yMax = std::max(extents.yMax, y);
        found = true;
    };
    for (const auto& data : graphData) {
        if (!data)
            continue;
        if (const auto* surface = dynamic_cast<const GraphData3D*>(data.get())) {
            for (std::size_t row = 0; row < surface->rows(); ++row)
                for (std::size_t column = 0; column < surface->columns(); ++column)
                    include(surface->x()[column], surface->z()[row]);
            continue;
        }
        std::size_t count = std::min(data->x().length(), data->y().length());
        for (std::size_t i = 0; i < count; ++i)
            include(data->x()[i], data->y()[i]);
    }
    if (!found)
        return std::nullopt;
    return extents;
}

VELTGraphExtentsFilter::VELTGraphExtentsFilter(std::optional<double> xMinimum, std::optional<double> xMaximum,
                                               std::optional<double> yMinimum, std::optional<double> yMaximum)
    : xMin(xMinimum), xMax(xMaximum), yMin(yMinimum), yMax(yMaximum) {}

VELTGraphExtents VELTGraphExtentsFilter::filter(VELTGraphExtents extents) const {
    auto impose = [](double& low, double& high, std::optional<double> minimum,
                     std::optional<double> maximum) {
        if (minimum)
            low = std::max(low, *minimum), high = std::max(high, *minimum);
        if (maximum)
            high = std::min(high, *maximum), low = std::min(low, *maximum);
    };
    impose(extents.xMin, extents.xMax, xMin, xMax);
    impose(extents.yMin, extents.yMax, yMin, yMax);
    return extents;
}

std::map<std::string, double> VELTGraphExtentsFilter::dictionaryRepresentation() const {
    std::map<std::string, double> dictionary;
    for (const auto& [key, value] : {std::pair{"xMin", xMin}, {"xMax", xMax}, {"yMin", yMin}, {"yMax", yMax}})
        if (value)
            dictionary[key] = *value;
    return dictionary;
}

VELTGraphExtentsFilter
VELTGraphExtentsFilter::fromDictionaryRepresentation(const std::map<std::string, double>& dictionary) {
    auto read = [&](const char* key) -> std::optional<double> {
        auto entry = dictionary.find(key);
        return entry == dictionary.end() ? std::nullopt : std::optional<double>(entry->second);
    };
    return VELTGraphExtentsFilter(read("xMin"), read("xMax"), read("yMin"), read("yMax"));
}

} // namespace tavolar
