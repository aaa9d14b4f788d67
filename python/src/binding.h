#pragma once

#include <memory>
#include <span>
#include <unordered_set>
#include <vector>

#include "field.h"
#include "properties.h"

namespace zel::python {

/// The leaves of a tree that are bound to one source. Field objects have it in a capsule among
/// their attached objects.
struct BoundLeaves {
    std::shared_ptr<Source const> source;
    std::unordered_set<Field const*> leaves;
    Tree tree;  ///< keeps the leaves, so that no other node gets their addresses
};
py::capsule capsuleOf(BoundLeaves bound);
/// The bound leaves in an attached object, or null if it is something else.
BoundLeaves const* boundLeavesIn(py::handle attached);

/// The attached objects for `copy`, a copy of `original`: as those of the original, with the leaves
/// of the copy. With `source`, the leaves in `rebound` are bound to that.
py::object attachedOfCopy(FieldObject const& original, Tree const& copy,
                          std::shared_ptr<Source const> const& source = {},
                          std::unordered_set<Field const*> const& rebound = {});

/// field.bind(...).
PyObject* bindField(PyObject* self, PyObject* args, PyObject* keywords);

/// Makes a node of a class that is bound by its constructor.
py::object constructBound(NodeClass const& nodeClass, std::span<Value> values, py::handle volume);

/// Gives a new field the report of a bind(), objects of zel.Binding. Throws TypeError for others.
void setReport(py::handle field, py::tuple const& lines);

/// Adds the class zel.Binding.
void addBinding(py::module_& module);

}  // namespace zel::python
