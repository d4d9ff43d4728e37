#include "platform/Logging.h"

#include <algorithm>
#include <atomic>
#include <fmt/format.h>
#include <syslog.h>

namespace tavolar {

namespace {

struct LogState {
    std::mutex mutex;
    LogSink consoleSink;
    std::vector<LogCapture*> captures;
    std::atomic<bool> systemLogEnabled{true};
    std::once_flag openOnce;
};

LogState& state() {
    // Never destroyed, so that lines logged during static destruction still find it.
    static LogState* instance = new LogState;
    return *instance;
}

void sendToSystemLog(LogLevel level, std::string_view text) {
    LogState& shared = state();
    if (!shared.systemLogEnabled.load(std::memory_order_relaxed))
        return;
    std::call_once(shared.openOnce, [] { openlog("tavolar", LOG_PID, LOG_USER); });
    std::string line(text);
    syslog(level == LogLevel::Error ? LOG_ERR : LOG_NOTICE, "%s", line.c_str());
}

} // namespace

std::string_view sourceFileName(std::string_view path) noexcept {
    std::size_t slash = path.find_last_of("/\\");
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

void logError(std::string_view sourceFile, std::string_view message) {
    logLine(LogLevel::Error, fmt::format("(ERROR) {} : {}", sourceFileName(sourceFile), message));
}

void logMessage(std::string_view message) {
    logLine(LogLevel::Notice, message);
}

void logLine(LogLevel level, std::string_view text) {
    sendToSystemLog(level, text);
    LogLine line{level, std::string(text)};
    LogState& shared = state();
    // The sinks run under the lock so that a capture cannot be destroyed while it receives a line;
    // they must not log themselves.
    std::lock_guard lock(shared.mutex);
    if (shared.consoleSink)
        shared.consoleSink(line);
    for (LogCapture* capture : shared.captures)
        capture->append(line);
}

void setConsoleSink(LogSink sink) {
    LogState& shared = state();
    std::lock_guard lock(shared.mutex);
    shared.consoleSink = std::move(sink);
}

void setSystemLogEnabled(bool enabled) {
    state().systemLogEnabled.store(enabled, std::memory_order_relaxed);
}

LogCapture::LogCapture() {
    LogState& shared = state();
    std::lock_guard lock(shared.mutex);
    shared.captures.push_back(this);
}

LogCapture::~LogCapture() {
    LogState& shared = state();
    std::lock_guard lock(shared.mutex);
    std::erase(shared.captures, this);
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

std::vector<std::string> LogCapture::texts() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> result;
    result.reserve(lines_.size());
    for (const LogLine& line : lines_)
        result.push_back(line.text);
    return result;
}

bool LogCapture::contains(std::string_view fragment) const {
    std::lock_guard lock(mutex_);
    return std::any_of(lines_.begin(), lines_.end(),
                       [&](const LogLine& line) { return line.text.find(fragment) != std::string::npos; });
}

void LogCapture::clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
}

void LogCapture::append(const LogLine& line) {
    std::lock_guard lock(mutex_);
    lines_.push_back(line);
}

} // namespace tavolar
