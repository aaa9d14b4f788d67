#pragma once

#include "field.h"

namespace zel::python {

/// The operations of fields that evaluate: `field(xyz, out=None, index0=0)` and the methods, as
/// Python calls a vectorcallfunc and a METH_FASTCALL. All return a new reference, or null with a
/// Python error set.
PyObject* callField(PyObject* self, PyObject* const* args, std::size_t countAndFlag,
                    PyObject* keywords);
PyObject* valueAndGrad(PyObject* self, PyObject* const* args, Py_ssize_t count, PyObject* keywords);
PyObject* gradient(PyObject* self, PyObject* const* args, Py_ssize_t count, PyObject* keywords);

}  // namespace zel::python
