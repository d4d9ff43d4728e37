#include "JackTestServer.h"

#include "audio/devices/jack/JackAudioDevice.h"
#include "platform/UUID.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <fmt/format.h>
#include <fstream>
#include <signal.h>
#include <sndfile.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace tavolar::testing {

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

void ChildProcess::terminate() {
    if (!isRunning())
        return;
    ::kill(pid_, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (isRunning() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (isRunning()) {
        ::kill(pid_, SIGKILL);
        int status = 0;
        waitpid(pid_, &status, 0);
        reaped_ = true;
    }
}

JackTestServer::JackTestServer(unsigned sampleRate, unsigned period, unsigned captureChannels)
    : name_(fmt::format("tavolar-{}-{}", getpid(), newUUIDString().substr(0, 8))),
      directory_(std::filesystem::temp_directory_path() / name_) {
    std::filesystem::create_directories(directory_);
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"jackd", "-n", name_, "-R", "-d", "dummy", "-r", std::to_string(sampleRate),
                                 "-p", std::to_string(period), "-C", std::to_string(captureChannels), "-P",
                                 "2"},
        directory_ / "jackd.log");
    // A loaded machine may take a while to start it.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!ready_ && process_->isRunning() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ready_ = jackServerIsRunning(name_);
    }
}

JackTestServer::~JackTestServer() {
    process_->terminate();
    // A server that was killed leaves its sockets and semaphores named after it.
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", error)) {
        const std::string file = entry.path().filename().string();
        if (file.starts_with("jack_" + name_ + "_") || file.find("_" + name_ + "_") != std::string::npos)
            std::filesystem::remove(entry.path(), error);
    }
    std::filesystem::remove_all(directory_, error);
}

std::string JackTestServer::deviceUID(const std::string& parameters) const {
    return parameters.empty() ? "jack:" + name_ : "jack:" + name_ + "?" + parameters;
}

std::vector<std::string> JackTestServer::ports() const {
    std::vector<std::string> ports;
    const std::string command = fmt::format("jack_lsp -s {} 2>/dev/null", name_);
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    char line[512];
    while (pipe && fgets(line, sizeof line, pipe.get()))
        ports.emplace_back(std::string_view(line).substr(0, std::string_view(line).find('\n')));
    return ports;
}

bool JackTestServer::waitForPort(const std::string& port, std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (std::ranges::count(ports(), port) > 0)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

void JackTestServer::shutDown() {
    process_->terminate();
    ready_ = false;
}

JconvolverClient::JconvolverClient(const JackTestServer& server, const std::vector<float>& impulseResponse,
                                   unsigned sampleRate, unsigned period)
    : log_(server.directory() / "dut.log") {
    const std::filesystem::path wave = server.directory() / "dut.wav";
    SF_INFO info{};
    info.samplerate = int(sampleRate);
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(wave.c_str(), SFM_WRITE, &info);
    if (!file)
        return;
    sf_writef_float(file, impulseResponse.data(), sf_count_t(impulseResponse.size()));
    sf_close(file);
    const std::filesystem::path configuration = server.directory() / "dut.conf";
    // A partition of one period gives a convolution without added delay.
    unsigned maximumLength = period;
    while (maximumLength < impulseResponse.size())
        maximumLength *= 2;
    std::ofstream(configuration) << "/jack/server " << server.name() << "\n/jack/client dut\n"
                                 << "/convolver/new 1 1 " << period << " " << maximumLength << " 1\n"
                                 << "/input/name 1 in\n/output/name 1 out\n"
                                 << "/impulse/read 1 1 1 0 0 0 1 " << wave.string() << "\n";
    // On a busy machine a client can fail to come up at a small period; it is given a few chances,
    // as a user would start it again.
    while (!ready_ && attempts_ < 3) {
        ++attempts_;
        process_.reset();
        process_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{"jconvolver", configuration.string()}, log_);
        ready_ = server.waitForPort("dut:out", std::chrono::seconds(15)) &&
                 server.waitForPort("dut:in", std::chrono::seconds(15));
    }
}

std::string JconvolverClient::log() const {
    std::ifstream in(log_);
    std::stringstream text;
    text << "jconvolver, start " << attempts_ << ":\n" << in.rdbuf();
    return text.str();
}

void JackTest::SetUp() {
    for (const char* program : {"jackd", "jconvolver", "jack_lsp"})
        if (std::system(fmt::format("command -v {} > /dev/null 2>&1", program).c_str()) != 0)
            GTEST_SKIP() << "jackd, jack_lsp and jconvolver are needed";
}

bool JackTest::start(unsigned sampleRate, unsigned period, unsigned captureChannels,
                     const std::vector<float>& impulseResponse) {
    convolver.reset();
    server.reset();
    server = std::make_unique<JackTestServer>(sampleRate, period, captureChannels);
    if (!server->isReady()) {
        std::ifstream log(server->directory() / "jackd.log");
        ADD_FAILURE() << "the JACK server did not start:\n" << log.rdbuf();
        return false;
    }
    if (impulseResponse.empty())
        return true;
    convolver = std::make_unique<JconvolverClient>(*server, impulseResponse, sampleRate, period);
    if (!convolver->isReady())
        ADD_FAILURE() << convolver->log();
    return convolver->isReady();
}

} // namespace tavolar::testing
