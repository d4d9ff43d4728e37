#include "audio/VELTAudioDeviceRegistry.h"

#include <algorithm>

namespace tavolar {

namespace {

// Set while this thread runs a lookup: a lookup that asks the registry about a UID (itself or
// through settings) is answered from the table instead of being asked again without end.
thread_local bool runningLookup = false;

struct RunningLookupScope {
    RunningLookupScope() noexcept { runningLookup = true; }
    ~RunningLookupScope() { runningLookup = false; }
    RunningLookupScope(const RunningLookupScope&) = delete;
    RunningLookupScope& operator=(const RunningLookupScope&) = delete;
};

} // namespace

VELTAudioDeviceRegistry& VELTAudioDeviceRegistry::shared() {
    static VELTAudioDeviceRegistry registry;
    return registry;
}

void VELTAudioDeviceRegistry::registerDevice(AudioDeviceDescription device,
                                             AudioDevicePresenceCheck isPresent) {
    Entry entry{std::move(device), nullptr, 0};
    if (isPresent)
        entry.isPresent = std::make_shared<const AudioDevicePresenceCheck>(std::move(isPresent));
    std::lock_guard lock(mutex_);
    entry.generation = nextGeneration_++;
    auto existing = std::find_if(devices_.begin(), devices_.end(), [&](const Entry& known) {
        return known.description.uid == entry.description.uid;
    });
    if (existing != devices_.end())
        *existing = std::move(entry);
    else
        devices_.push_back(std::move(entry));
}

void VELTAudioDeviceRegistry::unregisterDevice(std::string_view uid) {
    std::lock_guard lock(mutex_);
    std::erase_if(devices_, [&](const Entry& known) { return known.description.uid == uid; });
}

void VELTAudioDeviceRegistry::removeAllDevices() {
    std::lock_guard lock(mutex_);
    devices_.clear();
}

void VELTAudioDeviceRegistry::setDeviceLookup(AudioDeviceLookup lookup) {
    auto installed = lookup ? std::make_shared<const AudioDeviceLookup>(std::move(lookup)) : nullptr;
    std::lock_guard lock(mutex_);
    lookup_ = std::move(installed);
}

std::optional<VELTAudioDeviceRegistry::Entry>
VELTAudioDeviceRegistry::entryWithUID(std::string_view uid) const {
    std::lock_guard lock(mutex_);
    for (const Entry& entry : devices_)
        if (entry.description.uid == uid)
            return entry;
    return std::nullopt;
}

std::optional<AudioDeviceDescription> VELTAudioDeviceRegistry::presentDescription(const Entry& entry) {
    if (!entry.isPresent || (*entry.isPresent)())
        return entry.description;
    // Only the entry that was checked goes: one registered meanwhile describes a newer device.
    std::lock_guard lock(mutex_);
    std::erase_if(devices_, [&](const Entry& known) { return known.generation == entry.generation; });
    return std::nullopt;
}

std::optional<AudioDeviceDescription> VELTAudioDeviceRegistry::deviceWithUID(std::string_view uid) {
    // The lock is held only to copy: presence checks and the lookup run without it, since they take
    // the back end's locks, and the back end registers devices here while holding those.
    if (std::optional<Entry> entry = entryWithUID(uid))
        if (std::optional<AudioDeviceDescription> description = presentDescription(*entry))
            return description;

    std::shared_ptr<const AudioDeviceLookup> lookup;
    {
        std::lock_guard lock(mutex_);
        lookup = lookup_;
    }
    if (!lookup || runningLookup)
        return std::nullopt;
    {
        RunningLookupScope scope;
        (*lookup)(uid);
    }

    // Asked once: a device the lookup registered but that is already gone is not asked about again.
    if (std::optional<Entry> entry = entryWithUID(uid))
        return presentDescription(*entry);
    return std::nullopt;
}

std::vector<AudioDeviceDescription> VELTAudioDeviceRegistry::devices() const {
    std::vector<Entry> entries;
    {
        std::lock_guard lock(mutex_);
        entries = devices_;
    }
    std::vector<AudioDeviceDescription> present;
    for (Entry& entry : entries)
        if (!entry.isPresent || (*entry.isPresent)())
            present.push_back(std::move(entry.description));
    return present;
}

} // namespace tavolar
