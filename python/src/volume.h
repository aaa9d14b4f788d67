#pragma once

#include <pybind11/numpy.h>

#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "zel/volume/build_volume.h"
#include "zel_platform/orvane_geometry_volume/object.h"

namespace zel::python {

namespace py = pybind11;

/// A volume as Python has it: channels over one tile tree. It never changes.
class Volume {
public:
    using Tree = ORV::TileTree3D::Container<BinaryTraits>;
    using Topology = ORV::TileTree3D::VoxelTopology<BinaryTraits>;
    template <class T> using Samples = Quern::Ptr<ORV::TileTree3D::DataChannel<BinaryTraits, T>>;
    struct Channel {
        std::string name;
        std::variant<Samples<float>, Samples<float3>> samples;
    };
    /// Finest voxels from `low` on, `size` of them along each axis.
    struct Extent {
        ORV::TileTree3D::int3 low, size;
    };

    Quern::Ptr<Tree> tree;
    Quern::Ptr<Topology> topology;
    std::vector<Channel> channels;
    Extent extent;  ///< the voxels that to_numpy() gives

    /// The object for setVolume().
    Quern::Ptr<ORV::Object> object() const;
    /// The channel of a name; without a name, the only one. Throws KeyError.
    Channel const& channel(py::handle name) const;
};

/// Adds the class zel.Volume.
void addVolume(py::module_& module);

}  // namespace zel::python
