#pragma once

#include <pybind11/pybind11.h>

#include <string>

#include "zel_scene/node_class.h"

namespace zel::python {

/// The documentation of a node class for Python: its signature, the comment above the class in C++
/// if it is of the library, and its parameters.
std::string docOf(NodeClass const& nodeClass);

/// Adds _node_classes(), which lists the classes for whoever writes about them, such as the stubs.
void addNodeClasses(pybind11::module_& module);

}  // namespace zel::python
