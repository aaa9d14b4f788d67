#pragma once

#include "field.h"

namespace zel::python {

/// field.__reduce__(): the tree as JSON, its functions, and the objects that its leaves are bound
/// to.
py::object reduce(py::handle self);

/// Adds the function that reads the result.
void addRestore(py::module_& module);

}  // namespace zel::python
