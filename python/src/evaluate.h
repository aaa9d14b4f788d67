#pragma once

#include "field.h"

namespace zel::python {

/// The operations of fields that evaluate: `field(xyz, out=None, index0=0)` and the methods. All
/// return a new reference, or null with a Python error set.
PyObject* callField(PyObject* self, PyObject* args, PyObject* keywords);
PyObject* valueAndGrad(PyObject* self, PyObject* args, PyObject* keywords);
PyObject* gradient(PyObject* self, PyObject* args, PyObject* keywords);

}  // namespace zel::python
