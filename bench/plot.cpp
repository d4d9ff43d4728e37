// Drawing graphs against matplotlib, and the plot command as a whole:
//   magnitude  the magnitude graph of eight records (1/12 octave smoothing) drawn into a PNG file of
//              1600 × 1000 pixels, against matplotlib (Agg) drawing the same curves at the same size
//              from the graph's CSV file (bench/peers/plot_matplotlib.py, run from here);
//   impulse    a 2^23-point impulse response drawn the same way, over its whole length;
//   process    "tavolar plot DOCUMENT --smoothing 12 -o FILE.png" at 1600 × 1000 pixels on a
//              document of the same eight records, as a whole process (start to exit), target 300 ms.
// Rendering alone is timed on both sides: the curves are computed (ours) or read (matplotlib's) before
// the clock starts; both write a PNG file. The ratios are printed after the table, from the fastest
// iteration of each. TAVOLAR_BENCH_PEERS=0 skips matplotlib; TAVOLAR_PYTHON names the interpreter;
// TAVOLAR_CLI names the tavolar program (default: the one of this build tree).

#include "core/VELTMeasurementRecord.h"
#include "graphs/RecordPlots.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

using namespace tavolar;
namespace fs = std::filesystem;

constexpr std::uint32_t kRate = 48000;
constexpr std::size_t kRecordLength = 65536;
constexpr std::size_t kLongLength = std::size_t{1} << 23;
constexpr int kRecords = 8;
// 160 × 100 mm at 254 dpi is 1600 × 1000 pixels.
const VELTImageSize kSize{VELTImageSize::pointsFromMillimetres(160.0),
                          VELTImageSize::pointsFromMillimetres(100.0), 254.0};

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

const fs::path& workFolder() {
    static const fs::path folder = [] {
        fs::path made = fs::temp_directory_path() / ("tavolar-plot-bench-" + std::to_string(getpid()));
        fs::create_directories(made);
        return made;
    }();
    return folder;
}

// A loudspeaker-like response: a low resonance that differs from record to record, a tweeter's
// ringing and a faint noise floor.
VELTRealVector loudspeakerResponse(int index) {
    std::mt19937 generator(static_cast<unsigned>(index + 1));
    std::normal_distribution<float> noise(0.0f, 1e-5f);
    const double resonance = 60.0 + 15.0 * index;
    VELTRealVector impulse(kRecordLength);
    for (std::size_t n = 0; n < kRecordLength; ++n) {
        const double t = static_cast<double>(n) / kRate;
        impulse[n] = static_cast<float>(0.2 * (std::exp(-t / 0.01) * std::sin(2 * M_PI * resonance * t) +
                                               0.5 * std::exp(-t / 0.002) * std::sin(2 * M_PI * 3000 * t))) +
                     noise(generator);
    }
    return impulse;
}

std::shared_ptr<VELTMeasurementRecord> recordOf(VELTRealVector impulse, std::string name) {
    auto record = VELTMeasurementRecord::record();
    record->setSampleRate(kRate);
    record->setWindowBegin(-100);
    record->setWindowEnd(static_cast<std::int64_t>(std::min<std::size_t>(impulse.length(), 40000)));
    record->setImpulseResponse(std::move(impulse));
    record->setComment(std::move(name));
    return record;
}

RecordArray speakerRecords() {
    RecordArray records;
    for (int i = 0; i < kRecords; ++i)
        records.push_back(recordOf(loudspeakerResponse(i), "Speaker " + std::to_string(i + 1)));
    return records;
}

// A room's response: noise decaying by 60 dB in 1.5 s over 2^23 samples (175 s).
RecordArray longRecord() {
    std::mt19937 generator(11);
    std::normal_distribution<float> noise(0.0f, 1.0f);
    VELTRealVector impulse(kLongLength);
    for (std::size_t n = 0; n < kLongLength; ++n)
        impulse[n] = std::exp(-6.9f * static_cast<float>(n) / (1.5f * kRate)) * noise(generator) +
                     1e-4f * noise(generator);
    impulse[100] = 4.0f;
    return {recordOf(std::move(impulse), "Room")};
}

struct Drawn {
    GraphPicture picture;
    fs::path csv;
};

// The picture of the graph and its CSV file, made once.
const Drawn& drawn(const std::string& graph) {
    static std::map<std::string, Drawn> made;
    if (auto found = made.find(graph); found != made.end())
        return found->second;
    PlotSettings settings;
    settings.graph = graph;
    RecordArray records;
    if (graph == "magnitude") {
        settings.smoothing = 12;
        records = speakerRecords();
    } else {
        records = longRecord();
        settings.xRange = std::pair{-1.0, 1e3 * static_cast<double>(kLongLength) / kRate};
    }
    auto picture = plotRecords(records, settings);
    if (!picture) {
        std::fprintf(stderr, "%s\n", picture.error().localizedDescription.c_str());
        std::exit(1);
    }
    const fs::path csv = workFolder() / (graph + ".csv");
    if (auto written = writePlot(csv, *picture, kSize); !written) {
        std::fprintf(stderr, "%s\n", written.error().localizedDescription.c_str());
        std::exit(1);
    }
    return made.emplace(graph, Drawn{std::move(*picture), csv}).first->second;
}

std::map<std::string, double> best;

void keep(const std::string& name, double seconds) {
    auto [entry, added] = best.emplace(name, seconds);
    if (!added)
        entry->second = std::min(entry->second, seconds);
}

void render(benchmark::State& state, const std::string& graph) {
    const Drawn& picture = drawn(graph);
    const fs::path png = workFolder() / (graph + ".png");
    for (auto _ : state) {
        const double start = now();
        auto written = writePlot(png, picture.picture, kSize);
        const double seconds = now() - start;
        if (!written)
            state.SkipWithError(written.error().localizedDescription.c_str());
        state.SetIterationTime(seconds);
        keep(graph, seconds);
    }
}

void BM_RenderMagnitude(benchmark::State& state) {
    render(state, "magnitude");
}
BENCHMARK(BM_RenderMagnitude)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

void BM_RenderImpulse(benchmark::State& state) {
    render(state, "impulse");
}
BENCHMARK(BM_RenderImpulse)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

// The program as a user starts it, from the build tree unless TAVOLAR_CLI names one.
fs::path cliProgram() {
    if (const char* chosen = std::getenv("TAVOLAR_CLI"))
        return chosen;
    return fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "app" / "cli" / "tavolar";
}

// The exit status of the program run with the arguments, its output thrown away.
int run(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const auto& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    int status = -1;
    if (posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ) == 0)
        waitpid(child, &status, 0);
    posix_spawn_file_actions_destroy(&actions);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The eight responses as the channels of a 32-bit float WAV file.
void writeWave(const fs::path& path) {
    std::vector<VELTRealVector> channels;
    for (int i = 0; i < kRecords; ++i)
        channels.push_back(loudspeakerResponse(i));
    auto put = [](std::ofstream& out, auto value) {
        out.write(reinterpret_cast<const char*>(&value), sizeof value);
    };
    const std::uint32_t dataBytes = kRecords * kRecordLength * sizeof(float);
    std::ofstream out(path, std::ios::binary);
    out.write("RIFF", 4);
    put(out, std::uint32_t{36 + dataBytes});
    out.write("WAVEfmt ", 8);
    put(out, std::uint32_t{16});
    put(out, std::uint16_t{3}); // IEEE float
    put(out, std::uint16_t{kRecords});
    put(out, kRate);
    put(out, std::uint32_t{kRate * kRecords * sizeof(float)});
    put(out, std::uint16_t{kRecords * sizeof(float)});
    put(out, std::uint16_t{32});
    out.write("data", 4);
    put(out, dataBytes);
    for (std::size_t n = 0; n < kRecordLength; ++n)
        for (const auto& channel : channels)
            put(out, channel[n]);
}

void BM_PlotProcess(benchmark::State& state) {
    const std::string program = cliProgram().string();
    const fs::path document = workFolder() / "speakers.tavolar";
    const fs::path wave = workFolder() / "speakers.wav";
    if (!fs::exists(document)) {
        writeWave(wave);
        if (run({program, "import", document.string(), wave.string()}) != 0) {
            state.SkipWithError(("could not make a document with " + program).c_str());
            return;
        }
    }
    const std::string png = (workFolder() / "process.png").string();
    for (auto _ : state) {
        const double start = now();
        const int status = run({program, "plot", document.string(), "--smoothing", "12", "-o", png, "--width",
                                "160", "--height", "100", "--dpi", "254"});
        const double seconds = now() - start;
        if (status != 0)
            state.SkipWithError("tavolar plot failed");
        state.SetIterationTime(seconds);
        keep("process", seconds);
    }
}
BENCHMARK(BM_PlotProcess)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(3.0);

std::string pythonWithMatplotlib() {
    std::vector<std::string> candidates;
    if (const char* chosen = std::getenv("TAVOLAR_PYTHON"))
        candidates.emplace_back(chosen);
    candidates.emplace_back("/usr/bin/python3"); // the distribution's interpreter, where its matplotlib lives
    candidates.emplace_back("python3");
    for (const std::string& candidate : candidates)
        if (std::system((candidate + " -c 'import matplotlib' >/dev/null 2>&1").c_str()) == 0)
            return candidate;
    return {};
}

// matplotlib's best time for drawing the graph's CSV file, in seconds (0 when it failed).
double matplotlibTime(const std::string& python, const std::string& graph) {
    const Drawn& picture = drawn(graph);
    fs::path source(__FILE__);
    if (source.is_relative())
        source = fs::read_symlink("/proc/self/exe").parent_path().parent_path() / source;
    const fs::path script = source.parent_path() / "peers" / "plot_matplotlib.py";
    const VELTGraphExtents& e = picture.picture.plot.extents;
    char limits[160];
    std::snprintf(limits, sizeof limits, " %.9g %.9g %.9g %.9g", e.xMin, e.xMax, e.yMin, e.yMax);
    const std::string command = python + " '" + script.string() + "' '" + picture.csv.string() + "' '" +
                                (workFolder() / (graph + "-matplotlib.png")).string() + "' " +
                                (picture.picture.plot.logarithmicX ? "log" : "linear") + limits +
                                " 1600 1000";
    double seconds = 0.0;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, pipe))
            std::sscanf(line, "render seconds %lf", &seconds);
        pclose(pipe);
    }
    return seconds;
}

void printRatios() {
    double load[3] = {0, 0, 0};
    getloadavg(load, 3);
    std::printf("\nFastest iterations (1600 x 1000 pixels; load average %.2f %.2f %.2f):\n", load[0], load[1],
                load[2]);
    const bool peers =
        !(std::getenv("TAVOLAR_BENCH_PEERS") && std::string(std::getenv("TAVOLAR_BENCH_PEERS")) == "0");
    const std::string python = peers ? pythonWithMatplotlib() : std::string();
    if (peers && python.empty())
        std::printf("matplotlib peer skipped: no python3 with matplotlib found (set TAVOLAR_PYTHON)\n");
    for (const auto& [name, seconds] : best) {
        if (name == "process") {
            std::printf("tavolar plot, 8 records:  %8.1f ms (target < 300)\n", seconds * 1e3);
            continue;
        }
        std::printf("render %-9s          %8.1f ms", name.c_str(), seconds * 1e3);
        if (const double theirs = python.empty() ? 0.0 : matplotlibTime(python, name); theirs > 0.0)
            std::printf("; matplotlib %8.1f ms: %.1f x faster (target >= 10)", theirs * 1e3,
                        theirs / seconds);
        std::printf("\n");
    }
}

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printRatios();
    fs::remove_all(workFolder());
    return 0;
}
