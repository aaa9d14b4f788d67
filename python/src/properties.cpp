#include "properties.h"

#include <pybind11/stl.h>

#include <cmath>
#include <limits>
#include <tuple>
#include <type_traits>

#include "arguments.h"
#include "arrays.h"
#include "errors.h"
#include "object_types.h"
#include "values.h"
#include "zel_platform/orvane_geometry/geo_property.h"
#include "zel_platform/orvane_geometry_volume/object.h"
#include "zel_platform/shape_store/scene_units.h"

namespace zel::python {

namespace {

using Orvane::Math::float3;
using Orvane::Math::float4;

/// zel.Property: an array with a default value and a target.
struct PropertyObject {
    py::array values;
    py::object defaultValue;
    std::string target;

    int traverse(visitproc visit, void* arg) const {
        Py_VISIT(values.ptr());
        Py_VISIT(defaultValue.ptr());
        return 0;
    }
};

/// A copy: the arrays that are made of the values may run code that changes the dict.
py::dict dictOf(py::handle given, char const* where) {
    if (given.is_none()) return {};
    if (!PyMapping_Check(given.ptr()) || !py::hasattr(given, "items"))
        throw py::type_error(std::string(where) + ": wanted a dict, got " + shown(given));
    py::dict copy;
    if (PyDict_Update(copy.ptr(), given.ptr()) != 0) throw py::error_already_set();
    return copy;
}

/// Indices of one dimension, not negative and no greater than `most`.
py::array indicesOf(py::handle given, std::string const& where, unsigned long long most) {
    py::array array = numbersOf(given, where);
    if (array.dtype().kind() == 'f' || array.dtype().kind() == 'b') {
        if (array.size() > 0)
            throw py::type_error(where + ": wanted integers, got an array of " + dtypeText(array));
    }
    if (array.ndim() != 1)
        throw py::value_error(where + ": wanted indices of shape (n,), got shape " +
                              shapeText(array));
    if (array.size() == 0) return array;
    py::object const least = array.attr("min")(), greatest = array.attr("max")();
    if (py::bool_(least < py::int_(0)) || py::bool_(greatest > py::int_(most)))
        throw py::value_error(where + ": wanted indices from 0 to " + std::to_string(most) +
                              ", got " + std::string(py::str(least)) + " to " +
                              std::string(py::str(greatest)));
    return array;
}

template <class T> T defaultOf(py::handle given, std::string const& where) {
    if constexpr (std::is_same_v<T, float3>) {
        return given.is_none() ? float3{} : toVector(given, where);
    } else if constexpr (std::is_same_v<T, float4>) {
        if (given.is_none()) return {0, 0, 0, 1};
        py::array const q = floatsOf(given, where);
        if (q.ndim() != 1 || q.size() != 4)
            throw py::value_error(where + ": wanted a quaternion (x, y, z, w), got " +
                                  shown(given));
        auto const copy = copyOf(q);
        auto const* const c = static_cast<float const*>(copy.data());
        return {c[0], c[1], c[2], c[3]};
    } else if (given.is_none()) {
        return T{};
    } else if constexpr (std::is_same_v<T, float>) {
        return toFloat(given, where);
    } else if constexpr (std::is_same_v<T, double>) {
        return toDouble(given, where);
    } else if constexpr (std::is_same_v<T, bool>) {
        return toBool(given, where);
    } else {
        if (!isNumber(given))
            throw py::type_error(where + ": wanted a number, got " + shown(given));
        try {
            auto const index = py::reinterpret_steal<py::object>(PyNumber_Index(given.ptr()));
            if (!index && !PyErr_ExceptionMatches(PyExc_TypeError)) throw py::error_already_set();
            PyErr_Clear();
            if (!index) throw py::cast_error();
            return index.cast<T>();
        } catch (py::cast_error const&) {
            throw py::value_error(where + ": wanted a number of the type of the values, got " +
                                  shown(given));
        }
    }
}

PyObject* newProperty(PyTypeObject* /*type*/, PyObject* args, PyObject* keywords) {
    return guardedObject([&] {
        using namespace py::literals;
        Parameters const parameters("values"_a, "default"_a = py::none(), "target"_a = "");
        Arguments const given = parameters.match("zel.Property", args, keywords);
        auto const& [values, defaultValue, target] = std::tie(given[0], given[1], given[2]);
        if (!PyUnicode_Check(target.ptr()))
            throw py::type_error("zel.Property: target: wanted a str, got " + shown(target));
        // A copy, which no later write to the caller's array changes.
        return newObject(PropertyObject{ownedCopyOf(numbersOf(values, "zel.Property: values")),
                                        defaultValue, textOf(target)})
            .release()
            .ptr();
    });
}

}  // namespace

template <class T>
void Source::set(std::string const& name, std::string const& target, py::array const& array,
                 py::handle defaultValue) {
    auto const values = copied<T>(array);
    T const fallback = defaultOf<T>(defaultValue, "properties['" + name + "'].default");
    Orvane::Geometry::setGeoProperty(m_object, name, fallback, values, target);
    Property made{name, target, values, 0.0};
    if constexpr (!kIsNumber<T>)
        made.defaultValue = fallback;
    else if constexpr (std::is_floating_point_v<T>)
        made.defaultValue = double{fallback};
    else if constexpr (std::is_unsigned_v<T>)
        made.defaultValue = static_cast<unsigned long long>(fallback);
    else
        made.defaultValue = static_cast<long long>(fallback);
    m_properties.push_back(std::move(made));
}

void Source::addProperty(std::string const& name, py::handle given, bool hasIndices) {
    std::string const where = "properties['" + name + "']";
    py::object defaultValue = py::none();
    std::string target;
    py::array array;
    if (isObjectOf<PropertyObject>(given)) {
        auto const& property = valueOf<PropertyObject>(given);
        array = numbersOf(property.values, where);  // the base of a view may have got another type
        defaultValue = property.defaultValue;
        target = property.target;
    } else {
        array = numbersOf(given, where);
    }
    if (array.ndim() == 2 && array.shape(1) == 3)
        return set<float3>(name, target, array, defaultValue);
    if (array.ndim() == 2 && array.shape(1) == 4)
        return set<float4>(name, target, array, defaultValue);
    if (array.ndim() != 1)
        throw py::value_error(where + ": wanted shape (n,), (n, 3) or (n, 4), got shape " +
                              shapeText(array));
    // Leaves look up by indices only in arrays of float and float3. From the others, too, they read
    // the nearest float.
    if (hasIndices) return set<float>(name, target, array, defaultValue);
    auto const size = array.itemsize();
    switch (array.dtype().kind()) {
    case 'b':
        return set<bool>(name, target, array, defaultValue);
    case 'i':
        return size == 1   ? set<signed char>(name, target, array, defaultValue)
               : size == 2 ? set<short>(name, target, array, defaultValue)
               : size == 4 ? set<int>(name, target, array, defaultValue)
                           : set<long long>(name, target, array, defaultValue);
    case 'u':
        return size == 1   ? set<unsigned char>(name, target, array, defaultValue)
               : size == 2 ? set<unsigned short>(name, target, array, defaultValue)
               : size == 4 ? set<unsigned int>(name, target, array, defaultValue)
                           : set<unsigned long long>(name, target, array, defaultValue);
    default:
        return size <= 4 ? set<float>(name, target, array, defaultValue)
                         : set<double>(name, target, array, defaultValue);
    }
}

Source::Source(Parts const& parts) {
    for (auto const& [key, value] : dictOf(parts.properties, "properties"))
        addProperty(toName(key, "names of properties"), value, !parts.indices.is_none());
    for (auto const& [key, value] : dictOf(parts.targets, "targets")) {
        std::string const name = toName(key, "names of targets");
        auto const indices = copied<unsigned int>(
            indicesOf(value, "targets['" + name + "']", std::numeric_limits<unsigned int>::max()));
        Orvane::Geometry::setRangeGeoPropIndices(m_object, name, indices);
        m_targets.emplace_back(name, indices);
    }
    if (!parts.volume.is_none()) {
        if (!isObjectOf<Volume>(parts.volume))
            throw py::type_error("volume: wanted a zel.Volume, got " + shown(parts.volume));
        m_volume = parts.volume;
        Orvane::Geometry::setVolume(m_object, valueOf<Volume>(m_volume).object());
    }
    if (!parts.indices.is_none())
        m_indices = copied<long long>(
            indicesOf(parts.indices, "indices",
                      static_cast<unsigned long long>(std::numeric_limits<long long>::max())));
    if (!parts.metresPerUnit.is_none()) {
        m_metresPerUnit = toFloat(parts.metresPerUnit, "metres_per_unit");
        if (!(*m_metresPerUnit > 0) || std::isinf(*m_metresPerUnit))
            throw py::value_error("metres_per_unit: wanted a finite number above 0, got " +
                                  shown(parts.metresPerUnit));
        m_object.setProperty(Vellum::sceneUnitsInMeters, *m_metresPerUnit);
    }
}

std::shared_ptr<Source const> Source::only(std::set<std::string> const& names) const {
    auto made = std::make_shared<Source>(Parts());
    std::set<std::string> targets;
    for (Property const& one : m_properties) {
        if (!names.contains(one.name)) continue;
        made->m_properties.push_back(one);
        targets.insert(one.target);
    }
    for (auto const& one : m_targets)
        if (targets.contains(one.first)) made->m_targets.push_back(one);
    if (!m_volume.is_none())
        for (Volume::Channel const& one : valueOf<Volume>(m_volume).channels)
            if (names.contains(one.name)) made->m_volume = m_volume;
    made->m_indices = m_indices;
    made->m_metresPerUnit = m_metresPerUnit;
    return made;
}

py::dict Source::state() const {
    py::dict properties, targets, state;
    for (Property const& one : m_properties) {
        py::object const values =
            std::visit([](auto const& array) -> py::object { return arrayOf(*array); }, one.values);
        py::object defaultValue = std::visit(
            [](auto const& value) -> py::object {
                using T = std::remove_cvref_t<decltype(value)>;
                if constexpr (std::is_same_v<T, float3>)
                    return fromVector(value);
                else if constexpr (std::is_same_v<T, float4>)
                    return py::make_tuple(value.x, value.y, value.z, value.w);
                else
                    return py::cast(value);
            },
            one.defaultValue);
        if (std::holds_alternative<ArrayPtr<bool>>(one.values))
            defaultValue = py::bool_(defaultValue);
        properties[py::str(one.name)] = py::make_tuple(values, defaultValue, one.target);
    }
    for (auto const& [name, indices] : m_targets) targets[py::str(name)] = arrayOf(*indices);
    state["properties"] = properties;
    state["targets"] = targets;
    state["volume"] = m_volume;
    state["indices"] = m_indices ? py::object(arrayOf(*m_indices)) : py::none();
    state["metres_per_unit"] =
        m_metresPerUnit ? py::object(py::float_(*m_metresPerUnit)) : py::none();
    return state;
}

std::shared_ptr<Source const> Source::fromState(py::dict const& state) {
    py::dict properties;
    for (auto const& [name, value] : dictOf(state["properties"], "properties")) {
        py::tuple const parts = py::reinterpret_borrow<py::object>(value);
        properties[name] = newObject(PropertyObject{numbersOf(py::object(parts[0]), "properties"),
                                                    parts[1], parts[2].cast<std::string>()});
    }
    return std::make_shared<Source const>(Parts{properties, state["targets"], state["volume"],
                                                state["indices"], state["metres_per_unit"]});
}

void addProperty(py::module_& module) {
    ObjectType<PropertyObject> type(
        module, "zel.Property",
        "Property(values, default=None, target='')\n--\n\n"
        "An array to bind to, with a default value and a target: see Field.bind(). The default is\n"
        "the value of an index out of range. The target is the part of the object on whose "
        "elements\n"
        "the property is defined; its indices, if bind() gets any, choose the element.",
        newProperty);
    type.attribute(
        "values", +[](PropertyObject const& self) { return readOnlyViewOf(self.values); },
        "A copy of the array that was given, of shape (n,), (n, 3) or (n, 4), to read.");
    type.attribute(
        "default", +[](PropertyObject const& self) { return self.defaultValue; },
        "The value of an index out of range, or None: 0, and no rotation of quaternions.");
    type.attribute(
        "target", +[](PropertyObject const& self) { return self.target; },
        "The target, or '' for the elements of the object itself.");
    type.method(
        "__repr__", +[](PropertyObject const& self) {
            return "<zel.Property " + dtypeText(self.values) + ' ' + shapeText(self.values) +
                   ", default=" + std::string(py::repr(self.defaultValue)) +
                   ", target=" + std::string(py::repr(py::str(self.target))) + '>';
        });
    type.method(
        "__reduce__", +[](PropertyObject const& self) {
            return py::make_tuple(
                py::handle(reinterpret_cast<PyObject*>(objectType<PropertyObject>)),
                py::make_tuple(readOnlyViewOf(self.values), self.defaultValue, self.target));
        });
}

}  // namespace zel::python
