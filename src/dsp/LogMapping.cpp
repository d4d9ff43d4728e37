#include "dsp/LogMapping.h"

#include <cmath>
#include <cstdlib>

namespace tavolar {

namespace {

void recomputeScale(SLogMapping* mapping) noexcept {
    const double decades = mapping->logMaxValue - mapping->logMinValue;
    mapping->scale = decades == 0.0 ? 0.0 : (mapping->maxPoint - mapping->minPoint) / decades;
}

} // namespace

SLogMapping* SLogMappingCreate() noexcept {
    auto* mapping = static_cast<SLogMapping*>(std::calloc(1, sizeof(SLogMapping)));
    if (mapping == nullptr)
        return nullptr;
    SLogMappingInitialize(mapping);
    return mapping;
}

void SLogMappingDestroy(SLogMapping* mapping) noexcept {
    if (mapping == nullptr)
        return;
    SLogMappingDealloc(mapping);
    std::free(mapping);
}

bool SLogMappingInitialize(SLogMapping* mapping) noexcept {
    *mapping = SLogMapping{};
    return true;
}

void SLogMappingDealloc(SLogMapping*) noexcept {}

void SLogMappingSetMinValue(SLogMapping* mapping, double value) noexcept {
    mapping->minValue = value;
    mapping->logMinValue = std::log10(value);
    recomputeScale(mapping);
}

void SLogMappingSetMaxValue(SLogMapping* mapping, double value) noexcept {
    mapping->maxValue = value;
    mapping->logMaxValue = std::log10(value);
    recomputeScale(mapping);
}

void SLogMappingSetMinPoint(SLogMapping* mapping, double point) noexcept {
    mapping->minPoint = point;
    recomputeScale(mapping);
}

void SLogMappingSetMaxPoint(SLogMapping* mapping, double point) noexcept {
    mapping->maxPoint = point;
    recomputeScale(mapping);
}

double SLogMappingMinValue(const SLogMapping* mapping) noexcept {
    return mapping->minValue;
}
double SLogMappingMaxValue(const SLogMapping* mapping) noexcept {
    return mapping->maxValue;
}
double SLogMappingMinPoint(const SLogMapping* mapping) noexcept {
    return mapping->minPoint;
}
double SLogMappingMaxPoint(const SLogMapping* mapping) noexcept {
    return mapping->maxPoint;
}

double SLogMappingPointForValue(const SLogMapping* mapping, double value) noexcept {
    return (std::log10(value) - mapping->logMinValue) * mapping->scale + mapping->minPoint;
}

double SLogMappingValueForPoint(const SLogMapping* mapping, double point) noexcept {
    return std::pow(10.0, (point - mapping->minPoint) / mapping->scale + mapping->logMinValue);
}

} // namespace tavolar
