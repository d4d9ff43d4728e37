#pragma once
// The driver of a simulated device. Its own clock thread runs one cycle per buffer: it asks the
// running output endpoints for their buffers, passes the device's outputs through the signal path,
// and hands the resulting inputs to the running input endpoints. Sample time 0 is the moment the
// driver was made; host time follows sample time exactly at the nominal rate.

#include "audio/devices/AudioDeviceDriver.h"
#include "audio/devices/simulated/SimulatedDeviceConfiguration.h"

#include <memory>
#include <string>

namespace tavolar {

// configuration must be valid (SimulatedDeviceConfiguration::validate).
std::shared_ptr<AudioDeviceDriver>
makeSimulatedDeviceDriver(std::string uid, const SimulatedDeviceConfiguration& configuration);

} // namespace tavolar
