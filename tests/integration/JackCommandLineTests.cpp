// tavolar, the command-line host, on a real JACK server: every running server is listed whatever
// its name (a stopped one too, as not answering), a measurement averaged through connections the
// user made keeps them for every sweep, a server that was stopped before the measurement began is
// reported rather than waited for, and Ctrl-C ends a measurement within a second.

#include "JackTestServer.h"
#include "audio/devices/AudioDeviceUID.h"

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#if defined(TAVOLAR_CLI_PATH)

namespace tavolar {
namespace {

using namespace std::chrono_literals;

// Runs a shell command; answers what it printed and its exit status.
std::pair<std::string, int> runShell(const std::string& command) {
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    std::string output;
    char buffer[4096];
    for (std::size_t count; pipe && (count = fread(buffer, 1, sizeof buffer, pipe.get())) > 0;)
        output.append(buffer, count);
    return {output, pipe ? pclose(pipe.release()) : -1};
}

// What the program printed on standard output; an empty text when it failed. The arguments are
// passed through the shell unquoted.
std::string runTavolar(const std::string& arguments) {
    auto [output, status] = runShell(TAVOLAR_CLI_PATH " " + arguments + " 2>/dev/null");
    return status == 0 ? output : std::string();
}

std::string readText(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

using JackCommandLine = testing::JackTest;

TEST_F(JackCommandLine, DevicesListsEveryRunningServerWhateverItsName) {
    // A name in Latin-1, as a user's locale may give it: listed with its UID percent-encoded.
    ASSERT_TRUE(start(48000, 256, 3, {}, "-caf\xE9"));
    const std::string uid = AudioDeviceUID::parse(deviceUID())->canonicalString();
    ASSERT_TRUE(uid.ends_with("-caf%E9")) << uid;
    const std::string text = runTavolar("devices --json");
    ASSERT_FALSE(text.empty()) << "tavolar devices --json failed";
    const nlohmann::json devices = nlohmann::json::parse(text);
    auto listed = std::find_if(devices.begin(), devices.end(),
                               [&](const nlohmann::json& device) { return device["uid"] == uid; });
    ASSERT_NE(listed, devices.end()) << text;
    EXPECT_EQ((*listed)["inputs"].size(), 3u);
}

// jconvolver delays by three samples: with --no-connect the user connects the client's ports
// once, and both sweeps run through those connections.
TEST_F(JackCommandLine, ConnectionsTheUserMadeHoldForEverySweep) {
    std::vector<float> delay(64, 0.0f);
    delay[3] = 0.5f;
    ASSERT_TRUE(start(48000, 256, 2, delay));
    const std::string server = deviceUID().substr(5);
    const std::filesystem::path document =
        std::filesystem::temp_directory_path() / (server + "-averaged.tavolar");
    testing::ChildProcess measuring({TAVOLAR_CLI_PATH, "measure", "-o", document.string(), "-d", deviceUID(),
                                     "--no-connect", "--client-name", "meter", "--averages", "2", "--length",
                                     "500", "--quiet"},
                                    "/dev/null");
    ASSERT_TRUE(waitForPort("meter:in_1") && waitForPort("meter:out_1"));
    for (const char* connection : {"dut:out meter:in_1", "meter:out_1 dut:in"})
        ASSERT_EQ(std::system(fmt::format("jack_connect -s {} {}", server, connection).c_str()), 0);
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (measuring.isRunning() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(50ms);
    const std::string text = runTavolar("info " + document.string() + " --json");
    std::filesystem::remove(document);
    ASSERT_FALSE(text.empty()) << "the measurement stored nothing";
    const nlohmann::json record = nlohmann::json::parse(text)[0];
    EXPECT_EQ(record["averages"], 2);
    EXPECT_EQ(record["peak"]["samples"], 3);
    EXPECT_EQ(record["device"]["uid"],
              AudioDeviceUID::parse(deviceUID() + "?client=meter&connect=no")->canonicalString());
}

// libjack waits for a stopped server's answer without a limit; the command gives up after seconds.
TEST_F(JackCommandLine, AServerStoppedBeforeTheMeasurementIsReported) {
    ASSERT_TRUE(start(48000, 256, 2));
    signalServer(SIGSTOP);
    // Listed all the same, with what to do.
    const std::string listed = runTavolar("devices");
    EXPECT_NE(listed.find(deviceUID() + "  did not answer"), std::string::npos) << listed;
    EXPECT_NE(listed.find("kill -CONT"), std::string::npos) << listed;
    const std::filesystem::path document =
        std::filesystem::temp_directory_path() / (deviceUID().substr(5) + "-stopped.tavolar");
    const auto started = std::chrono::steady_clock::now();
    const auto [output, status] =
        runShell(fmt::format("{} measure {} -d {} 2>&1", TAVOLAR_CLI_PATH, document.string(), deviceUID()));
    signalServer(SIGCONT);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 7s) << "a stopped server is not waited for";
    EXPECT_NE(status, 0);
    EXPECT_NE(output.find("runs but did not answer within seconds: it is stopped or hangs."),
              std::string::npos)
        << output;
    EXPECT_FALSE(std::filesystem::exists(document));
}

// Ctrl-C while the sweep plays, on the simulated device and through a JACK server, ends the command
// within a second; the document keeps what it had.
TEST_F(JackCommandLine, CtrlCEndsAMeasurementWithinASecondAndStoresNothing) {
    ASSERT_TRUE(start(48000, 256, 2));
    const std::filesystem::path document =
        std::filesystem::temp_directory_path() / (deviceUID().substr(5) + "-interrupted.tavolar");
    ASSERT_FALSE(runTavolar(fmt::format("measure {} --fast --length 300 --json", document.string())).empty());
    for (const std::string& device : {std::string("sim:default"), deviceUID()}) {
        testing::ChildProcess measuring({TAVOLAR_CLI_PATH, "measure", document.string(), "-d", device,
                                         "--length", "20000", "--no-level-check"},
                                        document.string() + ".log");
        // Once the sweep plays: its note printed, and on the server the client's ports registered.
        while (measuring.isRunning() &&
               readText(document.string() + ".log").find("Measuring") == std::string::npos)
            std::this_thread::sleep_for(10ms);
        ASSERT_TRUE(device.starts_with("sim") || waitForPort("tavolar:in_1"));
        std::this_thread::sleep_for(300ms);
        measuring.signal(SIGINT);
        const auto interrupted = std::chrono::steady_clock::now();
        while (measuring.isRunning() && std::chrono::steady_clock::now() - interrupted < 10s)
            std::this_thread::sleep_for(10ms);
        EXPECT_LT(std::chrono::steady_clock::now() - interrupted, 1s) << device;
    }
    const std::string text = runTavolar("info " + document.string() + " --json");
    std::filesystem::remove(document);
    std::filesystem::remove(document.string() + ".log");
    EXPECT_EQ(nlohmann::json::parse(text, nullptr, false).size(), 1u) << text;
}

} // namespace
} // namespace tavolar

#endif
