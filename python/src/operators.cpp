#include "arrays.h"
#include "errors.h"
#include "field_types.h"
#include "functions.h"
#include "values.h"

namespace zel::python {

namespace {

enum class Kind { kScalar, kVector, kOther };

Kind kindOf(py::handle object) {
    if (isScalarField(object) || (!isField(object) && isNumber(object))) return Kind::kScalar;
    if (isVectorField(object) || isTriple(object)) return Kind::kVector;
    return Kind::kOther;
}

py::object make(char const* className, PyObject* a, PyObject* b) {
    return makeNode(className, py::args(py::make_tuple(py::handle(a), py::handle(b))));
}
PyObject* make(char const* className, PyObject* a) {
    return guardedObject([&] {
        return makeNode(className, py::args(py::make_tuple(py::handle(a)))).release().ptr();
    });
}

/// An operator of two operands of one kind, at least one of them a field.
template <class Mixed>
PyObject* binary(PyObject* a, PyObject* b, char const* ofScalars, char const* ofVectors,
                 Mixed const& mixed) {
    return guardedObject([&]() -> PyObject* {
        Kind const kindA = kindOf(a), kindB = kindOf(b);
        py::object result;
        if (kindA == Kind::kScalar && kindB == Kind::kScalar)
            result = make(ofScalars, a, b);
        else if (kindA == Kind::kVector && kindB == Kind::kVector)
            result = make(ofVectors, a, b);
        else if (kindA != Kind::kOther && kindB != Kind::kOther)
            result = mixed(kindA == Kind::kVector);
        for (py::handle const one : {py::handle(a), py::handle(b)})
            if (!result && isArray(one))
                throw py::type_error("zel: unsupported operand: an array of shape " +
                                     shapeText(py::reinterpret_borrow<py::array>(one)));
        if (!result) Py_RETURN_NOTIMPLEMENTED;
        return result.release().ptr();
    });
}

py::object none(bool /*vectorFirst*/) {
    return {};
}

PyObject* add(PyObject* a, PyObject* b) {
    return binary(a, b, "ScalarFieldAdd", "VectorFieldAdd", none);
}
PyObject* subtract(PyObject* a, PyObject* b) {
    return binary(a, b, "ScalarFieldSubtract", "VectorFieldSubtract", none);
}
PyObject* multiply(PyObject* a, PyObject* b) {
    return binary(a, b, "ScalarFieldMultiply", "VectorFieldMultiply", [&](bool vectorFirst) {
        return make("VectorFieldVSMultiply", vectorFirst ? a : b, vectorFirst ? b : a);
    });
}
PyObject* divide(PyObject* a, PyObject* b) {
    return binary(a, b, "ScalarFieldDivide", "VectorFieldDivide", [&](bool vectorFirst) {
        return vectorFirst ? make("VectorFieldVSDivide", a, b) : py::object();
    });
}

/// A field to the power of a number; of a vector field, of one or of three numbers.
PyObject* power(PyObject* a, PyObject* b, PyObject* modulus) {
    if (modulus != Py_None || !isField(a) || isField(b)) Py_RETURN_NOTIMPLEMENTED;
    return guardedObject([&]() -> PyObject* {
        Kind const kind = kindOf(b);
        if (isScalarField(a) && kind == Kind::kScalar)
            return make("ScalarFieldPow", a, b).release().ptr();
        if (isScalarField(a) || kind == Kind::kOther) Py_RETURN_NOTIMPLEMENTED;
        py::handle const given(b);
        py::object const exponents = kind == Kind::kVector
                                         ? py::reinterpret_borrow<py::object>(given)
                                         : py::make_tuple(given, given, given);
        return make("VectorFieldPow", a, exponents.ptr()).release().ptr();
    });
}

PyObject* negative(PyObject* a) {
    return make(isScalarField(a) ? "ScalarFieldNegative" : "VectorFieldNegative", a);
}
PyObject* absolute(PyObject* a) {
    return make(isScalarField(a) ? "ScalarFieldAbsolute" : "VectorFieldAbsolute", a);
}
PyObject* positive(PyObject* a) {
    Py_INCREF(a);
    return a;
}

}  // namespace

PyType_Slot const* arithmeticSlots() {
    static PyType_Slot const slots[] = {{Py_nb_add, slot(add)},
                                        {Py_nb_subtract, slot(subtract)},
                                        {Py_nb_multiply, slot(multiply)},
                                        {Py_nb_true_divide, slot(divide)},
                                        {Py_nb_power, slot(power)},
                                        {Py_nb_negative, slot(negative)},
                                        {Py_nb_positive, slot(positive)},
                                        {Py_nb_absolute, slot(absolute)},
                                        {0, nullptr}};
    return slots;
}

}  // namespace zel::python
