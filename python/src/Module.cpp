// The native module tavolar._native: engine errors, arrays, and the parts registered by the other
// sources (documents and records, curves, measuring, plots).

#include "Bindings.h"
#include "platform/Assertions.h"

#include <fmt/format.h>

namespace tavolar::python {

namespace {

using Shape = std::vector<py::ssize_t>;

std::string shapeText(const py::array& array) {
    std::string text = "(";
    for (py::ssize_t axis = 0; axis < array.ndim(); ++axis)
        text += fmt::format("{}{}", axis == 0 ? "" : ", ", array.shape(axis));
    return text + (array.ndim() == 1 ? ",)" : ")");
}

void requireFloatSamples(const py::array& array, std::string_view what) {
    const py::dtype type = array.dtype();
    if (!type.is(py::dtype::of<float>()) && !type.is(py::dtype::of<double>()) &&
        !(type.kind() == 'f' && (type.itemsize() == 4 || type.itemsize() == 8)))
        throw py::type_error(fmt::format("{} must hold float32 or float64 samples, not {}.", what,
                                         py::str(py::handle(type)).cast<std::string>()));
}

void makeReadOnly(py::array& array) {
    py::detail::array_proxy(array.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
}

} // namespace

py::array_t<float> arrayTakingVector(VELTRealVector vector) {
    auto* owned = new VELTRealVector(std::move(vector));
    py::capsule owner(owned, [](void* pointer) { delete static_cast<VELTRealVector*>(pointer); });
    return py::array_t<float>(Shape{static_cast<py::ssize_t>(owned->length())}, Shape{sizeof(float)},
                              owned->components(), owner);
}

py::array_t<float> arrayViewing(std::shared_ptr<const void> owner, const float* data,
                                std::vector<py::ssize_t> shape) {
    Shape strides(shape.size(), sizeof(float));
    for (std::size_t axis = shape.size(); axis-- > 1;)
        strides[axis - 1] = strides[axis] * shape[axis];
    auto* holder = new std::shared_ptr<const void>(std::move(owner));
    py::capsule capsule(holder,
                        [](void* pointer) { delete static_cast<std::shared_ptr<const void>*>(pointer); });
    py::array_t<float> array(std::move(shape), std::move(strides), data, capsule);
    makeReadOnly(array);
    return array;
}

py::array_t<float> arraySharingVector(std::shared_ptr<const VELTRealVector> vector) {
    if (!vector)
        vector = std::make_shared<const VELTRealVector>();
    const float* data = vector->components();
    const auto length = static_cast<py::ssize_t>(vector->length());
    auto* holder = new std::shared_ptr<const VELTRealVector>(std::move(vector));
    py::capsule owner(
        holder, [](void* pointer) { delete static_cast<std::shared_ptr<const VELTRealVector>*>(pointer); });
    py::array_t<float> array(Shape{length}, Shape{sizeof(float)}, data, owner);
    makeReadOnly(array);
    return array;
}

VELTRealVector vectorFromArray(const py::array& array, std::string_view what) {
    requireFloatSamples(array, what);
    if (array.ndim() != 1)
        throw py::value_error(
            fmt::format("{} must be one channel of shape (samples,), not {}.", what, shapeText(array)));
    auto samples = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(array);
    return VELTRealVector(std::span<const float>(samples.data(), static_cast<std::size_t>(samples.size())));
}

std::vector<VELTRealVector> channelsFromArray(const py::array& array, std::string_view what) {
    requireFloatSamples(array, what);
    if (array.ndim() == 1)
        return {vectorFromArray(array, what)};
    if (array.ndim() != 2)
        throw py::value_error(fmt::format("{} must have the shape (samples,) or (channels, samples), not {}.",
                                          what, shapeText(array)));
    auto samples = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(array);
    const auto channels = static_cast<std::size_t>(samples.shape(0));
    const auto length = static_cast<std::size_t>(samples.shape(1));
    std::vector<VELTRealVector> result;
    for (std::size_t channel = 0; channel < channels; ++channel)
        result.emplace_back(std::span<const float>(samples.data() + channel * length, length));
    return result;
}

void addErrors(py::module_& module) {
    // The classes live in tavolar._errors (plain Python, so they pickle and can be subclassed); they
    // are looked up when an error is raised, as this module is imported by that package.
    py::register_exception_translator([](std::exception_ptr pointer) {
        try {
            if (pointer)
                std::rethrow_exception(pointer);
        } catch (const RaisedError& raised) {
            py::object type = py::module_::import("tavolar._errors").attr(raised.kind.c_str());
            const TavolarError& error = raised.error;
            py::object instance =
                type(error.localizedDescription, error.localizedRecoverySuggestion, error.domain, error.code);
            PyErr_SetObject(type.ptr(), instance.ptr());
        } catch (const ParameterAssertion& assertion) {
            PyErr_SetString(PyExc_ValueError, assertion.what());
        }
    });
}

} // namespace tavolar::python

PYBIND11_MODULE(_native, module) {
    namespace python = tavolar::python;
    module.doc() = "The engine of the tavolar package: documents, records, curves, measuring and plots.";
    python::addErrors(module);
    python::addLogging(module);
    python::addDocuments(module);
    python::addMeasuring(module);
    python::addPlots(module);
    python::addSignals(module);
}
