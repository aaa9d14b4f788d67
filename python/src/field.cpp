#include "field.h"

#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <new>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "errors.h"
#include "evaluate.h"
#include "field_types.h"
#include "zel_scene/json.h"

namespace zel::python {

namespace {

/// The most levels of a tree that is evaluated; SceneLimits says why.
constexpr std::uint32_t kMostLevels = SceneLimits().depth;
/// An evaluation needs up to 1.1 KB of the stack for each level, and some for the functions of
/// Python that it calls.
constexpr std::size_t kStackOfLevel = 2048, kLeastStack = 256 * 1024;

/// The bytes of this thread's stack that are left.
std::size_t stackLeft() {
    thread_local std::uintptr_t const end = [] {
        pthread_attr_t attributes;
        void* lowest = nullptr;
        std::size_t size = 0, guard = 0;
        if (pthread_getattr_np(pthread_self(), &attributes) != 0) return std::uintptr_t{0};
        pthread_attr_getstack(&attributes, &lowest, &size);
        pthread_attr_getguardsize(&attributes, &guard);
        pthread_attr_destroy(&attributes);
        return reinterpret_cast<std::uintptr_t>(lowest) + guard;
    }();
    auto const here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    return here > end ? here - end : 0;
}

/// Computes a number for each node of a tree from those of its children, by `combine(node,
/// children)`, and returns that of the root. Without recursion.
template <class Number, class Combine> Number foldTree(Field const& root, Combine const& combine) {
    struct Children final : FieldConstVisitor {
        void operator()(Field const& node) override { all.push_back(&node); }
        std::vector<Field const*> all;
    };
    struct Open {
        Field const* node;
        std::vector<Field const*> children;
        std::size_t next;
    };
    std::unordered_map<Field const*, Number> known;  // 0 while a node is open
    std::vector<Number> numbers;
    std::vector<Open> open;
    auto const enter = [&](Field const& node) {
        Children children;
        node.listChildren(children);
        known.emplace(&node, Number{});
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
        numbers.clear();
        for (Field const* const child : top.children) numbers.push_back(known[child]);
        Number const number = combine(*top.node, numbers);
        known[top.node] = number;
        open.pop_back();
        if (open.empty()) return number;
    }
}

/// The longest way down.
std::uint32_t countLevels(Field const& root) {
    return foldTree<std::uint32_t>(
        root, [](Field const& /*node*/, std::vector<std::uint32_t> const& levels) {
            std::uint32_t most = 0;
            for (std::uint32_t const one : levels) most = std::max(most, one);
            return most + 1;
        });
}

/// How often a node may do the work of a node, and ask its children, for one of its values.
double repeatsOf(Field const& node) {
    constexpr double kUnknown = std::numeric_limits<double>::infinity();
    constexpr double kDifferences = 8;  // a gradient takes up to 7 values
    NodeClass const* const nodeClass = findNodeClass(node);
    if (!nodeClass) return kUnknown;
    double repeats = 1;
    for (std::string_view const part : {"Gradient", "Divergence", "FieldCurl", "PointTransform"})
        if (nodeClass->name.find(part) != std::string::npos) repeats = kDifferences;
    std::vector<Value> values;
    for (std::size_t i = 0; i < nodeClass->parameters.size(); ++i) {
        std::string const& name = nodeClass->parameters[i].name;
        if (name != "octaves" && name != "iterations") continue;
        if (values.empty()) nodeClass->read(node, values);
        double count = kUnknown;
        if (auto const* const integer = std::get_if<std::int64_t>(&values[i]))
            count = static_cast<double>(*integer);
        if (auto const* const number = std::get_if<float>(&values[i])) count = double{*number};
        repeats *= std::max(1.0, count);
    }
    return repeats;
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
    made->call = callField;
    new (&made->tree) Tree(std::move(tree));
    made->attached =
        attached && PyTuple_GET_SIZE(attached.ptr()) > 0 ? attached.inc_ref().ptr() : nullptr;
    made->levels = levels;
    made->cost = 0;
    return py::reinterpret_steal<py::object>(reinterpret_cast<PyObject*>(made));
}

std::uint32_t levelsOf(FieldObject& field) {
    if (field.levels == 0) field.levels = countLevels(rootOf(field.tree));
    return field.levels;
}

double costOf(FieldObject& field) {
    if (field.cost == 0)
        field.cost = foldTree<double>(rootOf(field.tree),
                                      [](Field const& node, std::vector<double> const& costs) {
                                          double cost = 1;
                                          for (double const one : costs) cost += one;
                                          return cost * repeatsOf(node);
                                      });
    return field.cost;
}

void checkLevels(py::handle field) {
    std::uint32_t const levels = levelsOf(fieldOf(field));
    if (levels > kMostLevels)
        PyErr_Format(PyExc_RecursionError,
                     "zel: the tree has %u levels, and can be evaluated up to %u: zel.min and "
                     "zel.max of many fields make flat trees, and sums can be written as sums of "
                     "sums",
                     levels, kMostLevels);
    else if (std::size_t const left = stackLeft(), needed = kLeastStack + levels * kStackOfLevel;
             left < needed)
        PyErr_Format(PyExc_RecursionError,
                     "zel: the thread has %zu bytes of its stack left, and a tree of %u levels "
                     "needs %zu: threading.stack_size() is too small, or Python functions in trees "
                     "evaluate trees too deep",
                     left, levels, needed);
    else
        return;
    throw py::error_already_set();
}

void ChildSummary::add(FieldObject& field) {
    m_levels = std::max(m_levels, levelsOf(field));
    if (field.attached) add(py::handle(field.attached));
}

void ChildSummary::add(py::handle attached) {
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

py::object ChildSummary::attached() const {
    return m_isMerged ? py::object(py::tuple(m_list)) : m_tuple;
}

}  // namespace zel::python
