#pragma once

#include "binding.h"
#include "field.h"

// Methods and attributes of fields that look at the tree.
namespace zel::python {

py::object describeField(py::handle self);
py::object childrenOf(py::handle self);
py::object className(py::handle self);
py::object parametersOf(py::handle self);
py::object bindReport(py::handle self);
py::object inexactGradients(py::handle self);
py::object levelsOfTree(py::handle self);
py::object treeHash(py::handle self);
py::object dumps(py::handle self);
py::object toDotText(py::handle self);
py::object exactGradients(py::handle self);
py::object itself(py::handle self);
PyObject* sameTreeAs(PyObject* self, PyObject* other);

/// Adds zel.loads().
void addLoads(py::module_& module);

}  // namespace zel::python
