#pragma once

#include "zel/sampler/common/instances.h"
#include "zel/sampler/cubic/adaptive/state.h"
#include "zel/sampler/cubic/adaptive/trace.h"

namespace ORV::TileTree3D::Internal {

/// Where the value of a stencil point comes from. Reports name the number.
enum class PointCase {
    kCoarser = 1,    ///< a coarser tile
    kDefault = 2,    ///< no tile: the default value
    kThisLevel = 3,  ///< a voxel of the sample's level
    kRefined = 4     ///< a child of a tile of the sample's level
};

/// A stencil point: its value, and the voxel that it comes from, along the axis of the row.
template <class T> struct StencilPoint {
    T value;
    int start;  ///< the voxel's low face
    int step;   ///< its width
};

/// Looks up the points of a sample's stencil, each by itself.
template <class Traits, class T, class Trace> class StencilPoints {
public:
    using Tile = TileOf<Traits>;
    using State = AdaptiveState<Traits, T>;
    using Point = StencilPoint<T>;

    explicit StencilPoints(State& state) : m_state(state) {}

    /// Fetches `sizes` tiles along the first `count` of `axes`. The first tile holds the lowest
    /// point of the stencil.
    void fetchTiles(int3 const& sizes, int3 const& axes, int count);

    /// The value of a sample that lies on a data point.
    T dataPoint() const;

    /// Looks up the point for a lattice point in a row along an axis. True if it is off the uniform
    /// grid of the sample's level. `point` comes in with the voxel to step on from in empty space.
    bool getValue(int3 const& tijk, int axis, Point& point) const;

    /// The width of the voxel over a lattice point; that of the sample's level where there is no
    /// tile.
    int smallestVoxelWidth(int3 const& p) const;

private:
    Tile const& getTile(int3 const& tijk, int3& lti, bool& inCube) const;
    PointCase findPoint(int3 const& tijk, int axis, Point& point) const;
    PointCase getValueAtThisLevel(Tile const& tile, int3 const& lijk, T const* data,
                                  int3 const& tijk, int axis, Point& point) const;
    PointCase getCoarserValue(Tile const& tile, int3 const& tijk, int axis, Point& point) const;
    PointCase getDefaultValue(Point& point) const;
    T nestedValue(Tile const& tile, int3 const& lijk, float3 const& frac) const;
    T sampleOf(T const* data, int3 const& lijk) const;
    bool isFlagged(short const* flags, int3 const& lijk) const;
    short const* flagsOf(Tile const& tile) const;

    State& m_state;
};

#define ZEL_DETAIL_STENCIL_POINTS(prefix, Traits, T)                                               \
    prefix template class StencilPoints<Traits, T, NoTrace>;                                       \
    prefix template class StencilPoints<Traits, T, StreamTrace>
ZEL_SAMPLER_INSTANCES(ZEL_DETAIL_STENCIL_POINTS, extern);
extern template class StencilPoints<BinaryTraits, float, CheckTrace>;

}  // namespace ORV::TileTree3D::Internal
