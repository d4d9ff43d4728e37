// Graphs of records, drawn by the same code as tavolar plot.

#include "Bindings.h"

namespace tavolar::python {

void addPlots(py::module_&) {}

} // namespace tavolar::python
