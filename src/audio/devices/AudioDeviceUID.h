#pragma once
// Device UIDs: "scheme", "scheme:NAME" or "scheme:NAME?key=value&key=value". The scheme picks the
// backend ("jack", "sim"); the name picks a server or a simulated device ("default" when absent);
// the parameters are part of the identity (JACK channel routing, simulated device settings).
// Values are percent-decoded, so a port name may carry '&' or '=' as %26 and %3D.

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace tavolar {

struct AudioDeviceUID {
    std::string scheme;
    std::string name = "default";
    std::map<std::string, std::string> parameters;

    // nullopt for text without a scheme or with a malformed parameter list.
    static std::optional<AudioDeviceUID> parse(std::string_view text);
    // The canonical text: "scheme:name", then the parameters in key order.
    std::string canonicalString() const;
    std::optional<std::string> parameter(const std::string& key) const;

    bool operator==(const AudioDeviceUID&) const = default;
};

std::string percentEncodeDeviceUIDValue(std::string_view value);

} // namespace tavolar
