#pragma once

#include <functional>
#include <stop_token>
#include <vector>

#include "zel/volume/build_volume.h"
#include "zel_exchange/mesh.h"
#include "zel_exchange/vdb.h"

namespace zel {

struct MeshOptions {
    /// How far the mesh may deviate from the surface to have fewer faces, 0 to 1: see
    /// openvdb::tools::volumeToMesh.
    float adaptivity = 0;
    /// Half the width of the band around the surface that is evaluated, in voxels.
    float band = 3;
    bool normals = true;
    /// The colours of the vertices: a field of colours, or up to three fields, for red, green and
    /// blue; a single field gives shades of grey. Neither means no colours. Values are as the field
    /// has them.
    VdbVolume::VectorPtr colour{};
    std::vector<VdbVolume::ScalarPtr> channels{};
    bool parallel = true;    ///< as in FillOptions
    std::stop_token stop{};  ///< as in FillOptions
    /// As in FillOptions, of the evaluation of the band.
    std::function<void(std::size_t done, std::size_t all)> progress{};
};

/// Makes a mesh of the surface where a field is 0, which must be near to a signed distance,
/// negative inside. Only the band is evaluated at full depth. A solid that reaches out of the box
/// is closed at the faces of the box, along which the field is evaluated within a voxel beyond the
/// box, too. Normals are the field's gradient, or the box's on its faces, of length 1, or 0 where
/// the field has none; the vertices lie within half a voxel of the surface, and within a voxel
/// where it is cut.
///
/// Throws std::invalid_argument for what buildVolume() refuses, for a `voxelSize` below about
/// 1.5e-5, for a field that is NaN where it is evaluated in the box, for a band of less than 1.5
/// voxels, for an adaptivity outside 0 to 1, for both kinds of colours and for more than three
/// channels; std::length_error for more than 2^32 vertices, or an inside of more than a million
/// tiles of 4096^3 voxels.
ZEL_EXCHANGE_API Mesh meshOf(ScalarField const& field, Box const& box, float voxelSize,
                             MeshOptions const& options = {});

}  // namespace zel
