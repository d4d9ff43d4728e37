#pragma once
// Colours and line styles of curves: plain values, components from 0 to 1 in sRGB.

#include <vector>

namespace tavolar {

struct VELTColor {
    double red = 0.0;
    double green = 0.0;
    double blue = 0.0;
    double alpha = 1.0;

    static VELTColor blackColor() { return {0.0, 0.0, 0.0, 1.0}; }
    static VELTColor grayColor() { return {0.5, 0.5, 0.5, 1.0}; }
    bool operator==(const VELTColor&) const = default;
};

struct VELTLineStyle {
    VELTColor color;
    double width = 1.0;              // points
    std::vector<double> dashPattern; // on, off, on, ... in points; empty for a solid line

    static VELTLineStyle lineStyleWithColor(VELTColor color, double width = 1.0) {
        return {color, width, {}};
    }
    bool operator==(const VELTLineStyle&) const = default;
};

} // namespace tavolar
