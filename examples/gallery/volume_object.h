#pragma once

#include <zel_platform/orvane_geometry_volume/tile_tree.h>

#include "trees.h"

namespace examples {

/// An object whose volume has the channel `kChannel` of a field's values, and the volume's tree.
struct VolumeObject {
    static constexpr char const* kChannel = "values";

    Orvane::Object object;
    Quern::Ptr<ORV::TileTree3D::Container<ORV::TileTree3D::BinaryTraits>> tree;
};

/// A volume from -halfWidth to halfWidth along each axis, with tiles down to `depth` where they are
/// wanted, and the value `outside` beyond. Tiles of depth `d` have 4 samples along an axis, the
/// whole volume 4 * 2^d of them.
VolumeObject makeVolume(ScalarPtr const& field, float halfWidth, int depth,
                        ORV::TileTree3D::RefinePredicate const& wanted, float outside);

/// A leaf that reads such a volume once it is bound.
ScalarPtr volumeField(zel::SamplerType type);

/// All ways to sample a volume.
inline constexpr zel::SamplerType kSamplerTypes[] = {
    zel::SamplerType::kLinear, zel::SamplerType::kCubicC0, zel::SamplerType::kCubicC1};

}  // namespace examples
