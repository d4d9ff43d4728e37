// Audio devices and measurements.

#include "Bindings.h"

namespace tavolar::python {

void addMeasuring(py::module_&) {}

} // namespace tavolar::python
