#pragma once

#include <pybind11/pybind11.h>

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>

#include "zel_scene/node_class.h"

// The Python types of fields: zel.Field, of which zel.ScalarField and zel.VectorField are derived,
// of which there is a type for each registered node class. A field object is a pointer to a node,
// and never changes. Many objects may refer to one node; they are equal.
namespace zel::python {

namespace py = pybind11;

struct FieldObject {
    PyObject ob_base;
    vectorcallfunc call;
    Tree tree;
    /// A tuple of the Python objects that the leaves of the tree depend on: their functions, and
    /// the objects that they are bound to. It may have more than the tree needs; null if empty.
    PyObject* attached;
    /// What bind() did, of its result: a tuple of zel.Binding; else null.
    PyObject* report;
    PyObject* weakReferences;
    /// The levels of the tree; 0 if they are not counted yet.
    std::uint32_t levels;
    /// costOf() the tree; 0 if it is not computed yet.
    double cost;
};

/// Makes the types, once in the process, and adds them to a module.
void addFieldTypes(py::module_& module);

bool isField(py::handle object);
bool isScalarField(py::handle object);
bool isVectorField(py::handle object);
FieldObject& fieldOf(py::handle object);

/// The root node of a tree.
Field const& rootOf(Tree const& tree);

/// Makes a field object of the type of the node's class. `attached` is a tuple or null.
py::object wrap(Tree tree, py::handle attached = {}, std::uint32_t levels = 0);

/// The levels of a field's tree, counted when they are asked for first.
std::uint32_t levelsOf(FieldObject& field);
/// The most nodes that a value of a tree takes, each counted as often as it may be evaluated, at 10
/// to 100 ns; infinite if it is not known. Counted when it is asked for first.
double costOf(FieldObject& field);
/// Throws RecursionError for a tree of more levels than an evaluation may use the stack for, or
/// than what is left of this thread's stack is enough for.
void checkLevels(py::handle field);

/// What a new node gets of the fields and constants that it is made of: their attached objects, and
/// the levels.
class ChildSummary {
public:
    void add(FieldObject& field);
    void add(py::handle attached);
    /// Adds the level of a number or a vector that is made a constant.
    void addConstant() { m_levels = std::max(m_levels, 1U); }

    py::object attached() const;
    std::uint32_t levels() const { return m_levels + 1; }

private:
    py::object m_tuple;  // while one tuple has all
    py::list m_list;
    bool m_isMerged = false;
    std::uint32_t m_levels = 0;
};

}  // namespace zel::python
