// The curves of a record, computed by the code tavolar export computes them with, so that a curve
// read in Python and an exported file hold the same numbers. The engine work runs with the GIL
// released.

#include "Bindings.h"
#include "FrequencyCurves.h"
#include "dsp/Decibels.h"
#include "dsp/Hilbert.h"
#include "graphcalc/RecordCurves.h"
#include "graphcalc/SpectrogramGraphCalculationController.h"

#include <atomic>
#include <fmt/format.h>
#include <limits>
#include <pybind11/stl.h>
#include <thread>

namespace tavolar::python {

namespace {

void requireImpulse(const VELTMeasurementRecord& record) {
    if (!record.impulseResponse() || record.sampleRate() <= 0)
        raise("Error", "The record has no impulse response.");
}

std::size_t checkedFFTLength(const VELTMeasurementRecord& record, std::optional<std::size_t> given) {
    if (!given)
        return record.fftLength();
    if (*given < 256 || *given > (std::size_t{1} << 22) || (*given & (*given - 1)) != 0)
        throw py::value_error(
            fmt::format("fft_length must be a power of two from 256 to 4194304 (got {}).", *given));
    return *given;
}

// The curves of one record; the engine's failures (a weighting the rate has no filter for) are raised.
cli::FrequencyCurves frequencyCurves(const VELTMeasurementRecord& record,
                                     const cli::FrequencyCurveRequest& request) {
    return valueOrRaise(cli::frequencyCurvesOfRecord(record, request, "The record"));
}

PhaseTimeReference timeReference(const std::string& name) {
    if (name == "zero")
        return PhaseTimeReference::TimeZero;
    if (name == "window")
        return PhaseTimeReference::WindowStart;
    if (name == "peak")
        return PhaseTimeReference::Peak;
    throw py::value_error(
        fmt::format("phase_reference must be \"zero\", \"window\" or \"peak\", not \"{}\".", name));
}

std::optional<char> weightingLetter(const std::optional<std::string>& weighting) {
    if (!weighting || *weighting == "z" || *weighting == "Z")
        return std::nullopt;
    if (*weighting == "a" || *weighting == "A")
        return 'a';
    if (*weighting == "c" || *weighting == "C")
        return 'c';
    throw py::value_error(fmt::format("weighting must be \"a\", \"c\" or None, not \"{}\".", *weighting));
}

constexpr std::pair<std::string_view, std::int64_t> kSliceWindows[] = {
    {"rectangular", 0},  {"hamming", 1}, {"half-hamming", 2}, {"hanning", 3},
    {"half-hanning", 4}, {"bingham", 5}, {"half-bingham", 6}};

struct FrequencyOptions {
    std::vector<std::string> names;
    std::optional<int> smoothing;
    std::string smoothingDomain;
    std::optional<int> pointsPerOctave;
    std::optional<std::string> weighting;
    std::string phaseReference;
    std::optional<std::size_t> fftLength;
    bool unwrapped = false;
};

// The request for one record, with every option checked.
cli::FrequencyCurveRequest frequencyRequest(const VELTMeasurementRecord& record,
                                            const FrequencyOptions& options) {
    requireImpulse(record);
    for (const std::string& name : options.names)
        if (std::find(std::begin(cli::kFrequencyCurveNames), std::end(cli::kFrequencyCurveNames), name) ==
            std::end(cli::kFrequencyCurveNames))
            throw py::value_error(fmt::format("There is no frequency curve \"{}\".", name));
    if (options.smoothing && (*options.smoothing < 1 || *options.smoothing > 48))
        throw py::value_error(
            fmt::format("smoothing is 1/N octave with N from 1 to 48 (got {}).", *options.smoothing));
    if (options.pointsPerOctave && (*options.pointsPerOctave < 1 || *options.pointsPerOctave > 96))
        throw py::value_error(
            fmt::format("points_per_octave must be from 1 to 96 (got {}).", *options.pointsPerOctave));
    if (options.smoothingDomain != "db" && options.smoothingDomain != "power")
        throw py::value_error("smoothing_domain must be \"db\" or \"power\".");
    return cli::FrequencyCurveRequest{options.names,
                                      options.smoothing,
                                      options.smoothingDomain == "power",
                                      options.pointsPerOctave,
                                      weightingLetter(options.weighting),
                                      timeReference(options.phaseReference),
                                      checkedFFTLength(record, options.fftLength),
                                      options.unwrapped};
}

py::tuple curvesTuple(cli::FrequencyCurves result, std::size_t fftLength) {
    std::vector<py::array_t<float>> curves;
    for (VELTRealVector& curve : result.curves)
        curves.push_back(arrayTakingVector(std::move(curve)));
    return py::make_tuple(arrayTakingVector(std::move(result.frequencies)), curves, fftLength);
}

} // namespace

void addCurves(py::module_& module, py::class_<RecordHandle>& record) {
    record.def(
        "frequency_curves",
        [](const RecordHandle& self, std::vector<std::string> names, std::optional<int> smoothing,
           std::string smoothingDomain, std::optional<int> pointsPerOctave,
           std::optional<std::string> weighting, std::string phaseReference,
           std::optional<std::size_t> fftLength, bool unwrapped) {
            const cli::FrequencyCurveRequest request =
                frequencyRequest(*self.record, {names, smoothing, smoothingDomain, pointsPerOctave, weighting,
                                                phaseReference, fftLength, unwrapped});
            cli::FrequencyCurves result;
            {
                py::gil_scoped_release release;
                result = frequencyCurves(*self.record, request);
            }
            return curvesTuple(std::move(result), request.fftLength);
        },
        py::arg("names"), py::arg("smoothing") = py::none(), py::arg("smoothing_domain") = "db",
        py::arg("points_per_octave") = py::none(), py::arg("weighting") = py::none(),
        py::arg("phase_reference") = "zero", py::arg("fft_length") = py::none(),
        py::arg("unwrapped") = false);

    // The same for many records at once, shared among threads that never touch Python.
    module.def(
        "frequency_curves_of_records",
        [](const std::vector<RecordHandle>& records, std::vector<std::string> names,
           std::optional<int> smoothing, std::string smoothingDomain, std::optional<int> pointsPerOctave,
           std::optional<std::string> weighting, std::string phaseReference,
           std::optional<std::size_t> fftLength, bool unwrapped, std::optional<std::size_t> threads) {
            std::vector<cli::FrequencyCurveRequest> requests;
            for (const RecordHandle& record : records)
                requests.push_back(
                    frequencyRequest(*record.record, {names, smoothing, smoothingDomain, pointsPerOctave,
                                                      weighting, phaseReference, fftLength, unwrapped}));
            if (threads && *threads < 1)
                throw py::value_error("threads must be at least 1.");
            std::vector<cli::FrequencyCurves> results(records.size());
            std::vector<std::exception_ptr> failures(records.size());
            {
                py::gil_scoped_release release;
                std::atomic<std::size_t> next{0};
                auto work = [&] {
                    for (std::size_t index = next++; index < records.size(); index = next++) {
                        try {
                            results[index] = frequencyCurves(*records[index].record, requests[index]);
                        } catch (...) {
                            failures[index] = std::current_exception();
                        }
                    }
                };
                const std::size_t workers = std::min<std::size_t>(
                    records.size(), threads.value_or(std::max(1u, std::thread::hardware_concurrency())));
                std::vector<std::jthread> helpers;
                for (std::size_t worker = 1; worker < workers; ++worker)
                    helpers.emplace_back(work);
                work();
            }
            for (const std::exception_ptr& failure : failures)
                if (failure)
                    std::rethrow_exception(failure);
            py::list tuples;
            for (std::size_t index = 0; index < records.size(); ++index)
                tuples.append(curvesTuple(std::move(results[index]), requests[index].fftLength));
            return tuples;
        },
        py::arg("records"), py::arg("names"), py::arg("smoothing") = py::none(),
        py::arg("smoothing_domain") = "db", py::arg("points_per_octave") = py::none(),
        py::arg("weighting") = py::none(), py::arg("phase_reference") = "zero",
        py::arg("fft_length") = py::none(), py::arg("unwrapped") = false, py::arg("threads") = py::none());

    record.def("time_curves", [](const RecordHandle& self) {
        requireImpulse(*self.record);
        VELTRealVector timeline, impulse, envelope;
        {
            py::gil_scoped_release release;
            impulse = self.record->centeredImpulseResponse();
            timeline = self.record->centeredTimeline();
            envelope = energyTimeCurve(impulse);
            envelope.setLength(impulse.length());
            convertAbsToMagnitude(envelope);
        }
        return py::make_tuple(arrayTakingVector(std::move(timeline)), arrayTakingVector(std::move(impulse)),
                              arrayTakingVector(std::move(envelope)));
    });

    record.def(
        "harmonic_curves",
        [](const RecordHandle& self, std::vector<std::int64_t> orders, bool total, bool noiseFloor,
           std::optional<std::size_t> fftLength) {
            requireImpulse(*self.record);
            for (std::size_t at = 0; at < orders.size(); ++at)
                if (orders[at] < 2 || orders[at] > 20 || (at > 0 && orders[at] <= orders[at - 1]))
                    throw py::value_error("Harmonic orders are ascending numbers from 2 to 20.");
            HarmonicCurveRequest request{orders, total, noiseFloor,
                                         checkedFFTLength(*self.record, fftLength)};
            HarmonicCurveSet set;
            {
                py::gil_scoped_release release;
                set = harmonicCurvesOfRecord(*self.record, request);
            }
            if (set.failure)
                switch (*set.failure) {
                case HarmonicCurveFailure::NoSweep:
                    raise("Error", "The record has no sweep settings, so its harmonics cannot be located.",
                          "Harmonic distortion needs the sweep that was played.");
                case HarmonicCurveFailure::SweepDoesNotRise:
                    raise("Error",
                          "The record's sweep does not rise in frequency, so it has no harmonics to locate.");
                case HarmonicCurveFailure::OrderTooHigh:
                    raise(
                        "Error",
                        fmt::format("Harmonic {} overlaps the linear response; the highest order that can be "
                                    "told apart is {}.",
                                    orders.empty() ? 2 : orders.back(), set.highestOrder),
                        "Choose lower orders, or measure with a longer sweep.");
                case HarmonicCurveFailure::TooShortForTotal:
                    raise("Error",
                          "The record is too short to tell its 2nd harmonic from the linear response, so it "
                          "has "
                          "no total harmonic distortion.",
                          "Measure with a longer sweep or a longer response.");
                case HarmonicCurveFailure::TooShortForNoise:
                    raise("Error",
                          "The record is too short to hold a stretch without harmonics, so its noise floor "
                          "cannot be read.",
                          "Measure with a longer sweep or a longer response.");
                }
            py::dict levels, phases;
            for (auto& [order, values] : set.orders)
                levels[py::int_(order)] = arrayTakingVector(std::move(values));
            for (auto& [order, values] : set.phases)
                phases[py::int_(order)] = arrayTakingVector(std::move(values));
            py::dict result;
            result["frequencies"] = arrayTakingVector(std::move(set.frequencies));
            result["orders"] = levels;
            result["phases"] = phases;
            result["total"] = set.total ? py::object(arrayTakingVector(std::move(*set.total))) : py::none();
            result["noise_floor"] =
                set.noiseFloor ? py::object(arrayTakingVector(std::move(*set.noiseFloor))) : py::none();
            result["summed_orders"] = set.summedOrders;
            result["highest_order"] = set.highestOrder;
            return result;
        },
        py::arg("orders"), py::arg("total"), py::arg("noise_floor"), py::arg("fft_length") = py::none());

    record.def(
        "band_levels",
        [](const RecordHandle& self, bool octave, std::optional<std::string> weighting) {
            const std::optional<char> letter = weightingLetter(weighting);
            std::pair<std::optional<BandLevels>, std::optional<BandLevelFailure>> result;
            {
                py::gil_scoped_release release;
                result = bandLevelsOfRecord(*self.record, octave, letter.value_or('z'));
            }
            auto& [bands, fault] = result;
            if (fault == BandLevelFailure::NoImpulseResponse)
                raise("Error", "The record has no impulse response.");
            if (fault == BandLevelFailure::UnsupportedSampleRate)
                raise(
                    "Error",
                    fmt::format("The record has a sample rate of {} Hz, for which there are no band filters.",
                                self.record->sampleRate()),
                    "Band levels work at 44100, 48000, 88200, 96000, 176400 and 192000 Hz.");
            if (fault == BandLevelFailure::EmptyWindow)
                raise("Error", "The record's window holds no samples.", "Set a window within the response.");
            py::dict out;
            out["nominal"] = arrayTakingVector(std::move(bands->nominal));
            out["exact"] = arrayTakingVector(std::move(bands->exact));
            out["levels"] = arrayTakingVector(std::move(bands->levels));
            out["spl"] = bands->spl ? py::object(arrayTakingVector(std::move(*bands->spl))) : py::none();
            return out;
        },
        py::arg("octave"), py::arg("weighting") = py::none());

    record.def(
        "surface",
        [](const RecordHandle& self, bool spectrogram, std::optional<std::int64_t> fftLength,
           std::int64_t slices, float start, float duration, std::optional<std::string> window, float overlap,
           bool startAtPeak) {
            requireImpulse(*self.record);
            if (slices < 1 || slices > 1000)
                throw py::value_error(fmt::format("slices must be from 1 to 1000 (got {}).", slices));
            GraphCalculationSettings settings;
            WaterfallSettings& waterfall = settings.waterfall;
            waterfall.fftLength = static_cast<std::int64_t>(
                checkedFFTLength(*self.record, fftLength.value_or(spectrogram ? 4096 : 8192)));
            waterfall.sliceCount = slices;
            waterfall.startTime = start;
            waterfall.duration = duration;
            waterfall.startAtPeak = startAtPeak;
            waterfall.overlap = overlap;
            waterfall.windowType = spectrogram ? 3 : 4;
            if (window) {
                auto known = std::find_if(std::begin(kSliceWindows), std::end(kSliceWindows),
                                          [&](const auto& entry) { return entry.first == *window; });
                if (known == std::end(kSliceWindows))
                    throw py::value_error(fmt::format("There is no slice window \"{}\".", *window));
                waterfall.windowType = known->second;
            }
            std::shared_ptr<const GraphData3D> surface;
            {
                py::gil_scoped_release release;
                std::unique_ptr<WaterfallGraphCalculationController> controller =
                    spectrogram ? std::make_unique<SpectrogramGraphCalculationController>(settings)
                                : std::make_unique<WaterfallGraphCalculationController>(settings);
                GraphDataArray result = controller->calculate({self.record});
                if (!result.empty())
                    surface = std::dynamic_pointer_cast<const GraphData3D>(result.front());
            }
            if (!surface)
                raise("Error", "The record gives no slices.");
            // The graph data hold the levels row by row: the arrays view them, read-only, as graphs
            // share graph data.
            const auto rows = static_cast<py::ssize_t>(surface->rows());
            const auto columns = static_cast<py::ssize_t>(surface->columns());
            return py::make_tuple(arrayViewing(surface, surface->x().components(), {columns}),
                                  arrayViewing(surface, surface->z().components(), {rows}),
                                  arrayViewing(surface, surface->y().components(), {rows, columns}));
        },
        py::arg("spectrogram"), py::arg("fft_length") = py::none(), py::arg("slices") = 25,
        py::arg("start") = 0.0f, py::arg("duration") = 0.0f, py::arg("window") = py::none(),
        py::arg("overlap") = 0.5f, py::arg("start_at_peak") = false);
}

} // namespace tavolar::python
