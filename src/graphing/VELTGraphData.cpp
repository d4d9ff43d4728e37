#include "graphing/VELTGraphData.h"

#include "platform/Assertions.h"

namespace tavolar {

VELTGraphData::VELTGraphData(VELTRealVector x, VELTRealVector y, VELTLineStyle lineStyle)
    : x_(std::move(x)), y_(std::move(y)), lineStyle_(std::move(lineStyle)) {}

std::shared_ptr<VELTGraphData> VELTGraphData::graphDataWithX(VELTRealVector x, VELTRealVector y,
                                                             VELTColor color) {
    return std::make_shared<VELTGraphData>(std::move(x), std::move(y),
                                           VELTLineStyle::lineStyleWithColor(color));
}

std::shared_ptr<VELTGraphData> VELTGraphData::graphDataWithX(VELTRealVector x, VELTRealVector y,
                                                             VELTLineStyle lineStyle) {
    return std::make_shared<VELTGraphData>(std::move(x), std::move(y), std::move(lineStyle));
}

std::shared_ptr<VELTGraphData> VELTGraphData::graphDataWithX(VELTRealVector x, VELTRealVector y,
                                                             VELTLineStyle lineStyle,
                                                             GraphInfoDictionary infoDictionary) {
    auto data = std::make_shared<VELTGraphData>(std::move(x), std::move(y), std::move(lineStyle));
    data->setInfoDictionary(std::move(infoDictionary));
    return data;
}

void VELTGraphData::setQuantities(GraphQuantity x, GraphQuantity y) {
    xQuantity_ = std::move(x);
    yQuantity_ = std::move(y);
}

std::int64_t VELTGraphData::sampleRate() const {
    auto entry = info_.find(kGraphDataSampleRateKey);
    if (entry == info_.end())
        return 0;
    if (const auto* integer = std::get_if<std::int64_t>(&entry->second))
        return *integer;
    if (const auto* real = std::get_if<double>(&entry->second))
        return static_cast<std::int64_t>(*real);
    return 0;
}

std::shared_ptr<VELTGraphData>
VELTGraphData::withModifiedYValues(const std::function<void(VELTRealVector&)>& transform) const {
    VELTRealVector y = y_;
    transform(y);
    return withXY(x_, std::move(y));
}

std::shared_ptr<VELTGraphData> VELTGraphData::withXY(VELTRealVector x, VELTRealVector y) const {
    auto data = std::make_shared<VELTGraphData>(*this);
    data->x_ = std::move(x);
    data->y_ = std::move(y);
    return data;
}

GraphData3D::GraphData3D(VELTRealVector vector, std::size_t rows, std::size_t columns)
    : VELTGraphData(VELTRealVector(columns), std::move(vector), VELTLineStyle{}), rows_(rows),
      columns_(columns), z_(rows) {
    TAVOLAR_PARAMETER_ASSERT(y().length() == rows * columns);
}

std::span<const float> GraphData3D::rowAtIndex(std::size_t row) const {
    TAVOLAR_PARAMETER_ASSERT(row < rows_);
    return {y().components() + row * columns_, columns_};
}

void GraphData3D::setXZ(VELTRealVector x, VELTRealVector z) {
    TAVOLAR_PARAMETER_ASSERT(x.length() == columns_ && z.length() == rows_);
    setX(std::move(x));
    z_ = std::move(z);
}

void GraphData3D::setQuantities(GraphQuantity x, GraphQuantity z, GraphQuantity value) {
    VELTGraphData::setQuantities(std::move(x), std::move(value));
    zQuantity_ = std::move(z);
}

} // namespace tavolar
