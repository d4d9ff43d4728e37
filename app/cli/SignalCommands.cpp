// sweep, deconvolve and import: the subcommands that work on sound files, without an audio device.

#include "AudioFiles.h"
#include "CommandLine.h"
#include "RecordStore.h"
#include "SweepOptions.h"
#include "engine/SweptSineDeconvolution.h"

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <string>

namespace tavolar::cli {

namespace {

// Deconvolves a recorded response by its stimulus (and a loop-back reference recorded with it), as
// the measurement engine does after a sweep, refusing a silent recording or an unusable result.
Expected<VELTRealVector> deconvolveSignals(const MonoSignal& stimulus, const MonoSignal& response,
                                           const std::optional<MonoSignal>& reference,
                                           std::optional<double> lambda,
                                           const std::filesystem::path& responsePath) {
    if (stimulus.samples.isAllZeroes())
        return failure("The stimulus is silent: every sample is zero.", "Give the file that was played.");
    if (response.samples.isAllZeroes())
        return failure(fmt::format("The response {} is silent: every sample is zero.", responsePath.string()),
                       "Check that all your cables are connected properly, and inputs are not muted.");
    if (reference && reference->samples.isAllZeroes())
        return failure("The reference recording is silent: every sample is zero.",
                       "Check the loop-back cable from the output to the reference input.");
    if (response.samples.length() + stimulus.samples.length() > (std::size_t{1} << 31))
        return failure("The response and the stimulus are too long to deconvolve together.",
                       "Cut the recording to the length of the stimulus and its silences.");
    const VELTRealVector* correction = reference ? &reference->samples : nullptr;
    VELTRealVector impulse =
        lambda ? realVectorByDeconvolvingResponseWithRegularization(response.samples, stimulus.samples,
                                                                    correction, *lambda)
               : realVectorByDeconvolvingResponse(response.samples, stimulus.samples, correction);
    if (impulse.isAllZeroes() || impulse.isNAN() || !impulse.isFinite())
        return failure("Error while deconvolving response.",
                       "The stimulus does not cover every frequency of the response (a band-limited sweep "
                       "divides by zero outside its band): try --lambda 1e-6.");
    return impulse;
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
    command->add_option("output,-o,--output", options->output, "The WAV file to write")->required();
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
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "deconvolve", "Turn a recorded sweep response into an impulse response (a WAV file)");
    command->add_option("stimulus", options->stimulus, "The stimulus that was played (WAV)")->required();
    command->add_option("response", options->response, "The recorded response (WAV)")->required();
    command->add_option("--reference", options->reference,
                        "The loop-back reference recorded with the response (WAV); its chain is divided out");
    command->add_option("-o,--output", options->output, "The impulse-response WAV file to write")->required();
    command->add_option("--lambda", options->lambda,
                        "Regularise the division with this constant (for band-limited sweeps)");
    commands.push_back(
        {command, [options]() -> Expected<void> {
             if (auto checked = checkLambda(options->lambda); !checked)
                 return checked;
             auto stimulus = readMonoFloatWav(options->stimulus, "stimulus");
             if (!stimulus)
                 return std::unexpected(stimulus.error());
             auto response = readMonoFloatWav(options->response, "response");
             if (!response)
                 return std::unexpected(response.error());
             if (auto same =
                     requireSampleRate(*response, stimulus->sampleRate, options->response, "response");
                 !same)
                 return same;
             std::optional<MonoSignal> reference;
             if (options->reference) {
                 auto read = readMonoFloatWav(*options->reference, "reference");
                 if (!read)
                     return std::unexpected(read.error());
                 if (auto same =
                         requireSampleRate(*read, stimulus->sampleRate, *options->reference, "reference");
                     !same)
                     return same;
                 reference = std::move(*read);
             }
             auto impulse =
                 deconvolveSignals(*stimulus, *response, reference, options->lambda, options->response);
             if (!impulse)
                 return std::unexpected(impulse.error());
             if (auto written = writeMonoFloatWav(options->output, impulse->span(), stimulus->sampleRate);
                 !written)
                 return written;
             float peak = 0.0f;
             std::size_t location = 0;
             impulse->getMaximumMagnitude(peak, &location);
             printLine(fmt::format("Wrote {}: {} samples at {} Hz, largest sample {:.4g} at {:.3f} ms.",
                                   options->output, impulse->length(), stimulus->sampleRate, peak,
                                   1000.0 * static_cast<double>(location) /
                                       static_cast<double>(stimulus->sampleRate)));
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
        SweepOptions sweep;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "import",
        "Add an impulse response (WAV) to a document, or a recorded sweep response (WAV) with its stimulus");
    command
        ->add_option("input", options->input,
                     "An impulse-response WAV file; a recorded response when --stimulus or a sweep option "
                     "is given")
        ->required();
    command->add_option("-o,--output", options->document, "The document (created if missing)")->required();
    command->add_option("--stimulus", options->stimulus,
                        "The stimulus that was played (WAV); without it the sweep options describe it");
    command->add_option("--reference", options->reference,
                        "The loop-back reference recorded with the response");
    command->add_option("--name", options->name, "The record's name (default: the file's name)");
    command->add_option("--lambda", options->lambda, "Regularise the deconvolution with this constant");
    options->sweep.addTo(*command);
    commands.push_back(
        {command, [options, command]() -> Expected<void> {
             if (auto checked = checkLambda(options->lambda); !checked)
                 return checked;
             const bool recordedResponse = options->stimulus || options->sweep.given(*command);
             if (!recordedResponse && (options->reference || options->lambda))
                 return usageFailure("--reference and --lambda apply to a recorded response: give "
                                     "its --stimulus or sweep options too.");
             auto input =
                 readMonoFloatWav(options->input, recordedResponse ? "response" : "impulse response");
             if (!input)
                 return std::unexpected(input.error());
             std::optional<VELTLogSweepSettings> sweep;
             if (options->sweep.given(*command)) {
                 auto settings = options->sweep.settings(input->sampleRate);
                 if (!settings)
                     return std::unexpected(settings.error());
                 sweep = std::move(*settings);
             }
             VELTRealVector impulse;
             if (recordedResponse) {
                 MonoSignal stimulus;
                 if (options->stimulus) {
                     auto read = readMonoFloatWav(*options->stimulus, "stimulus");
                     if (!read)
                         return std::unexpected(read.error());
                     stimulus = std::move(*read);
                     if (auto same =
                             requireSampleRate(*input, stimulus.sampleRate, options->input, "response");
                         !same)
                         return same;
                 } else {
                     stimulus.sampleRate = input->sampleRate;
                     stimulus.samples =
                         sweep->stimulusSignalWithSampleRate(static_cast<std::uint64_t>(input->sampleRate));
                 }
                 std::optional<MonoSignal> reference;
                 if (options->reference) {
                     auto read = readMonoFloatWav(*options->reference, "reference");
                     if (!read)
                         return std::unexpected(read.error());
                     if (auto same =
                             requireSampleRate(*read, stimulus.sampleRate, *options->reference, "reference");
                         !same)
                         return same;
                     reference = std::move(*read);
                 }
                 auto deconvolved =
                     deconvolveSignals(stimulus, *input, reference, options->lambda, options->input);
                 if (!deconvolved)
                     return std::unexpected(deconvolved.error());
                 impulse = std::move(*deconvolved);
             } else {
                 if (input->samples.length() < 2)
                     return failure(fmt::format("The impulse response {} is too short: it holds {} "
                                                "sample.",
                                                options->input, input->samples.length()));
                 impulse = std::move(input->samples);
                 // A record's response is circular, its second half the times before zero, and its
                 // peak and time axis are read from a copy turned by half its length: for an odd
                 // length every time would read one sample late. A zero after the last sample evens
                 // the length and changes nothing else.
                 if (impulse.length() % 2 == 1)
                     impulse.setLength(impulse.length() + 1);
             }

             auto store = RecordStore::open(options->document, RecordStore::Mode::CreateIfMissing);
             if (!store)
                 return std::unexpected(store.error());
             auto record = store->makeRecord(std::move(impulse), input->sampleRate);
             record->setComment(
                 options->name.value_or(std::filesystem::path(options->input).stem().string()));
             record->setDate(ArchivedDate(
                 std::chrono::duration<double>(std::chrono::duration_cast<std::chrono::duration<double>>(
                     std::chrono::system_clock::now().time_since_epoch()))));
             if (sweep)
                 record->setLogSweepSettings(*sweep);
             if (options->reference)
                 store->setLoopbackReference(record->impulseUUID(),
                                             {{"file", validUTF8(*options->reference)}});
             applyDefaultAnalysisSettings(*record);
             const std::string uuid = record->impulseUUID();
             std::vector<std::shared_ptr<VELTMeasurementRecord>> records{record};
             std::vector<std::string> impulses{uuid};
             if (auto saved = store->save(records, impulses); !saved)
                 return saved;
             printLine(fmt::format("Imported {} into {} as record {} ({}), peak at {:.3f} ms.",
                                   options->input, options->document, store->summaries().size(), uuid,
                                   record->impulsePeakInMilliseconds()));
             return {};
         }});
}

} // namespace tavolar::cli
