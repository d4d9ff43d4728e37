// tavolar, the command-line host, on a real JACK server: every running server is listed whatever
// its name, and a measurement averaged through connections the user made keeps them for every sweep.

#include "JackTestServer.h"
#include "audio/devices/AudioDeviceUID.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

#if defined(TAVOLAR_CLI_PATH)

namespace tavolar {
namespace {

using namespace std::chrono_literals;

// What the program printed on standard output; an empty text when it failed.
std::string runTavolar(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TAVOLAR_CLI_PATH);
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0)
        return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 1);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const bool spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    close(pipeEnds[1]);
    std::string output;
    char buffer[4096];
    for (ssize_t count; spawned && (count = read(pipeEnds[0], buffer, sizeof buffer)) > 0;)
        output.append(buffer, std::size_t(count));
    close(pipeEnds[0]);
    int status = 0;
    return spawned && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0
               ? output
               : "";
}

using JackCommandLine = testing::JackTest;

TEST_F(JackCommandLine, DevicesListsEveryRunningServerWhateverItsName) {
    // A name in Latin-1, as a user's locale may give it: listed with its UID percent-encoded.
    ASSERT_TRUE(start(48000, 256, 3, {}, "-caf\xE9"));
    const std::string uid = AudioDeviceUID::parse(deviceUID())->canonicalString();
    ASSERT_TRUE(uid.ends_with("-caf%E9")) << uid;
    const std::string text = runTavolar({"devices", "--json"});
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
    const std::string text = runTavolar({"info", document.string(), "--json"});
    std::filesystem::remove(document);
    ASSERT_FALSE(text.empty()) << "the measurement stored nothing";
    const nlohmann::json record = nlohmann::json::parse(text)[0];
    EXPECT_EQ(record["averages"], 2);
    EXPECT_EQ(record["peak"]["samples"], 3);
    EXPECT_EQ(record["device"]["uid"],
              AudioDeviceUID::parse(deviceUID() + "?client=meter&connect=no")->canonicalString());
}

} // namespace
} // namespace tavolar

#endif
