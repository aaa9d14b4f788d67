#include "callable.h"

#include <pybind11/numpy.h>

#include "arguments.h"
#include "arrays.h"
#include "errors.h"
#include "field_types.h"
#include "interrupt.h"
#include "tree_walk.h"
#include "values.h"
#include "zel/node/node_impl.h"
#include "zel_scene/register_node.h"

namespace zel::python {

namespace {

constexpr char const *kScalarClass = "ScalarFieldFunction", *kVectorClass = "VectorFieldFunction";

/// Holds the interpreter's lock in a thread of any kind.
class Lock {
public:
    Lock() : m_state(PyGILState_Ensure()) {}
    ~Lock() { PyGILState_Release(m_state); }
    Lock(Lock const&) = delete;
    Lock& operator=(Lock const&) = delete;

private:
    AtWork m_atWork;  // first: throws if the lock cannot be had any more
    PyGILState_STATE m_state;
};

// FunctionHolder.

struct FunctionHolder {
    PyObject ob_base;
    PyObject* function;
    std::shared_ptr<FunctionSlot> slot;
};
PyTypeObject* holderType = nullptr;

FunctionHolder& holderOf(PyObject* self) {
    return *reinterpret_cast<FunctionHolder*>(self);
}

int traverseHolder(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(holderOf(self).function);
    return 0;
}
int clearHolder(PyObject* self) {
    holderOf(self).slot->function = nullptr;
    Py_CLEAR(holderOf(self).function);
    return 0;
}
void deallocateHolder(PyObject* self) {
    PyObject_GC_UnTrack(self);
    clearHolder(self);
    holderOf(self).slot.~shared_ptr();
    PyTypeObject* const type = Py_TYPE(self);
    type->tp_free(self);
    Py_DECREF(type);
}

py::object makeHolder(std::shared_ptr<FunctionSlot> slot, py::handle function) {
    auto* const made = reinterpret_cast<FunctionHolder*>(holderType->tp_alloc(holderType, 0));
    if (!made) throw py::error_already_set();
    slot->function = function.ptr();
    made->function = function.inc_ref().ptr();
    new (&made->slot) std::shared_ptr<FunctionSlot>(std::move(slot));
    return py::reinterpret_steal<py::object>(reinterpret_cast<PyObject*>(made));
}

std::string nameOf(py::handle function) {
    py::object const name = py::getattr(function, "__name__", py::none());
    if (PyUnicode_Check(name.ptr())) return textOf(name);
    return typeName(function);
}

/// Calls a function with positions in the columns of a block, and writes its result.
template <class T>
void callFunction(FunctionSlot const& slot, Columns<float3> const& positions, int count,
                  ColumnWriter<T> const& out) {
    constexpr bool kIsVector = std::is_same_v<T, float3>;
    Lock const lock;
    auto const function = py::reinterpret_borrow<py::object>(slot.function);
    if (!function) throw std::runtime_error("zel.field: the field has no function");
    // A new array, which the function may keep.
    py::array xyz = newFloats({count, 3});
    auto* const to = static_cast<float*>(xyz.mutable_data());
    for (int i = 0; i < count; ++i)
        for (int axis = 0; axis < 3; ++axis)
            to[3 * i + axis] = positions.component[static_cast<std::size_t>(axis)][i];
    std::string const where = "the result of " + nameOf(function);
    py::array const result = floatsOf(function(xyz), where);
    Shape const wanted = kIsVector ? Shape{count, 3} : Shape{count};
    if (Shape(result) != wanted)
        throw py::value_error(where + ": wanted shape " + shapeText(wanted) + ", got " +
                              shapeText(result));
    py::array const plain = copyOf(result);
    auto const* const values = static_cast<T const*>(plain.data());
    for (int i = 0; i < count; ++i) out.set(i, values[i]);
}

/// A leaf whose values a function computes, by blocks of positions. Its gradients are differences.
template <class Self, class Interface> class FunctionField : public NamedNode<Self, Interface> {
public:
    using Value = typename Interface::Value;

    explicit FunctionField(Quern::String functionName) : name(std::move(functionName)) {}

    using Interface::eval;
    Value eval(float3 const& position, long long /*index*/) const override {
        Columns<float3> const positions{{&position.x, &position.y, &position.z}};
        Value value{};
        ColumnWriter<Value> out;
        for (std::size_t c = 0; c < kComponents<Value>; ++c)
            out.component[c] = reinterpret_cast<float*>(&value) + c;
        callFunction<Value>(*slot, positions, 1, out);
        return value;
    }

    Quern::String name;
    std::shared_ptr<FunctionSlot> slot = std::make_shared<FunctionSlot>();

protected:
    friend NodeAccess;
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("name", &Node::name));
    }
    void blockValues(Block& block, BlockResult<Value>& out) const {
        callFunction<Value>(*slot, block.positions(), block.count(), out.writer());
    }
};

}  // namespace

}  // namespace zel::python

namespace zel {

// Descriptions have these names, like those of all other classes.
struct ScalarFieldFunction : python::FunctionField<ScalarFieldFunction, ScalarField> {
    using FunctionField::FunctionField;
};
struct VectorFieldFunction : python::FunctionField<VectorFieldFunction, VectorField> {
    using FunctionField::FunctionField;
};

}  // namespace zel

namespace zel::python {

namespace {

/// The slot of a node of either class, or null.
std::shared_ptr<FunctionSlot> slotOf(Field const& node) {
    if (auto const* const scalar = dynamic_cast<ScalarFieldFunction const*>(&node))
        return scalar->slot;
    if (auto const* const vector = dynamic_cast<VectorFieldFunction const*>(&node))
        return vector->slot;
    return nullptr;
}

template <class Node> py::object makeField(py::handle function) {
    auto const node = Quern::makePtr<Node>(nameOf(function));
    using Interface =
        std::conditional_t<std::derived_from<Node, ScalarField>, ScalarField, VectorField>;
    return wrap(Quern::Ptr<Interface>(node), py::make_tuple(makeHolder(node->slot, function)), 1);
}

py::object makeFunctionField(py::handle function, py::handle vector) {
    bool const isVector = toBool(vector, "zel.field: vector");
    if (isField(function) || !PyCallable_Check(function.ptr()))
        throw py::type_error("zel.field: wanted a function (n, 3) array -> array, got " +
                             shown(function));
    return isVector ? makeField<VectorFieldFunction>(function)
                    : makeField<ScalarFieldFunction>(function);
}

}  // namespace

bool isFunctionNode(Field const& node) {
    return slotOf(node) != nullptr;
}

py::object setFunction(Field const& node, py::handle function) {
    return makeHolder(slotOf(node), function);
}

py::object functionOf(Field const& node) {
    auto const slot = slotOf(node);
    if (!slot || !slot->function) return py::none();
    return py::reinterpret_borrow<py::object>(slot->function);
}

bool mayHaveFunction(FieldObject const& field) {
    if (!field.attached) return false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(field.attached); ++i)
        if (Py_TYPE(PyTuple_GET_ITEM(field.attached, i)) == holderType) return true;
    return false;
}

bool isFunctionClass(NodeClass const& nodeClass) {
    return nodeClass.name == kScalarClass || nodeClass.name == kVectorClass;
}

bool hasFunction(Field const& root) {
    NodeList const list(root);
    for (Field const* const node : list.nodes())
        if (isFunctionNode(*node)) return true;
    return false;
}

void registerFunctionNodes() {
    if (holderType) return;
    static PyType_Slot slots[] = {{Py_tp_traverse, slot(traverseHolder)},
                                  {Py_tp_clear, slot(clearHolder)},
                                  {Py_tp_dealloc, slot(deallocateHolder)},
                                  {0, nullptr}};
    static PyType_Spec spec{
        "zel._FunctionHolder", sizeof(FunctionHolder), 0,
        Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_DISALLOW_INSTANTIATION, slots};
    PyObject* const made = PyType_FromSpec(&spec);
    if (!made) throw py::error_already_set();
    makeImmutable(made);  // with a __new__, a program could make holders without a slot
    holderType = reinterpret_cast<PyTypeObject*>(made);
    registerNode<ScalarFieldFunction>(kScalarClass);
    registerNode<VectorFieldFunction>(kVectorClass);
    watchShutDown();
}

void addFunctionFields(py::module_& module) {
    using namespace py::literals;
    addFunction(
        module, "field", makeFunctionField,
        "A field of a Python function, which gets positions of shape (n, 3) and returns\n"
        "values of shape (n,), or of shape (n, 3) with vector=True. It is called for blocks of\n"
        "up to 256 positions, from any thread, and its exceptions reach the caller. Gradients\n"
        "are differences of its values. A result of another shape is a ValueError, one that is "
        "not\n"
        "of numbers a TypeError.",
        "function"_a, py::kw_only(), "vector"_a = false);
}

}  // namespace zel::python
