#include "field_types.h"

#include <structmember.h>

#include <deque>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "callable.h"
#include "class_docs.h"
#include "errors.h"
#include "evaluate.h"
#include "pickle.h"
#include "tree_methods.h"
#include "values.h"

namespace zel::python {

namespace {

FieldTypes bases;

/// The type of a node class, with the texts and tables that Python refers to.
struct NodeType {
    NodeClass const* nodeClass;
    PyTypeObject* type;
    std::string name;
    std::vector<PyGetSetDef> attributes;
};
std::deque<NodeType> nodeTypes;
std::unordered_map<NodeClass const*, PyTypeObject*> typesByClass;
std::unordered_map<PyTypeObject*, NodeClass const*> classesByType;

FieldObject& cast(PyObject* self) {
    return *reinterpret_cast<FieldObject*>(self);
}

// The slots that all types share.

PyObject* newField(PyTypeObject* type, PyObject* args, PyObject* keywords) {
    return guardedObject([&] {
        NodeClass const* const nodeClass = classOf(type);
        if (!nodeClass)
            throw py::type_error(std::string(type->tp_name) +
                                 " is abstract: make a field by a class such as "
                                 "zel.ScalarFieldSphere, or by zel.field(function)");
        return construct(*nodeClass, py::reinterpret_borrow<py::args>(args), keywords)
            .release()
            .ptr();
    });
}

void deallocate(PyObject* self) {
    PyObject_GC_UnTrack(self);
    FieldObject& field = cast(self);
    if (field.weakReferences) PyObject_ClearWeakRefs(self);
    field.tree.~Tree();
    Py_CLEAR(field.attached);
    Py_CLEAR(field.report);
    PyTypeObject* const type = Py_TYPE(self);
    type->tp_free(self);
    Py_DECREF(type);
}

int traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(cast(self).attached);
    Py_VISIT(cast(self).report);
    return 0;
}

int clear(PyObject* self) {
    Py_CLEAR(cast(self).attached);
    Py_CLEAR(cast(self).report);
    return 0;
}

PyObject* represent(PyObject* self) {
    return guardedObject([&] { return describeField(self).release().ptr(); });
}

Py_hash_t hash(PyObject* self) {
    auto const address = reinterpret_cast<std::uintptr_t>(&rootOf(cast(self).tree));
    return static_cast<Py_hash_t>(address >> 4);
}

PyObject* compare(PyObject* a, PyObject* b, int operation) {
    if ((operation != Py_EQ && operation != Py_NE) || !isField(a) || !isField(b))
        Py_RETURN_NOTIMPLEMENTED;
    bool const isSame = &rootOf(cast(a).tree) == &rootOf(cast(b).tree);
    return PyBool_FromLong(isSame == (operation == Py_EQ));
}

// Attributes.

PyObject* getParameter(PyObject* self, void* parameter) {
    return guardedObject([&] {
        NodeClass const& nodeClass = *classOf(Py_TYPE(self));
        std::vector<Value> values;
        nodeClass.read(rootOf(cast(self).tree), values);
        auto const number =
            static_cast<ParameterInfo const*>(parameter) - nodeClass.parameters.data();
        return fromValue(values[static_cast<std::size_t>(number)], cast(self).attached)
            .release()
            .ptr();
    });
}

/// Wraps a function as a getter.
template <py::object (*function)(py::handle)> PyObject* getter(PyObject* self, void* /*closure*/) {
    return guardedObject([&] { return function(self).release().ptr(); });
}
/// The same as a method without arguments.
template <py::object (*function)(py::handle)> PyObject* method(PyObject* self, PyObject* /*none*/) {
    return guardedObject([&] { return function(self).release().ptr(); });
}

template <class Function> PyCFunction asMethod(Function* function) {
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function));
}

PyMethodDef methods[] = {
    {"value_and_grad", asMethod(valueAndGrad), METH_FASTCALL | METH_KEYWORDS,
     "value_and_grad($self, xyz, out=None, index0=0)\n--\n\n"
     "The values and the gradients at positions, by one evaluation. The gradients of a scalar "
     "field\n"
     "have the shape (..., 3): [..., c] is the derivative along coordinate c. Those of a vector "
     "field\n"
     "have the shape (..., 3, 3): [..., r, c] is the derivative of component r along coordinate "
     "c.\n"
     "`out` is a tuple of two arrays to write to. Raises as a call does: see zel.ScalarField."},
    {"grad", asMethod(gradient), METH_FASTCALL | METH_KEYWORDS,
     "grad($self, xyz, out=None, index0=0)\n--\n\nThe gradients alone, of "
     "shape\n(..., 3) of a scalar field and (..., 3, 3) of a vector field: see value_and_grad."},
    {"same_tree", sameTreeAs, METH_O,
     "same_tree($self, other, /)\n--\n\n"
     "Whether two trees have equal classes, equal bits in all parameters, and the same shape. "
     "What\n"
     "a leaf is bound to plays no part, and functions are compared by name. `==` tells whether two "
     "fields are one node."},
    {"tree_hash", method<treeHash>, METH_NOARGS,
     "tree_hash($self)\n--\n\n"
     "A number that is equal for trees that are the same by same_tree(), on every machine."},
    {"dumps", method<dumps>, METH_NOARGS,
     "dumps($self)\n--\n\n"
     "The tree as the JSON of a scene, which zel.loads() reads back. Leaves are written unbound."},
    {"to_dot", method<toDotText>, METH_NOARGS,
     "to_dot($self)\n--\n\nThe tree as a graph in the language of graphviz."},
    {"bind", asMethod(bindField), METH_VARARGS | METH_KEYWORDS,
     "bind($self, properties=None, targets=None, volume=None, *, indices=None, "
     "metres_per_unit=None, strict=False)\n--\n\n"
     "A copy of the tree whose leaves are bound to arrays and to a volume. The tree itself stays "
     "as\n"
     "it is. The arrays are copied.\n\n"
     "properties: a dict of names and arrays, of shape (n,) for scalar fields and (n, 3) or (n, "
     "4),\n"
     "    quaternions, for vector fields; or zel.Property objects, which have a default value and\n"
     "    a target.\n"
     "targets: a dict of targets and arrays of indices: for each element of the target, the place\n"
     "    of its value in the arrays of properties with that target.\n"
     "volume: a zel.Volume.\n"
     "indices: the element for each sampled index; quaternions, and leaves bound before, ignore "
     "them.\n"
     "metres_per_unit: the length of a unit of positions, for leaves of volumes.\n"
     "strict: raise BindError with all names that are missing. Else the attribute `bind_report` "
     "of\n"
     "    the result has them. A leaf that an earlier bind() bound, and for which this one has\n"
     "    nothing, keeps its binding, but counts as missing.\n\n"
     "Raises TypeError or ValueError for an argument that does not fit, which name it."},
    {"exact_gradients", method<exactGradients>, METH_NOARGS,
     "exact_gradients($self)\n--\n\n"
     "A copy of the tree in which each class that knows the derivative of its value answers\n"
     "gradients by that instead of differences. Values are the same."},
    {"__reduce__", method<reduce>, METH_NOARGS, nullptr},
    {"__copy__", method<itself>, METH_NOARGS, nullptr},
    {}};

PyGetSetDef attributes[] = {
    {"children", getter<childrenOf>, nullptr, "The children, in the order of the parameters.",
     nullptr},
    {"class_name", getter<className>, nullptr, "The name of the node's class in C++.", nullptr},
    {"parameters", getter<parametersOf>, nullptr,
     "The parameters by name, children among them: type(t)(**t.parameters) is an equal node.",
     nullptr},
    {"bind_report", getter<bindReport>, nullptr,
     "What bind() did for each leaf that waits for an object: a list of zel.Binding. Empty for a\n"
     "field that bind() did not return.",
     nullptr},
    {"inexact_gradients", getter<inexactGradients>, nullptr,
     "The names of the classes in the tree whose gradients are not derivatives.", nullptr},
    {"levels", getter<levelsOfTree>, nullptr, "The length of the longest way down the tree.",
     nullptr},
    {}};

PyMemberDef members[] = {
    {"__weaklistoffset__", T_PYSSIZET, offsetof(FieldObject, weakReferences), READONLY, nullptr},
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(FieldObject, call), READONLY, nullptr},
    {}};

char const kFieldDoc[] = "A function over space: see zel.ScalarField and zel.VectorField.";
char const kScalarDoc[] =
    "A function over space whose values are numbers.\n\n"
    "field(xyz, out=None, index0=0) returns the values at positions `xyz`, of shape (..., 3), as "
    "an\n"
    "array of float32 of shape (...), or as a number for one position of shape (3,). Positions of\n"
    "float32 are read in place if their strides allow it; others are converted. `out` is an array\n"
    "of float32, of the shape of the result, to write to. `index0` is the element index of the "
    "first\n"
    "position; those of the others follow it. Positions are in the units of the tree's "
    "parameters.\n\n"
    "Raises ValueError for a shape and TypeError for elements that do not fit, RecursionError for "
    "a\n"
    "tree of more than 1000 levels, KeyboardInterrupt, and what a Python function in the tree "
    "raises.";
char const kVectorDoc[] = "A function over space whose values are vectors.\n\n"
                          "field(xyz, out=None, index0=0) returns the values at positions `xyz`, "
                          "of shape (..., 3), as an\n"
                          "array of float32 of the same shape. See zel.ScalarField.";

PyTypeObject* makeType(PyType_Spec& spec, PyTypeObject* base) {
    PyObject* const made =
        PyType_FromSpecWithBases(&spec, base ? reinterpret_cast<PyObject*>(base) : nullptr);
    if (!made) throw py::error_already_set();
    auto* const type = reinterpret_cast<PyTypeObject*>(made);
    type->tp_flags |= Py_TPFLAGS_HAVE_VECTORCALL;  // which types on the heap do not inherit
    PyType_Modified(type);
    return type;
}

PyTypeObject* makeFieldType() {
    std::vector<PyType_Slot> slots{
        {Py_tp_new, slot(newField)},        {Py_tp_dealloc, slot(deallocate)},
        {Py_tp_traverse, slot(traverse)},   {Py_tp_clear, slot(clear)},
        {Py_tp_repr, slot(represent)},      {Py_tp_hash, slot(hash)},
        {Py_tp_richcompare, slot(compare)}, {Py_tp_call, slot(PyVectorcall_Call)},
        {Py_tp_methods, methods},           {Py_tp_getset, attributes},
        {Py_tp_members, members},           {Py_tp_doc, const_cast<char*>(kFieldDoc)}};
    for (PyType_Slot const* at = arithmeticSlots(); at->slot != 0; ++at) slots.push_back(*at);
    slots.push_back({0, nullptr});
    PyType_Spec spec{"zel.Field", sizeof(FieldObject), 0,
                     Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC, slots.data()};
    PyTypeObject* const type = makeType(spec, nullptr);
    // NumPy leaves operators with an array on their left side to the field.
    py::handle(reinterpret_cast<PyObject*>(type)).attr("__array_ufunc__") = py::none();
    return type;
}

PyTypeObject* makeKind(char const* name, char const* doc) {
    PyType_Slot slots[] = {
        {Py_tp_dealloc, slot(deallocate)}, {Py_tp_doc, const_cast<char*>(doc)}, {0, nullptr}};
    PyType_Spec spec{name, sizeof(FieldObject), 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE, slots};
    return makeType(spec, bases.field);
}

void makeNodeType(NodeClass const& nodeClass) {
    NodeType& made = nodeTypes.emplace_back();
    made.nodeClass = &nodeClass;
    made.name = "zel." + nodeClass.name;
    py::handle const base(reinterpret_cast<PyObject*>(bases.field));
    for (ParameterInfo const& parameter : nodeClass.parameters) {
        char const* const name = parameter.name.c_str();
        if (py::hasattr(base, name)) continue;  // to be found in `parameters` alone
        made.attributes.push_back({name, getParameter, nullptr, kindText(parameter.kind),
                                   const_cast<ParameterInfo*>(&parameter)});
    }
    made.attributes.push_back({});
    std::string const doc =
        nodeClass.name + signatureOf(nodeClass) + "\n--\n\n" + commentOf(nodeClass);
    PyType_Slot slots[] = {{Py_tp_dealloc, slot(deallocate)},
                           {Py_tp_getset, made.attributes.data()},
                           {Py_tp_doc, const_cast<char*>(doc.c_str())},
                           {0, nullptr}};
    PyType_Spec spec{made.name.c_str(), sizeof(FieldObject), 0, Py_TPFLAGS_DEFAULT, slots};
    made.type = makeType(spec, nodeClass.isScalar ? bases.scalarField : bases.vectorField);
    makeImmutable(reinterpret_cast<PyObject*>(made.type));
    typesByClass.emplace(&nodeClass, made.type);
    classesByType.emplace(made.type, &nodeClass);
}

/// Adds methods that are written in Python to zel.Field, once. From then on the bases are as they
/// are: with another __new__, a program could make fields that have no tree.
void completeBases(py::kwargs const& pythonMethods) {
    static bool isComplete = false;
    if (std::exchange(isComplete, true)) return;
    py::handle const field(reinterpret_cast<PyObject*>(bases.field));
    for (auto const& [name, method] : pythonMethods) py::setattr(field, name, method);
    for (PyTypeObject* const type : {bases.field, bases.scalarField, bases.vectorField})
        makeImmutable(reinterpret_cast<PyObject*>(type));
}

}  // namespace

FieldTypes const& types() {
    return bases;
}

PyTypeObject* typeOf(Tree const& tree) {
    NodeClass const* const nodeClass = findNodeClass(rootOf(tree));
    auto const found = nodeClass ? typesByClass.find(nodeClass) : typesByClass.end();
    if (found != typesByClass.end()) return found->second;
    return std::holds_alternative<ScalarPtr>(tree) ? bases.scalarField : bases.vectorField;
}

NodeClass const* classOf(PyTypeObject* type) {
    auto const found = classesByType.find(type);
    return found == classesByType.end() ? nullptr : found->second;
}

void addFieldTypes(py::module_& module) {
    if (!bases.field) {
        bases.field = makeFieldType();
        bases.scalarField = makeKind("zel.ScalarField", kScalarDoc);
        bases.vectorField = makeKind("zel.VectorField", kVectorDoc);
        for (NodeClass const* const one : nodeClasses()) makeNodeType(*one);
    }
    auto const add = [&](char const* name, PyTypeObject* type) {
        module.attr(name) = py::handle(reinterpret_cast<PyObject*>(type));
    };
    add("Field", bases.field);
    add("ScalarField", bases.scalarField);
    add("VectorField", bases.vectorField);
    module.def("_complete_bases", completeBases);
    for (NodeType const& one : nodeTypes)
        if (!isFunctionClass(*one.nodeClass)) add(one.nodeClass->name.c_str(), one.type);
}

}  // namespace zel::python
