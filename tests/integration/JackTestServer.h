#pragma once
// Real JACK servers and clients for integration tests: a JACK server with the dummy driver under a
// name of its own (so parallel test runs never meet), and jconvolver loaded with a known impulse
// response as a device under test. Each stops its process and removes what it left when destroyed.

#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tavolar::testing {

// A child process with its output sent to a log file.
class ChildProcess {
public:
    ChildProcess(const std::vector<std::string>& arguments, const std::filesystem::path& log);
    ~ChildProcess() { terminate(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool isRunning();
    // SIGTERM, then SIGKILL if it has not ended within 3 s.
    void terminate();

private:
    pid_t pid_ = -1;
    bool reaped_ = false;
};

// A server with two playback ports and the given number of capture ports.
class JackTestServer {
public:
    JackTestServer(unsigned sampleRate, unsigned period, unsigned captureChannels);
    ~JackTestServer();

    bool isReady() const noexcept { return ready_; }
    const std::string& name() const noexcept { return name_; }
    // "jack:<name>" followed by any routing parameters.
    std::string deviceUID(const std::string& parameters = {}) const;
    const std::filesystem::path& directory() const noexcept { return directory_; }
    // The ports the server lists now ("client:port").
    std::vector<std::string> ports() const;
    // Waits until the server lists the port.
    bool waitForPort(const std::string& port, std::chrono::milliseconds timeout) const;
    // Stops the server while clients are connected, as when a user quits it.
    void shutDown();

private:
    std::string name_;
    std::filesystem::path directory_;
    std::unique_ptr<ChildProcess> process_;
    bool ready_ = false;
};

// jconvolver as client "dut" on the server, convolving its port "in" into its port "out" with the
// impulse response (mono, at the server's rate), with no added delay.
class JconvolverClient {
public:
    JconvolverClient(const JackTestServer& server, const std::vector<float>& impulseResponse,
                     unsigned sampleRate, unsigned period);
    bool isReady() const noexcept { return ready_; }
    // What jconvolver printed, and how many starts it took, for a failure message.
    std::string log() const;

private:
    std::filesystem::path log_;
    int attempts_ = 0;
    std::unique_ptr<ChildProcess> process_;
    bool ready_ = false;
};

// A test with a JACK server of its own and, when asked, jconvolver on it; skipped when the programs
// are not installed.
class JackTest : public ::testing::Test {
protected:
    void SetUp() override;
    // Starts a new server, and jconvolver with the impulse response unless it is empty; a test
    // failure when either does not come up.
    bool start(unsigned sampleRate, unsigned period, unsigned captureChannels,
               const std::vector<float>& impulseResponse = {});
    // The device whose output 0 feeds jconvolver and whose input 0 hears it.
    std::string loopUID() const { return server->deviceUID("out0=dut:in&in0=dut:out"); }

    std::unique_ptr<JackTestServer> server;
    std::unique_ptr<JconvolverClient> convolver; // declared last, so stopped before its server
};

} // namespace tavolar::testing
