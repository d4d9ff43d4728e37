#include "audio/devices/jack/JackAudioDevice.h"

#include "audio/devices/RealTimeContext.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <jack/jack.h>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string_view>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace tavolar {

namespace {

// The library never prints: JACK's client-side messages are dropped.
void ignoreJackMessage(const char*) {}

void silenceJack() {
    static std::once_flag once;
    std::call_once(once, [] {
        jack_set_error_function(ignoreJackMessage);
        jack_set_info_function(ignoreJackMessage);
    });
}

bool hasControlCharacter(std::string_view text) {
    return std::ranges::any_of(text,
                               [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

// A server listens on a socket named /dev/shm/jack_NAME_UID_0, so a longer name than that path
// holds belongs to no server that can run; libjack copies names into fixed buffers unchecked, so
// every name is checked here before it reaches the library.
std::size_t maximumServerNameLength() {
    const std::size_t path = sizeof(sockaddr_un{}.sun_path) - 1;
    return path - std::string_view("/dev/shm/jack_").size() - fmt::format("_{}_0", getuid()).size();
}

std::optional<std::string> serverNameProblem(std::string_view name, std::string_view what) {
    if (name.empty() || hasControlCharacter(name) || name.find('/') != std::string_view::npos)
        return fmt::format("{} is not a JACK server name: give the name the server was started with "
                           "(jackd -n NAME), without '/' or control characters.",
                           what);
    if (name.size() > maximumServerNameLength())
        return fmt::format("{} is {} characters long; a JACK server name has at most {}.", what, name.size(),
                           maximumServerNameLength());
    return std::nullopt;
}

std::optional<std::string> clientNameProblem(std::string_view name, std::string_view what) {
    const std::size_t longest = std::size_t(jack_client_name_size() - 1);
    if (name.empty() || hasControlCharacter(name) || name.find(':') != std::string_view::npos)
        return fmt::format("{} is not a JACK client name: give a name without ':' or control characters.",
                           what);
    if (name.size() > longest)
        return fmt::format("{} is {} characters long; a JACK client name has at most {}.", what, name.size(),
                           longest);
    return std::nullopt;
}

std::optional<std::string> portNameProblem(std::string_view name, std::string_view what) {
    const std::size_t colon = name.find(':');
    if (colon == std::string_view::npos || colon + 1 == name.size() || hasControlCharacter(name))
        return fmt::format("{} is not a JACK port name such as system:capture_1 (CLIENT:PORT; jack_lsp "
                           "lists them).",
                           what);
    if (auto problem = clientNameProblem(name.substr(0, colon), what))
        return problem;
    const std::size_t longest = std::size_t(jack_port_name_size() - 1);
    if (name.size() > longest)
        return fmt::format("{} is {} characters long; a JACK port name has at most {}.", what, name.size(),
                           longest);
    return std::nullopt;
}

// The server JACK picks for the default: $JACK_DEFAULT_SERVER, a name handed to the library too.
std::optional<std::string> defaultServerProblem() {
    if (const char* name = std::getenv("JACK_DEFAULT_SERVER"))
        return serverNameProblem(name, "The JACK_DEFAULT_SERVER environment variable");
    return std::nullopt;
}

bool isDefaultServer(const std::string& serverName) {
    return serverName.empty() || serverName == "default";
}

// Servers whose last client did not open in time, by name ("" for the default server), and how many
// opens each still has outstanding. While one waits, no other open can get an answer: libjack opens
// one client at a time, on any server.
struct UnansweringServers {
    std::mutex mutex;
    std::map<std::string, int> outstanding;
    static UnansweringServers& shared() {
        static UnansweringServers servers;
        return servers;
    }
    static std::string key(const std::string& serverName) {
        return isDefaultServer(serverName) ? std::string() : serverName;
    }
    void abandoned(const std::string& serverName) {
        std::lock_guard lock(mutex);
        ++outstanding[key(serverName)];
    }
    // An abandoned open that returned at last: the server answers again.
    void answeredLate(const std::string& serverName) {
        std::lock_guard lock(mutex);
        if (auto found = outstanding.find(key(serverName));
            found != outstanding.end() && --found->second == 0)
            outstanding.erase(found);
    }
    bool contains(const std::string& serverName) {
        std::lock_guard lock(mutex);
        return outstanding.contains(key(serverName));
    }
    bool any() {
        std::lock_guard lock(mutex);
        return !outstanding.empty();
    }
};

// The socket a server listens on, /dev/shm/jack_NAME_UID_0 ("default" for the default server).
std::string serverSocketPath(const std::string& serverName) {
    return fmt::format("/dev/shm/jack_{}_{}_0", isDefaultServer(serverName) ? "default" : serverName,
                       getuid());
}

// Whether the process that listens on the server's socket is stopped (SIGSTOP, or a debugger): it
// would answer nothing, and libjack would wait for it without a limit. The socket's inode is found
// in the kernel's table of Unix sockets and its holder among this user's processes; a server that
// cannot be found this way counts as not stopped, and is asked as before.
bool serverProcessIsStopped(const std::string& serverName) {
    const std::string path = serverSocketPath(serverName);
    std::ifstream table("/proc/net/unix");
    std::string line, inode;
    while (std::getline(table, line))
        if (line.ends_with(" " + path)) {
            std::istringstream fields(line);
            std::string field;
            for (int index = 0; index < 7 && fields >> field; ++index)
                inode = field;
            break;
        }
    if (inode.empty())
        return false;
    const std::string target = "socket:[" + inode + "]";
    std::error_code error;
    for (const auto& process : std::filesystem::directory_iterator("/proc", error)) {
        const std::string pid = process.path().filename().string();
        if (pid.empty() || !std::ranges::all_of(pid, [](char c) { return c >= '0' && c <= '9'; }))
            continue;
        std::error_code unreadable;
        for (const auto& descriptor :
             std::filesystem::directory_iterator(process.path() / "fd", unreadable)) {
            std::error_code gone;
            if (std::filesystem::read_symlink(descriptor.path(), gone).string() != target)
                continue;
            // The state follows the command name, which is in parentheses and may hold spaces.
            std::ifstream stat(process.path() / "stat");
            const std::string status{std::istreambuf_iterator<char>(stat), std::istreambuf_iterator<char>()};
            const std::size_t end = status.rfind(')');
            return end != std::string::npos && end + 2 < status.size() &&
                   (status[end + 2] == 'T' || status[end + 2] == 't');
        }
    }
    return false;
}

// libjack waits for the server's answer without a time limit, so a server that was stopped
// (SIGSTOP) or hangs would hang the program that asks. The client is opened on a thread of its own;
// after kOpenTimeout the caller gives up, and should the answer come after all, that thread closes
// the client nobody waits for.
constexpr auto kOpenTimeout = std::chrono::seconds(8);

jack_client_t* openClient(const std::string& clientName, const std::string& serverName,
                          jack_status_t& status) {
    silenceJack();
    if (UnansweringServers::shared().any() || serverProcessIsStopped(serverName)) {
        status = jack_status_t(JackFailure | JackServerError);
        return nullptr;
    }
    struct Pending {
        std::mutex mutex;
        std::condition_variable answered;
        bool done = false;
        bool abandoned = false;
        jack_client_t* client = nullptr;
        jack_status_t status{};
    };
    auto pending = std::make_shared<Pending>();
    std::thread opener([pending, clientName, serverName] {
        jack_status_t opened{};
        jack_client_t* client =
            isDefaultServer(serverName)
                ? jack_client_open(clientName.c_str(), JackNoStartServer, &opened)
                : jack_client_open(clientName.c_str(), jack_options_t(JackNoStartServer | JackServerName),
                                   &opened, serverName.c_str());
        std::unique_lock lock(pending->mutex);
        if (pending->abandoned) {
            lock.unlock();
            if (client)
                jack_client_close(client);
            UnansweringServers::shared().answeredLate(serverName);
            return;
        }
        pending->client = client;
        pending->status = opened;
        pending->done = true;
        pending->answered.notify_all();
    });
    std::unique_lock lock(pending->mutex);
    const bool answered = pending->answered.wait_for(lock, kOpenTimeout, [&] { return pending->done; });
    if (!answered) {
        pending->abandoned = true;
        lock.unlock();
        opener.detach();
        UnansweringServers::shared().abandoned(serverName);
        status = jack_status_t(JackFailure | JackServerError);
        return nullptr;
    }
    lock.unlock();
    // The opening thread has ended before its client is used: libjack keeps per-thread data, which
    // a thread still ending while the client is closed (and libjack's globals torn down) would meet
    // freed.
    opener.join();
    status = pending->status;
    return pending->client;
}

std::vector<std::string> physicalPorts(jack_client_t* client, unsigned long flags) {
    std::vector<std::string> names;
    const char** ports = jack_get_ports(client, nullptr, JACK_DEFAULT_AUDIO_TYPE, flags | JackPortIsPhysical);
    if (ports) {
        for (const char** port = ports; *port; ++port)
            names.emplace_back(*port);
        jack_free(ports);
    }
    return names;
}

// Extends the server's 32-bit frame counter to 64 bits, relative to the latest frame time seen.
// Lock-free; correct while the times compared lie within 2^31 frames of each other.
class FrameCounter {
public:
    void seed(jack_nframes_t now) noexcept { latest_.store(now, std::memory_order_relaxed); }
    std::int64_t unwrap(jack_nframes_t frames, jack_nframes_t now) noexcept {
        std::int64_t previous = latest_.load(std::memory_order_relaxed);
        std::int64_t current = previous + std::int32_t(now - jack_nframes_t(previous));
        latest_.store(current, std::memory_order_relaxed);
        return current + std::int32_t(frames - now);
    }

private:
    std::atomic<std::int64_t> latest_{0};
};

// The server's own clock model (a delay-locked loop) is re-estimated every cycle, so converting a
// frame seconds in the past through the current model drifts by the change of its slope. Instead,
// the device's own client notes when every cycle began; a time in the history is converted within
// the cycle it fell in, exactly the way the time stamps of that cycle were made. One writer (the
// device client's process thread); readers scan backwards from the newest published cycle and stay
// clear of the slots the writer may be reusing.
class CycleHistory {
public:
    static constexpr std::size_t kCapacity = 1 << 16;
    static constexpr std::size_t kMargin = 64;

    // Runs on the audio thread.
    void note(std::int64_t frame, std::uint32_t frames, jack_time_t start, jack_time_t next) noexcept {
        std::uint64_t index = written_.load(std::memory_order_relaxed);
        Cycle& cycle = cycles_[index % kCapacity];
        cycle.frame.store(frame, std::memory_order_relaxed);
        cycle.frames.store(frames, std::memory_order_relaxed);
        cycle.start.store(start, std::memory_order_relaxed);
        cycle.next.store(next, std::memory_order_relaxed);
        written_.store(index + 1, std::memory_order_release);
    }

    bool sampleToHost(double sampleTime, std::uint64_t& hostNanoseconds) const noexcept {
        return find([&](std::int64_t frame, std::uint32_t frames, jack_time_t start, jack_time_t next) {
            if (sampleTime < double(frame) || sampleTime >= double(frame) + frames)
                return false;
            double fraction = (sampleTime - double(frame)) / frames;
            hostNanoseconds =
                std::uint64_t(std::llround((double(start) + fraction * double(next - start)) * 1000.0));
            return true;
        });
    }

    bool hostToSample(std::uint64_t hostNanoseconds, double& sampleTime) const noexcept {
        const double microseconds = double(hostNanoseconds) / 1000.0;
        return find([&](std::int64_t frame, std::uint32_t frames, jack_time_t start, jack_time_t next) {
            if (microseconds < double(start) || microseconds >= double(next))
                return false;
            sampleTime = double(frame) + (microseconds - double(start)) / double(next - start) * frames;
            return true;
        });
    }

private:
    struct Cycle {
        std::atomic<std::int64_t> frame{0};
        std::atomic<std::uint32_t> frames{0};
        std::atomic<jack_time_t> start{0};
        std::atomic<jack_time_t> next{0};
    };

    template <typename Match> bool find(Match match) const noexcept {
        const std::uint64_t written = written_.load(std::memory_order_acquire);
        const std::uint64_t oldest = written > kCapacity - kMargin ? written - (kCapacity - kMargin) : 0;
        for (std::uint64_t index = written; index > oldest; --index) {
            const Cycle& cycle = cycles_[(index - 1) % kCapacity];
            jack_time_t start = cycle.start.load(std::memory_order_relaxed);
            jack_time_t next = cycle.next.load(std::memory_order_relaxed);
            std::uint32_t frames = cycle.frames.load(std::memory_order_relaxed);
            if (frames == 0 || next <= start)
                continue;
            if (match(cycle.frame.load(std::memory_order_relaxed), frames, start, next))
                return true;
        }
        return false;
    }

    std::unique_ptr<Cycle[]> cycles_ = std::make_unique<Cycle[]>(kCapacity);
    std::atomic<std::uint64_t> written_{0};
};

class JackDeviceDriver;

// One stream of the device: ports of its own on the device's client, connected to the channels'
// ports while it runs, and served by the device's process callback while it is published there.
class JackEndpoint final : public AudioEndpoint {
public:
    JackEndpoint(std::shared_ptr<JackDeviceDriver> driver, AudioEndpointConfiguration configuration,
                 std::vector<std::string> targets, std::size_t slot)
        : driver_(std::move(driver)), configuration_(std::move(configuration)), targets_(std::move(targets)),
          slot_(slot) {}
    ~JackEndpoint() override;

    AudioStatus registerPorts();
    AudioStatus start() override;
    AudioStatus stop() override;
    std::uint64_t xrunCount() const noexcept override;
    bool isDisconnected() const noexcept override;

    AudioDirection direction() const noexcept { return configuration_.direction; }
    // Serves one cycle: fetches the port buffers, silences output, and calls the callback once
    // the ports are connected. Runs on the audio thread.
    void process(jack_nframes_t frames, const AudioTimeStamp& timeStamp) noexcept;

private:
    static constexpr std::uint64_t kNotCounting = ~std::uint64_t(0);

    std::shared_ptr<JackDeviceDriver> driver_;
    AudioEndpointConfiguration configuration_;
    std::vector<std::string> targets_;
    std::size_t slot_;
    std::vector<jack_port_t*> ports_;
    std::vector<float*> buffers_;
    std::atomic<bool> running_{false};
    std::atomic<bool> noted_{false}; // the device counts this run's channels as running
    std::atomic<bool> connected_{false};
    bool flowing_ = false;                // audio thread only: all ports have been seen connected
    std::atomic<std::uint64_t> xruns_{0}; // of earlier runs
    std::atomic<std::uint64_t> xrunsAtStart_{kNotCounting}; // the device's count when this run began
};

// The device owns the only JACK client: every client in the server's graph costs a wake-up per
// cycle, and at small periods those wake-ups are what overloads the server. Endpoints register
// their ports on this client; its one process callback notes the cycle's times, then serves the
// published capture endpoints and then the playback endpoints.
class JackDeviceDriver final : public AudioDeviceDriver,
                               public std::enable_shared_from_this<JackDeviceDriver> {
public:
    static constexpr std::size_t kEndpointsPerDirection = 4;

    JackDeviceDriver(std::string uid, std::string serverName, jack_client_t* client,
                     std::map<std::uint32_t, std::string> inputRoutes,
                     std::map<std::uint32_t, std::string> outputRoutes, bool connects)
        : uid_(std::move(uid)), serverName_(std::move(serverName)), client_(client), connects_(connects) {
        jack_on_info_shutdown(client_, &JackDeviceDriver::shutdown, this);
        frames_.seed(jack_frame_time(client_));
        periodFrames_.store(jack_get_buffer_size(client_), std::memory_order_relaxed);
        lastCycle_.store(now(), std::memory_order_relaxed);
        jack_set_process_callback(client_, &JackDeviceDriver::process, this);
        jack_set_xrun_callback(client_, &JackDeviceDriver::xrun, this);
        jack_activate(client_);
        inputPorts_ = physicalPorts(client_, JackPortIsOutput);
        outputPorts_ = physicalPorts(client_, JackPortIsInput);
        for (auto& [channel, port] : inputRoutes) {
            if (channel >= inputPorts_.size())
                inputPorts_.resize(channel + 1);
            inputPorts_[channel] = port;
        }
        for (auto& [channel, port] : outputRoutes) {
            if (channel >= outputPorts_.size())
                outputPorts_.resize(channel + 1);
            outputPorts_[channel] = port;
        }
        sampleRate_ = jack_get_sample_rate(client_);
        runningCapture_.assign(inputPorts_.size(), 0);
        runningPlayback_.assign(outputPorts_.size(), 0);
        loopedCapture_.assign(inputPorts_.size(), false);
    }
    // A client whose server has gone is left alone: the library cannot talk to the server any more.
    // Endpoints hold the driver, so none is left when it goes.
    ~JackDeviceDriver() override {
        if (!answersRequests())
            return;
        jack_deactivate(client_);
        jack_client_close(client_);
    }

    std::string uid() const override { return uid_; }
    std::string name() const override {
        return fmt::format("JACK server {}", serverName_.empty() ? std::string("default") : serverName_);
    }
    bool isAlive() const noexcept override { return alive_.load(std::memory_order_acquire); }
    // A server that runs no cycle for a few periods while the device streams has stopped (frozen,
    // suspended or hung): nothing it was asked would be answered, so it is asked nothing more. The
    // device stays present meanwhile, so that a lookup never opens a new client on a server that
    // cannot answer; once cycles come back it counts as gone, and the next lookup starts afresh.
    bool hasStalled() const noexcept {
        const std::int64_t silence = now() - lastCycle_.load(std::memory_order_acquire);
        if (stalled_.load(std::memory_order_acquire)) {
            if (silence <= stallNanoseconds())
                alive_.store(false, std::memory_order_release);
            return true;
        }
        if (streaming_.load(std::memory_order_acquire) == 0 || !isAlive() || silence <= stallNanoseconds())
            return false;
        stalled_.store(true, std::memory_order_release);
        return true;
    }
    // Whether the server may be asked something now: a request to a server that runs no cycles
    // would never return. Waits for two cycles to begin: while the device streams, until the server
    // counts as stalled; otherwise up to two seconds, since a server may pause for as long as it
    // waits on a slow client (its client timeout, half a second by default). One cycle is not
    // enough: a server stopped just before the question may already have woken this client for
    // one more cycle, whose callback can run late on a busy machine.
    bool answersRequests() const noexcept {
        const std::int64_t asked = now();
        std::int64_t after = asked;
        int begun = 0;
        while (isAlive() && !hasStalled()) {
            if (const std::int64_t cycle = lastCycle_.load(std::memory_order_acquire); cycle >= after) {
                if (++begun == 2)
                    return true;
                after = cycle + 1;
                continue;
            }
            if (now() - asked > kLongestWait)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }
    // Whether endpoints connect their ports to the channels' ports (no when the user connects them).
    bool connects() const noexcept { return connects_; }

    // When the user makes the connections, they must outlive the endpoints, which the hosts make
    // anew for every sweep: an endpoint's ports are parked on the device when it goes, and the next
    // endpoint that registers a port of the same name takes it, connections and all. Called with
    // requestMutex() held.
    jack_port_t* takeParkedPort(const std::string& name) {
        for (auto port = parked_.begin(); port != parked_.end(); ++port)
            if (name == jack_port_short_name(*port)) {
                jack_port_t* taken = *port;
                parked_.erase(port);
                return taken;
            }
        return nullptr;
    }
    void parkPorts(const std::vector<jack_port_t*>& ports) {
        parked_.insert(parked_.end(), ports.begin(), ports.end());
    }
    // Output ports that stay connected while no endpoint serves them are silenced by the process
    // callback; an output buffer nobody writes would otherwise be heard again every cycle.
    void silence(const std::vector<jack_port_t*>& ports) noexcept {
        for (jack_port_t* port : ports)
            for (auto& slot : silenced_) {
                jack_port_t* empty = nullptr;
                if (slot.compare_exchange_strong(empty, port))
                    break;
            }
    }
    void unsilence(const std::vector<jack_port_t*>& ports) noexcept {
        for (jack_port_t* port : ports)
            for (auto& slot : silenced_) {
                jack_port_t* expected = port;
                slot.compare_exchange_strong(expected, nullptr);
            }
    }
    void noteStreaming(bool streaming) noexcept { streaming_.fetch_add(streaming ? 1 : -1); }
    std::uint32_t channelCount(AudioDirection direction) const override {
        return static_cast<std::uint32_t>(ports(direction).size());
    }
    std::string channelName(AudioDirection direction, std::uint32_t channel) const override {
        const auto& names = ports(direction);
        return channel < names.size() ? names[channel] : std::string();
    }
    double sampleRate() const override { return sampleRate_; }
    std::uint32_t bufferSizeInFrames() const override {
        return isAlive() && !hasStalled() ? jack_get_buffer_size(client_) : 0;
    }
    // The port's own latency, and for a capture channel that hears a loop through another client
    // (see noteRunning) one period more: that period is the server's, not the device under test's.
    // When the user makes the connections, the channel's own port tells: JACK gives it the latency
    // of what is connected to it, and its connections show a loop.
    std::uint32_t latencyForChannel(AudioDirection direction, std::uint32_t channel) const override {
        if (!isAlive() || hasStalled() || channel >= ports(direction).size() ||
            ports(direction)[channel].empty())
            return 0;
        const std::string own = connects_ ? std::string() : ownPort(direction, channel);
        jack_port_t* port =
            jack_port_by_name(client_, (own.empty() ? ports(direction)[channel] : own).c_str());
        if (!port)
            return 0;
        jack_latency_range_t range{0, 0};
        jack_port_get_latency_range(
            port, direction == AudioDirection::Input ? JackCaptureLatency : JackPlaybackLatency, &range);
        const bool looped = own.empty() ? capturesThroughLoop(channel) : feedsBackThroughConnections(port);
        if (direction == AudioDirection::Input && looped)
            return range.max + jack_get_buffer_size(client_);
        return range.max;
    }

    // The server converts whole frames and whole microseconds only; the fraction in between is
    // interpolated between neighbouring frames, so a round trip lands on the frame it started from.
    AudioStatus sampleTimeToHostTime(double sampleTime, std::uint64_t& hostTime,
                                     double& rateScalar) const override {
        if (!isAlive())
            return kAudioStatusDeviceNotFound;
        if (!std::isfinite(sampleTime))
            return kAudioStatusInvalidParameter;
        rateScalar = 1.0;
        if (history_.sampleToHost(sampleTime, hostTime))
            return kAudioStatusNoError;
        double whole = std::floor(sampleTime);
        jack_nframes_t frame = jack_nframes_t(std::int64_t(whole));
        jack_time_t start = jack_frames_to_time(client_, frame),
                    next = jack_frames_to_time(client_, frame + 1);
        if (start == 0)
            return kAudioStatusServerFailure;
        double frameNanoseconds = next > start ? double(next - start) * 1000.0 : 1e9 / sampleRate_;
        hostTime = std::uint64_t(start) * 1000u +
                   std::uint64_t(std::llround((sampleTime - whole) * frameNanoseconds));
        rateScalar = 1.0;
        return kAudioStatusNoError;
    }
    AudioStatus hostTimeToSampleTime(std::uint64_t hostTime, double& sampleTime,
                                     double& rateScalar) const override {
        if (!isAlive())
            return kAudioStatusDeviceNotFound;
        rateScalar = 1.0;
        if (history_.hostToSample(hostTime, sampleTime))
            return kAudioStatusNoError;
        jack_nframes_t frame = jack_time_to_frames(client_, hostTime / 1000u);
        jack_time_t start = jack_frames_to_time(client_, frame),
                    next = jack_frames_to_time(client_, frame + 1);
        if (start == 0)
            return kAudioStatusServerFailure;
        double fraction = next > start
                              ? (double(hostTime) - double(start) * 1000.0) / (double(next - start) * 1000.0)
                              : 0.0;
        std::int64_t extended = frames_.unwrap(frame, jack_frame_time(client_));
        sampleTime = double(extended) + fraction;
        rateScalar = 1.0;
        return kAudioStatusNoError;
    }

    AudioStatus makeEndpoint(const AudioEndpointConfiguration& configuration,
                             std::unique_ptr<AudioEndpoint>& endpoint) override {
        if (!isAlive())
            return kAudioStatusDeviceNotFound;
        if (!answersRequests())
            return kAudioStatusServerFailure;
        if (!configuration.callback)
            return kAudioStatusInvalidParameter;
        std::vector<std::string> targets;
        for (std::uint32_t channel : configuration.channels) {
            const auto& names = ports(configuration.direction);
            if (channel >= names.size() || names[channel].empty())
                return kAudioStatusInvalidChannel;
            targets.push_back(names[channel]);
        }
        std::optional<std::size_t> slot = reserveSlot(configuration.direction);
        if (!slot)
            return kAudioStatusServerFailure;
        auto made =
            std::make_unique<JackEndpoint>(shared_from_this(), configuration, std::move(targets), *slot);
        if (AudioStatus status = made->registerPorts())
            return status;
        endpoint = std::move(made);
        return kAudioStatusNoError;
    }

    jack_client_t* client() const noexcept { return client_; }
    // The client's requests to the server share one socket and must not interleave: endpoints made,
    // started, stopped and destroyed on different threads take turns here.
    std::mutex& requestMutex() noexcept { return requestMutex_; }
    std::uint64_t xruns() const noexcept { return xruns_.load(std::memory_order_relaxed); }

    // Endpoints tell which channels run, once their ports are connected and again when they stop.
    // When a capture channel hears an output port of another client (not a physical port) whose
    // input ports one of our running playback channels feeds, the graph holds a loop through our own
    // client: the server breaks a feedback loop with one period of delay, so what that client
    // returns reaches us one period after it was played, however the server orders the clients.
    // Every start looks at the channels running then; a channel keeps what its latest run found,
    // because the recording is aligned after its endpoints have stopped.
    void noteRunning(AudioDirection direction, const std::vector<std::uint32_t>& channels, bool running) {
        std::lock_guard lock(loopsMutex_);
        auto& counts = direction == AudioDirection::Input ? runningCapture_ : runningPlayback_;
        for (std::uint32_t channel : channels) {
            if (channel >= counts.size())
                continue;
            counts[channel] += running ? 1 : -1;
        }
        if (!running)
            return;
        for (std::uint32_t channel = 0; channel < runningCapture_.size(); ++channel)
            if (runningCapture_[channel] > 0)
                loopedCapture_[channel] = feedsBack(inputPorts_[channel]);
    }
    // The device's own port of a channel, once an endpoint registered one.
    void noteOwnPort(AudioDirection direction, std::uint32_t channel, const std::string& name) {
        std::lock_guard lock(loopsMutex_);
        auto& names = direction == AudioDirection::Input ? ownCapture_ : ownPlayback_;
        if (channel >= names.size())
            names.resize(channel + 1);
        names[channel] = name;
    }
    std::string ownPort(AudioDirection direction, std::uint32_t channel) const {
        std::lock_guard lock(loopsMutex_);
        const auto& names = direction == AudioDirection::Input ? ownCapture_ : ownPlayback_;
        return channel < names.size() ? names[channel] : std::string();
    }
    bool capturesThroughLoop(std::uint32_t channel) const {
        std::lock_guard lock(loopsMutex_);
        return channel < loopedCapture_.size() && loopedCapture_[channel];
    }

    // Endpoints of a direction live in numbered slots; a slot is reserved for an endpoint's life
    // and names its ports apart from those of another endpoint of the same direction.
    std::optional<std::size_t> reserveSlot(AudioDirection direction) {
        std::lock_guard lock(slotsMutex_);
        auto& reserved = direction == AudioDirection::Input ? captureReserved_ : playbackReserved_;
        for (std::size_t slot = 0; slot < reserved.size(); ++slot)
            if (!reserved[slot]) {
                reserved[slot] = true;
                return slot;
            }
        return std::nullopt;
    }
    void releaseSlot(AudioDirection direction, std::size_t slot) {
        std::lock_guard lock(slotsMutex_);
        (direction == AudioDirection::Input ? captureReserved_ : playbackReserved_)[slot] = false;
    }

    // From the next cycle on, the process callback serves the endpoint.
    void publish(JackEndpoint& endpoint, std::size_t slot) noexcept {
        published(endpoint.direction())[slot].store(&endpoint, std::memory_order_seq_cst);
    }
    // The process callback no longer serves the endpoint when this returns: a cycle that may still
    // have seen it has ended. The callback bumps cyclesBegun_ before it reads the slots, so either
    // it sees the empty slot or this sees its cycle begun (sequentially consistent on both sides).
    // The callback never blocks, so the wait is short; when the server has gone, no cycle runs.
    void withdraw(AudioDirection direction, std::size_t slot) noexcept {
        published(direction)[slot].store(nullptr, std::memory_order_seq_cst);
        const std::uint64_t begun = cyclesBegun_.load(std::memory_order_seq_cst);
        while (cyclesEnded_.load(std::memory_order_acquire) < begun)
            std::this_thread::sleep_for(std::chrono::microseconds(100));
    }

private:
    using Slots = std::array<std::atomic<JackEndpoint*>, kEndpointsPerDirection>;

    const std::vector<std::string>& ports(AudioDirection direction) const {
        return direction == AudioDirection::Input ? inputPorts_ : outputPorts_;
    }
    Slots& published(AudioDirection direction) noexcept {
        return direction == AudioDirection::Input ? capture_ : playback_;
    }
    static std::string_view clientOf(std::string_view port) {
        const std::size_t colon = port.find(':');
        return colon == std::string_view::npos ? std::string_view() : port.substr(0, colon);
    }
    // Whether the captured port belongs to another client that a running playback channel feeds.
    // Called with loopsMutex_ held.
    bool feedsBack(const std::string& capturedPort) const {
        const std::string_view other = clientOf(capturedPort);
        if (other.empty() || other == jack_get_client_name(client_))
            return false;
        jack_port_t* port = jack_port_by_name(client_, capturedPort.c_str());
        if (!port || (jack_port_flags(port) & JackPortIsPhysical))
            return false;
        for (std::uint32_t channel = 0; channel < runningPlayback_.size(); ++channel)
            if (runningPlayback_[channel] > 0 && clientOf(outputPorts_[channel]) == other)
                return true;
        return false;
    }
    static std::int64_t now() noexcept {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }
    std::int64_t periodNanoseconds() const noexcept {
        return std::int64_t(double(periodFrames_.load(std::memory_order_relaxed)) / sampleRate_ * 1e9);
    }
    // Four periods, but never less than 750 ms (a server may pause for its client timeout, half a
    // second by default, while it waits on a slow client) nor more than 1.5 s (a stopped server
    // is noticed well within two seconds; at the usual periods, an abort returns within one).
    static constexpr std::int64_t kLongestWait = 2'000'000'000;
    std::int64_t stallNanoseconds() const noexcept {
        return std::clamp<std::int64_t>(4 * periodNanoseconds(), 750'000'000, 1'500'000'000);
    }
    static std::vector<std::string> connections(jack_client_t* client, jack_port_t* port) {
        std::vector<std::string> names;
        if (const char** connected = jack_port_get_all_connections(client, port)) {
            for (const char** name = connected; *name; ++name)
                names.emplace_back(*name);
            jack_free(connected);
        }
        return names;
    }
    // Whether one of the clients the captured port hears is fed by one of the device's own output
    // ports (the loop noteRunning looks for, through connections the user made).
    bool feedsBackThroughConnections(jack_port_t* capture) const {
        std::vector<std::string> playback;
        {
            std::lock_guard lock(loopsMutex_);
            playback = ownPlayback_;
        }
        for (const std::string& heard : connections(client_, capture)) {
            const std::string_view other = clientOf(heard);
            jack_port_t* port = jack_port_by_name(client_, heard.c_str());
            if (other.empty() || other == jack_get_client_name(client_) || !port ||
                (jack_port_flags(port) & JackPortIsPhysical))
                continue;
            for (const std::string& own : playback)
                if (jack_port_t* output = own.empty() ? nullptr : jack_port_by_name(client_, own.c_str()))
                    for (const std::string& fed : connections(client_, output))
                        if (clientOf(fed) == other)
                            return true;
        }
        return false;
    }
    static void shutdown(jack_status_t, const char*, void* argument) {
        static_cast<JackDeviceDriver*>(argument)->alive_.store(false, std::memory_order_release);
    }
    // Counted on the device; each endpoint counts those that came while it ran. Runs on the
    // client's notification thread, which must never touch an endpoint that may be going away.
    static int xrun(void* argument) noexcept {
        static_cast<JackDeviceDriver*>(argument)->xruns_.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }

    // Notes when the cycle began (the history the clock conversions read) and makes the cycle's
    // time stamp. Runs on the audio thread.
    AudioTimeStamp noteCycle(jack_nframes_t frames) noexcept {
        jack_nframes_t currentFrames = 0;
        jack_time_t currentMicroseconds = 0, nextMicroseconds = 0;
        float periodMicroseconds = 0;
        AudioTimeStamp timeStamp;
        std::int64_t sampleTime = 0;
        if (jack_get_cycle_times(client_, &currentFrames, &currentMicroseconds, &nextMicroseconds,
                                 &periodMicroseconds) == 0) {
            sampleTime = frames_.unwrap(currentFrames, currentFrames);
            history_.note(sampleTime, frames, currentMicroseconds, nextMicroseconds);
            double nominal = frames / sampleRate_ * 1e6;
            timeStamp.rateScalar = nextMicroseconds > currentMicroseconds
                                       ? nominal / double(nextMicroseconds - currentMicroseconds)
                                       : 1.0;
        } else {
            currentFrames = jack_last_frame_time(client_);
            currentMicroseconds = jack_frames_to_time(client_, currentFrames);
            sampleTime = frames_.unwrap(currentFrames, currentFrames);
            timeStamp.rateScalar = 1.0;
        }
        timeStamp.sampleTime = double(sampleTime);
        timeStamp.hostTime = std::uint64_t(currentMicroseconds) * 1000u;
        timeStamp.flags =
            kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid | kAudioTimeStampRateScalarValid;
        return timeStamp;
    }

    // Capture first, so that what a cycle captured is delivered before the same cycle's stimulus is
    // rendered. Runs on the audio thread.
    static int process(jack_nframes_t frames, void* argument) noexcept {
        RealTimeCallbackScope scope;
        auto* self = static_cast<JackDeviceDriver*>(argument);
        self->cyclesBegun_.fetch_add(1, std::memory_order_seq_cst);
        self->lastCycle_.store(now(), std::memory_order_release);
        self->periodFrames_.store(frames, std::memory_order_relaxed);
        const AudioTimeStamp timeStamp = self->noteCycle(frames);
        for (auto& slot : self->silenced_)
            if (jack_port_t* port = slot.load(std::memory_order_acquire))
                std::fill_n(static_cast<float*>(jack_port_get_buffer(port, frames)), frames, 0.0f);
        for (auto& slot : self->capture_)
            if (JackEndpoint* endpoint = slot.load(std::memory_order_seq_cst))
                endpoint->process(frames, timeStamp);
        for (auto& slot : self->playback_)
            if (JackEndpoint* endpoint = slot.load(std::memory_order_seq_cst))
                endpoint->process(frames, timeStamp);
        self->cyclesEnded_.fetch_add(1, std::memory_order_release);
        return 0;
    }

    std::string uid_;
    std::string serverName_;
    jack_client_t* client_;
    std::vector<std::string> inputPorts_, outputPorts_;
    double sampleRate_ = 0.0;
    mutable FrameCounter frames_;
    CycleHistory history_;
    mutable std::atomic<bool> alive_{true};
    bool connects_ = true;
    mutable std::atomic<bool> stalled_{false};
    std::atomic<int> streaming_{0};          // endpoints running
    std::atomic<std::int64_t> lastCycle_{0}; // steady clock, nanoseconds
    std::atomic<std::uint32_t> periodFrames_{0};
    std::vector<jack_port_t*> parked_; // guarded by requestMutex_
    std::array<std::atomic<jack_port_t*>, 256> silenced_{};
    std::atomic<std::uint64_t> xruns_{0};
    Slots capture_{}, playback_{};
    std::atomic<std::uint64_t> cyclesBegun_{0}, cyclesEnded_{0};
    std::mutex requestMutex_;
    std::mutex slotsMutex_;
    std::array<bool, kEndpointsPerDirection> captureReserved_{}, playbackReserved_{};
    mutable std::mutex loopsMutex_;
    std::vector<int> runningCapture_, runningPlayback_; // running endpoints per channel
    std::vector<bool> loopedCapture_;
    std::vector<std::string> ownCapture_, ownPlayback_; // guarded by loopsMutex_
};

AudioStatus JackEndpoint::registerPorts() {
    const bool output = configuration_.direction == AudioDirection::Output;
    std::lock_guard lock(driver_->requestMutex());
    const std::string prefix =
        fmt::format("{}{}", output ? "out" : "in", slot_ == 0 ? "" : std::to_string(slot_ + 1));
    for (std::size_t index = 0; index < targets_.size(); ++index) {
        std::string name = fmt::format("{}_{}", prefix, index + 1);
        jack_port_t* port = driver_->connects() ? nullptr : driver_->takeParkedPort(name);
        if (!port)
            port = jack_port_register(driver_->client(), name.c_str(), JACK_DEFAULT_AUDIO_TYPE,
                                      output ? JackPortIsOutput : JackPortIsInput, 0);
        if (!port)
            return kAudioStatusServerFailure;
        ports_.push_back(port);
        if (index < configuration_.channels.size())
            driver_->noteOwnPort(configuration_.direction, configuration_.channels[index],
                                 jack_port_name(port));
    }
    buffers_.assign(ports_.size(), nullptr);
    return kAudioStatusNoError;
}

bool JackEndpoint::isDisconnected() const noexcept {
    return !driver_->isAlive() || driver_->hasStalled();
}

std::uint64_t JackEndpoint::xrunCount() const noexcept {
    const std::uint64_t since = xrunsAtStart_.load(std::memory_order_relaxed);
    const std::uint64_t counted = xruns_.load(std::memory_order_relaxed);
    return since == kNotCounting ? counted : counted + (driver_->xruns() - since);
}

AudioStatus JackEndpoint::start() {
    if (running_.load())
        return kAudioStatusNoError;
    if (isDisconnected() || !driver_->answersRequests())
        return kAudioStatusServerFailure;
    flowing_ = false;
    connected_.store(false, std::memory_order_release);
    running_.store(true, std::memory_order_release);
    xrunsAtStart_.store(driver_->xruns(), std::memory_order_relaxed);
    driver_->noteStreaming(true);
    driver_->publish(*this, slot_);
    driver_->unsilence(ports_);
    jack_client_t* client = driver_->client();
    const bool output = configuration_.direction == AudioDirection::Output;
    bool connected = true;
    {
        std::lock_guard lock(driver_->requestMutex());
        for (std::size_t index = 0; index < ports_.size() && connected && driver_->connects(); ++index) {
            const char* own = jack_port_name(ports_[index]);
            int result = output ? jack_connect(client, own, targets_[index].c_str())
                                : jack_connect(client, targets_[index].c_str(), own);
            connected = result == 0 || result == EEXIST;
        }
    }
    if (!connected) {
        stop();
        return kAudioStatusNoConnection;
    }
    noted_.store(true);
    driver_->noteRunning(configuration_.direction, configuration_.channels, true);
    connected_.store(true, std::memory_order_release);
    return kAudioStatusNoError;
}

// The ports are disconnected first, while the callback still silences the output buffers, so the
// graph never hears a stale buffer repeated; then the endpoint is withdrawn from the callback.
AudioStatus JackEndpoint::stop() {
    if (!running_.exchange(false))
        return kAudioStatusNoError;
    connected_.store(false, std::memory_order_release);
    AudioStatus status = kAudioStatusNoError;
    if (driver_->connects() && driver_->answersRequests()) {
        std::lock_guard lock(driver_->requestMutex());
        for (jack_port_t* port : ports_)
            if (int result = jack_port_disconnect(driver_->client(), port); result && !status)
                status = AudioStatus(result);
    }
    if (!driver_->connects() && configuration_.direction == AudioDirection::Output)
        driver_->silence(ports_);
    driver_->withdraw(configuration_.direction, slot_);
    driver_->noteStreaming(false);
    if (noted_.exchange(false))
        driver_->noteRunning(configuration_.direction, configuration_.channels, false);
    const std::uint64_t since = xrunsAtStart_.exchange(kNotCounting, std::memory_order_relaxed);
    if (since != kNotCounting)
        xruns_.fetch_add(driver_->xruns() - since, std::memory_order_relaxed);
    return status;
}

// Ports of a server that has gone are left alone: the library cannot talk to it any more.
JackEndpoint::~JackEndpoint() {
    stop();
    if (!driver_->connects()) {
        std::lock_guard lock(driver_->requestMutex());
        driver_->parkPorts(ports_);
    } else if (driver_->answersRequests()) {
        std::lock_guard lock(driver_->requestMutex());
        for (jack_port_t* port : ports_)
            jack_port_unregister(driver_->client(), port);
    }
    driver_->releaseSlot(configuration_.direction, slot_);
}

void JackEndpoint::process(jack_nframes_t frames, const AudioTimeStamp& timeStamp) noexcept {
    const std::size_t count = ports_.size();
    const bool output = configuration_.direction == AudioDirection::Output;
    for (std::size_t index = 0; index < count; ++index) {
        buffers_[index] = static_cast<float*>(jack_port_get_buffer(ports_[index], frames));
        if (output)
            std::fill_n(buffers_[index], frames, 0.0f);
    }
    if (!connected_.load(std::memory_order_acquire))
        return;
    // Until every port is connected in the graph this cycle runs on, nothing flows: a stimulus
    // rendered now would go nowhere, and the first time stamp would not be the first heard.
    // When the user makes the connections, one port connected is enough: the other channels may
    // be left unused on purpose.
    if (!flowing_) {
        const auto isConnected = [](jack_port_t* port) { return jack_port_connected(port) > 0; };
        if (driver_->connects() ? !std::ranges::all_of(ports_, isConnected)
                                : std::ranges::none_of(ports_, isConnected))
            return;
        flowing_ = true;
    }
    configuration_.callback(configuration_.context, timeStamp, frames, buffers_.data(),
                            static_cast<std::uint32_t>(count));
}

bool parseChannel(const std::string& text, std::uint32_t& channel) {
    auto [pointer, error] = std::from_chars(text.data(), text.data() + text.size(), channel);
    return error == std::errc() && pointer == text.data() + text.size() && channel < 4096;
}

} // namespace

std::optional<std::string> jackDeviceUIDProblem(const AudioDeviceUID& uid) {
    if (auto problem = isDefaultServer(uid.name) ? defaultServerProblem()
                                                 : serverNameProblem(uid.name, "The server name"))
        return problem;
    for (const auto& [key, value] : uid.parameters) {
        std::uint32_t channel = 0;
        std::optional<std::string> problem;
        if ((key.starts_with("in") && parseChannel(key.substr(2), channel)) ||
            (key.starts_with("out") && parseChannel(key.substr(3), channel)))
            problem = portNameProblem(value, fmt::format("The port of {}", key));
        else if (key == "client")
            problem = clientNameProblem(value, "The client name");
        else if (key == "connect" && value != "yes" && value != "no")
            problem = fmt::format("connect={} is neither connect=yes nor connect=no.", value);
        else if (key != "connect")
            problem = fmt::format("{} is not a parameter of a JACK device: the parameters are inN=PORT and "
                                  "outN=PORT (routes), client=NAME and connect=no.",
                                  key);
        if (problem)
            return problem;
    }
    return std::nullopt;
}

namespace {

// libjack binds a process to the server of its first client: a client opened on another server
// while one is open talks to the first server without a word (its ports, its clock). So clients
// are opened only on the server of the devices still alive; the lock also keeps probes and
// openings from interleaving.
struct OpenServers {
    std::mutex mutex;
    std::vector<std::pair<std::string, std::weak_ptr<AudioDeviceDriver>>> drivers;

    static OpenServers& shared() {
        static auto* servers = new OpenServers; // never destroyed: drivers may outlive statics
        return *servers;
    }
    // The server other than this one that a live device uses, if any. Called with mutex held.
    std::optional<std::string> otherServer(const std::string& serverName) {
        const std::string name = isDefaultServer(serverName) ? "default" : serverName;
        std::erase_if(drivers, [](const auto& entry) { return entry.second.expired(); });
        for (const auto& [server, weak] : drivers)
            if (auto driver = weak.lock(); driver && driver->isAlive() && server != name)
                return server;
        return std::nullopt;
    }
    void add(const std::string& serverName, const std::shared_ptr<AudioDeviceDriver>& driver) {
        drivers.emplace_back(isDefaultServer(serverName) ? "default" : serverName, driver);
    }
};

std::string otherServerProblem(const std::string& other) {
    return fmt::format("JACK lets a program use one server at a time, and this one uses the server {} "
                       "already: measure with devices of one server.",
                       other);
}

} // namespace

std::optional<std::string> jackRoutingProblem(const AudioDeviceUID& uid) {
    if (auto problem = jackDeviceUIDProblem(uid))
        return problem;
    std::lock_guard lock(OpenServers::shared().mutex);
    if (auto other = OpenServers::shared().otherServer(uid.name))
        return otherServerProblem(*other);
    jack_status_t status{};
    jack_client_t* client = nullptr;
    std::optional<std::string> problem;
    for (const auto& [key, value] : uid.parameters) {
        const bool input = key.starts_with("in");
        if (!input && !key.starts_with("out"))
            continue;
        if (!client && !(client = openClient("tavolar-probe", uid.name, status)))
            return std::nullopt; // no such server: said where the device is looked up
        jack_port_t* port = jack_port_by_name(client, value.c_str());
        if (!port)
            problem = fmt::format("{}={}: the server has no port {} (jack_lsp lists its ports).", key, value,
                                  value);
        else if (input && !(jack_port_flags(port) & JackPortIsOutput))
            problem = fmt::format("{}={}: an input channel records a port that sends sound, such as "
                                  "system:capture_1; {} receives sound.",
                                  key, value, value);
        else if (!input && !(jack_port_flags(port) & JackPortIsInput))
            problem = fmt::format("{}={}: an output channel plays into a port that receives sound, such as "
                                  "system:playback_1; {} sends sound.",
                                  key, value, value);
        if (problem)
            break;
    }
    if (client)
        jack_client_close(client);
    return problem;
}

std::shared_ptr<AudioDeviceDriver> openJackDeviceDriver(const AudioDeviceUID& uid,
                                                        const std::string& givenUID) {
    if (jackDeviceUIDProblem(uid))
        return nullptr;
    std::map<std::uint32_t, std::string> inputRoutes, outputRoutes;
    for (const auto& [key, value] : uid.parameters) {
        std::uint32_t channel = 0;
        if (key.starts_with("in") && parseChannel(key.substr(2), channel))
            inputRoutes[channel] = value;
        else if (key.starts_with("out") && parseChannel(key.substr(3), channel))
            outputRoutes[channel] = value;
    }
    jack_status_t status{};
    std::lock_guard lock(OpenServers::shared().mutex);
    if (OpenServers::shared().otherServer(uid.name))
        return nullptr;
    jack_client_t* client = openClient(uid.parameter("client").value_or("tavolar"), uid.name, status);
    if (!client)
        return nullptr;
    auto driver = std::make_shared<JackDeviceDriver>(
        givenUID, isDefaultServer(uid.name) ? std::string() : uid.name, client, std::move(inputRoutes),
        std::move(outputRoutes), uid.parameter("connect") != "no");
    OpenServers::shared().add(uid.name, driver);
    return driver;
}

bool jackServerIsRunning(const std::string& serverName) {
    if (isDefaultServer(serverName) ? defaultServerProblem() : serverNameProblem(serverName, {}))
        return false;
    std::lock_guard lock(OpenServers::shared().mutex);
    if (OpenServers::shared().otherServer(serverName))
        return false; // cannot be told while another server's devices are open
    jack_status_t status{};
    jack_client_t* client = openClient("tavolar-probe", serverName, status);
    if (!client)
        return false;
    jack_client_close(client);
    return true;
}

bool jackServerDidNotAnswer(const std::string& serverName) {
    return UnansweringServers::shared().contains(serverName) || serverProcessIsStopped(serverName);
}

std::vector<std::string> runningJackServerNames() {
    const std::string suffix = fmt::format("_{}_0", getuid());
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", error)) {
        const std::string file = entry.path().filename().string();
        if (!file.starts_with("jack_") || !file.ends_with(suffix) || file.size() <= 5 + suffix.size() ||
            !entry.is_socket(error))
            continue;
        std::string name = file.substr(5, file.size() - 5 - suffix.size());
        // A server that did not answer runs all the same: it is listed, and its device says why
        // it is absent.
        if (jackServerIsRunning(name) || jackServerDidNotAnswer(name))
            names.push_back(std::move(name));
    }
    std::ranges::sort(names, [](const std::string& a, const std::string& b) {
        return std::pair(a != "default", a) < std::pair(b != "default", b);
    });
    return names;
}

} // namespace tavolar
