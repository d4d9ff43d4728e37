#include "audio/VELTAudioDeviceRegistry.h"

#include <algorithm>

namespace tavolar {

VELTAudioDeviceRegistry& VELTAudioDeviceRegistry::shared() {
    static VELTAudioDeviceRegistry registry;
    return registry;
}

void VELTAudioDeviceRegistry::registerDevice(AudioDeviceDescription device) {
    std::lock_guard lock(mutex_);
    auto existing = std::find_if(devices_.begin(), devices_.end(), [&](const AudioDeviceDescription& known) {
        return known.uid == device.uid;
    });
    if (existing != devices_.end())
        *existing = std::move(device);
    else
        devices_.push_back(std::move(device));
}

void VELTAudioDeviceRegistry::unregisterDevice(std::string_view uid) {
    std::lock_guard lock(mutex_);
    std::erase_if(devices_, [&](const AudioDeviceDescription& known) { return known.uid == uid; });
}

void VELTAudioDeviceRegistry::removeAllDevices() {
    std::lock_guard lock(mutex_);
    devices_.clear();
}

std::optional<AudioDeviceDescription> VELTAudioDeviceRegistry::deviceWithUID(std::string_view uid) const {
    std::lock_guard lock(mutex_);
    for (const AudioDeviceDescription& device : devices_)
        if (device.uid == uid)
            return device;
    return std::nullopt;
}

std::vector<AudioDeviceDescription> VELTAudioDeviceRegistry::devices() const {
    std::lock_guard lock(mutex_);
    return devices_;
}

} // namespace tavolar
