#pragma once
// Real JACK servers and clients for integration tests: a JACK server with the dummy driver under a
// name of its own (so parallel test runs never meet), and jconvolver loaded with a known impulse
// response as a device under test.

#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tavolar::testing {

// A child process with its output sent to a log file, stopped when destroyed: SIGTERM, then
// SIGKILL if it has not ended within 10 s.
class ChildProcess {
public:
    ChildProcess(const std::vector<std::string>& arguments, const std::filesystem::path& log);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    bool isRunning();
    void signal(int number);

private:
    pid_t pid_ = -1;
    bool reaped_ = false;
};

// A test with a JACK server of its own (two playback ports) and, when asked, jconvolver on it as
// client "dut", convolving its port "in" into its port "out" with no added delay. Skipped when the
// programs are not installed.
class JackTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override { stopServer(); }
    // Starts a new server, and jconvolver with the impulse response (mono, at the server's rate)
    // unless it is empty; a test failure when either does not come up. The server's name ends in
    // nameSuffix.
    bool start(unsigned sampleRate, unsigned period, unsigned captureChannels,
               const std::vector<float>& impulseResponse = {}, const std::string& nameSuffix = {});
    // "jack:<name>" followed by any routing parameters.
    std::string deviceUID(const std::string& parameters = {}) const;
    // The device whose output 0 feeds jconvolver and whose input 0 hears it.
    std::string loopUID() const { return deviceUID("out0=dut:in&in0=dut:out"); }
    // The ports the server lists now ("client:port").
    std::vector<std::string> ports() const;
    // Sends the server a signal (SIGSTOP freezes it, SIGCONT lets it go on).
    void signalServer(int number);
    // Stops the server while clients are connected, as when a user quits it, and removes what it
    // left behind.
    void stopServer();

    // Waits up to 15 s for the port to be listed.
    bool waitForPort(const std::string& port) const;

private:
    std::string name_;
    std::filesystem::path directory_;
    std::unique_ptr<ChildProcess> server_, convolver_;
};

} // namespace tavolar::testing
