#include <stdexcept>
#include <string>

#include "zel/volume/build_volume.h"
#include "zel_platform/orvane_geometry/geo_property.h"

namespace zel {

namespace {

std::string quoted(Quern::String const& name) {
    return '\'' + std::string(name.c_str()) + '\'';
}

[[noreturn]] void refuse(std::string const& why) {
    throw std::invalid_argument("zel::toVolumeObject: " + why);
}

}  // namespace

Quern::Ptr<ORV::Object> toVolumeObject(std::vector<NamedVolume> const& volumes) {
    using Orvane::Geometry::sVoxelComp;
    using Orvane::Geometry::sVoxelTileTree;
    if (volumes.empty()) refuse("there is no volume");
    NamedVolume const& first = volumes.front();
    auto object = Quern::makePtr<ORV::Object>();
    for (NamedVolume const& volume : volumes) {
        auto const& name = volume.name;
        if (name.empty()) refuse("a channel has an empty name");
        if (name == sVoxelTileTree || name == sVoxelComp)
            refuse("the name " + quoted(name) + " is reserved for the tree or its topology");
        if (object->component<ORV::Component>(name))
            refuse("two channels have the name " + quoted(name));
        if (!volume.matches)
            refuse("the tree, the topology and the channel of " + quoted(name) +
                   " do not belong together");
        if (volume.container != first.container)
            refuse(quoted(name) + " and " + quoted(first.name) + " have different trees");
        if (volume.topology != first.topology)
            refuse(quoted(name) + " and " + quoted(first.name) + " have different topologies");
        object->setComponent(name, volume.channel);
    }
    object->setComponent(sVoxelTileTree, first.container);
    object->setComponent(sVoxelComp, first.topology);
    return object;
}

}  // namespace zel
