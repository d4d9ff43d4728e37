#pragma once
// The audio devices present in the process, by UID: the name, channel counts and sample rate of each.
// Device back ends register what they find and unregister what disappears; settings objects look
// devices up here. A back end may also install a lookup that the registry asks about a UID it does
// not know, so that a device nobody has opened yet is still answered. Thread-safe. Deliberately
// minimal: only what capture settings need to answer.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar {

// Direction of a device's stream, as sample-rate queries take it.
enum class AudioDeviceDirection : std::uint32_t { output = 0, input = 1 };

// What is known of one device at the moment it is looked up.
struct AudioDeviceDescription {
    std::string uid;
    std::string name;
    std::uint32_t inputChannelCount = 0;
    std::uint32_t outputChannelCount = 0;
    double inputSampleRate = 0.0;
    double outputSampleRate = 0.0;

    // The nominal sample rate of the given direction.
    double sampleRateForDirection(AudioDeviceDirection direction) const noexcept {
        return direction == AudioDeviceDirection::input ? inputSampleRate : outputSampleRate;
    }
    bool operator==(const AudioDeviceDescription&) const = default;
};

// Answers whether a registered device is still there (false once its server has stopped). Called
// without the registry's lock held, on whichever thread looks the device up; must not block for long.
using AudioDevicePresenceCheck = std::function<bool()>;

// Asked about a UID the registry does not know: registers the device with that UID if it is present,
// and does nothing otherwise. Called without the registry's lock held, so it may take its own locks
// and register devices; a lookup it makes itself on the same thread is answered from what is
// registered, without asking it again.
using AudioDeviceLookup = std::function<void(std::string_view uid)>;

class VELTAudioDeviceRegistry {
public:
    // The process-wide registry.
    static VELTAudioDeviceRegistry& shared();

    // Adds a device, or replaces the one with the same UID. With a presence check, a lookup that
    // finds the device gone removes it and answers as for an unknown UID.
    void registerDevice(AudioDeviceDescription device, AudioDevicePresenceCheck isPresent = {});
    // Removes the device with this UID; an unknown UID is ignored.
    void unregisterDevice(std::string_view uid);
    // Removes every device; the lookup stays installed.
    void removeAllDevices();

    // Installs the lookup asked on a miss, replacing any earlier one; nullptr removes it.
    void setDeviceLookup(AudioDeviceLookup lookup);

    // A snapshot of the device with this UID, or nullopt when none is present. On a miss (or a
    // registered device that is gone) the lookup is asked once, and what it registered is answered.
    std::optional<AudioDeviceDescription> deviceWithUID(std::string_view uid);
    // Every registered device still present, in registration order. The lookup is not asked.
    std::vector<AudioDeviceDescription> devices() const;

private:
    struct Entry {
        AudioDeviceDescription description;
        std::shared_ptr<const AudioDevicePresenceCheck> isPresent; // empty: always present
        std::uint64_t generation = 0; // tells a replaced entry from the one a caller checked
    };

    std::optional<Entry> entryWithUID(std::string_view uid) const;
    // Answers the entry's description if its device is still present; removes it otherwise.
    std::optional<AudioDeviceDescription> presentDescription(const Entry& entry);

    mutable std::mutex mutex_;
    std::vector<Entry> devices_;
    std::shared_ptr<const AudioDeviceLookup> lookup_;
    std::uint64_t nextGeneration_ = 1;
};

} // namespace tavolar
