// Sweep stimuli, and records made from recorded sweep responses by deconvolving them as tavolar
// import and deconvolve do.

#include "AudioFiles.h"
#include "Bindings.h"
#include "RecordStore.h"
#include "engine/SweptSineDeconvolution.h"

#include <fmt/format.h>
#include <pybind11/stl.h>

namespace tavolar::python {

namespace {

VELTLogSweepSettings sweepSettings(const py::object& sweep, std::int64_t sampleRate) {
    valueOrRaise(cli::checkSampleRate(sampleRate, "The sample rate", false));
    return valueOrRaise(sweepOptions(sweep).settings(sampleRate));
}

// The impulse responses of the response's channels: each divided by the stimulus (and the chain to
// the reference input, when a reference was recorded with it). A silent input or a result that is not
// finite is refused, as the command line refuses it.
std::vector<VELTRealVector> deconvolved(const VELTRealVector& stimulus,
                                        const std::vector<VELTRealVector>& channels,
                                        const std::optional<VELTRealVector>& reference,
                                        std::optional<double> lambda) {
    if (stimulus.isAllZeroes())
        raise("Error", "The stimulus is silent: every sample is zero.", "Give the signal that was played.");
    for (std::size_t channel = 0; channel < channels.size(); ++channel)
        if (channels[channel].isAllZeroes() || !channels[channel].isFinite())
            raise("Error",
                  fmt::format("Channel {} of the response is silent or holds samples that are not finite.",
                              channel),
                  "Check that channel's cable and input.");
    if (reference && reference->isAllZeroes())
        raise("Error", "The reference recording is silent: every sample is zero.",
              "Check the loop-back cable from the output to the reference input.");
    const std::size_t responseLength = channels.front().length();
    if (responseLength + stimulus.length() > (std::size_t{1} << 31))
        raise("Error", "The response and the stimulus are too long to deconvolve together.",
              "Cut the recording to the length of the stimulus and its silences.");
    const std::size_t transformLength = deconvolutionTransformLength(responseLength, stimulus.length());
    if (!lambda)
        lambda = deconvolutionRegularizationFromUserDefaults();
    std::vector<VELTRealVector> impulses;
    {
        py::gil_scoped_release release;
        SweptSineDeconvolver deconvolver(stimulus.span());
        deconvolver.prepare(transformLength, reference ? &*reference : nullptr, lambda);
        for (const VELTRealVector& channel : channels) {
            VELTRealVector& impulse = impulses.emplace_back(transformLength);
            if (channels.size() == 1)
                deconvolver.deconvolveOnly(channel.span(), impulse.mutableSpan(), true);
            else
                deconvolver.deconvolve(channel.span(), impulse.mutableSpan(), true);
        }
    }
    for (std::size_t channel = 0; channel < impulses.size(); ++channel)
        if (impulses[channel].isAllZeroes() || !impulses[channel].isFinite())
            raise("Error", fmt::format("Error while deconvolving channel {} of the response.", channel),
                  "The stimulus does not cover every frequency of the response (a band-limited sweep divides "
                  "by zero outside its band): try regularization=1e-6.");
    return impulses;
}

} // namespace

void addSignals(py::module_& module) {
    module.def(
        "sweep_stimulus",
        [](std::int64_t sampleRate, const py::object& sweep) {
            const VELTLogSweepSettings settings = sweepSettings(sweep, sampleRate);
            VELTRealVector stimulus;
            {
                py::gil_scoped_release release;
                stimulus = settings.stimulusSignalWithSampleRate(static_cast<std::uint64_t>(sampleRate));
            }
            return arrayTakingVector(std::move(stimulus));
        },
        py::arg("sample_rate"), py::arg("sweep") = py::none());

    module.def(
        "deconvolve",
        [](const py::array& response, std::int64_t sampleRate, std::optional<py::array> stimulus,
           const py::object& sweep, std::optional<py::array> reference, std::optional<double> lambda,
           std::optional<std::string> name) {
            if (lambda && !(*lambda > 0.0 && std::isfinite(*lambda)))
                throw py::value_error(
                    fmt::format("regularization must be a positive number (got {}).", *lambda));
            if (!stimulus && sweep.is_none())
                throw py::value_error(
                    "Give the stimulus that was played, or the sweep settings to make it from.");
            std::vector<VELTRealVector> channels = channelsFromArray(response, "The response");
            std::optional<VELTLogSweepSettings> settings;
            if (!sweep.is_none())
                settings = sweepSettings(sweep, sampleRate);
            valueOrRaise(cli::checkSampleRate(sampleRate, "The sample rate", false));
            const VELTRealVector played =
                stimulus ? vectorFromArray(*stimulus, "The stimulus")
                         : settings->stimulusSignalWithSampleRate(static_cast<std::uint64_t>(sampleRate));
            std::optional<VELTRealVector> recordedReference;
            if (reference)
                recordedReference = vectorFromArray(*reference, "The reference");
            std::vector<VELTRealVector> impulses = deconvolved(played, channels, recordedReference, lambda);

            const std::string base = name.value_or("Response");
            const ArchivedDate date(std::chrono::duration_cast<std::chrono::duration<double>>(
                std::chrono::system_clock::now().time_since_epoch()));
            std::vector<RecordHandle> records;
            for (std::size_t channel = 0; channel < impulses.size(); ++channel) {
                auto record = VELTMeasurementRecord::record();
                record->setSampleRate(sampleRate);
                record->setImpulseResponse(std::move(impulses[channel]));
                record->setComment(impulses.size() > 1 ? fmt::format("{} channel {}", base, channel) : base);
                record->setDate(date);
                if (settings)
                    record->setLogSweepSettings(*settings);
                cli::applyDefaultAnalysisSettings(*record);
                records.push_back({record, nullptr});
            }
            return records;
        },
        py::arg("response"), py::arg("sample_rate"), py::arg("stimulus") = py::none(),
        py::arg("sweep") = py::none(), py::arg("reference") = py::none(),
        py::arg("regularization") = py::none(), py::arg("name") = py::none());
}

} // namespace tavolar::python
