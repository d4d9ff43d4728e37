#pragma once
// Logarithmic mapping between data values (frequencies in Hz) and points on a graph axis, in 64-bit
// floats. A plain record with C-style functions, so drawing code can keep it by pointer.

namespace tavolar {

struct SLogMapping {
    double minValue;
    double maxValue;
    double logMinValue; // log10 of minValue
    double logMaxValue; // log10 of maxValue
    double minPoint;
    double maxPoint;
    double scale; // points per decade; 0.0 when the two logarithms are equal
};

// A zero-filled, initialised mapping; null if it cannot be allocated. Release with SLogMappingDestroy.
SLogMapping* SLogMappingCreate() noexcept;
void SLogMappingDestroy(SLogMapping* mapping) noexcept;
// Sets up a zero-filled record; always succeeds.
bool SLogMappingInitialize(SLogMapping* mapping) noexcept;
// Releases what the record holds (nothing).
void SLogMappingDealloc(SLogMapping* mapping) noexcept;

// Each setter stores its field (and the value's log10) and recomputes the scale.
void SLogMappingSetMinValue(SLogMapping* mapping, double value) noexcept;
void SLogMappingSetMaxValue(SLogMapping* mapping, double value) noexcept;
void SLogMappingSetMinPoint(SLogMapping* mapping, double point) noexcept;
void SLogMappingSetMaxPoint(SLogMapping* mapping, double point) noexcept;
double SLogMappingMinValue(const SLogMapping* mapping) noexcept;
double SLogMappingMaxValue(const SLogMapping* mapping) noexcept;
double SLogMappingMinPoint(const SLogMapping* mapping) noexcept;
double SLogMappingMaxPoint(const SLogMapping* mapping) noexcept;

// (log10(value) - log10 min) * scale + min point.
double SLogMappingPointForValue(const SLogMapping* mapping, double value) noexcept;
// 10^((point - min point) / scale + log10 min); with a scale of 0 the division is not guarded.
double SLogMappingValueForPoint(const SLogMapping* mapping, double point) noexcept;

} // namespace tavolar
