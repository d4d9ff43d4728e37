#pragma once
// Logging: error lines "(ERROR) <source file name> : <message>" and plain lines go to the system log
// (syslog), to a console sink that the host routes, and to any capture a test has installed.
// Library code never prints itself; a host that wants lines on a terminal installs a console sink.

#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar {

enum class LogLevel { Error, Notice };

// One logged line as the sinks receive it: the level and the full text of the line.
struct LogLine {
    LogLevel level = LogLevel::Notice;
    std::string text;
    bool operator==(const LogLine&) const = default;
};

using LogSink = std::function<void(const LogLine& line)>;

// The file name of a path, without its folders: "src/engine/Foo.cpp" gives "Foo.cpp".
std::string_view sourceFileName(std::string_view path) noexcept;

// Logs "(ERROR) <file name of sourceFile> : <message>". Pass __FILE__ as sourceFile.
void logError(std::string_view sourceFile, std::string_view message);

// Logs message as it is.
void logMessage(std::string_view message);

// Logs a line of the given level as it is.
void logLine(LogLevel level, std::string_view text);

// Installs the sink that receives every logged line for display (nullptr removes it). The command-line
// host routes it to standard error; with none installed, lines go only to the system log.
void setConsoleSink(LogSink sink);

// Turns sending lines to the system log on or off (on by default); tests may turn it off to keep the
// system log clean.
void setSystemLogEnabled(bool enabled);

// Collects every line logged, on any thread, while it exists. Captures may nest; each one sees every
// line logged during its life.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    // The text of every captured line, in order.
    std::vector<std::string> texts() const;
    // True when some captured line contains fragment.
    bool contains(std::string_view fragment) const;
    void clear();

private:
    void append(const LogLine& line);
    friend void logLine(LogLevel level, std::string_view text);

    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
};

} // namespace tavolar

// Logs an error line naming the calling source file.
#define TAVOLAR_LOG_ERROR(message) ::tavolar::logError(__FILE__, (message))
