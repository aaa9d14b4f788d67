#pragma once

#include <array>

#include "field.h"

// Parameters of node classes as Python objects.
namespace zel::python {

/// A curve as Python has it.
struct Curve {
    Quern::Ptr<Orvane::Math::FCurve> curve;
};

void addCurve(py::module_& module);

/// Whether an object may stand for a number, or for a vector of three.
bool isNumber(py::handle object);
bool isTriple(py::handle object);
/// Whether an object may be given for a parameter, as far as its kind tells. Used to choose between
/// two classes.
bool fits(py::handle object, ParameterInfo const& parameter);

/// The value of a parameter. `where` begins the text of an error, such as
/// "zel.ScalarFieldSphere: radius". Throws TypeError for an object of another kind, ValueError for
/// a number out of range.
Value toValue(py::handle object, ParameterInfo const& parameter, std::string const& where,
              ChildSummary& children);
/// The default value of a parameter, which has one.
Value defaultValue(ParameterInfo const& parameter);

/// The same for parts of calls that are no parameters.
bool toBool(py::handle object, std::string const& where);
std::int64_t toInteger(py::handle object, std::int64_t least, std::int64_t most,
                       std::string const& where);
float toFloat(py::handle object, std::string const& where);
double toDouble(py::handle object, std::string const& where);
/// A name for a part of an object of Orvane: not empty, and without a zero byte.
std::string toName(py::handle object, std::string const& where);
float3 toVector(py::handle object, std::string const& where);
std::array<double, 3> toDoubles(py::handle object, std::string const& where);

/// `attached` is that of the field whose parameter it is.
py::object fromValue(Value const& value, py::handle attached);
py::tuple fromVector(float3 const& vector);

}  // namespace zel::python
