#pragma once
// The data of graphs: curves (VELTGraphData: X and Y vectors, line style, name, info dictionary and
// what the axes measure) and surfaces (GraphData3D: a matrix of values over X and Z axes). Graph data
// are built by one thread and then shared read-only (std::shared_ptr<const ...>), so they may be
// read from any thread.

#include "graphing/VELTColor.h"
#include "math/VELTRealVector.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace tavolar {

// The entries of a graph data's info dictionary: numbers (integers kept exact) and text.
using GraphInfoValue = std::variant<std::int64_t, double, std::string>;
using GraphInfoDictionary = std::map<std::string, GraphInfoValue>;

// The key every graph data made from a record carries: the record's sample rate (integer).
inline constexpr const char* kGraphDataSampleRateKey = "sampleRate";

// What an axis shows: a name and a unit ("Frequency", "Hz"; "Level", "dB"). The unit is empty for
// plain numbers.
struct GraphQuantity {
    std::string name;
    std::string unit;
    bool operator==(const GraphQuantity&) const = default;
};

class VELTGraphData {
public:
    VELTGraphData(VELTRealVector x, VELTRealVector y, VELTLineStyle lineStyle);

    // Curves drawn with a colour get a solid line of width 1.
    static std::shared_ptr<VELTGraphData> graphDataWithX(VELTRealVector x, VELTRealVector y, VELTColor color);
    static std::shared_ptr<VELTGraphData> graphDataWithX(VELTRealVector x, VELTRealVector y,
                                                         VELTLineStyle lineStyle);
    static std::shared_ptr<VELTGraphData> graphDataWithX(VELTRealVector x, VELTRealVector y,
                                                         VELTLineStyle lineStyle,
                                                         GraphInfoDictionary infoDictionary);

    const VELTRealVector& x() const noexcept { return x_; }
    const VELTRealVector& y() const noexcept { return y_; }
    const VELTLineStyle& lineStyle() const noexcept { return lineStyle_; }
    const std::string& name() const noexcept { return name_; }
    void setName(std::string name) { name_ = std::move(name); }
    const GraphInfoDictionary& infoDictionary() const noexcept { return info_; }
    void setInfoDictionary(GraphInfoDictionary info) { info_ = std::move(info); }
    const GraphQuantity& xQuantity() const noexcept { return xQuantity_; }
    const GraphQuantity& yQuantity() const noexcept { return yQuantity_; }
    void setQuantities(GraphQuantity x, GraphQuantity y);

    // The integer sample rate of the info dictionary, or 0 when it has none.
    std::int64_t sampleRate() const;

    // New graph data with the same X, line style, name, info dictionary and quantities, and Y as the
    // transform leaves a copy of it. Both give plain curves, also when called on a surface.
    std::shared_ptr<VELTGraphData>
    withModifiedYValues(const std::function<void(VELTRealVector&)>& transform) const;
    // The same with both vectors replaced.
    std::shared_ptr<VELTGraphData> withXY(VELTRealVector x, VELTRealVector y) const;

    virtual ~VELTGraphData() = default;
    VELTGraphData(const VELTGraphData&) = default;
    VELTGraphData& operator=(const VELTGraphData&) = default;

protected:
    void setX(VELTRealVector x) { x_ = std::move(x); }

private:
    VELTRealVector x_;
    VELTRealVector y_;
    VELTLineStyle lineStyle_;
    std::string name_;
    GraphInfoDictionary info_;
    GraphQuantity xQuantity_{"", ""};
    GraphQuantity yQuantity_{"", ""};
};

using GraphDataArray = std::vector<std::shared_ptr<const VELTGraphData>>;

// A surface: values(row, column) at Z = z[row] and X = x[column] (for a waterfall, one row per slice
// and one column per frequency bin). It is graph data whose Y holds the values row by row, so the
// arrays and filters of curves carry it too.
class GraphData3D : public VELTGraphData {
public:
    // Views the vector row by row; its length must be rows * columns (parameter assertion). X and Z
    // start as zeros.
    GraphData3D(VELTRealVector vector, std::size_t rows, std::size_t columns);

    std::size_t rows() const noexcept { return rows_; }
    std::size_t columns() const noexcept { return columns_; }
    std::span<const float> rowAtIndex(std::size_t row) const;
    float valueAt(std::size_t row, std::size_t column) const { return y()[row * columns_ + column]; }
    const VELTRealVector& z() const noexcept { return z_; }
    // x must have one value per column and z one per row (parameter assertion).
    void setXZ(VELTRealVector x, VELTRealVector z);
    const GraphQuantity& zQuantity() const noexcept { return zQuantity_; }
    // X, Z and the values (which VELTGraphData calls Y).
    void setQuantities(GraphQuantity x, GraphQuantity z, GraphQuantity value);

private:
    std::size_t rows_;
    std::size_t columns_;
    VELTRealVector z_;
    GraphQuantity zQuantity_;
};

} // namespace tavolar
