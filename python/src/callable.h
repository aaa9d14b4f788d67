#pragma once

#include <memory>

#include "field.h"

// Fields of Python functions: leaves whose values a function `(n, 3) array -> array` computes.
namespace zel::python {

/// The reference of nodes to a Python function. The function belongs to an object of the type
/// FunctionHolder, which the garbage collector sees and which field objects have among their
/// attached objects: so a cycle of fields and functions is collected. Null when that object is
/// gone. Read and written with the interpreter's lock.
struct FunctionSlot {
    PyObject* function = nullptr;
};

/// The class of the nodes; the name is that of the function, for descriptions.
bool isFunctionNode(Field const& node);
/// Gives the node of a tree that was read its function, and returns the holder for it.
py::object setFunction(Field const& node, py::handle function);
/// The function of a node, or None.
py::object functionOf(Field const& node);
/// Whether a tree has a function; such a tree is written without it.
bool hasFunction(Field const& root);

/// Whether a field may have a function in its tree: if not, there is none. Costs no walk.
bool mayHaveFunction(FieldObject const& field);
/// Whether a class is that of such nodes, which field() alone makes.
bool isFunctionClass(NodeClass const& nodeClass);

/// Registers the classes of the nodes; before addFieldTypes().
void registerFunctionNodes();
/// Adds zel.field().
void addFunctionFields(py::module_& module);

}  // namespace zel::python
