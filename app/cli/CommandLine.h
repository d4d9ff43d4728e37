#pragma once
// Shared pieces of the command-line host: how a subcommand is registered and run, how its failures
// are told apart (bad usage exits with 2, anything else with 1), and where text goes (results on
// standard output, progress and messages on standard error).

#include "platform/TavolarError.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar::cli {

// Errors in this domain are mistakes on the command line: the program exits with status 2.
inline constexpr std::string_view kUsageErrorDomain = "TavolarCommandLineUsage";

inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

inline std::unexpected<TavolarError> usageFailure(std::string description, std::string suggestion = {}) {
    return std::unexpected(
        TavolarError{std::string(kUsageErrorDomain), -1, std::move(description), std::move(suggestion)});
}

inline std::unexpected<TavolarError> failure(std::string description, std::string suggestion = {}) {
    return makeUnexpected(std::move(description), std::move(suggestion));
}

// A subcommand: its parser, and what runs when the user chose it.
struct Command {
    CLI::App* app = nullptr;
    std::function<Expected<void>()> run;
};
using CommandList = std::vector<Command>;

void addDevicesCommand(CLI::App& app, CommandList& commands);
void addMeasureCommand(CLI::App& app, CommandList& commands);
void addSweepCommand(CLI::App& app, CommandList& commands);
void addDeconvolveCommand(CLI::App& app, CommandList& commands);
void addImportCommand(CLI::App& app, CommandList& commands);
void addListCommand(CLI::App& app, CommandList& commands);
void addInfoCommand(CLI::App& app, CommandList& commands);
void addSetCommand(CLI::App& app, CommandList& commands);
void addCalibrateCommand(CLI::App& app, CommandList& commands);
void addRenameCommand(CLI::App& app, CommandList& commands);
void addDeleteCommand(CLI::App& app, CommandList& commands);
void addCopyCommand(CLI::App& app, CommandList& commands);
void addExportCommand(CLI::App& app, CommandList& commands);
void addBandsCommand(CLI::App& app, CommandList& commands);
void addTuneCommand(CLI::App& app, CommandList& commands);
void addPlotCommand(CLI::App& app, CommandList& commands);

// Loads the FFT tuning that `tavolar tune` kept, if any, so that transforms use measured plans.
void loadFFTWisdom();

// Sends the library's log lines to standard error (installConsoleLog), or nowhere while a step runs
// whose log lines are expected and of no concern to the user (muteConsoleLog).
void installConsoleLog();
void muteConsoleLog();

// True when standard error is a terminal, so that progress is worth showing.
bool standardErrorIsTerminal();
// With --quiet a command prints nothing but errors: printLine, printNote and the library's log
// lines other than errors are dropped.
void setQuiet(bool quiet);
bool quiet();
// A line on standard output (results) or standard error (progress, notes).
void printLine(std::string_view text);
void printNote(std::string_view text);

// Adds the file a command writes (a measurement document, for most) as its first positional, which
// -o FILE also gives, as scripts written for earlier versions do: one of the two is required, not
// both. A following positional (the sound file of import) becomes the first when -o is used:
// `import ir.wav -o d.tavolar` is `import d.tavolar ir.wav`.
struct FollowingPositional {
    std::string* value = nullptr;
    std::string name;
    std::string description;
};
void addOutputArgument(CLI::App& command, std::string& output, const std::string& name,
                       const std::string& description, FollowingPositional following = {});

// text with every byte that is not part of well-formed UTF-8 replaced by U+FFFD, so that what is
// stored reads back as text everywhere (JSON included).
std::string validUTF8(std::string_view text);
bool isValidUTF8(std::string_view text);

// Parses a list such as "0,1,3" into numbers; nullopt when an item is not a non-negative integer.
std::optional<std::vector<std::int64_t>> parseIndexList(std::string_view text);

} // namespace tavolar::cli
