#pragma once

#include <type_traits>

#include "zel/field/scalar_field.h"
#include "zel/field/vector_field.h"
#include "zel/volume/volume_work.h"
#include "zel_platform/orvane_geometry_volume/channel.h"

namespace zel::detail {

/// The interface of the fields whose values are a T.
template <class T>
using InterfaceOf = std::conditional_t<std::is_same_v<T, float>, Core::Fields::ScalarField,
                                       Core::Fields::VectorField>;

/// Sets all samples of a channel, which must be sized to the topology: the finest by the field, the
/// others by restriction. For the work of a call that has prepared the field.
template <class Traits, class T>
void fillTiles(ORV::TileTree3D::DataChannel<Traits, T>& channel,
               ORV::TileTree3D::VoxelTopology<Traits> const& topology, InterfaceOf<T> const& field,
               VolumeWork& work);

}  // namespace zel::detail
