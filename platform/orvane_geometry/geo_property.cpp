#include "zel_platform/orvane_geometry/geo_property.h"

#include <stdexcept>
#include <string>
#include <utility>

#include "zel_platform/orvane_geometry_volume/object.h"

namespace Orvane::Geometry {

/// Sets entries with reserved names.
class ReservedEntries {
public:
    static void set(Object& object, Quern::StringView key, Quern::Any value) {
        object.entries.insert_or_assign(key, std::move(value));
    }
};

namespace {

/// The key of a property object's target, which is a Quern::String.
constexpr char const* kTarget = "target";

/// The text of sVolume, which is not initialised yet while static objects of a program that links
/// this library statically are.
constexpr char const* kVolume = "Orvane::Geometry::volume";

/// The key of the range indices of a target in the object.
std::string rangeKey(Quern::StringView target) {
    return std::string("Orvane::Geometry::range indices of ").append(target.standardView());
}

}  // namespace

ZEL_PLATFORM_FIRST Quern::String const sDefault = "default";
ZEL_PLATFORM_FIRST Quern::String const sData = "data";
ZEL_PLATFORM_FIRST Quern::String const sVoxelTileTree = "voxel tile tree";
ZEL_PLATFORM_FIRST Quern::String const sVoxelComp = "voxel component";
ZEL_PLATFORM_FIRST Quern::String const sVolume = kVolume;

Quern::String getGeoPropTargetName(Object const& object, Quern::StringView property) {
    auto const propertyObject = pointerProperty<Object>(object, property);
    if (!propertyObject) return {};
    Quern::Any const entry = propertyObject->property(kTarget);
    auto const* const target = entry.get<Quern::String>();
    return target ? *target : Quern::String();
}

Quern::Ptr<Quern::Array<unsigned int>> getRangeGeoPropIndices(Object const& object,
                                                              Quern::StringView target) {
    return pointerProperty<Quern::Array<unsigned int>>(object, rangeKey(target));
}

void setRangeGeoPropIndices(Object& object, Quern::StringView target,
                            Quern::Ptr<Quern::Array<unsigned int>> indices) {
    std::string const where = "Orvane::Geometry::setRangeGeoPropIndices: ";
    if (target.empty()) throw std::invalid_argument(where + "the target's name is empty");
    if (!indices)
        throw std::invalid_argument(where + "no array of indices for target \"" +
                                    std::string(target) + "\"");
    ReservedEntries::set(object, rangeKey(target), std::move(indices));
}

void setVolume(Object& object, Quern::Ptr<ORV::Object> volume) {
    if (!volume) throw std::invalid_argument("Orvane::Geometry::setVolume: no volume");
    ReservedEntries::set(object, kVolume, std::move(volume));
}

Quern::Ptr<ORV::Object> shallow_copy_object_to_orv_volume(Object const& object) {
    auto const volume = pointerProperty<ORV::Object>(object, kVolume);
    return volume ? Quern::makePtr<ORV::Object>(*volume) : Quern::Ptr<ORV::Object>();
}

void Internal::setGeoProperty(Object& object, Quern::StringView name, Quern::Any value,
                              Quern::Any data, bool hasData, Quern::StringView target) {
    std::string const where = "Orvane::Geometry::setGeoProperty: ";
    if (name.empty()) throw std::invalid_argument(where + "the property's name is empty");
    std::string const text = name;
    if (!hasData)
        throw std::invalid_argument(where + "no array of values for property \"" + text + "\"");

    auto propertyObject = Quern::makePtr<Object>();
    propertyObject->setProperty(sDefault, std::move(value));
    propertyObject->setProperty(sData, std::move(data));
    if (!target.empty()) propertyObject->setProperty(kTarget, Quern::String(target));
    object.setProperty(name, std::move(propertyObject));
}

}  // namespace Orvane::Geometry
