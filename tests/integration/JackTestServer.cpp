#include "JackTestServer.h"

#include "audio/devices/jack/JackAudioDevice.h"
#include "platform/UUID.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <fmt/format.h>
#include <fstream>
#include <regex>
#include <signal.h>
#include <sndfile.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace tavolar::testing {

using namespace std::chrono_literals;

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const std::filesystem::path& log) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    // No D-Bus device reservation: the dummy driver needs none, and a test machine may have no bus.
    setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    if (posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0)
        pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
}

bool ChildProcess::isRunning() {
    int status = 0;
    if (pid_ <= 0 || reaped_ || waitpid(pid_, &status, WNOHANG) == pid_)
        reaped_ = true;
    return !reaped_;
}

void ChildProcess::signal(int number) {
    if (isRunning())
        ::kill(pid_, number);
}

ChildProcess::~ChildProcess() {
    if (!isRunning())
        return;
    ::kill(pid_, SIGCONT); // a frozen process ends only once it runs again
    // A JACK server killed outright keeps its place in the machine's registry of servers, which has
    // room for eight, so it is given time to end cleanly even on a loaded machine.
    ::kill(pid_, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (isRunning() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    if (isRunning()) {
        ::kill(pid_, SIGKILL);
        int status = 0;
        waitpid(pid_, &status, 0);
    }
}

namespace {

std::string readText(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// jackd with the dummy driver and the options; null when it does not come up (a loaded machine may
// take a while to start it).
std::unique_ptr<ChildProcess> startJackd(const std::string& name, const std::vector<std::string>& options,
                                         const std::filesystem::path& log) {
    std::vector<std::string> arguments{"jackd", "-n", name, "-R", "-d", "dummy"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    auto server = std::make_unique<ChildProcess>(arguments, log);
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!jackServerIsRunning(name) && server->isRunning() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(50ms);
    return jackServerIsRunning(name) ? std::move(server) : nullptr;
}

// A JACK server killed outright keeps its place in the machine's registry of servers, which has
// room for eight, until a server of the same name starts. The servers of test processes that have
// ended are started and stopped once more, which frees their places.
void reclaimServersOfEndedTests() {
    const std::string registry = readText("/dev/shm/jack-shm-registry");
    const std::regex entry("jack-[0-9]+:(tavolar-([0-9]+)-[0-9A-F]{8}):");
    for (std::sregex_iterator match(registry.begin(), registry.end(), entry), end; match != end; ++match)
        if (::kill(std::stoi((*match)[2].str()), 0) != 0 && errno == ESRCH)
            startJackd((*match)[1].str(), {}, "/dev/null");
}

} // namespace

void JackTest::SetUp() {
    for (const char* program : {"jackd", "jconvolver", "jack_lsp"})
        if (std::system(fmt::format("command -v {} > /dev/null 2>&1", program).c_str()) != 0)
            GTEST_SKIP() << "jackd, jack_lsp and jconvolver are needed";
}

bool JackTest::start(unsigned sampleRate, unsigned period, unsigned captureChannels,
                     const std::vector<float>& impulseResponse, const std::string& nameSuffix) {
    stopServer();
    name_ = fmt::format("tavolar-{}-{}{}", getpid(), newUUIDString().substr(0, 8), nameSuffix);
    directory_ = std::filesystem::temp_directory_path() / name_;
    std::filesystem::create_directories(directory_);
    const std::vector<std::string> options{
        "-r", std::to_string(sampleRate),      "-p", std::to_string(period),
        "-C", std::to_string(captureChannels), "-P", "2"};
    server_ = startJackd(name_, options, directory_ / "jackd.log");
    if (!server_ && readText(directory_ / "jackd.log").find("Too many servers") != std::string::npos) {
        reclaimServersOfEndedTests();
        server_ = startJackd(name_, options, directory_ / "jackd.log");
    }
    if (!server_) {
        ADD_FAILURE() << "the JACK server did not start:\n" << readText(directory_ / "jackd.log");
        return false;
    }
    if (impulseResponse.empty())
        return true;

    const std::filesystem::path wave = directory_ / "dut.wav", configuration = directory_ / "dut.conf";
    SF_INFO info{0, int(sampleRate), 1, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0, 0};
    SNDFILE* file = sf_open(wave.c_str(), SFM_WRITE, &info);
    if (!file) {
        ADD_FAILURE() << wave << ": " << sf_strerror(nullptr);
        return false;
    }
    sf_writef_float(file, impulseResponse.data(), sf_count_t(impulseResponse.size()));
    sf_close(file);
    // A partition of one period gives a convolution without added delay.
    unsigned maximumLength = period;
    while (maximumLength < impulseResponse.size())
        maximumLength *= 2;
    std::ofstream(configuration) << "/jack/server " << name_ << "\n/jack/client dut\n"
                                 << "/convolver/new 1 1 " << period << " " << maximumLength << " 1\n"
                                 << "/input/name 1 in\n/output/name 1 out\n"
                                 << "/impulse/read 1 1 1 0 0 0 1 " << wave.string() << "\n";
    // On a busy machine a client can fail to come up at a small period; it is given a few chances,
    // as a user would start it again.
    for (int attempt = 1; attempt <= 3; ++attempt) {
        convolver_.reset();
        convolver_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{"jconvolver", configuration.string()}, directory_ / "dut.log");
        if (waitForPort("dut:out") && waitForPort("dut:in"))
            return true;
        if (attempt == 3)
            ADD_FAILURE() << "jconvolver did not come up:\n" << readText(directory_ / "dut.log");
    }
    return false;
}

std::string JackTest::deviceUID(const std::string& parameters) const {
    return parameters.empty() ? "jack:" + name_ : "jack:" + name_ + "?" + parameters;
}

std::vector<std::string> JackTest::ports() const {
    std::vector<std::string> ports;
    const std::string command = fmt::format("jack_lsp -s {} 2>/dev/null", name_);
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    char line[512];
    while (pipe && fgets(line, sizeof line, pipe.get()))
        ports.emplace_back(std::string_view(line).substr(0, std::string_view(line).find('\n')));
    return ports;
}

bool JackTest::waitForPort(const std::string& port) const {
    const auto deadline = std::chrono::steady_clock::now() + 15s;
    while (std::ranges::count(ports(), port) == 0) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(50ms);
    }
    return true;
}

void JackTest::signalServer(int number) {
    if (server_)
        server_->signal(number);
}

void JackTest::stopServer() {
    convolver_.reset();
    server_.reset();
    if (name_.empty())
        return;
    // A server that was killed leaves its sockets and semaphores named after it.
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", error)) {
        const std::string file = entry.path().filename().string();
        if (file.starts_with("jack_" + name_ + "_") || file.find("_" + name_ + "_") != std::string::npos)
            std::filesystem::remove(entry.path(), error);
    }
    std::filesystem::remove_all(directory_, error);
}

} // namespace tavolar::testing
