#include "zel/geo_property/property_binding.h"

#include <tuple>
#include <type_traits>
#include <utility>

#include "zel/geo_property/scalar_converter.h"
#include "zel_platform/orvane_geometry/geo_property.h"

namespace zel::detail {

using Orvane::Math::float3;
using Orvane::Math::float4;
namespace Geometry = Orvane::Geometry;

namespace {

/// The values of a property if they are an array of exactly that type, else an empty pointer.
template <class T> Quern::Ptr<Quern::Array<T>> readArray(Orvane::Object const& property) {
    if (!property.hasProperty(Geometry::sData)) return {};
    return Orvane::pointerProperty<Quern::Array<T>>(property, Geometry::sData);
}

/// Binds to a property whose default value is exactly a T and whose values are Ts. Else false, and
/// nothing has changed.
template <class T>
bool bindConverted(ScalarPropertyBinding& binding, Orvane::Object const& object,
                   Orvane::Object const& property, Quern::Any const& defaultValue) {
    T const* const value = defaultValue.get<T>();
    if (!value) return false;
    auto values = readArray<T>(property);
    if (!values) return false;
    binding.defaultValue = toFloat(*value);
    binding.converter = Quern::makePtr<ScalarConverterImpl<T>>(std::move(values));
    binding.bindRange(object);
    return true;
}

}  // namespace

void PropertyBinding::bindRange(Orvane::Object const& object) {
    Quern::String const target = Geometry::getGeoPropTargetName(object, propertyName);
    if (target != Geometry::sVoxelTileTree)
        rangeIndices = Geometry::getRangeGeoPropIndices(object, target);
}

void ScalarPropertyBinding::bind(Orvane::Object const& object) {
    auto const property = Orvane::pointerProperty<Orvane::Object>(object, propertyName);
    if (!property) return;
    Quern::Any const value = property->property(Geometry::sDefault);
    if (auto const* const number = value.get<float>()) {
        defaultValue = *number;
    } else {
        auto const tryTypes = [&]<class... T>(std::type_identity<std::tuple<T...>>) {
            return (bindConverted<T>(*this, object, *property, value) || ...);
        };
        if (tryTypes(std::type_identity<ConvertedTypes>())) return;
    }
    data = readArray<float>(*property);
    if (data) bindRange(object);
}

void VectorPropertyBinding::bind(Orvane::Object const& object) {
    auto const property = Orvane::pointerProperty<Orvane::Object>(object, propertyName);
    if (!property) return;
    Quern::Any const value = property->property(Geometry::sDefault);
    if (auto const* const vector = value.get<float3>()) {
        defaultValue = *vector;
        data = readArray<float3>(*property);
        if (data) bindRange(object);
    } else if (auto const* const rotation = value.get<float4>()) {
        defaultRotation = *rotation;
        rotations = readArray<float4>(*property);
        if (rotations) bindRange(object);
    }
}

}  // namespace zel::detail
