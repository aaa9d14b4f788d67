#pragma once

#include "zel_platform/orvane_geometry/object.h"
#include "zel_platform/quern_core/array.h"

// Geo properties: values for the elements of a part of an object, such as its points. The object
// holds a property under its name, as a `Quern::Ptr<Orvane::Object>`, and that property object
// holds a default value of the element type and the array of the values.
//
// The part on whose elements a property is defined is its target. Elements may share values: the
// range indices of a target then say, for each element, the place of its value in the arrays of all
// properties on that target.
namespace ORV {
class Object;
}  // namespace ORV

namespace Orvane::Geometry {

// The constants are made when the library is loaded, ahead of the statics of all that link it.

/// The key of a property object's default value: one value of the element type T.
ZEL_PLATFORM_API extern Quern::String const sDefault;
/// The key of a property object's values: a `Quern::Ptr<Quern::Array<T>>`.
ZEL_PLATFORM_API extern Quern::String const sData;
/// The names of a volume's components: its tile tree, which is also the target of properties
/// defined on it, and where samples sit in its voxels.
ZEL_PLATFORM_API extern Quern::String const sVoxelTileTree;
ZEL_PLATFORM_API extern Quern::String const sVoxelComp;
/// The reserved name by which an object is asked for its volume, a `Quern::Ptr<ORV::Object>`: for
/// hosts that hold volumes of their own.
ZEL_PLATFORM_API extern Quern::String const sVolume;

/// The target of a property: empty if it names none, or if there is no such property.
ZEL_PLATFORM_API Quern::String getGeoPropTargetName(Object const& object,
                                                    Quern::StringView property);

/// The range indices of a target, or an empty pointer.
ZEL_PLATFORM_API Quern::Ptr<Quern::Array<unsigned int>>
getRangeGeoPropIndices(Object const& object, Quern::StringView target);

/// Gives the object range indices for `target`, in place of earlier ones. Throws
/// std::invalid_argument if `target` is empty or `indices` holds no array; the object is then
/// unchanged. They are kept as an entry of the object, under a reserved name for each target.
ZEL_PLATFORM_API void setRangeGeoPropIndices(Object& object, Quern::StringView target,
                                             Quern::Ptr<Quern::Array<unsigned int>> indices);

/// Gives the object a volume, in place of an earlier one. Throws std::invalid_argument if there is
/// none; the object is then unchanged. It is kept as an entry of the object, under sVolume.
ZEL_PLATFORM_API void setVolume(Object& object, Quern::Ptr<ORV::Object> volume);

/// The object's volume: a copy of it that shares its components, found by the object's `property`.
/// An empty pointer if the object has none. Throws what `property` throws, and std::bad_alloc.
ZEL_PLATFORM_API Quern::Ptr<ORV::Object> shallow_copy_object_to_orv_volume(Object const& object);

namespace detail {
ZEL_PLATFORM_API void setGeoProperty(Object& object, Quern::StringView name, Quern::Any value,
                                     Quern::Any data, bool hasData, Quern::StringView target);
}  // namespace detail

/// Gives the object the property `name`, in place of an earlier one, and shares the array. Throws
/// std::invalid_argument if `name` is empty or reserved, or if `data` holds no array; the object is
/// then unchanged.
template <class T>
void setGeoProperty(Object& object, Quern::StringView name, T const& defaultValue,
                    Quern::Ptr<Quern::Array<T>> data, Quern::StringView target = {}) {
    bool const hasData = static_cast<bool>(data);
    detail::setGeoProperty(object, name, defaultValue, std::move(data), hasData, target);
}

}  // namespace Orvane::Geometry
