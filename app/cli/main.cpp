// tavolar: the command-line host of TavolarKit. Each subcommand is registered by its own source file;
// this file parses the command line, routes the library's log lines to standard error and turns
// results into exit statuses: 0 success, 1 failure, 2 a mistake on the command line.

#include "CommandLine.h"
#include "platform/Logging.h"

#include <cstdio>
#include <exception>
#include <fmt/format.h>
#include <unistd.h>

namespace tavolar::cli {

namespace {

// Errors are printed whatever --quiet says.
void reportError(const TavolarError& error) {
    setQuiet(false);
    printNote(fmt::format("tavolar: {}", error.localizedDescription));
    if (!error.localizedRecoverySuggestion.empty())
        printNote(error.localizedRecoverySuggestion);
}

int run(int argc, char** argv) {
    // Library log lines (calibration parser messages, controller errors) go to standard error, so
    // that standard output carries only results and --json stays clean.
    installConsoleLog();
    setSystemLogEnabled(false);

    CLI::App app{"tavolar: swept-sine acoustic measurement, analysis and export.\n"
                 "Measurements live in documents (*.tavolar); sound files are read in the common formats "
                 "(WAV, W64, AIFF, FLAC, CAF) and written as 32-bit float WAV.",
                 "tavolar"};
    app.require_subcommand(1);
    app.fallthrough(false);
    app.set_version_flag("--version", "tavolar 0.1.0");

    CommandList commands;
    addDevicesCommand(app, commands);
    addMeasureCommand(app, commands);
    addSweepCommand(app, commands);
    addDeconvolveCommand(app, commands);
    addImportCommand(app, commands);
    addListCommand(app, commands);
    addInfoCommand(app, commands);
    addSetCommand(app, commands);
    addCalibrateCommand(app, commands);
    addRenameCommand(app, commands);
    addDeleteCommand(app, commands);
    addCopyCommand(app, commands);
    addExportCommand(app, commands);
    addBandsCommand(app, commands);
    addTuneCommand(app, commands);
    addPlotCommand(app, commands);
    bool quietFlag = false;
    for (const Command& command : commands)
        command.app->add_flag("-q,--quiet", quietFlag, "Print nothing but errors");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForAllHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForVersion& version) {
        return app.exit(version);
    } catch (const CLI::ParseError& error) {
        app.exit(error);
        return kExitUsage;
    }

    loadFFTWisdom();
    for (const Command& command : commands) {
        if (!command.app->parsed())
            continue;
        const CLI::Option* json = command.app->get_option_no_throw("--json");
        if (quietFlag && json && json->count() > 0) {
            reportError(usageFailure("--quiet and --json exclude each other: --json prints only the answer "
                                     "on standard output, notes go to standard error.")
                            .error());
            return kExitUsage;
        }
        setQuiet(quietFlag);
        Expected<void> result = command.run();
        if (result) {
            std::fflush(stdout);
            return std::ferror(stdout) ? kExitFailure : kExitSuccess;
        }
        reportError(result.error());
        return result.error().domain == kUsageErrorDomain ? kExitUsage : kExitFailure;
    }
    return kExitUsage;
}

} // namespace

} // namespace tavolar::cli

int main(int argc, char** argv) {
    try {
        return tavolar::cli::run(argc, argv);
    } catch (const std::exception& error) {
        // A programming error inside the library: say so plainly rather than abort with a core dump.
        tavolar::cli::printNote(fmt::format("tavolar: internal error: {}", error.what()));
        return tavolar::cli::kExitFailure;
    }
}
