#pragma once

#include "field.h"

namespace zel::python {

/// Adds a function for each node class: its name in small letters without the prefix ScalarField or
/// VectorField, such as zel.simplex_noise. Two classes that differ in the prefix have one function,
/// which chooses by its arguments. Adds `_functions`, a dict of their names and their classes.
void addFunctions(py::module_& module);

/// Makes a node of the class with that name by arguments in the order of its parameters.
py::object makeNode(char const* className, py::args const& args);

}  // namespace zel::python
