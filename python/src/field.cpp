#include "field.h"

#include <algorithm>
#include <new>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "errors.h"
#include "field_types.h"
#include "zel_scene/json.h"

namespace zel::python {

namespace {

/// The most levels of a tree that is evaluated; SceneLimits says why.
constexpr std::uint32_t kMostLevels = SceneLimits().depth;

/// The levels of a tree: the longest way down. Without recursion.
std::uint32_t countLevels(Field const& root) {
    struct Children final : FieldConstVisitor {
        void operator()(Field const& node) override { all.push_back(&node); }
        std::vector<Field const*> all;
    };
    struct Open {
        Field const* node;
        std::vector<Field const*> children;
        std::size_t next;
    };
    std::unordered_map<Field const*, std::uint32_t> known;  // 0 while a node is open
    std::vector<Open> open;
    auto const enter = [&](Field const& node) {
        Children children;
        node.listChildren(children);
        known.emplace(&node, 0);
        open.push_back({&node, std::move(children.all), 0});
    };
    enter(root);
    while (true) {
        Open& top = open.back();
        if (top.next < top.children.size()) {
            Field const& child = *top.children[top.next++];
            if (!known.contains(&child)) enter(child);
            continue;
        }
        std::uint32_t levels = 0;
        for (Field const* const child : top.children) levels = std::max(levels, known[child]);
        known[top.node] = levels + 1;
        open.pop_back();
        if (open.empty()) return levels + 1;
    }
}

}  // namespace

bool isField(py::handle object) {
    return PyObject_TypeCheck(object.ptr(), types().field);
}
bool isScalarField(py::handle object) {
    return PyObject_TypeCheck(object.ptr(), types().scalarField);
}
bool isVectorField(py::handle object) {
    return PyObject_TypeCheck(object.ptr(), types().vectorField);
}

FieldObject& fieldOf(py::handle object) {
    if (!isField(object)) throw py::type_error("wanted a zel.Field, got " + shown(object));
    return *reinterpret_cast<FieldObject*>(object.ptr());
}

Field const& rootOf(Tree const& tree) {
    return std::visit([](auto const& root) -> Field const& { return *root; }, tree);
}

py::object wrap(Tree tree, py::handle attached, std::uint32_t levels) {
    PyTypeObject* const type = typeOf(tree);
    auto* const made = reinterpret_cast<FieldObject*>(type->tp_alloc(type, 0));
    if (!made) throw py::error_already_set();
    new (&made->tree) Tree(std::move(tree));
    made->attached =
        attached && PyTuple_GET_SIZE(attached.ptr()) > 0 ? attached.inc_ref().ptr() : nullptr;
    made->levels = levels;
    return py::reinterpret_steal<py::object>(reinterpret_cast<PyObject*>(made));
}

std::uint32_t levelsOf(FieldObject& field) {
    if (field.levels == 0) field.levels = countLevels(rootOf(field.tree));
    return field.levels;
}

void checkLevels(py::handle field) {
    std::uint32_t const levels = levelsOf(fieldOf(field));
    if (levels <= kMostLevels) return;
    PyErr_Format(PyExc_RecursionError,
                 "zel: the tree has %u levels, and can be evaluated up to %u: zel.min and zel.max "
                 "of many fields make flat trees, and sums can be written as sums of sums",
                 levels, kMostLevels);
    throw py::error_already_set();
}

void Parts::add(FieldObject& field) {
    m_levels = std::max(m_levels, levelsOf(field));
    if (field.attached) add(py::handle(field.attached));
}

void Parts::add(py::handle attached) {
    if (!attached || m_tuple.is(attached)) return;
    if (!m_tuple) {
        m_tuple = py::reinterpret_borrow<py::object>(attached);
        return;
    }
    if (!m_isMerged) {
        m_list = py::list(m_tuple);
        m_isMerged = true;
    }
    std::unordered_set<PyObject*> known;
    for (py::handle const one : m_list) known.insert(one.ptr());
    for (py::handle const one : py::reinterpret_borrow<py::tuple>(attached))
        if (known.insert(one.ptr()).second) m_list.append(one);
}

py::object Parts::attached() const {
    return m_isMerged ? py::object(py::tuple(m_list)) : m_tuple;
}

}  // namespace zel::python
