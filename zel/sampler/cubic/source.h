#pragma once

#include <cstdint>

#include "zel/sampler/cubic/adaptive/memo.h"
#include "zel_platform/orvane_geometry_volume/channel.h"

namespace ORV::TileTree3D::Internal {

/// Marks, in 16 bits a voxel, voxels that hold no value of their own.
template <class Traits> using DofChannel = Channel<Traits, short, Traits::kSamples, 1, 0>;

/// What a cubic sampler reads and how: all that stays the same from sample to sample, but for the
/// accessor's cursor and what is remembered.
template <class Traits, class T> struct CubicSource {
    typename Container<Traits>::ConstTileAccessor m_tileAccessor;
    Container<Traits> const* m_container;
    DataChannel<Traits, T> const* m_channel;
    VoxelTopology<Traits> const* m_topology;
    T m_defaultValue;
    std::int32_t m_type;
    bool m_clamp;
    std::int32_t m_jumpHandling;
    DofChannel<Traits> const* m_dofChannel;  ///< may be null
    std::int32_t m_dofMask;
    std::int32_t m_minDepth, m_maxDepth;
    mutable AdaptiveMemo<T> m_memo;

    /// The deepest tile over a lattice point that is no deeper than `depth`.
    TileOf<Traits> const& tileAt(int3 const& p, int depth) const {
        return m_tileAccessor.tile(p.x, p.y, p.z, depth);
    }
};

}  // namespace ORV::TileTree3D::Internal
