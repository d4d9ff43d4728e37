// sweep, deconvolve and import: the subcommands that work on sound files, without an audio device.

#include "AudioFiles.h"
#include "CommandLine.h"
#include "RecordDescription.h"
#include "RecordStore.h"
#include "SweepOptions.h"
#include "engine/SweptSineDeconvolution.h"
#include "math/VELTFFTSetup.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fmt/format.h>
#include <functional>
#include <latch>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tavolar::cli {

namespace {

// The channels of a response that --channel picks: the one given, or every channel.
Expected<std::vector<std::size_t>> pickChannels(const SoundSignal& sound,
                                                const std::optional<std::int64_t>& channel,
                                                const std::filesystem::path& path) {
    std::vector<std::size_t> picked;
    if (!channel) {
        for (std::size_t index = 0; index < sound.channels.size(); ++index)
            picked.push_back(index);
        return picked;
    }
    if (*channel < 0 || static_cast<std::size_t>(*channel) >= sound.channels.size())
        return failure(fmt::format("--channel {}: the file {} has {}.", *channel, path.string(),
                                   sound.channels.size() == 1
                                       ? std::string("one channel, channel 0")
                                       : fmt::format("channels 0 to {}", sound.channels.size() - 1)),
                       "Give a channel the file has, or leave --channel out to take every channel.");
    picked.push_back(static_cast<std::size_t>(*channel));
    return picked;
}

// The largest magnitude of an impulse response and where it is.
struct Peak {
    float magnitude = 0.0f;
    std::size_t location = 0;
};

// Deconvolves the picked channels of a recorded response by its stimulus (and a loop-back
// reference recorded with it), as the measurement engine does after a sweep, refusing a silent
// recording or an unusable result. The division by the stimulus is prepared once, and the channels
// are shared among the cores. A picked channel (but the first, the quotient's scratch) that has room
// for the transform becomes its own impulse response, deconvolved in place, and is left empty.
// peaks, if given, receives each impulse response's peak; planner, if given, is a thread planning
// the transform, waited for only when the transform is needed.
Expected<std::vector<VELTRealVector>>
deconvolveSignals(const MonoSignal& stimulus, SoundSignal& response, const std::vector<std::size_t>& channels,
                  const std::optional<MonoSignal>& reference, std::optional<double> lambda,
                  const std::filesystem::path& responsePath, std::vector<Peak>* peaks = nullptr,
                  std::jthread* planner = nullptr) {
    if (stimulus.samples.isAllZeroes())
        return failure("The stimulus is silent: every sample is zero.", "Give the file that was played.");
    for (std::size_t channel : channels)
        if (response.channels[channel].isAllZeroes())
            return failure(
                response.channels.size() == 1
                    ? fmt::format("The response {} is silent: every sample is zero.", responsePath.string())
                    : fmt::format("Channel {} of the response {} is silent: every sample is zero.", channel,
                                  responsePath.string()),
                response.channels.size() == 1
                    ? "Check that all your cables are connected properly, and inputs are not muted."
                    : "Check that channel's cable and input, or pick the channels you want with --channel.");
    if (reference && reference->samples.isAllZeroes())
        return failure("The reference recording is silent: every sample is zero.",
                       "Check the loop-back cable from the output to the reference input.");
    const std::size_t responseLength = response.channels.front().length();
    if (responseLength + stimulus.samples.length() > (std::size_t{1} << 31))
        return failure("The response and the stimulus are too long to deconvolve together.",
                       "Cut the recording to the length of the stimulus and its silences.");
    const std::size_t transformLength =
        deconvolutionTransformLength(responseLength, stimulus.samples.length());
    const VELTRealVector* correction = reference ? &reference->samples : nullptr;
    if (!lambda)
        lambda = deconvolutionRegularizationFromUserDefaults();

    std::vector<VELTRealVector> impulses(channels.size());
    if (peaks)
        peaks->assign(channels.size(), Peak{});
    // Checked by the worker that made it, while the response is still in its cache.
    std::unique_ptr<bool[]> usable(new bool[channels.size()]);
    const std::size_t workers =
        std::min<std::size_t>(channels.size(), std::max(1u, std::thread::hardware_concurrency()));
    SweptSineDeconvolver deconvolver(stimulus.samples.span());
    // The helpers make the outputs (fresh memory, whose first touch costs about as much as a
    // transform) while this thread plans and forms the quotient, which it then helps with; all start
    // dividing together.
    std::vector<std::optional<SweptSineDeconvolver>> sharing(workers - 1);
    std::latch started(static_cast<std::ptrdiff_t>(workers));
    std::atomic<std::size_t> nextToMake{1};
    std::atomic<std::size_t> next{0};
    std::unique_ptr<bool[]> inPlace(new bool[channels.size()]());
    // own is null for a helper, which uses sharing[helper] once it is made.
    auto work = [&](SweptSineDeconvolver* own, std::size_t helper) {
        for (std::size_t index = nextToMake++; index < channels.size(); index = nextToMake++) {
            VELTRealVector& channel = response.channels[channels[index]];
            inPlace[index] = channel.capacity() >= transformLength;
            impulses[index] = inPlace[index] ? std::move(channel) : VELTRealVector(transformLength);
            impulses[index].setLength(transformLength);
        }
        started.arrive_and_wait();
        if (!own && !sharing[helper])
            return; // the quotient could not be made
        if (!own)
            own = &*sharing[helper];
        for (std::size_t index = next++; index < channels.size(); index = next++) {
            // The first output serves as the quotient's scratch when there are helpers.
            const bool isZero = index != 0 || workers == 1;
            VELTRealVector& impulse = impulses[index];
            std::span<const float> samples = inPlace[index] ? impulse.span().first(responseLength)
                                                            : response.channels[channels[index]].span();
            if (channels.size() == 1)
                own->deconvolveOnly(samples, impulse.mutableSpan(), isZero);
            else
                own->deconvolve(samples, impulse.mutableSpan(), isZero);
            usable[index] = !impulse.isAllZeroes() && impulse.isFinite();
            if (peaks)
                impulse.getMaximumMagnitude((*peaks)[index].magnitude, &(*peaks)[index].location);
        }
    };
    {
        std::vector<std::jthread> helpers;
        for (std::size_t helper = 0; helper + 1 < workers; ++helper)
            helpers.emplace_back(work, nullptr, helper);
        try {
            if (planner && planner->joinable())
                planner->join();
            deconvolver.prepare(transformLength, correction, lambda);
            impulses[0] = VELTRealVector(transformLength);
            // The stimulus spectrum and the quotient are made once, here, and shared by every worker.
            for (std::optional<SweptSineDeconvolver>& own : sharing)
                own.emplace(deconvolver.sharingQuotient(impulses[0].mutableSpan()));
        } catch (...) {
            started.count_down(); // the helpers find no deconvolver and stop
            throw;
        }
        work(&deconvolver, 0);
    }
    for (std::size_t index = 0; index < channels.size(); ++index) {
        if (!usable[index])
            return failure(
                response.channels.size() == 1
                    ? std::string("Error while deconvolving response.")
                    : fmt::format("Error while deconvolving channel {} of the response.", channels[index]),
                "The stimulus does not cover every frequency of the response (a band-limited "
                "sweep divides by zero outside its band): try --lambda 1e-6.");
    }
    return impulses;
}

// The transform length a deconvolution of the response by the stimulus will need, from the lengths
// their headers announce; 0 for headers that cannot be trusted that far before the files are read.
std::size_t announcedTransformLength(const std::filesystem::path& stimulus,
                                     const std::filesystem::path& response) {
    const std::optional<std::size_t> stimulusLength = announcedFrames(stimulus);
    const std::optional<std::size_t> responseLength = announcedFrames(response);
    if (!stimulusLength || !responseLength || *stimulusLength + *responseLength > (std::size_t{1} << 31))
        return 0;
    return deconvolutionTransformLength(*responseLength, *stimulusLength);
}

Expected<void> checkLambda(const std::optional<double>& lambda) {
    if (lambda && !(*lambda > 0.0 && std::isfinite(*lambda)))
        return usageFailure(fmt::format("--lambda must be a positive number (got {}).", *lambda));
    return {};
}

} // namespace

void addSweepCommand(CLI::App& app, CommandList& commands) {
    struct Options {
        std::string output;
        std::int64_t sampleRate = 48000;
        SweepOptions sweep;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("sweep", "Write the sweep stimulus as a 32-bit float mono WAV file");
    // Positional, or -o like the other commands that write a file.
    addOutputArgument(*command, options->output, "output", "The WAV file to write");
    command->add_option("-r,--rate", options->sampleRate, "Sample rate, Hz (1000 to 768000)")
        ->capture_default_str();
    options->sweep.addTo(*command);
    commands.push_back(
        {command, [options]() -> Expected<void> {
             if (auto supported = checkSampleRate(options->sampleRate, "--rate", true); !supported)
                 return supported;
             auto settings = options->sweep.settings(options->sampleRate);
             if (!settings)
                 return std::unexpected(settings.error());
             VELTRealVector stimulus =
                 settings->stimulusSignalWithSampleRate(static_cast<std::uint64_t>(options->sampleRate));
             if (auto written = writeMonoFloatWav(options->output, stimulus.span(), options->sampleRate);
                 !written)
                 return written;
             printLine(fmt::format("Wrote {}: {} samples at {} Hz ({}).", options->output, stimulus.length(),
                                   options->sampleRate, describeSweep(*settings, options->sampleRate)));
             return {};
         }});
}

void addDeconvolveCommand(CLI::App& app, CommandList& commands) {
    struct Options {
        std::string stimulus;
        std::string response;
        std::optional<std::string> reference;
        std::string output;
        std::optional<double> lambda;
        std::optional<std::int64_t> channel;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "deconvolve",
        "Turn a recorded sweep response into an impulse response (a WAV file of as many channels)");
    command->add_option("stimulus", options->stimulus, "The stimulus that was played (one channel)")
        ->required();
    command
        ->add_option("response", options->response,
                     "The recorded response; each channel gives an impulse response")
        ->required();
    command->add_option("--channel", options->channel,
                        "Deconvolve only this channel of the response (from 0)");
    command->add_option(
        "--reference", options->reference,
        "The loop-back reference recorded with the response (one channel); its chain is divided out");
    command->add_option("-o,--output", options->output, "The impulse-response WAV file to write")->required();
    command->add_option("--lambda", options->lambda,
                        "Regularise the division with this constant (for band-limited sweeps)");
    command->add_flag("--json", options->json, "Print what was written as JSON for scripts");
    commands.push_back(
        {command, [options]() -> Expected<void> {
             if (auto checked = checkLambda(options->lambda); !checked)
                 return checked;
             // The transform is planned (a large share of a long deconvolution's time) while the files
             // are read, and each channel is read with room to become its impulse response; a header
             // that proves wrong only wastes a plan and some room.
             const std::size_t announced = announcedTransformLength(options->stimulus, options->response);
             std::jthread planner;
             if (announced != 0)
                 planner =
                     std::jthread([announced] { VELTFFTInterleavedSetup::FFTSetupWithLength(announced); });
             auto stimulus = readMonoSoundFile(options->stimulus, "stimulus");
             if (!stimulus)
                 return std::unexpected(stimulus.error());
             auto response = readSoundFile(options->response, "response", announced);
             if (!response)
                 return std::unexpected(response.error());
             auto channels = pickChannels(*response, options->channel, options->response);
             if (!channels)
                 return std::unexpected(channels.error());
             if (auto same = requireSampleRate(response->sampleRate, stimulus->sampleRate, options->response,
                                               "response");
                 !same)
                 return same;
             std::optional<MonoSignal> reference;
             if (options->reference) {
                 auto read = readMonoSoundFile(*options->reference, "reference");
                 if (!read)
                     return std::unexpected(read.error());
                 if (auto same = requireSampleRate(read->sampleRate, stimulus->sampleRate,
                                                   *options->reference, "reference");
                     !same)
                     return same;
                 reference = std::move(*read);
             }
             std::vector<Peak> peaks;
             auto impulses = deconvolveSignals(*stimulus, *response, *channels, reference, options->lambda,
                                               options->response, &peaks, &planner);
             if (!impulses)
                 return std::unexpected(impulses.error());
             std::vector<std::span<const float>> spans;
             for (const VELTRealVector& impulse : *impulses)
                 spans.push_back(impulse.span());
             if (auto written = writeFloatWav(options->output, spans, stimulus->sampleRate); !written)
                 return written;
             auto largest = [&](std::size_t index) {
                 return std::pair{peaks[index].magnitude, 1000.0 *
                                                              static_cast<double>(peaks[index].location) /
                                                              static_cast<double>(stimulus->sampleRate)};
             };
             const std::size_t length = impulses->front().length();
             if (options->json) {
                 nlohmann::json described = nlohmann::json::array();
                 for (std::size_t index = 0; index < impulses->size(); ++index) {
                     const auto [peak, milliseconds] = largest(index);
                     described.push_back({{"channel", (*channels)[index]},
                                          {"peak", peak},
                                          {"peakMilliseconds", milliseconds}});
                 }
                 printLine(jsonText({{"written", nlohmann::json::array({{{"file", validUTF8(options->output)},
                                                                         {"samples", length},
                                                                         {"sampleRate", stimulus->sampleRate},
                                                                         {"channels", described}}})}}));
                 return {};
             }
             auto describe = [&](std::size_t index) {
                 const auto [peak, milliseconds] = largest(index);
                 return fmt::format("largest sample {:.4g} at {:.3f} ms", peak, milliseconds);
             };
             if (impulses->size() == 1) {
                 printLine(fmt::format("Wrote {}: {} samples at {} Hz, {}.", options->output, length,
                                       stimulus->sampleRate, describe(0)));
                 return {};
             }
             printLine(fmt::format("Wrote {}: {} channels of {} samples at {} Hz.", options->output,
                                   impulses->size(), length, stimulus->sampleRate));
             for (std::size_t index = 0; index < impulses->size(); ++index)
                 printLine(fmt::format("  channel {}: {}.", (*channels)[index], describe(index)));
             return {};
         }});
}

void addImportCommand(CLI::App& app, CommandList& commands) {
    struct Options {
        std::string input;
        std::string document;
        std::optional<std::string> stimulus;
        std::optional<std::string> reference;
        std::optional<std::string> name;
        std::optional<double> lambda;
        std::optional<std::int64_t> channel;
        bool json = false;
        SweepOptions sweep;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "import",
        "Add impulse responses (a record per channel of a sound file) to a document, or a recorded sweep "
        "response with its stimulus");
    addOutputArgument(
        *command, options->document, "document", "The document (created if missing)",
        {&options->input, "input",
         "An impulse-response sound file; a recorded response when --stimulus or a sweep option "
         "is given"});
    command->add_option(
        "--stimulus", options->stimulus,
        "The stimulus that was played (one channel); without it the sweep options describe it");
    command->add_option("--reference", options->reference,
                        "The loop-back reference recorded with the response");
    command->add_option("--name", options->name,
                        "The record's name (default: the file's name; with several channels, the channel "
                        "number is added)");
    command->add_option(
        "--channel", options->channel,
        "Import only this channel of the input (from 0); by default each channel is a record");
    command->add_option("--lambda", options->lambda, "Regularise the deconvolution with this constant");
    command->add_flag("--json", options->json, "Print the records added as JSON for scripts");
    options->sweep.addTo(*command);
    commands.push_back(
        {command, [options, command]() -> Expected<void> {
             if (auto checked = checkLambda(options->lambda); !checked)
                 return checked;
             const bool recordedResponse = options->stimulus || options->sweep.given(*command);
             if (!recordedResponse && (options->reference || options->lambda))
                 return usageFailure("--reference and --lambda apply to a recorded response: give "
                                     "its --stimulus or sweep options too.");
             auto input = readSoundFile(options->input, recordedResponse ? "response" : "impulse response");
             if (!input)
                 return std::unexpected(input.error());
             auto channels = pickChannels(*input, options->channel, options->input);
             if (!channels)
                 return std::unexpected(channels.error());
             std::optional<VELTLogSweepSettings> sweep;
             if (options->sweep.given(*command)) {
                 auto settings = options->sweep.settings(input->sampleRate);
                 if (!settings)
                     return std::unexpected(settings.error());
                 sweep = std::move(*settings);
             }
             std::vector<VELTRealVector> impulses;
             if (recordedResponse) {
                 MonoSignal stimulus;
                 if (options->stimulus) {
                     auto read = readMonoSoundFile(*options->stimulus, "stimulus");
                     if (!read)
                         return std::unexpected(read.error());
                     stimulus = std::move(*read);
                     if (auto same = requireSampleRate(input->sampleRate, stimulus.sampleRate, options->input,
                                                       "response");
                         !same)
                         return same;
                 } else {
                     stimulus.sampleRate = input->sampleRate;
                     stimulus.samples =
                         sweep->stimulusSignalWithSampleRate(static_cast<std::uint64_t>(input->sampleRate));
                 }
                 std::optional<MonoSignal> reference;
                 if (options->reference) {
                     auto read = readMonoSoundFile(*options->reference, "reference");
                     if (!read)
                         return std::unexpected(read.error());
                     if (auto same = requireSampleRate(read->sampleRate, stimulus.sampleRate,
                                                       *options->reference, "reference");
                         !same)
                         return same;
                     reference = std::move(*read);
                 }
                 auto deconvolved = deconvolveSignals(stimulus, *input, *channels, reference, options->lambda,
                                                      options->input);
                 if (!deconvolved)
                     return std::unexpected(deconvolved.error());
                 impulses = std::move(*deconvolved);
             } else if (input->channels.front().length() < 2) {
                 return failure(fmt::format("The impulse response {} is too short: it holds {} sample.",
                                            options->input, input->channels.front().length()));
             } else {
                 for (std::size_t channel : *channels) {
                     VELTRealVector& impulse = impulses.emplace_back(std::move(input->channels[channel]));
                     // A record's response is circular, its second half the times before zero, and
                     // its peak and time axis are read from a copy turned by half its length: for an
                     // odd length every time would read one sample late. A zero after the last sample
                     // evens the length and changes nothing else.
                     if (impulse.length() % 2 == 1)
                         impulse.setLength(impulse.length() + 1);
                 }
             }

             auto store = RecordStore::open(options->document, RecordStore::Mode::CreateIfMissing);
             if (!store)
                 return std::unexpected(store.error());
             const std::string name =
                 options->name.value_or(std::filesystem::path(options->input).stem().string());
             const bool numbered = input->channels.size() > 1;
             const ArchivedDate date(std::chrono::duration_cast<std::chrono::duration<double>>(
                 std::chrono::system_clock::now().time_since_epoch()));
             std::vector<std::shared_ptr<VELTMeasurementRecord>> records;
             std::vector<std::string> uuids;
             for (std::size_t index = 0; index < impulses.size(); ++index) {
                 auto record = store->makeRecord(std::move(impulses[index]), input->sampleRate);
                 record->setComment(numbered ? fmt::format("{} channel {}", name, (*channels)[index]) : name);
                 record->setDate(date);
                 if (sweep)
                     record->setLogSweepSettings(*sweep);
                 if (options->reference)
                     store->setLoopbackReference(record->impulseUUID(),
                                                 {{"file", validUTF8(*options->reference)}});
                 applyDefaultAnalysisSettings(*record);
                 uuids.push_back(record->impulseUUID());
                 records.push_back(std::move(record));
             }
             if (auto saved = store->save(records, uuids); !saved)
                 return saved;
             const std::size_t first = store->summaries().size() - records.size() + 1;
             if (options->json) {
                 nlohmann::json added = nlohmann::json::array();
                 for (std::size_t index = 0; index < records.size(); ++index)
                     added.push_back({{"number", first + index},
                                      {"uuid", uuids[index]},
                                      {"name", RecordStore::displayName(*records[index])},
                                      {"channel", (*channels)[index]},
                                      {"peakMilliseconds", records[index]->impulsePeakInMilliseconds()}});
                 printLine(jsonText({{"document", validUTF8(options->document)}, {"added", added}}));
                 return {};
             }
             for (std::size_t index = 0; index < records.size(); ++index) {
                 const std::string what =
                     numbered ? fmt::format("{} channel {}", options->input, (*channels)[index])
                              : options->input;
                 printLine(fmt::format("Imported {} into {} as record {} ({}), peak at {:.3f} ms.", what,
                                       options->document, first + index, uuids[index],
                                       records[index]->impulsePeakInMilliseconds()));
             }
             return {};
         }});
}

} // namespace tavolar::cli
