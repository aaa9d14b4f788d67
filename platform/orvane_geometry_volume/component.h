#pragma once

#include <iosfwd>

#include "zel_platform/orvane_geometry_volume/traits.h"
#include "zel_platform/quern_core/ptr.h"

namespace ORV {

/// A named part of a volume object: a tree, a topology or a channel of samples. Any number of
/// threads may call const operations while no thread writes the component.
class ZEL_PLATFORM_API Component {
public:
    virtual ~Component();

    /// Writes a short description to be read by people.
    virtual void dump(std::ostream& stream) const = 0;
    /// Sets `used` to the bytes that the component's contents need, and `held` to the bytes
    /// allocated for them. With `withObject` both include the component object itself.
    virtual void memUse(unsigned long long& used, unsigned long long& held,
                        bool withObject) const = 0;
    /// Sets `target` to a copy of the component.
    virtual void copyTo(Quern::Ptr<Component>& target) const = 0;
    /// The number of elements at all depths: tiles of a tree, voxels of a topology, samples of a
    /// channel.
    virtual unsigned long long size() const = 0;
    virtual bool empty() const { return size() == 0; }
    /// Updates the component to the tiles of `topology`. Throws std::invalid_argument if that is
    /// not a topology of the same kind of tree, std::logic_error if the component depends on no
    /// topology.
    virtual void update(Component const& topology) = 0;
    /// The number of elements in the tiles of a depth, or in all tiles for -1; 0 for any other
    /// depth without tiles.
    virtual long long elementCount(int depth) const = 0;
    /// The number of elements of a tile; 0 for a tile that the component does not have.
    virtual int elementCount(TileTree3D::TreeIndex const& index) const = 0;
    /// The number of tiles of a depth, or of all tiles for -1; 0 for any other depth without tiles.
    virtual long long tileCount(int depth) const = 0;
    /// The shallowest depth.
    virtual int minDepth() const = 0;
    /// The deepest depth; -1 for a tree without tiles.
    virtual int depth() const = 0;

protected:
    Component() = default;
    Component(Component const&) = default;
    Component(Component&&) = default;
    Component& operator=(Component const&) = default;
    Component& operator=(Component&&) = default;
};

}  // namespace ORV
