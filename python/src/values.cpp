#include "values.h"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <array>
#include <cmath>
#include <limits>
#include <string_view>

#include "arrays.h"
#include "errors.h"
#include "object_types.h"
#include "zel/field/math.h"
#include "zel/node/transform.h"
#include "zel/scalar/arithmetic.h"
#include "zel/vector/arithmetic.h"

namespace zel::python {

namespace {

using Orvane::Geometry::Query::SamplerType;
using Orvane::Math::FCurve;

[[noreturn]] void refuse(std::string const& where, char const* wanted, py::handle object) {
    throw py::type_error(where + ": wanted " + wanted + ", got " + shown(object));
}

/// The elements of a sequence of that length, each by `convert`.
template <std::size_t count, class Number>
std::array<Number, count> toNumbers(py::handle object, std::string const& where,
                                    Number (*convert)(py::handle, std::string const&)) {
    auto const sequence = py::reinterpret_steal<py::object>(PySequence_Tuple(object.ptr()));
    if (!sequence) throw py::error_already_set();
    std::array<Number, count> numbers{};
    if (PyTuple_GET_SIZE(sequence.ptr()) != static_cast<Py_ssize_t>(count))
        throw py::type_error(where + ": the sequence changes its length");
    for (std::size_t i = 0; i < count; ++i)
        numbers[i] = convert(PyTuple_GET_ITEM(sequence.ptr(), static_cast<Py_ssize_t>(i)), where);
    return numbers;
}

/// The length of an object that is a sequence but no text, else -1.
Py_ssize_t lengthOf(py::handle object) {
    if (isField(object) || !PySequence_Check(object.ptr()) || PyUnicode_Check(object.ptr()) ||
        PyBytes_Check(object.ptr()) || PyDict_Check(object.ptr()))
        return -1;
    Py_ssize_t const length = PySequence_Size(object.ptr());
    if (length < 0) PyErr_Clear();
    return length;
}

void checkTriple(py::handle object, std::string const& where) {
    if (lengthOf(object) != 3) refuse(where, "a vector (x, y, z)", object);
}

struct Name {
    char const* name;
    int value;
};

/// The number of a name in a table.
template <std::size_t count>
int numberOf(py::handle object, Name const (&names)[count], std::string const& where) {
    std::string wanted;
    if (PyUnicode_Check(object.ptr())) {
        std::string const text = textOf(object);
        for (Name const& one : names)
            if (text == one.name) return one.value;
    }
    for (Name const& one : names)
        wanted += (wanted.empty() ? "\"" : ", \"") + std::string(one.name) + '"';
    std::string const message = where + ": wanted one of " + wanted + ", got " + shown(object);
    if (PyUnicode_Check(object.ptr())) throw py::value_error(message);
    throw py::type_error(message);
}
template <std::size_t count> char const* nameOf(int value, Name const (&names)[count]) {
    for (Name const& one : names)
        if (value == one.value) return one.name;
    return nullptr;
}

constexpr Name kSamplers[] = {{"linear", static_cast<int>(SamplerType::kLinear)},
                              {"cubicC0", static_cast<int>(SamplerType::kCubicC0)},
                              {"cubicC1", static_cast<int>(SamplerType::kCubicC1)}};
constexpr Name kSegments[] = {{"constant", static_cast<int>(FCurve::Segment::kConstant)},
                              {"linear", static_cast<int>(FCurve::Segment::kLinear)},
                              {"cubic", static_cast<int>(FCurve::Segment::kCubic)}};
constexpr Name kEnds[] = {
    {"constant", static_cast<int>(FCurve::Extrapolation::kConstant)},
    {"linear", static_cast<int>(FCurve::Extrapolation::kLinear)},
    {"cycle", static_cast<int>(FCurve::Extrapolation::kCycle)},
    {"cycleWithOffset", static_cast<int>(FCurve::Extrapolation::kCycleWithOffset)}};
char const* nameOf(FCurve::Extrapolation end) {
    return nameOf(static_cast<int>(end), kEnds);
}

/// (x, value), (x, value, slope) or (x, value, inSlope, outSlope), each with the name of the
/// segment at its end, or without.
FCurve::Key toKey(py::handle object, std::string const& where) {
    Py_ssize_t const length = lengthOf(object);
    auto const items =
        length < 0 ? py::tuple() : py::reinterpret_steal<py::tuple>(PySequence_Tuple(object.ptr()));
    if (!items) throw py::error_already_set();
    std::size_t numbers = items.size();
    FCurve::Key key;
    if (numbers > 0 && PyUnicode_Check(py::object(items[numbers - 1]).ptr())) {
        key.segment = static_cast<FCurve::Segment>(
            numberOf(py::object(items[numbers - 1]), kSegments, where));
        --numbers;
    }
    if (numbers < 2 || numbers > 4)
        refuse(where, "(x, value), (x, value, slope) or (x, value, in_slope, out_slope)", object);
    double values[4]{};
    for (std::size_t i = 0; i < numbers; ++i) values[i] = toDouble(py::object(items[i]), where);
    key.x = values[0];
    key.value = values[1];
    if (numbers > 2) key.inSlope = values[2];
    if (numbers > 2) key.outSlope = values[numbers - 1];
    return key;
}

Quern::Ptr<FCurve> makeCurve(py::handle keys, py::handle before, py::handle after) {
    if (lengthOf(keys) < 0) refuse("zel.curve: keys", "a sequence of keys", keys);
    std::vector<FCurve::Key> all;
    for (py::handle const key : keys)
        all.push_back(toKey(key, "zel.curve: keys[" + std::to_string(all.size()) + ']'));
    auto const endOf = [](py::handle end, char const* where) {
        return static_cast<FCurve::Extrapolation>(numberOf(end, kEnds, where));
    };
    return Quern::makePtr<FCurve>(std::move(all), endOf(before, "zel.curve: before"),
                                  endOf(after, "zel.curve: after"));
}

py::list keysOf(Curve const& self) {
    py::list keys;
    for (FCurve::Key const& key : self.curve->keys())
        keys.append(py::make_tuple(key.x, key.value, key.inSlope, key.outSlope,
                                   nameOf(static_cast<int>(key.segment), kSegments)));
    return keys;
}

/// The arguments of zel.curve() for a curve.
py::tuple partsOf(Curve const& self) {
    return py::make_tuple(py::tuple(keysOf(self)), nameOf(self.curve->before()),
                          nameOf(self.curve->after()));
}

Value toQuaternion(py::handle object, std::string const& where) {
    Py_ssize_t const length = lengthOf(object);
    if (length == 3) return Orvane::Math::float4(detail::rotationOf(toVector(object, where)));
    if (length != 4)
        refuse(where, "a rotation vector (x, y, z) or a quaternion (x, y, z, w)", object);
    auto const q = toNumbers<4>(object, where, toFloat);
    return float4{q[0], q[1], q[2], q[3]};
}

Value toDirection(py::handle object, std::string const& where) {
    float3 const vector = toVector(object, where);
    float const length = Orvane::Math::length(vector);
    // Its square must neither overflow nor lose digits, or the quotient is no unit vector.
    if (length < 0x1p-63F || std::isinf(length))
        throw py::value_error(where +
                              ": wanted a direction of a length from 1.1e-19 to 1.8e19, got " +
                              shown(object));
    // The length of a quotient is 1 but for its rounding errors, of less than 2**-21: a direction
    // that was read from a field gives the same bits.
    return UnitVector(std::abs(length - 1) < 0x1p-21F ? vector : vector / length);
}

}  // namespace

bool isNumber(py::handle object) {
    PyObject* const o = object.ptr();
    if (PyFloat_Check(o) || PyLong_Check(o)) return true;
    if (isField(object) || PyComplex_Check(o)) return false;
    if (isArray(object)) {
        auto const array = py::reinterpret_borrow<py::array>(object);
        return array.ndim() == 0 && hasNumbers(array.dtype()) && !isMasked(object);
    }
    if (isNumpyScalar(object)) return hasNumbers(object.attr("dtype"));
    PyNumberMethods const* const methods = Py_TYPE(o)->tp_as_number;
    if (!methods || !(methods->nb_float || methods->nb_index)) return false;
    return lengthOf(object) < 0;
}

bool isTriple(py::handle object) {
    return lengthOf(object) == 3;
}

bool fits(py::handle object, ParameterInfo const& parameter) {
    switch (parameter.kind) {
    case ValueKind::kScalarField:
        return isScalarField(object) || isNumber(object);
    case ValueKind::kVectorField:
        return isVectorField(object) || isTriple(object);
    case ValueKind::kInteger:
    case ValueKind::kFloat:
    case ValueKind::kDouble:
        return isNumber(object);
    case ValueKind::kVector:
    case ValueKind::kUnitVector:
        return isTriple(object);
    default:
        return !isField(object);
    }
}

bool toBool(py::handle object, std::string const& where) {
    // Also the bool of NumPy.
    bool const isBool = PyBool_Check(object.ptr()) ||
                        std::string_view(Py_TYPE(object.ptr())->tp_name).starts_with("numpy.bool");
    if (!isBool) refuse(where, "True or False", object);
    int const isTrue = PyObject_IsTrue(object.ptr());
    if (isTrue < 0) throw py::error_already_set();
    return isTrue == 1;
}

std::int64_t toInteger(py::handle object, std::int64_t least, std::int64_t most,
                       std::string const& where) {
    if (!PyIndex_Check(object.ptr())) refuse(where, "an integer", object);
    auto const index = py::reinterpret_steal<py::object>(PyNumber_Index(object.ptr()));
    if (!index) throw py::error_already_set();
    int overflow = 0;
    long long const number = PyLong_AsLongLongAndOverflow(index.ptr(), &overflow);
    if (number == -1 && PyErr_Occurred()) throw py::error_already_set();
    if (overflow != 0 || number < least || number > most)
        throw py::value_error(where + ": wanted an integer from " + std::to_string(least) + " to " +
                              std::to_string(most) + ", got " + shown(object));
    return number;
}

double toDouble(py::handle object, std::string const& where) {
    if (!isNumber(object)) refuse(where, "a number", object);
    double const number = PyFloat_AsDouble(object.ptr());
    if (number == -1 && PyErr_Occurred()) {
        if (!PyErr_ExceptionMatches(PyExc_OverflowError)) throw py::error_already_set();
        PyErr_Clear();
        throw py::value_error(where + ": wanted a number in the range of float64, got " +
                              shown(object));
    }
    return number;
}

float toFloat(py::handle object, std::string const& where) {
    double const number = toDouble(object, where);
    auto const rounded = static_cast<float>(number);
    if (std::isinf(rounded) && !std::isinf(number))
        throw py::value_error(where + ": wanted a number in the range of float32, got " +
                              shown(object));
    return rounded;
}

std::string toName(py::handle object, std::string const& where) {
    if (!PyUnicode_Check(object.ptr())) refuse(where, "a str", object);
    std::string name = textOf(object);
    if (name.empty() || name.find('\0') != std::string::npos)
        throw py::value_error(where + ": wanted a name, got " + shown(object));
    return name;
}

float3 toVector(py::handle object, std::string const& where) {
    checkTriple(object, where);
    auto const v = toNumbers<3>(object, where, toFloat);
    return {v[0], v[1], v[2]};
}

std::array<double, 3> toDoubles(py::handle object, std::string const& where) {
    checkTriple(object, where);
    return toNumbers<3>(object, where, toDouble);
}

Value toValue(py::handle object, ParameterInfo const& parameter, std::string const& where,
              ChildSummary& children) {
    switch (parameter.kind) {
    case ValueKind::kBool:
        return toBool(object, where);
    case ValueKind::kInteger:
        return toInteger(object, parameter.least, parameter.most, where);
    case ValueKind::kFloat:
        return toFloat(object, where);
    case ValueKind::kDouble:
        return toDouble(object, where);
    case ValueKind::kVector:
        return toVector(object, where);
    case ValueKind::kQuaternion:
        return toQuaternion(object, where);
    case ValueKind::kUnitVector:
        return toDirection(object, where);
    case ValueKind::kString:
        if (!PyUnicode_Check(object.ptr())) refuse(where, "a str", object);
        return Quern::String(textOf(object));
    case ValueKind::kSampler:
        if (PyLong_Check(object.ptr()))
            return static_cast<SamplerType>(
                toInteger(object, std::numeric_limits<std::int32_t>::min(),
                          std::numeric_limits<std::int32_t>::max(), where));
        return static_cast<SamplerType>(numberOf(object, kSamplers, where));
    case ValueKind::kCurve:
        if (isObjectOf<Curve>(object)) return valueOf<Curve>(object).curve;
        if (lengthOf(object) >= 0)
            return makeCurve(object, py::str("constant"), py::str("constant"));
        refuse(where, "a zel.Curve or a sequence of keys", object);
    case ValueKind::kVectors:
        return toVectors(object, where);
    case ValueKind::kScalarField:
        if (isScalarField(object)) {
            children.add(fieldOf(object));
            return std::get<ScalarPtr>(fieldOf(object).tree);
        }
        if (!isNumber(object)) refuse(where, "a scalar field or a number", object);
        children.addConstant();
        return ScalarPtr(Quern::makePtr<ScalarFieldConstant>(toFloat(object, where)));
    case ValueKind::kVectorField:
        if (isVectorField(object)) {
            children.add(fieldOf(object));
            return std::get<VectorPtr>(fieldOf(object).tree);
        }
        if (!isTriple(object)) refuse(where, "a vector field or a vector (x, y, z)", object);
        children.addConstant();
        return VectorPtr(Quern::makePtr<VectorFieldConstant>(toVector(object, where)));
    case ValueKind::kNone:
        break;
    }
    refuse(where, "nothing", object);
}

Value defaultValue(ParameterInfo const& parameter) {
    Value const& value = parameter.defaultValue;
    if (parameter.kind == ValueKind::kScalarField)
        return ScalarPtr(Quern::makePtr<ScalarFieldConstant>(std::get<float>(value)));
    if (parameter.kind == ValueKind::kVectorField)
        return VectorPtr(Quern::makePtr<VectorFieldConstant>(std::get<float3>(value)));
    return value;
}

py::tuple fromVector(float3 const& vector) {
    return py::make_tuple(vector.x, vector.y, vector.z);
}

py::object fromValue(Value const& value, py::handle attached) {
    struct Converter {
        py::handle attached;

        py::object operator()(std::monostate /*none*/) const { return py::none(); }
        py::object operator()(bool v) const { return py::bool_(v); }
        py::object operator()(std::int64_t v) const { return py::int_(v); }
        py::object operator()(float v) const { return py::float_(v); }
        py::object operator()(double v) const { return py::float_(v); }
        py::object operator()(float3 const& v) const { return fromVector(v); }
        py::object operator()(float4 const& v) const { return py::make_tuple(v.x, v.y, v.z, v.w); }
        py::object operator()(UnitVector const& v) const { return fromVector(v.value); }
        py::object operator()(Quern::String const& v) const {
            return fromText(Quern::StringView(v).standardView());
        }
        py::object operator()(SamplerType v) const {
            char const* const name = nameOf(static_cast<int>(v), kSamplers);
            if (name) return py::str(name);
            return py::int_(static_cast<int>(v));
        }
        py::object operator()(Quern::Ptr<FCurve> const& v) const {
            return v ? newObject(Curve{v}) : py::none();
        }
        py::object operator()(Quern::Ptr<Quern::Array<float3>> const& v) const {
            return arrayOf(*v);
        }
        py::object operator()(ScalarPtr const& v) const {
            return v ? wrap(v, attached) : py::none();
        }
        py::object operator()(VectorPtr const& v) const {
            return v ? wrap(v, attached) : py::none();
        }
    };
    return std::visit(Converter{attached}, value);
}

void addCurve(py::module_& module) {
    using namespace py::literals;
    ObjectType<Curve> type(module, "zel.Curve",
                           "A piecewise function of one number, made by zel.curve().",
                           [](PyTypeObject*, PyObject*, PyObject*) {
                               return refuseNew("zel.Curve: curves are made by zel.curve()");
                           });
    type.method(
        "__call__",
        +[](Curve const& self, py::handle x) {
            return self.curve->evalFCurve(toDouble(x, "zel.Curve: x"));
        },
        "The value at a number.", "x"_a);
    type.method(
        "slope",
        +[](Curve const& self, py::handle x) {
            return self.curve->slope(toDouble(x, "zel.Curve.slope: x"));
        },
        "The derivative at a number.", "x"_a);
    type.attribute("keys", keysOf,
                   "The keys, as (x, value, in_slope, out_slope, segment). Slopes are\n"
                   "changes of the value for each unit of x.");
    type.attribute(
        "before", +[](Curve const& self) { return nameOf(self.curve->before()); },
        "How the curve continues before its first key: 'constant', 'linear', 'cycle' or\n"
        "'cycleWithOffset'.");
    type.attribute(
        "after", +[](Curve const& self) { return nameOf(self.curve->after()); },
        "How the curve continues after its last key.");
    type.method(
        "__repr__", +[](Curve const& self) {
            return "zel.curve(" + std::string(py::repr(keysOf(self))) + ", before='" +
                   nameOf(self.curve->before()) + "', after='" + nameOf(self.curve->after()) + "')";
        });
    type.method(
        "__eq__",
        +[](Curve const& self, py::handle other) -> py::object {
            if (!isObjectOf<Curve>(other))
                return py::reinterpret_borrow<py::object>(Py_NotImplemented);
            return py::bool_(partsOf(self).equal(partsOf(valueOf<Curve>(other))));
        },
        "", "other"_a);
    type.method(
        "__hash__", +[](Curve const& self) { return py::hash(partsOf(self)); });
    type.method(
        "__reduce__", +[](Curve const& self) {
            return py::make_tuple(py::module_::import("zel._tools").attr("_curve"), partsOf(self));
        });
    addFunction(
        module, "curve",
        +[](py::handle keys, py::handle before, py::handle after) {
            return newObject(Curve{makeCurve(keys, before, after)});
        },
        "A curve through keys (x, value), (x, value, slope) or (x, value, in_slope, out_slope) in\n"
        "ascending order of x. After its numbers a key may have the name of the segment that "
        "begins\n"
        "there: 'constant', 'linear', the default, or 'cubic'. Slopes are changes of the value "
        "for\n"
        "each unit of x. The ends are 'constant', 'linear', 'cycle' or 'cycleWithOffset'. Raises\n"
        "TypeError or ValueError for a key that is none, and ValueError for keys out of order.",
        "keys"_a, "before"_a = "constant", "after"_a = "constant");
}

}  // namespace zel::python
