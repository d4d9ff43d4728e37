#include "graphcalc/MeasurementProcessingOperation.h"

#include "platform/Assertions.h"

namespace tavolar {

MeasurementProcessingOperation::MeasurementProcessingOperation(std::shared_ptr<VELTMeasurementRecord> record)
    : record_(std::move(record)) {
    TAVOLAR_PARAMETER_ASSERT(record_ != nullptr);
}

GraphDataArray MeasurementProcessingOperation::graphDataArray() const {
    std::lock_guard lock(mutex_);
    return graphData_;
}

void MeasurementProcessingOperation::setGraphDataArray(GraphDataArray array) {
    std::lock_guard lock(mutex_);
    graphData_ = std::move(array);
}

void MeasurementProcessingOperation::appendGraphData(std::shared_ptr<const VELTGraphData> data) {
    std::lock_guard lock(mutex_);
    graphData_.push_back(std::move(data));
}

std::shared_ptr<VELTGraphData>
MeasurementProcessingOperation::graphDataForRecord(const VELTMeasurementRecord& record, VELTRealVector x,
                                                   VELTRealVector y, VELTColor color) {
    return graphDataForRecord(record, std::move(x), std::move(y), VELTLineStyle::lineStyleWithColor(color));
}

std::shared_ptr<VELTGraphData>
MeasurementProcessingOperation::graphDataForRecord(const VELTMeasurementRecord& record, VELTRealVector x,
                                                   VELTRealVector y, VELTLineStyle lineStyle) {
    auto data = VELTGraphData::graphDataWithX(std::move(x), std::move(y), std::move(lineStyle));
    data->setInfoDictionary({{kGraphDataSampleRateKey, record.sampleRate()}});
    data->setName(record.comment().value_or(""));
    return data;
}

VELTColor MeasurementProcessingOperation::plotColorOfRecord(const VELTMeasurementRecord& record) {
    std::optional<ArchivedColor> color = record.plotColor();
    TAVOLAR_ASSERT(color.has_value(), "A record drawn in a graph has no plot colour");
    return {color->red, color->green, color->blue, color->alpha};
}

FrequencyDomainMeasurementProcessingOperation::FrequencyDomainMeasurementProcessingOperation(
    std::shared_ptr<VELTMeasurementRecord> record, std::int64_t fftSize)
    : MeasurementProcessingOperation(std::move(record)), fftSize_(fftSize) {}

std::shared_ptr<VELTGraphData> wholeSpectrumGraphData(
    const VELTMeasurementRecord& record, std::size_t fftLength,
    const std::function<VELTRealVector(const VELTMeasurementRecord&, std::size_t)>& curve) {
    std::shared_ptr<VELTMeasurementRecord> whole = record.cachedCopy();
    whole->setStartFrequency(0.0f);
    whole->setEndFrequency(static_cast<float>(record.sampleRate()));
    VELTRealVector x = whole->frequencyTableWithFFTLength(fftLength);
    VELTRealVector y = curve(*whole, fftLength);
    TAVOLAR_ASSERT(x.length() > 0 && x.length() == y.length(),
                   "A frequency curve does not match its frequency table");
    // The band's first and last frequency, as the record's frequency table has them.
    const BinRange valid = record.validRangeForFFTLength(fftLength);
    const double binWidth = static_cast<double>(record.sampleRate()) / static_cast<double>(fftLength);
    auto frequencyOfBin = [&](std::size_t bin) {
        return static_cast<double>(static_cast<float>(double(bin) * binWidth));
    };
    auto data = MeasurementProcessingOperation::graphDataForRecord(
        record, std::move(x), std::move(y), MeasurementProcessingOperation::plotColorOfRecord(record));
    GraphInfoDictionary info = data->infoDictionary();
    info[kGraphDataValidStartKey] = valid.length > 0 ? frequencyOfBin(valid.location) : 0.0;
    info[kGraphDataValidEndKey] = valid.length > 0 ? frequencyOfBin(valid.location + valid.length - 1) : 0.0;
    data->setInfoDictionary(std::move(info));
    data->setQuantities({"Frequency", "Hz"}, {"Level", "dB"});
    return data;
}

void MagnitudeResponseMeasurementProcessingOperation::main() {
    if (isCancelled())
        return;
    auto data = wholeSpectrumGraphData(*record(), static_cast<std::size_t>(fftSize()),
                                       [](const VELTMeasurementRecord& record, std::size_t length) {
                                           return record.fftMagnitudeResponseWithFFTLength(length);
                                       });
    GraphInfoDictionary info = data->infoDictionary();
    info[kGraphDataColumnTitleKey] = std::string("Magnitude (dB)");
    data->setInfoDictionary(std::move(info));
    data->setQuantities({"Frequency", "Hz"}, {"Magnitude", "dB"});
    appendGraphData(std::move(data));
}

} // namespace tavolar
