#pragma once
// The JACK backend. A device is one JACK server ("jack" for the default server, "jack:NAME" for a
// named one). Its channels are the server's physical capture and playback ports in the server's
// order; the UID parameters "inN=PORT" and "outN=PORT" route channel N to any port instead, so a
// measurement can run through other JACK clients. "client=NAME" names the device's JACK client
// ("tavolar" otherwise), so that two processes can measure side by side; with "connect=no" the
// device connects nothing and leaves every connection to the user (a stream flows once one of
// its ports is connected). A device is one JACK client; each endpoint
// registers ports of its own on it, connected to the channels' ports while it runs. A capture channel
// that hears another client which the device's own playback feeds reports one period more latency:
// the server closes that loop through the device's client with a period's delay. The device's clock
// is the server's frame counter, extended to 64 bits; host time is the server's microsecond clock (the
// monotonic clock).

#include "audio/devices/AudioDeviceDriver.h"
#include "audio/devices/AudioDeviceUID.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavolar {

// Why JACK cannot be handed this UID (a name longer than JACK holds, a port name that is not
// CLIENT:PORT, an unknown parameter), for a person to read; nullopt when it can.
std::optional<std::string> jackDeviceUIDProblem(const AudioDeviceUID& uid);
// The same, then whether the program already uses another server (JACK binds a program to one),
// and whether the ports the UID routes channels to exist on its server (when it runs) with the
// direction the channel needs.
std::optional<std::string> jackRoutingProblem(const AudioDeviceUID& uid);

// A driver for the server the UID names, or null when no such server runs, the UID is malformed or
// a device of another server is open.
std::shared_ptr<AudioDeviceDriver> openJackDeviceDriver(const AudioDeviceUID& uid,
                                                        const std::string& givenUID);

// Whether a JACK server of this name runs ("" or "default" for the default server). A program
// uses one server at a time: while a device of another server is open, the answer is no.
bool jackServerIsRunning(const std::string& serverName);

// Whether the server ("" or "default" for the default server) runs but answers nothing: its process
// is stopped, or it failed to answer the last client this program opened on it within a few
// seconds (it hangs). No client is opened on a stopped server.
bool jackServerDidNotAnswer(const std::string& serverName);

// The names of this user's JACK servers that run now, "default" first: every server listens on a
// socket in /dev/shm named after it, and a client opened on each confirms that it runs (a socket
// left by a server that was killed refuses the client at once). Servers that run but do not answer
// (jackServerDidNotAnswer) are among them.
std::vector<std::string> runningJackServerNames();

} // namespace tavolar
