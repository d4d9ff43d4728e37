#pragma once
// The audio devices present: simulated devices ("sim:NAME", always present) and JACK servers
// ("jack", "jack:NAME"), looked up by UID. Drivers are made on first lookup and kept, so every
// user of one UID shares one device (one simulated world, one server connection); a JACK device
// whose server went away is dropped and looked up afresh next time. Thread-safe.

#include "audio/devices/AudioDeviceDriver.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar {

class VELTAudioDevice;
struct SimulatedDeviceConfiguration;

using AudioDeviceID = std::uint32_t;
inline constexpr AudioDeviceID kAudioDeviceUnknown = 0;

class VELTAudioHardware {
public:
    // The identifier of the device with this UID, kAudioDeviceUnknown when none is present.
    // Identifiers stay the same for as long as the device is present.
    static AudioDeviceID deviceIDForDeviceUID(std::string_view deviceUID);
    static std::shared_ptr<AudioDeviceDriver> driverForDeviceID(AudioDeviceID deviceID);
    static std::shared_ptr<AudioDeviceDriver> driverForDeviceUID(std::string_view deviceUID);

    // The UIDs of the devices present now, without opening any: the registered simulated devices
    // (sim:default first) and every JACK server of this user that runs (the default one as
    // "jack", the others as "jack:NAME").
    static std::vector<std::string> deviceUIDs();
    // The devices of deviceUIDs() that can be opened together: of the JACK servers, only the first,
    // since a program uses one JACK server at a time (see releaseDevice). A JACK server stays open
    // only while the device returned for it is held.
    static std::vector<VELTAudioDevice> devices();
    // Closes the device of this UID once nothing else holds it, so that another JACK server can be
    // opened; a later lookup opens it again.
    static void releaseDevice(std::string_view deviceUID);
    static VELTAudioDevice deviceWithUID(std::string_view deviceUID);

    // Makes (or replaces) the simulated device "sim:<configuration.name>". A replaced device keeps
    // running for those that already hold it; later lookups get the new one.
    static void registerSimulatedDevice(const SimulatedDeviceConfiguration& configuration);
    static void removeSimulatedDevice(const std::string& name);

    // Installs the device registry's lookup, so that the registry answers for any UID present here
    // (opening its device) and not only for devices already looked up through this class. Done when
    // the program starts; calling it again changes nothing.
    static void installDeviceLookup();

    // Why no device could ever have this UID (malformed, or naming what its backend cannot take,
    // such as a JACK name longer than JACK holds), or why its present device cannot be used as it
    // says (a routed JACK port its server does not have), for a person to read; nullopt otherwise,
    // whether or not its device is present.
    static std::optional<std::string> deviceUIDProblem(std::string_view deviceUID);

    // Why the device of this UID was found absent, when more is known than that it is missing: a
    // JACK server that runs but did not answer (stopped, or hung). For a person to read.
    static std::optional<std::string> deviceAbsenceReason(std::string_view deviceUID);

    // Whether this build has the JACK backend.
    static bool hasJackBackend() noexcept;
};

} // namespace tavolar
