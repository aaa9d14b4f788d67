#pragma once

#include <pybind11/pybind11.h>

#include <string>

#include "zel_scene/node_class.h"

namespace zel::python {

/// What a parameter of a kind takes, such as "scalar field or number".
char const* kindText(ValueKind kind);
/// The parameters of a node class as the signature of a function, such as "(field, exponent)".
std::string signatureOf(NodeClass const& nodeClass);
/// That of the function of the class, which takes more operands if the class forms chains.
std::string functionSignatureOf(NodeClass const& nodeClass);
/// The documentation of a node class for Python: the comment above the class in C++ if it is of the
/// library, and its parameters.
std::string commentOf(NodeClass const& nodeClass);

/// Adds _node_classes(), which lists the classes for whoever writes about them, such as the stubs.
void addNodeClasses(pybind11::module_& module);

}  // namespace zel::python
