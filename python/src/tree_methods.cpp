#include "tree_methods.h"

#include <limits>

#include "arguments.h"
#include "callable.h"
#include "errors.h"
#include "values.h"
#include "zel/node/exact_gradients.h"
#include "zel/node/type_name.h"
#include "zel_scene/compare.h"
#include "zel_scene/describe.h"
#include "zel_scene/json.h"

namespace zel::python {

namespace {

py::object loads(py::handle text, py::handle depth) {
    std::string given;
    if (PyUnicode_Check(text.ptr())) {
        // The reader refuses halves of surrogate pairs.
        auto const bytes = py::reinterpret_steal<py::bytes>(
            PyUnicode_AsEncodedString(text.ptr(), "utf-8", "surrogatepass"));
        if (!bytes) throw py::error_already_set();
        given = bytes;
    } else if (PyBytes_Check(text.ptr())) {
        given = text.cast<std::string>();
    } else {
        throw py::type_error("zel.loads: wanted a str or bytes, got " + shown(text));
    }
    SceneLimits limits;
    limits.depth = static_cast<std::size_t>(
        toInteger(depth, 0, std::numeric_limits<std::int64_t>::max(), "zel.loads: depth"));
    Tree tree = fromJson(given, limits);
    if (hasFunction(rootOf(tree)))
        throw py::value_error("zel.loads: the scene has a field of a Python function, which JSON "
                              "does not carry");
    return wrap(std::move(tree));
}

}  // namespace

py::object describeField(py::handle self) {
    std::string text = describe(fieldOf(self).tree);
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return fromText(text);
}

py::object childrenOf(py::handle self) {
    FieldObject const& field = fieldOf(self);
    py::list children;
    NodeClass const* const nodeClass = findNodeClass(rootOf(field.tree));
    if (!nodeClass) return py::tuple(children);
    std::vector<Value> values;
    nodeClass->read(rootOf(field.tree), values);
    for (Value const& value : values)
        if (zel::isField(kindOf(value))) children.append(fromValue(value, field.attached));
    return py::tuple(children);
}

py::object className(py::handle self) {
    NodeClass const* const nodeClass = findNodeClass(rootOf(fieldOf(self).tree));
    if (nodeClass) return fromText(nodeClass->name);
    Field const& root = rootOf(fieldOf(self).tree);
    return fromText(std::string(typeNameOf(typeid(root))));
}

py::object parametersOf(py::handle self) {
    FieldObject const& field = fieldOf(self);
    py::dict parameters;
    NodeClass const* const nodeClass = findNodeClass(rootOf(field.tree));
    if (!nodeClass) return parameters;
    std::vector<Value> values;
    nodeClass->read(rootOf(field.tree), values);
    for (std::size_t i = 0; i < values.size(); ++i)
        parameters[py::str(nodeClass->parameters[i].name)] = fromValue(values[i], field.attached);
    return parameters;
}

py::object bindReport(py::handle self) {
    PyObject* const report = fieldOf(self).report;
    return report ? py::list(py::reinterpret_borrow<py::tuple>(report)) : py::list();
}

py::object inexactGradients(py::handle self) {
    checkLevels(self);  // hasExactGradients() recurses
    py::list names;
    for (std::string const& name : hasExactGradients(rootOf(fieldOf(self).tree)).differences)
        names.append(fromText(name));
    return names;
}

py::object levelsOfTree(py::handle self) {
    return py::int_(levelsOf(fieldOf(self)));
}

py::object treeHash(py::handle self) {
    return py::int_(hashOf(fieldOf(self).tree));
}

py::object dumps(py::handle self) {
    Tree const& tree = fieldOf(self).tree;
    if (hasFunction(rootOf(tree)))
        throw py::value_error("zel: a tree with a field of a Python function cannot be written as "
                              "JSON; pickle writes it if it can write the function");
    return fromText(toJson(tree));
}

py::object toDotText(py::handle self) {
    return fromText(toDot(fieldOf(self).tree));
}

py::object exactGradients(py::handle self) {
    checkLevels(self);
    FieldObject const& field = fieldOf(self);
    Tree const tree =
        std::visit([](auto const& root) -> Tree { return withExactGradients(root); }, field.tree);
    return wrap(tree, attachedOfCopy(field, tree), field.levels);
}

py::object itself(py::handle self) {
    return py::reinterpret_borrow<py::object>(self);
}

PyObject* sameTreeAs(PyObject* self, PyObject* other) {
    return guardedObject([&]() -> PyObject* {
        return PyBool_FromLong(sameTree(fieldOf(self).tree, fieldOf(other).tree));
    });
}

void addLoads(py::module_& module) {
    using namespace py::literals;
    addFunction(
        module, "loads", loads,
        "Reads a field from the JSON of a scene. Raises SceneError, or TypeError if it is no "
        "text.\n"
        "`depth` is the most levels of a tree; an evaluation takes no more than the default.",
        "text"_a, py::kw_only(), "depth"_a = SceneLimits().depth);
}

}  // namespace zel::python
