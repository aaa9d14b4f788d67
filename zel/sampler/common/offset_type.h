#pragma once

#include "zel_platform/orvane_geometry_volume/traits.h"

namespace ORV::TileTree3D::Internal {

/// The offset type of a topology whose samples all lie on the low corners of their voxels.
inline constexpr VoxelOffsetType kOnCorners = 7;

}  // namespace ORV::TileTree3D::Internal
