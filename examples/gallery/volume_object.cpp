#include "gallery/volume_object.h"

namespace examples {

using namespace ORV::TileTree3D;

VolumeObject makeVolume(ScalarPtr const& field, float halfWidth, int depth,
                        RefinePredicate const& wanted, float outside) {
    float const voxelSize = 2 * halfWidth / static_cast<float>(BinaryTraits::kRootWidth);
    auto const volume = buildVolume<BinaryTraits, float>(
        voxelSize, depth, wanted, [&](float3 const& p) { return field->eval(p, 0); }, outside);
    auto const view = Quern::makePtr<ORV::Object>();
    view->setComponent(Orvane::Geometry::sVoxelTileTree, volume.container);
    view->setComponent(Orvane::Geometry::sVoxelComp, volume.topology);
    view->setComponent(VolumeObject::kChannel, volume.channel);
    VolumeObject made{{}, volume.container};
    Orvane::Geometry::setVolume(made.object, view);
    return made;
}

ScalarPtr volumeField(zel::SamplerType type) {
    return make<zel::ScalarOrvaneTriggered>(VolumeObject::kChannel, type);
}

}  // namespace examples
