// Device UIDs as users type them ("jack:NAME?in0=PORT", "sim:NAME?delay=48&noise=-60"): a UID that
// parses has a canonical text naming the same device, and a simulated device's parameters give a
// runnable configuration of finite numbers or an error that names the parameter.

#include "audio/devices/AudioDeviceUID.h"
#include "audio/devices/simulated/SimulatedDeviceConfiguration.h"
#include "fuzz/FuzzCheck.h"

#include <cmath>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tavolar;
    auto uid = AudioDeviceUID::parse(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!uid)
        return 0;
    const std::string canonical = uid->canonicalString();
    auto again = AudioDeviceUID::parse(canonical);
    FUZZ_CHECK(again && *again == *uid && again->canonicalString() == canonical,
               "the canonical text names the same device");
    if (uid->scheme != "sim")
        return 0;
    uid->parameters.erase("ir"); // a file to read: the fuzzer is not to wander the file system
    SimulatedDeviceConfiguration configuration;
    auto applied = configuration.applyParameters(uid->parameters);
    if (!applied) {
        FUZZ_CHECK(!applied.error().localizedDescription.empty(), "a refused parameter is named");
        return 0;
    }
    FUZZ_CHECK(configuration.validate().has_value(), "applied parameters give a runnable device");
    FUZZ_CHECK(std::isfinite(configuration.noiseLevel) && std::isfinite(configuration.inputGain) &&
                   std::isfinite(configuration.secondHarmonic) && std::isfinite(configuration.thirdHarmonic),
               "the device under test is described by finite numbers");
    return 0;
}
