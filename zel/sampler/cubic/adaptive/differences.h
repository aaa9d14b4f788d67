#pragma once

#include "zel/sampler/common/gradient.h"
#include "zel/sampler/common/instances.h"
#include "zel/sampler/cubic/adaptive/memo.h"
#include "zel/sampler/cubic/source.h"

namespace ORV::TileTree3D::Internal {

/// The gradient of adaptiveValue() by world units, by differences: along each axis the slope of the
/// parabola through three samples 1/64 of a voxel apart, or further apart where floats cannot tell
/// such places apart. The samples lie around the place; near a face of the voxel or of the tile
/// they are moved to the inside of both. `value` is the value at the place.
template <class Traits, class T>
GradientOf<T> adaptiveDifferences(CubicSource<Traits, T> const& source, AdaptiveMemo<T>& memo,
                                  TreeIndex const& tree, int3 const& lijk, float3 const& frac,
                                  int depth, T const& value);

#define ZEL_DETAIL_DIFFERENCES(prefix, Traits, T)                                                  \
    prefix template GradientOf<T> adaptiveDifferences<Traits, T>(                                  \
        CubicSource<Traits, T> const&, AdaptiveMemo<T>&, TreeIndex const&, int3 const&,            \
        float3 const&, int, T const&)
ZEL_SAMPLER_INSTANCES(ZEL_DETAIL_DIFFERENCES, extern);

}  // namespace ORV::TileTree3D::Internal
