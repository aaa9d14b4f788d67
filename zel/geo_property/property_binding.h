#pragma once

#include "zel/api.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/array.h"
#include "zel_platform/quern_core/ptr.h"
#include "zel_platform/quern_core/string.h"

namespace Orvane {
class Object;
}  // namespace Orvane

// The state of a node that reads a geometry property, and how it binds to an object.
namespace zel {

class ScalarConverter;

namespace detail {

/// Whether `i` is an index into a store of `count` elements.
constexpr bool inside(long long i, long long count) {
    // A negative index is a large number without its sign: one comparison finds both.
    return static_cast<unsigned long long>(i) < static_cast<unsigned long long>(count);
}
/// Whether all of `number` indices from `first` on are, of which there is at least one.
constexpr bool allInside(long long first, long long number, long long count) {
    return 0 <= first && first <= count - number;
}

/// The base of the bindings of scalar and of vector properties.
struct ZEL_API PropertyBinding {
    explicit PropertyBinding(Quern::String const& propertyName_) : propertyName(propertyName_) {}

    /// Takes the range indices of the property's target, or none if it has none. Those of an
    /// earlier object stay if the target is the voxel tile tree.
    ZEL_INTERNAL void bindRange(Orvane::Object const& object);

    /// The index of an element's value: the element index through both maps, as far as they are
    /// set. An index outside a map gives -1, which is outside the next map and the values too.
    long long mapIndex(long long i) const {
        return mapped(rangeIndices, mapped(propertyIndices, i));
    }

    Quern::String propertyName;
    Quern::Ptr<Quern::Array<long long>>
        propertyIndices;  // by sampled element: the geometry element
    Quern::Ptr<Quern::Array<unsigned int>>
        rangeIndices;  // by geometry element: the index of its value

private:
    template <class T>
    static long long mapped(Quern::Ptr<Quern::Array<T>> const& map, long long i) {
        if (!map) return i;
        return inside(i, map->size()) ? static_cast<long long>((*map)[i]) : -1;
    }
};

/// A scalar property: `float` values in `data`, those of another type behind `converter`.
struct ZEL_API ScalarPropertyBinding : PropertyBinding {
    using PropertyBinding::PropertyBinding;

    ZEL_INTERNAL void bind(Orvane::Object const& object);
    bool isBound() const { return data || converter; }

    float defaultValue = 0;
    Quern::Ptr<Quern::Array<float>> data;
    Quern::Ptr<ScalarConverter> converter;
};

/// A vector property: `float3` values in `data`, `float4` quaternions in `rotations`.
struct ZEL_API VectorPropertyBinding : PropertyBinding {
    using PropertyBinding::PropertyBinding;

    ZEL_INTERNAL void bind(Orvane::Object const& object);
    bool isBound() const { return data || rotations; }

    Orvane::Math::float3 defaultValue;
    Orvane::Math::float4 defaultRotation;
    Quern::Ptr<Quern::Array<Orvane::Math::float3>> data;
    Quern::Ptr<Quern::Array<Orvane::Math::float4>> rotations;
};

}  // namespace detail
}  // namespace zel
