#pragma once

#include "field.h"

namespace zel::python {

/// The three bases of the types of fields.
struct FieldTypes {
    PyTypeObject *field = nullptr, *scalarField = nullptr, *vectorField = nullptr;
};
FieldTypes const& types();

/// The type of a node: that of its class, or zel.ScalarField or zel.VectorField if the class is not
/// registered.
PyTypeObject* typeOf(Tree const& tree);

/// The class of a type, or null for one of the bases.
NodeClass const* classOf(PyTypeObject* type);

/// Makes a node of a class by arguments as Python gives them.
py::object construct(NodeClass const& nodeClass, py::args const& args, py::handle keywords);

/// A function as the value of a PyType_Slot.
template <class Function> void* slot(Function* function) {
    return reinterpret_cast<void*>(function);
}
/// The slots of arithmetic operators, which end with an empty slot.
PyType_Slot const* arithmeticSlots();

}  // namespace zel::python
