#pragma once
// Shared pieces of the native module: how engine errors reach Python, and how sample vectors cross
// into numpy arrays (without copying) and back.

#include "SweepOptions.h"
#include "audio/VELTAudioCaptureSettings.h"
#include "core/VELTMeasurementRecord.h"
#include "math/VELTRealVector.h"
#include "platform/TavolarError.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <string>
#include <string_view>

namespace tavolar::python {

namespace py = pybind11;

// An engine error on its way to Python, raised there as the tavolar.Error subclass named by kind
// ("Error", "DeviceError", "DocumentError", "CalibrationError").
struct RaisedError {
    std::string kind;
    TavolarError error;
};

// Throws RaisedError when expected holds an error, and answers its value otherwise.
template <typename T> T valueOrRaise(Expected<T> expected, std::string_view kind = "Error") {
    if (!expected)
        throw RaisedError{std::string(kind), std::move(expected.error())};
    if constexpr (!std::is_void_v<T>)
        return std::move(*expected);
}

[[noreturn]] inline void raise(std::string_view kind, std::string description, std::string suggestion = {}) {
    throw RaisedError{std::string(kind), TavolarError::make(std::move(description), std::move(suggestion))};
}

// A vector the caller hands over: the array owns it from now on and may be written to.
py::array_t<float> arrayTakingVector(VELTRealVector vector);
// A vector the engine keeps (an impulse response in a record or a cache): the array shares it, keeps
// it alive and is read-only, since the engine relies on it not changing.
py::array_t<float> arraySharingVector(std::shared_ptr<const VELTRealVector> vector);
// Values of shared, immutable engine data (graph data) of the given C-ordered shape: the array views
// them, keeps owner alive and is read-only.
py::array_t<float> arrayViewing(std::shared_ptr<const void> owner, const float* data,
                                std::vector<py::ssize_t> shape);

// Samples from Python: float32 or float64 of one dimension, any strides. what names the argument in
// messages.
VELTRealVector vectorFromArray(const py::array& array, std::string_view what);
// Channels first, samples last: a 1-D array is one channel.
std::vector<VELTRealVector> channelsFromArray(const py::array& array, std::string_view what);

// A measurement record as Python holds it: the record, and the open document it came from (which
// keeps the impulse cache it reads its samples from alive).
struct RecordHandle {
    std::shared_ptr<VELTMeasurementRecord> record;
    std::shared_ptr<void> owner;
    // The loop-back reference a new record's response was divided by, as the record store keeps it
    // ({"output": N, "input": N}), until the record is stored in a document.
    nlohmann::json loopback = nullptr;
};

// Sweep settings as Python gives them: None (the short preset), a preset name ("short", "long") or a
// dict of preset, start, end, length, level, begin_silence and end_silence, as the command line's
// sweep options take them.
cli::SweepOptions sweepOptions(const py::object& given);

// Hands the engine's log lines queued so far to the logger "tavolar"; needs the GIL.
void deliverLogLines();
// Keeps the engine's log lines from Python while it exists: for steps whose lines are expected and
// of no concern to the caller.
struct MutedLog {
    MutedLog();
    ~MutedLog();
    MutedLog(const MutedLog&) = delete;
    MutedLog& operator=(const MutedLog&) = delete;
};

// The capture settings kept by a document (a DocumentHandle, or None for none).
std::optional<VELTAudioCaptureSettings> storedCaptureSettings(const py::object& document);

// Keeps settings as the capture settings of a document (a DocumentHandle) that is still open.
void keepCaptureSettings(const py::object& document, const VELTAudioCaptureSettings& settings);

void addErrors(py::module_& module);
void addLogging(py::module_& module);
void addDocuments(py::module_& module);
void addCurves(py::module_& module, py::class_<RecordHandle>& record);
void addMeasuring(py::module_& module);
void addPlots(py::module_& module);
void addSignals(py::module_& module);

} // namespace tavolar::python
