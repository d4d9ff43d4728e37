#pragma once
// The audio devices present in the process, by UID: the name, channel counts and sample rate of each.
// Device back ends register what they find and unregister what disappears; settings objects look
// devices up here. Thread-safe. Deliberately minimal: only what capture settings need to answer.

#include <cstdint>
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

class VELTAudioDeviceRegistry {
public:
    // The process-wide registry.
    static VELTAudioDeviceRegistry& shared();

    // Adds a device, or replaces the one with the same UID.
    void registerDevice(AudioDeviceDescription device);
    // Removes the device with this UID; an unknown UID is ignored.
    void unregisterDevice(std::string_view uid);
    void removeAllDevices();

    // A snapshot of the device with this UID, or nullopt when none is registered.
    std::optional<AudioDeviceDescription> deviceWithUID(std::string_view uid) const;
    // Every registered device, in registration order.
    std::vector<AudioDeviceDescription> devices() const;

private:
    mutable std::mutex mutex_;
    std::vector<AudioDeviceDescription> devices_;
};

} // namespace tavolar
