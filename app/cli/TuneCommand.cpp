// FFT tuning kept between runs. FFTW measures candidate algorithms for a transform length on this
// machine and remembers the fastest ("wisdom"); for the long transforms of a deconvolution the
// measured plans run two to three times faster than the estimated ones, but measuring them takes
// minutes. `tavolar tune` does it once for the lengths that measurements use and keeps the result
// in a file; every later run of the program loads it, so its transforms are the measured ones from
// the start at no cost.

#include "AudioFiles.h"
#include "CommandLine.h"
#include "engine/SweptSineDeconvolution.h"
#include "engine/VELTLogSweepSettings.h"
#include "math/VELTFFTSetup.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <set>
#include <sstream>
#include <system_error>
#include <unistd.h>

namespace tavolar::cli {

namespace {

std::filesystem::path wisdomFilePath() {
    if (const char* file = std::getenv("TAVOLAR_FFT_WISDOM_FILE"); file && *file)
        return file;
    std::filesystem::path cache;
    if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg && *xdg)
        cache = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home)
        cache = std::filesystem::path(home) / ".cache";
    else
        cache = std::filesystem::temp_directory_path();
    return cache / "tavolar" / "fft-wisdom";
}

// Written beside the file and renamed over it, so that a run stopped half-way never leaves a damaged
// file behind.
Expected<void> writeWisdom(const std::filesystem::path& path, const std::string& wisdom) {
    std::error_code error;
    std::filesystem::create_directories(path.parent_path(), error);
    const std::filesystem::path temporary = path.string() + fmt::format(".{}.tmp", getpid());
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out << wisdom;
        out.flush();
        if (!out)
            return failure(fmt::format("Could not write the FFT tuning file “{}”.", temporary.string()),
                           "Check that its folder is writable, or name another file with "
                           "TAVOLAR_FFT_WISDOM_FILE.");
    }
    std::filesystem::rename(temporary, path, error);
    if (error) {
        std::filesystem::remove(temporary, error);
        return failure(
            fmt::format("Could not write the FFT tuning file “{}”.", path.string()),
            "Check that its folder is writable, or name another file with TAVOLAR_FFT_WISDOM_FILE.");
    }
    return {};
}

struct TuneOptions {
    std::vector<std::int64_t> rates{44100, 48000, 88200, 96000, 176400, 192000};
    std::vector<std::string> presets{"short", "long"};
};

Expected<void> runTune(const TuneOptions& options) {
    // The deconvolution's transform length for each preset and rate.
    std::set<std::size_t> lengths;
    for (const std::string& preset : options.presets) {
        const VELTLogSweepSettings sweep = preset == "long" ? VELTLogSweepSettings::longLogSweepSettings()
                                                            : VELTLogSweepSettings::shortLogSweepSettings();
        for (std::int64_t rate : options.rates) {
            if (auto supported = checkSampleRate(rate, "--rates", true); !supported)
                return supported;
            const std::size_t samples = sweep.stimulusSignalWithSampleRate(std::uint64_t(rate)).length();
            lengths.insert(deconvolutionTransformLength(samples, samples));
        }
    }

    const std::filesystem::path path = wisdomFilePath();
    VELTFFTSetup::setPlanning(VELTFFTPlanning::measure);
    printNote(fmt::format("Measuring the fastest transforms of {} length{} on this machine; the longest take "
                          "minutes.",
                          lengths.size(), lengths.size() == 1 ? "" : "s"));
    for (std::size_t length : lengths) {
        const auto start = std::chrono::steady_clock::now();
        VELTFFTInterleavedSetup::FFTSetupWithLength(length);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        printNote(fmt::format("  {:>8} points: {:.1f} s", length, took.count()));
        // Kept after every length, so that an interrupted run keeps what it measured.
        if (Expected<void> written = writeWisdom(path, VELTFFTSetup::exportWisdom()); !written)
            return written;
    }
    printLine(fmt::format("Wrote {}", path.string()));
    return {};
}

} // namespace

void loadFFTWisdom() {
    const std::filesystem::path path = wisdomFilePath();
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return; // never tuned: transforms are planned quickly instead
    std::stringstream text;
    text << in.rdbuf();
    if (!VELTFFTSetup::importWisdom(text.str()))
        printNote(
            fmt::format("tavolar: ignoring the damaged FFT tuning file “{}”; run “tavolar tune” to make "
                        "it again.",
                        path.string()));
}

void addTuneCommand(CLI::App& app, CommandList& commands) {
    auto options = std::make_shared<TuneOptions>();
    CLI::App* command = app.add_subcommand(
        "tune", "Measure the fastest FFT algorithms for this machine, once (takes minutes); later runs "
                "deconvolve up to three times faster");
    command->add_option("--rates", options->rates, "Sample rates to tune for, Hz")
        ->delimiter(',')
        ->capture_default_str();
    command->add_option("--preset", options->presets, "Sweep presets to tune for: short, long")
        ->delimiter(',')
        ->check(CLI::IsMember({"short", "long"}))
        ->capture_default_str();
    commands.push_back({command, [options] { return runTune(*options); }});
}

} // namespace tavolar::cli
