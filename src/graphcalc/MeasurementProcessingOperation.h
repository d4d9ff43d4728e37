#pragma once
// The work of a graph calculation for one record: an operation that turns a record (a cached copy,
// which nothing else changes) into zero or more graph data. Operations run concurrently on the
// calculation controller's queue; each touches only its own record and result.

#include "core/VELTMeasurementRecord.h"
#include "graphing/VELTGraphData.h"
#include "platform/OperationQueue.h"

#include <cstdint>
#include <memory>
#include <mutex>

namespace tavolar {

class MeasurementProcessingOperation : public Operation {
public:
    explicit MeasurementProcessingOperation(std::shared_ptr<VELTMeasurementRecord> record);

    const std::shared_ptr<VELTMeasurementRecord>& record() const noexcept { return record_; }
    // The result, complete once the operation has finished.
    GraphDataArray graphDataArray() const;
    void setGraphDataArray(GraphDataArray array);

    // Graph data with the info dictionary {"sampleRate": the record's sample rate}.
    static std::shared_ptr<VELTGraphData> graphDataForRecord(const VELTMeasurementRecord& record,
                                                             VELTRealVector x, VELTRealVector y,
                                                             VELTColor color);
    static std::shared_ptr<VELTGraphData> graphDataForRecord(const VELTMeasurementRecord& record,
                                                             VELTRealVector x, VELTRealVector y,
                                                             VELTLineStyle lineStyle);
    // The record's plot colour; a record without one is a programming error (AssertionFailure).
    static VELTColor plotColorOfRecord(const VELTMeasurementRecord& record);

protected:
    // The plain operation makes nothing.
    void main() override {}
    void appendGraphData(std::shared_ptr<const VELTGraphData> data);

private:
    std::shared_ptr<VELTMeasurementRecord> record_;
    mutable std::mutex mutex_;
    GraphDataArray graphData_;
};

// An operation that works at the FFT length chosen for the whole calculation.
class FrequencyDomainMeasurementProcessingOperation : public MeasurementProcessingOperation {
public:
    FrequencyDomainMeasurementProcessingOperation(std::shared_ptr<VELTMeasurementRecord> record,
                                                  std::int64_t fftSize);
    // Only made with an FFT size.
    explicit FrequencyDomainMeasurementProcessingOperation(std::shared_ptr<VELTMeasurementRecord> record) =
        delete;
    std::int64_t fftSize() const noexcept { return fftSize_; }

private:
    std::int64_t fftSize_;
};

// The info key of a curve's column title in files ("Phase (deg)", "H3 (%)").
inline constexpr const char* kGraphDataColumnTitleKey = "columnTitle";

// The info keys with which frequency curves carry the record's valid band: curves are computed over
// every bin from 0 Hz (smoothing windows count bins from 0 Hz) and cut to the band afterwards.
inline constexpr const char* kGraphDataValidStartKey = "validStartFrequency";
inline constexpr const char* kGraphDataValidEndKey = "validEndFrequency";

// A frequency curve of the record over every bin from 0 Hz up to below Nyquist, carrying the record's
// valid band (the bins validRangeForFFTLength answers) in its info dictionary.
std::shared_ptr<VELTGraphData>
wholeSpectrumGraphData(const VELTMeasurementRecord& record, std::size_t fftLength,
                       const std::function<VELTRealVector(const VELTMeasurementRecord&, std::size_t)>& curve);

// The magnitude response in dB at the calculation's FFT size, in the record's plot colour.
class MagnitudeResponseMeasurementProcessingOperation final
    : public FrequencyDomainMeasurementProcessingOperation {
public:
    using FrequencyDomainMeasurementProcessingOperation::FrequencyDomainMeasurementProcessingOperation;

protected:
    void main() override;
};

} // namespace tavolar
