#pragma once

#include <iosfwd>

#include "zel_platform/orvane_geometry_volume/traits.h"
#include "zel_platform/quern_core/ptr.h"

namespace ORV {

/// What a volume object holds under a name: a tree, the place of its samples, a channel of samples.
/// All const operations may be called from any number of threads while none writes the component.
class ZEL_PLATFORM_API Component {
public:
    virtual ~Component();

    /// Writes a short description, for people.
    virtual void dump(std::ostream& stream) const = 0;
    /// The bytes that the component's contents need, and the bytes that it holds for them. With
    /// `withObject` the component object itself is counted in both.
    virtual void memUse(unsigned long long& used, unsigned long long& held,
                        bool withObject) const = 0;
    /// Puts a copy of the component in `target`.
    virtual void copyTo(Quern::Ptr<Component>& target) const = 0;
    /// The number of elements at all depths: tiles of a tree, voxels of a topology, samples of a
    /// channel.
    virtual unsigned long long size() const = 0;
    virtual bool empty() const { return size() == 0; }
    /// Brings the component in step with `topology`. Throws std::invalid_argument if that is not a
    /// topology of the same kind of tree, std::logic_error if the component depends on none.
    virtual void update(Component const& topology) = 0;
    /// The number of elements of the tiles of a depth, of all tiles for -1; 0 for any other depth
    /// that has no tiles.
    virtual long long elementCount(int depth) const = 0;
    /// The number of elements of a tile; 0 for a tile that the component does not have.
    virtual int elementCount(TileTree3D::TreeIndex const& index) const = 0;
    /// The number of tiles of a depth, of all tiles for -1; 0 for any other depth without tiles.
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
