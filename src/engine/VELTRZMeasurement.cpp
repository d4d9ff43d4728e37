#include "engine/VELTRZMeasurement.h"

#include <utility>

namespace tavolar {

VELTRZMeasurement::VELTRZMeasurement(ArchivedDate date, VELTRealVector impulseResponse,
                                     std::int64_t sampleRate, RecordDevice recordDevice,
                                     RecordChannelEntry recordChannelEntry, std::int64_t synchronousAverages,
                                     VELTLogSweepSettings logSweepSettings)
    : date_(date), impulseResponse_(std::move(impulseResponse)),
      logSweepSettings_(std::move(logSweepSettings)), sampleRate_(sampleRate),
      synchronousAverages_(synchronousAverages), recordDevice_(std::move(recordDevice)),
      recordChannelEntry_(std::move(recordChannelEntry)) {}

} // namespace tavolar
