#pragma once
// Real JACK servers and clients for integration tests: a JACK server with the dummy driver under a
// name of its own (so parallel test runs never meet), and jconvolver loaded with a known impulse
// response as a device under test. Each stops its process and removes what it left when destroyed.

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tavolar::testing {

// A child process with its output sent to a log file.
class ChildProcess {
public:
    ChildProcess(const std::vector<std::string>& arguments, const std::filesystem::path& log);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool isRunning();
    // SIGTERM, then SIGKILL if it has not ended within the grace period.
    void terminate(std::chrono::milliseconds grace = std::chrono::milliseconds(3000));
    void kill();
    pid_t pid() const noexcept { return pid_; }

private:
    pid_t pid_ = -1;
    bool reaped_ = false;
};

// True when the programs the integration tests drive are installed.
bool jackToolsAvailable();

class JackTestServer {
public:
    JackTestServer(unsigned sampleRate, unsigned period, unsigned captureChannels, unsigned playbackChannels);
    ~JackTestServer();

    bool isReady() const noexcept { return ready_; }
    const std::string& name() const noexcept { return name_; }
    // "jack:<name>" followed by any routing parameters.
    std::string deviceUID(const std::string& parameters = {}) const;
    const std::filesystem::path& directory() const noexcept { return directory_; }
    // Waits until the server lists the port.
    bool waitForPort(const std::string& port,
                     std::chrono::milliseconds timeout = std::chrono::milliseconds(10000)) const;
    // Stops the server while clients are connected, as when a user quits it.
    void shutDown();

private:
    void removeLeftovers() const;

    std::string name_;
    std::filesystem::path directory_;
    std::unique_ptr<ChildProcess> process_;
    bool ready_ = false;
};

// jconvolver as client clientName on the server, convolving its port "in" into its port "out" with
// the impulse response (mono, at the server's rate), with no added delay.
class JconvolverClient {
public:
    JconvolverClient(const JackTestServer& server, const std::string& clientName,
                     const std::vector<float>& impulseResponse, unsigned sampleRate, unsigned period);
    ~JconvolverClient();
    bool isReady() const noexcept { return ready_; }
    std::string inputPort() const { return clientName_ + ":in"; }
    std::string outputPort() const { return clientName_ + ":out"; }
    // What jconvolver printed, and how many starts it took, for a failure message.
    std::string log() const;

private:
    std::string clientName_;
    std::filesystem::path log_;
    int attempts_ = 0;
    std::unique_ptr<ChildProcess> process_;
    bool ready_ = false;
};

} // namespace tavolar::testing
