#pragma once

#include "zel/sampler/common/gradient.h"
#include "zel/sampler/common/instances.h"
#include "zel/sampler/cubic/kernels.h"
#include "zel_platform/orvane_geometry_volume/channel.h"

// Reading a channel at a point where the tree may be coarser than asked for.
namespace ORV::TileTree3D {

/// The value of a channel at the data point of the voxel of `depth` whose low corner is the lattice
/// point `tijk`. It is the voxel's sample where the tree has that voxel; else a blend of the eight
/// samples around the data point, whose position `offsetType` tells, of the deepest tile there. The
/// channel's default value outside the tree, above the channel's minimum depth, and, of a depth
/// other than 0, instead of a blend of the root's samples.
template <class Traits, class T>
T sampleChannelPoint(int3 const& tijk, int depth, VoxelOffsetType offsetType,
                     DataChannel<Traits, T> const& channel,
                     typename Container<Traits>::ConstTileAccessor const& accessor);

/// The same, in the deepest tile over the point that is no deeper than `depth`.
template <class Traits, class T>
T sampleTilePoint(TileOf<Traits> const& tile, int3 const& tijk, int depth,
                  VoxelOffsetType offsetType, DataChannel<Traits, T> const& channel,
                  typename Container<Traits>::ConstTileAccessor const& accessor);

namespace Internal {

/// Eight values at the corners of a cell, of which entry c + 2 (b + 2 a) lies at a, b, c along x,
/// y, z; blended along x, then y, then z.
template <class T> T blendCorners(T const (&corners)[8], float3 const& frac) {
    T const y0z0 = lerp(corners[0], corners[4], frac.x),
            y1z0 = lerp(corners[2], corners[6], frac.x),
            y0z1 = lerp(corners[1], corners[5], frac.x),
            y1z1 = lerp(corners[3], corners[7], frac.x);
    return lerp(lerp(y0z0, y1z0, frac.y), lerp(y0z1, y1z1, frac.y), frac.z);
}

/// The derivative of the blend by the fraction, times `scale`.
template <class T>
GradientOf<T> blendGradient(T const (&corners)[8], float3 const& frac, float scale) {
    using Register = RegisterOf<T>;
    Register at[2][2], step[2][2];  // by y and z: the blends along x, and the differences
    for (int b = 0; b < 2; ++b)
        for (int c = 0; c < 2; ++c) {
            auto const low = RegisterTraits<T>::from(corners[c + 2 * b]);
            step[b][c] = RegisterTraits<T>::from(corners[4 + c + 2 * b]) - low;
            at[b][c] = step[b][c] * frac.x + low;
        }
    return gradientOf(
        lerp(lerp(step[0][0], step[1][0], frac.y), lerp(step[0][1], step[1][1], frac.y), frac.z),
        lerp(at[1][0] - at[0][0], at[1][1] - at[0][1], frac.z),
        lerp(at[0][1] - at[0][0], at[1][1] - at[1][0], frac.y), scale);
}

}  // namespace Internal

#define ZEL_DETAIL_JUMP(prefix, Traits, T)                                                         \
    prefix template T sampleChannelPoint<Traits, T>(int3 const&, int, VoxelOffsetType,             \
                                                    DataChannel<Traits, T> const&,                 \
                                                    Container<Traits>::ConstTileAccessor const&);  \
    prefix template T sampleTilePoint<Traits, T>(TileOf<Traits> const&, int3 const&, int,          \
                                                 VoxelOffsetType, DataChannel<Traits, T> const&,   \
                                                 Container<Traits>::ConstTileAccessor const&)
ZEL_SAMPLER_INSTANCES(ZEL_DETAIL_JUMP, extern);

}  // namespace ORV::TileTree3D
