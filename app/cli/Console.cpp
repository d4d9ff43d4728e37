// What the commands print: results on standard output, notes and the library's log lines on
// standard error, and nothing but errors with --quiet. Apart from main() so that every host of the
// commands' code links it.

#include "CommandLine.h"
#include "platform/Logging.h"

#include <cstdio>
#include <unistd.h>

namespace tavolar::cli {

bool standardErrorIsTerminal() {
    return isatty(STDERR_FILENO) == 1;
}

namespace {
bool quietOutput = false;
} // namespace

void setQuiet(bool quiet) {
    quietOutput = quiet;
}

bool quiet() {
    return quietOutput;
}

void printLine(std::string_view text) {
    if (quietOutput)
        return;
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
}

void printNote(std::string_view text) {
    if (quietOutput)
        return;
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fputc('\n', stderr);
}

void installConsoleLog() {
    setConsoleSink([](const LogLine& line) {
        if (line.level == LogLevel::Error || !quietOutput) {
            std::fwrite(line.text.data(), 1, line.text.size(), stderr);
            std::fputc('\n', stderr);
        }
    });
}

void muteConsoleLog() {
    setConsoleSink(nullptr);
}

} // namespace tavolar::cli
