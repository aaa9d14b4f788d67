#pragma once

#include <zel_platform/orvane_geometry_volume/tile_tree.h>

#include "trees.h"

namespace examples {

/// An object with a volume, whose channel `kChannel` has the values of a field, and the volume's
/// tree.
struct VolumeObject {
    static constexpr char const* kChannel = "values";

    Orvane::Object object;
    Quern::Ptr<ORV::TileTree3D::Container<ORV::TileTree3D::BinaryTraits>> tree;
};

/// Makes a volume from -halfWidth to halfWidth along each axis, with tiles down to `depth` where
/// the predicate holds, and the value `outside` beyond. A tile has 4 samples along an axis, the
/// whole volume 4 * 2^d samples at depth d.
VolumeObject makeVolume(ScalarPtr const& field, float halfWidth, int depth,
                        ORV::TileTree3D::RefinePredicate const& wanted, float outside);

/// A leaf that reads such a volume once it is bound.
ScalarPtr volumeField(zel::SamplerType type);

/// All sampler types.
inline constexpr zel::SamplerType kSamplerTypes[] = {
    zel::SamplerType::kLinear, zel::SamplerType::kCubicC0, zel::SamplerType::kCubicC1};

}  // namespace examples
