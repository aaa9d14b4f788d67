#include "arrays.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "errors.h"
#include "interrupt.h"

namespace zel::python {

namespace {

using Api = py::detail::npy_api;

constexpr py::ssize_t kFloat = sizeof(float);
constexpr int kEnsureCopy = 0x0020;  // NPY_ARRAY_ENSURECOPY

/// The type float32, one object for the process.
PyObject* floatType() {
    static PyObject* const type = py::dtype::of<float>().release().ptr();
    return type;
}

PyObject* descriptorOf(py::array const& array) {
    return py::detail::array_proxy(array.ptr())->descr;
}

bool isAligned(py::array const& array) {
    return (array.flags() & Api::NPY_ARRAY_ALIGNED_) != 0;
}

struct Range {
    std::uintptr_t low, high;
};

/// The addresses of the elements.
Range rangeOf(py::array const& array) {
    auto const first = reinterpret_cast<std::uintptr_t>(array.data());
    Range range{first, first};
    if (array.size() == 0) return range;
    for (py::ssize_t i = 0; i < array.ndim(); ++i) {
        py::ssize_t const reach = (array.shape(i) - 1) * array.strides(i);
        (reach < 0 ? range.low : range.high) += static_cast<std::uintptr_t>(reach);
    }
    range.high += static_cast<std::uintptr_t>(array.itemsize());
    return range;
}

py::array fromAny(py::handle object, PyObject* type, int flags) {
    Py_XINCREF(type);  // the function takes it
    auto made = py::reinterpret_steal<py::object>(
        Api::get().PyArray_FromAny_(object.ptr(), type, 0, 0, flags, nullptr));
    if (!made) throw py::error_already_set();
    return py::reinterpret_steal<py::array>(made.release());
}

/// An array that NumPy makes of another object. Of integers beyond 64 bits it makes objects: here
/// they are of float64, as Python's floats.
py::array arrayFrom(py::handle object, std::string const& where) {
    try {
        py::array array = fromAny(object, nullptr, 0);
        if (array.dtype().kind() != 'O') return array;
        for (py::handle const one : array.attr("flat"))
            if (!PyLong_Check(one.ptr()) && !PyFloat_Check(one.ptr())) return array;
        return fromAny(array, py::dtype::of<double>().ptr(), Api::NPY_ARRAY_FORCECAST_);
    } catch (py::error_already_set& error) {
        if (error.type().ptr() == PyExc_ValueError) {
            // Such as lists of different lengths.
            py::raise_from(error, PyExc_ValueError,
                           (where + ": " + std::string(py::str(error.value()))).c_str());
            throw py::error_already_set();
        }
        if (error.type().ptr() != PyExc_OverflowError) throw;
        throw py::value_error(where + ": wanted numbers in the range of float64, got " +
                              shown(object));
    }
}

/// A view whose shape nobody changes, without the code of a derived class.
py::array viewOf(py::array const& array) {
    auto made = py::reinterpret_steal<py::object>(Api::get().PyArray_View_(
        array.ptr(), nullptr, reinterpret_cast<PyObject*>(Api::get().PyArray_Type_)));
    if (!made) throw py::error_already_set();
    return py::reinterpret_steal<py::array>(made.release());
}

/// Sets the view of positions, if their strides are those of a view. Else returns false.
bool setView(Points& points) {
    py::array const& array = points.array;
    py::ssize_t const last = array.ndim() - 1;
    py::ssize_t count = 1, stride = 0;
    bool isFirst = true;
    for (py::ssize_t i = last; i-- > 0;) {
        py::ssize_t const length = array.shape(i);
        if (length == 0) count = 0;
        if (length <= 1 || count == 0) continue;
        if (!isFirst && array.strides(i) != stride * count) return false;
        if (isFirst) stride = array.strides(i);
        isFirst = false;
        count *= length;
    }
    py::ssize_t const step = array.strides(last);
    if (count > 0 && (stride % kFloat != 0 || step % kFloat != 0 || !isAligned(array)))
        return false;
    auto const* const x = static_cast<float const*>(array.data());
    points.view = {x, x + step / kFloat, x + 2 * (step / kFloat), stride / kFloat,
                   static_cast<std::size_t>(count)};
    return true;
}

}  // namespace

bool isArray(py::handle object) {
    return py::isinstance<py::array>(object);
}

bool isMasked(py::handle object) {
    if (Py_TYPE(object.ptr()) == Api::get().PyArray_Type_ || !isArray(object)) return false;
    return py::isinstance(object, py::module_::import("numpy.ma").attr("MaskedArray"));
}

bool isNumpyScalar(py::handle object) {
    // numpy.generic is the base of numpy.flexible, and that of numpy.void.
    return PyObject_TypeCheck(object.ptr(), Api::get().PyVoidArrType_Type_->tp_base->tp_base);
}

bool hasNumbers(py::dtype const& type) {
    return std::strchr("biuf", type.kind()) != nullptr;
}

bool hasFloats(py::array const& array) {
    if (descriptorOf(array) == floatType()) return true;
    return py::bool_(array.dtype().equal(py::handle(floatType())));
}

std::string shapeText(py::array const& array) {
    return shapeText(Shape(array));
}

std::string shapeText(Shape const& shape) {
    std::string text = "(";
    for (std::size_t i = 0; i < shape.size(); ++i)
        text += (i == 0 ? "" : ", ") + std::to_string(shape[i]);
    return text + (shape.size() == 1 ? ",)" : ")");
}

std::string dtypeText(py::array const& array) {
    return py::str(array.dtype());
}

py::array numbersOf(py::handle object, std::string const& where) {
    py::array array =
        isArray(object) ? py::reinterpret_borrow<py::array>(object) : arrayFrom(object, where);
    if (isMasked(array))
        throw py::type_error(where +
                             ": wanted a plain array, got a masked one: filled() makes such");
    if (!hasNumbers(array.dtype()))
        throw py::type_error(where + ": wanted numbers, got " +
                             (isArray(object) ? "an array of " + dtypeText(array) : shown(object)));
    return array;
}

py::array floatsOf(py::handle object, std::string const& where) {
    if (isArray(object) && !isMasked(object) &&
        descriptorOf(py::reinterpret_borrow<py::array>(object)) == floatType())
        return py::reinterpret_borrow<py::array>(object);
    py::array array = numbersOf(object, where);
    if (hasFloats(array)) return array;
    return copyOf(array);
}

py::array floatsInPlace(py::handle object, std::string const& where) {
    py::array array = viewOf(numbersOf(object, where));
    return hasFloats(array) && isAligned(array) ? array : copyOf(array);
}

py::array newFloats(Shape const& shape) {
    Py_INCREF(floatType());  // the function takes it
    auto made = py::reinterpret_steal<py::object>(Api::get().PyArray_NewFromDescr_(
        Api::get().PyArray_Type_, floatType(), static_cast<int>(shape.size()), shape.begin(),
        nullptr, nullptr, 0, nullptr));
    if (!made) throw py::error_already_set();
    return py::reinterpret_steal<py::array>(made.release());
}

py::array copyOf(py::array const& array) {
    constexpr py::ssize_t kPart = 1 << 20;
    if (array.size() <= kPart)
        return fromAny(array, floatType(),
                       Api::NPY_ARRAY_C_CONTIGUOUS_ | Api::NPY_ARRAY_ALIGNED_ |
                           Api::NPY_ARRAY_ENSUREARRAY_ | Api::NPY_ARRAY_FORCECAST_ | kEnsureCopy);
    // A handler of a signal may change the shape of the array, but not of the view.
    py::array const view = viewOf(array);
    py::array made = newFloats(Shape(view));
    // Slices across the longest axis.
    auto const axis = std::max_element(view.shape(), view.shape() + view.ndim()) - view.shape();
    py::ssize_t const length = view.shape(axis);
    py::ssize_t const step = std::max<py::ssize_t>(1, kPart / (view.size() / length));
    py::object const from = view.attr("swapaxes")(0, axis), to = made.attr("swapaxes")(0, axis);
    for (py::ssize_t at = 0; at < length; at += step) {
        handleSignals();
        py::slice const part(at, std::min(at + step, length), 1);
        py::object const target = to[part], source = from[part];
        if (Api::get().PyArray_CopyInto_(target.ptr(), source.ptr()) < 0)
            throw py::error_already_set();
    }
    return made;
}

py::array ownedCopyOf(py::array const& array) {
    return fromAny(array, nullptr,
                   Api::NPY_ARRAY_C_CONTIGUOUS_ | Api::NPY_ARRAY_ALIGNED_ |
                       Api::NPY_ARRAY_ENSUREARRAY_ | kEnsureCopy);
}

py::array readOnlyViewOf(py::array const& array) {
    py::array view = viewOf(array);
    view.attr("setflags")(py::arg("write") = false);
    return view;
}

void Points::copy() {
    array = copyOf(array);
    Shape shape = leading;
    shape.push_back(3);
    if (Shape(array) != shape)
        throw py::value_error("xyz: the shape of the array has changed from " + shapeText(shape) +
                              " to " + shapeText(array));
    setView(*this);
}

Points pointsOf(py::handle object) {
    Points points{floatsOf(object, "xyz"), {}, {}};
    py::array const& array = points.array;
    if (array.ndim() == 0 || array.shape(array.ndim() - 1) != 3)
        throw py::value_error("xyz: wanted positions of shape (..., 3), got shape " +
                              shapeText(array));
    points.leading = Shape(array, array.ndim() - 1);
    if (!setView(points)) points.copy();
    return points;
}

Result::Result(py::handle out, Shape const& shape) : m_isOut(!out.is_none()) {
    if (!m_isOut) {
        m_target = newFloats(shape);
        m_written = m_target;
        m_data = static_cast<float*>(m_written.mutable_data());
        return;
    }
    if (!isArray(out))
        throw py::type_error("out: wanted an array of float32, got " + typeName(out));
    if (isMasked(out)) throw py::type_error("out: wanted a plain array, got a masked one");
    m_target = py::reinterpret_borrow<py::array>(out);
    if (!hasFloats(m_target))
        throw py::type_error("out: wanted an array of float32, got " + dtypeText(m_target));
    if (Shape(m_target) != shape)
        throw py::value_error("out: wanted shape " + shapeText(shape) + ", got " +
                              shapeText(m_target));
    if (!m_target.writeable()) throw py::value_error("out: the array is read-only");
    bool const isPlain = (m_target.flags() & py::array::c_style) != 0 && isAligned(m_target);
    m_written = isPlain ? m_target : newFloats(shape);
    m_data = static_cast<float*>(m_written.mutable_data());
}

bool Result::mayOverlap(py::array const& other) const {
    Range const a = rangeOf(m_target), b = rangeOf(other);
    return a.low < b.high && b.low < a.high;
}

bool Result::overlaps(Result const& other) const {
    // Of two fields of records, the ranges have bytes in common, but the elements have not. The
    // exact answer may take long, and is given up after so many steps.
    constexpr int kSteps = 100'000;
    if (!mayOverlap(other.m_target)) return false;
    py::array const a = viewOf(m_target), b = viewOf(other.m_target);
    try {
        return py::module_::import("numpy").attr("shares_memory")(a, b, kSteps).cast<bool>();
    } catch (py::error_already_set const& error) {
        if (!error.matches(PyExc_RuntimeError)) throw;  // too hard
        return true;
    }
}

py::object Result::finish() {
    if (!m_written.is(m_target) &&
        Api::get().PyArray_CopyInto_(m_target.ptr(), m_written.ptr()) < 0)
        throw py::error_already_set();
    if (m_isOut || m_target.ndim() > 0) return m_target;
    return m_target[py::tuple()];
}

Quern::Ptr<Quern::Array<Orvane::Math::float3>> toVectors(py::handle object,
                                                         std::string const& where) {
    using Orvane::Math::float3;
    py::array const array = floatsOf(object, where);
    if (array.ndim() == 1 && array.shape(0) == 0) return Quern::makePtr<Quern::Array<float3>>();
    if (array.ndim() != 2 || array.shape(1) != 3)
        throw py::value_error(where + ": wanted vectors of shape (n, 3), got shape " +
                              shapeText(array));
    return copied<float3>(array);
}

}  // namespace zel::python
