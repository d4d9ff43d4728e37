#include "audio/devices/VELTAudioHardware.h"

#include "audio/VELTAudioDeviceRegistry.h"
#include "audio/devices/AudioDeviceUID.h"
#include "audio/devices/VELTAudioDevice.h"
#include "audio/devices/simulated/SimulatedAudioDevice.h"
#include "audio/devices/simulated/SimulatedDeviceConfiguration.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <mutex>

#if defined(TAVOLAR_WITH_JACK)
#include "audio/devices/jack/JackAudioDevice.h"
#endif

namespace tavolar {

namespace {

struct KnownDevice {
    AudioDeviceID deviceID = kAudioDeviceUnknown;
    std::shared_ptr<AudioDeviceDriver> driver;
    std::vector<std::string> publishedUIDs; // the spellings registered for it, removed with it
};

// The process-wide table of drivers. Devices are keyed by the UID as given (the identity the
// capture settings keep); a driver is shared by every UID of the same canonical form.
class HardwareState {
public:
    // Never destroyed: at exit, the backends' own libraries may already be torn down.
    static HardwareState& shared() {
        static HardwareState* state = new HardwareState;
        return *state;
    }

    std::shared_ptr<AudioDeviceDriver> driverForUID(std::string_view uid, AudioDeviceID* deviceID) {
        std::lock_guard lock(mutex_);
        KnownDevice* device = knownDeviceForUID(uid);
        if (!device)
            return nullptr;
        if (deviceID)
            *deviceID = device->deviceID;
        return device->driver;
    }

    // The registry's lookup: registers the device under the UID as given when it is present, even
    // when its driver is already open (the registry may have been emptied since).
    void publishDevice(std::string_view uid) {
        std::lock_guard lock(mutex_);
        if (KnownDevice* device = knownDeviceForUID(uid))
            publish(std::string(uid), *device);
    }

    std::shared_ptr<AudioDeviceDriver> driverForID(AudioDeviceID deviceID) {
        std::lock_guard lock(mutex_);
        for (auto& [canonical, device] : known_)
            if (device.deviceID == deviceID)
                return device.driver->isAlive() ? device.driver : nullptr;
        return nullptr;
    }

    void registerSimulated(const SimulatedDeviceConfiguration& configuration) {
        std::lock_guard lock(mutex_);
        simulated_[configuration.name] = configuration;
        AudioDeviceUID uid{"sim", configuration.name, {}};
        if (auto found = known_.find(uid.canonicalString()); found != known_.end())
            forget(found);
    }

    void removeSimulated(const std::string& name) {
        std::lock_guard lock(mutex_);
        simulated_.erase(name);
        AudioDeviceUID uid{"sim", name, {}};
        if (auto found = known_.find(uid.canonicalString()); found != known_.end())
            forget(found);
    }

    void release(std::string_view uid) {
        std::lock_guard lock(mutex_);
        if (auto parsed = AudioDeviceUID::parse(uid))
            if (auto found = known_.find(parsed->canonicalString()); found != known_.end())
                forget(found);
    }

    std::vector<std::string> simulatedNames() {
        std::lock_guard lock(mutex_);
        std::vector<std::string> names{"default"};
        for (const auto& [name, configuration] : simulated_)
            if (name != "default")
                names.push_back(name);
        return names;
    }

private:
    // The open device of this UID, opened now if it is not (nullptr when it is not present).
    // Called with mutex_ held.
    KnownDevice* knownDeviceForUID(std::string_view uid) {
        auto parsed = AudioDeviceUID::parse(uid);
        if (!parsed)
            return nullptr;
        std::string canonical = parsed->canonicalString();
        if (auto found = known_.find(canonical); found != known_.end()) {
            if (found->second.driver->isAlive())
                return &found->second;
            forget(found);
        }
        std::shared_ptr<AudioDeviceDriver> driver = makeDriver(*parsed, std::string(uid));
        if (!driver)
            return nullptr;
        KnownDevice& device =
            known_.emplace(canonical, KnownDevice{nextDeviceID_++, driver, {}}).first->second;
        publish(std::string(uid), device);
        if (canonical != uid)
            publish(canonical, device);
        return &device;
    }

    std::shared_ptr<AudioDeviceDriver> makeDriver(const AudioDeviceUID& uid, const std::string& given) {
        if (uid.scheme == "sim") {
            SimulatedDeviceConfiguration configuration;
            if (auto registered = simulated_.find(uid.name); registered != simulated_.end())
                configuration = registered->second;
            else
                configuration = SimulatedDeviceConfiguration::defaultConfiguration();
            configuration.name = uid.name;
            if (!configuration.applyParameters(uid.parameters))
                return nullptr;
            return makeSimulatedDeviceDriver(given, configuration);
        }
#if defined(TAVOLAR_WITH_JACK)
        if (uid.scheme == "jack")
            return openJackDeviceDriver(uid, given);
#endif
        return nullptr;
    }

    // Registers the device under one UID, with a presence check that notices a stopped server (the
    // driver's own flag, an atomic) or a driver nobody holds any more, without taking any lock.
    void publish(std::string uid, KnownDevice& device) {
        const AudioDeviceDriver& driver = *device.driver;
        AudioDeviceDescription description;
        description.uid = uid;
        description.name = driver.name();
        description.inputChannelCount = driver.channelCount(AudioDirection::Input);
        description.outputChannelCount = driver.channelCount(AudioDirection::Output);
        description.inputSampleRate = driver.sampleRate();
        description.outputSampleRate = driver.sampleRate();
        auto isPresent = [weakDriver = std::weak_ptr<AudioDeviceDriver>(device.driver)] {
            std::shared_ptr<AudioDeviceDriver> driver = weakDriver.lock();
            return driver && driver->isAlive();
        };
        VELTAudioDeviceRegistry::shared().registerDevice(std::move(description), std::move(isPresent));
        if (std::find(device.publishedUIDs.begin(), device.publishedUIDs.end(), uid) ==
            device.publishedUIDs.end())
            device.publishedUIDs.push_back(std::move(uid));
    }

    void forget(std::map<std::string, KnownDevice>::iterator found) {
        for (const std::string& uid : found->second.publishedUIDs)
            VELTAudioDeviceRegistry::shared().unregisterDevice(uid);
        known_.erase(found);
    }

    std::mutex mutex_;
    std::map<std::string, KnownDevice> known_;
    std::map<std::string, SimulatedDeviceConfiguration> simulated_;
    AudioDeviceID nextDeviceID_ = 1;
};

// Every program that links this layer answers the registry's misses from the start, so that settings
// read before any device was opened (a document opened in a new process) still find their devices.
[[maybe_unused]] const bool deviceLookupInstalled = [] {
    VELTAudioHardware::installDeviceLookup();
    return true;
}();

} // namespace

void VELTAudioHardware::installDeviceLookup() {
    VELTAudioDeviceRegistry::shared().setDeviceLookup(
        [](std::string_view uid) { HardwareState::shared().publishDevice(uid); });
}

AudioDeviceID VELTAudioHardware::deviceIDForDeviceUID(std::string_view deviceUID) {
    AudioDeviceID deviceID = kAudioDeviceUnknown;
    HardwareState::shared().driverForUID(deviceUID, &deviceID);
    return deviceID;
}

std::shared_ptr<AudioDeviceDriver> VELTAudioHardware::driverForDeviceID(AudioDeviceID deviceID) {
    return HardwareState::shared().driverForID(deviceID);
}

std::shared_ptr<AudioDeviceDriver> VELTAudioHardware::driverForDeviceUID(std::string_view deviceUID) {
    return HardwareState::shared().driverForUID(deviceUID, nullptr);
}

VELTAudioDevice VELTAudioHardware::deviceWithUID(std::string_view deviceUID) {
    return VELTAudioDevice(std::string(deviceUID));
}

std::vector<std::string> VELTAudioHardware::deviceUIDs() {
    std::vector<std::string> result;
    for (const std::string& name : HardwareState::shared().simulatedNames())
        result.push_back("sim:" + name);
#if defined(TAVOLAR_WITH_JACK)
    for (const std::string& name : runningJackServerNames())
        result.push_back(name == "default" ? "jack" : AudioDeviceUID{"jack", name, {}}.canonicalString());
#endif
    return result;
}

std::vector<VELTAudioDevice> VELTAudioHardware::devices() {
    std::vector<VELTAudioDevice> result;
    for (const std::string& uid : deviceUIDs()) {
        VELTAudioDevice device(uid);
        const bool present = device.isPresent();
        // The table keeps no JACK server open for the listing: the devices returned hold theirs.
        if (uid.starts_with("jack"))
            releaseDevice(uid);
        if (present)
            result.push_back(std::move(device));
    }
    return result;
}

void VELTAudioHardware::releaseDevice(std::string_view deviceUID) {
    HardwareState::shared().release(deviceUID);
}

void VELTAudioHardware::registerSimulatedDevice(const SimulatedDeviceConfiguration& configuration) {
    HardwareState::shared().registerSimulated(configuration);
}

void VELTAudioHardware::removeSimulatedDevice(const std::string& name) {
    HardwareState::shared().removeSimulated(name);
}

std::optional<std::string> VELTAudioHardware::deviceUIDProblem(std::string_view deviceUID) {
    auto parsed = AudioDeviceUID::parse(deviceUID);
    if (!parsed)
        return std::string(deviceUID) + " is not a device UID.";
#if defined(TAVOLAR_WITH_JACK)
    if (parsed->scheme == "jack")
        return jackRoutingProblem(*parsed);
#endif
    return std::nullopt;
}

std::optional<std::string> VELTAudioHardware::deviceAbsenceReason(std::string_view deviceUID) {
#if defined(TAVOLAR_WITH_JACK)
    auto parsed = AudioDeviceUID::parse(deviceUID);
    if (parsed && parsed->scheme == "jack" && jackServerDidNotAnswer(parsed->name))
        return fmt::format("The JACK server {} runs but did not answer within seconds: it is stopped or hangs.",
                           parsed->name.empty() ? "default" : parsed->name);
#endif
    return std::nullopt;
}

bool VELTAudioHardware::hasJackBackend() noexcept {
#if defined(TAVOLAR_WITH_JACK)
    return true;
#else
    return false;
#endif
}

} // namespace tavolar
