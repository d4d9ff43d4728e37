#pragma once
// An axis of a graph model: linear or logarithmic, what it measures (its name and unit, which give
// its title and how its tick labels are written in pictures), and the formatter through which views
// show and read its values (an extents field, a cursor read-out).

#include "graphing/VELTGraphData.h"
#include "graphing/VELTUnitFormatter.h"

#include <functional>
#include <string>
#include <utility>

namespace tavolar {

enum class VELTAxisKind { Linear, Logarithmic };

class VELTAxis {
public:
    using TickLabelFormatter = std::function<std::string(double value)>;

    explicit VELTAxis(VELTAxisKind kind = VELTAxisKind::Linear) : kind_(kind) {}
    static VELTAxis linearAxis() { return VELTAxis(VELTAxisKind::Linear); }
    static VELTAxis logarithmicAxis() { return VELTAxis(VELTAxisKind::Logarithmic); }

    VELTAxisKind kind() const noexcept { return kind_; }
    bool isLogarithmic() const noexcept { return kind_ == VELTAxisKind::Logarithmic; }

    const GraphQuantity& quantity() const noexcept { return quantity_; }
    void setQuantity(GraphQuantity quantity) { quantity_ = std::move(quantity); }
    // The axis title: "Frequency (Hz)", or the name alone for plain numbers.
    std::string label() const { return axisTitle(quantity_.name, quantity_.unit); }

    // Plain short numbers when none has been set.
    std::string formattedValue(double value) const {
        return tickLabelFormatter_ ? tickLabelFormatter_(value) : formatShortNumber(value);
    }
    const TickLabelFormatter& tickLabelFormatter() const noexcept { return tickLabelFormatter_; }
    void setTickLabelFormatter(TickLabelFormatter formatter) { tickLabelFormatter_ = std::move(formatter); }

private:
    VELTAxisKind kind_;
    GraphQuantity quantity_;
    TickLabelFormatter tickLabelFormatter_;
};

} // namespace tavolar
