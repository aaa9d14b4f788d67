#pragma once

#include <pybind11/numpy.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "volume.h"
#include "zel_platform/orvane_geometry/object.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/array.h"
#include "zel_platform/quern_core/ptr.h"

namespace zel::python {

namespace py = pybind11;

/// The object that trees are bound to, and the parts it was made of, so that it can be written.
class Source {
public:
    /// The keyword arguments of bind() that make an object.
    struct Parts {
        py::object properties = py::none(), targets = py::none(), volume = py::none(),
                   indices = py::none(), metresPerUnit = py::none();
    };

    /// Copies all arrays. Throws TypeError or ValueError, with the name of the part at fault.
    explicit Source(Parts const& parts);

    Orvane::Object const& object() const { return m_object; }
    Quern::Ptr<Quern::Array<long long>> const& indices() const { return m_indices; }

    /// A copy with the parts alone that leaves of these properties or channels read, and without
    /// the object.
    std::shared_ptr<Source const> only(std::set<std::string> const& names) const;

    /// A dict from which fromState() makes an equal source.
    py::dict state() const;
    static std::shared_ptr<Source const> fromState(py::dict const& state);

private:
    template <class T> using ArrayPtr = Quern::Ptr<Quern::Array<T>>;
    using Values =
        std::variant<ArrayPtr<float>, ArrayPtr<double>, ArrayPtr<bool>, ArrayPtr<signed char>,
                     ArrayPtr<short>, ArrayPtr<int>, ArrayPtr<long long>, ArrayPtr<unsigned char>,
                     ArrayPtr<unsigned short>, ArrayPtr<unsigned int>, ArrayPtr<unsigned long long>,
                     ArrayPtr<Orvane::Math::float3>, ArrayPtr<Orvane::Math::float4>>;
    struct Property {
        std::string name, target;
        Values values;
        std::variant<double, long long, unsigned long long, Orvane::Math::float3,
                     Orvane::Math::float4>
            defaultValue;
    };

    void addProperty(std::string const& name, py::handle given, bool hasIndices);
    template <class T>
    void set(std::string const& name, std::string const& target, py::array const& array,
             py::handle defaultValue);

    Orvane::Object m_object;
    std::vector<Property> m_properties;
    std::vector<std::pair<std::string, ArrayPtr<unsigned int>>> m_targets;
    py::object m_volume = py::none();  // written once where two sources share it
    Quern::Ptr<Quern::Array<long long>> m_indices;
    std::optional<float> m_metresPerUnit;
};

/// Adds the class zel.Property.
void addProperty(py::module_& module);

}  // namespace zel::python
