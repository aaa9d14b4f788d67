#pragma once

#include "zel_platform/orvane_geometry/object.h"
#include "zel_platform/quern_core/array.h"

// A geometry property has a value for each element of a part of an object, such as each point. The
// object holds the property under its name, as a `Quern::Ptr<Orvane::Object>`; that property object
// holds a default value of the element type and the array of values.
//
// The target of a property is the part on whose elements it is defined. Elements may share values:
// the range indices of a target are, for each element, the index of its value in the arrays of all
// properties with that target.
namespace ORV {
class Object;
}  // namespace ORV

namespace Orvane::Geometry {

// The constants are initialised when the library is loaded, before the static objects of all
// programs and libraries that link it.

/// The key of a property object's default value: one value of the element type T.
ZEL_PLATFORM_API extern Quern::String const sDefault;
/// The key of a property object's values: a `Quern::Ptr<Quern::Array<T>>`.
ZEL_PLATFORM_API extern Quern::String const sData;
/// The names of a volume's components: its tile tree, which is also the target of properties
/// defined on it, and its topology, the place of samples in voxels.
ZEL_PLATFORM_API extern Quern::String const sVoxelTileTree;
ZEL_PLATFORM_API extern Quern::String const sVoxelComp;
/// The reserved key under which the library looks up an object's volume, a
/// `Quern::Ptr<ORV::Object>`. A host with volumes of its own answers this key in its override of
/// `Object::property`.
ZEL_PLATFORM_API extern Quern::String const sVolume;

/// The target of a property; empty if the property has none, or if there is no such property.
ZEL_PLATFORM_API Quern::String getGeoPropTargetName(Object const& object,
                                                    Quern::StringView property);

/// The range indices of a target, or an empty pointer.
ZEL_PLATFORM_API Quern::Ptr<Quern::Array<unsigned int>>
getRangeGeoPropIndices(Object const& object, Quern::StringView target);

/// Sets or replaces the range indices of `target`, an entry of the object under a reserved key for
/// each target. Throws std::invalid_argument if `target` is empty or `indices` holds no array; the
/// object is then unchanged.
ZEL_PLATFORM_API void setRangeGeoPropIndices(Object& object, Quern::StringView target,
                                             Quern::Ptr<Quern::Array<unsigned int>> indices);

/// Sets or replaces the object's volume, an entry under sVolume. Throws std::invalid_argument if
/// `volume` is empty; the object is then unchanged.
ZEL_PLATFORM_API void setVolume(Object& object, Quern::Ptr<ORV::Object> volume);

/// Returns a copy of the object's volume, which shares the volume's components; an empty pointer if
/// the object has no volume. The volume is looked up by `Object::property`, whose exceptions are
/// passed on. Throws std::bad_alloc.
ZEL_PLATFORM_API Quern::Ptr<ORV::Object> shallow_copy_object_to_orv_volume(Object const& object);

namespace Internal {
ZEL_PLATFORM_API void setGeoProperty(Object& object, Quern::StringView name, Quern::Any value,
                                     Quern::Any data, bool hasData, Quern::StringView target);
}  // namespace Internal

/// Sets or replaces the property `name`, which shares the array `data`. Throws
/// std::invalid_argument if `name` is empty or reserved, or if `data` holds no array; the object is
/// then unchanged.
template <class T>
void setGeoProperty(Object& object, Quern::StringView name, T const& defaultValue,
                    Quern::Ptr<Quern::Array<T>> data, Quern::StringView target = {}) {
    bool const hasData = static_cast<bool>(data);
    Internal::setGeoProperty(object, name, defaultValue, std::move(data), hasData, target);
}

}  // namespace Orvane::Geometry
