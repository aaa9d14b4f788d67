// Builds an adaptive volume of a ball, sets it as the volume of an object, binds trees of fields
// that were made without it to the object, samples them and prints a table.

#include <cmath>
#include <cstdio>
#include <exception>

#include <zel_platform/orvane_geometry_volume/tile_tree.h>
#include <zel_platform/shape_store/scene_units.h>

#include "binder.h"
#include "output.h"

namespace {

using Orvane::Math::float3;
using Quern::makePtr;
using zel::SamplerType;
using zel::ScalarPtr;

float distance(float3 const& p) {
    return std::sqrt(p.x * p.x + p.y * p.y + p.z * p.z) - 1;
}

/// A volume from -2 to 2 along each axis with the distance from a ball of radius 1 in its channel
/// "distance". A tile has 4 by 4 by 4 voxels; at each depth voxels are half as wide as at the depth
/// above.
Quern::Ptr<ORV::Object> makeBall() {
    using namespace ORV::TileTree3D;
    constexpr float kVoxelSize =
        4.0F / static_cast<float>(BinaryTraits::kRootWidth);  // the width of a finest voxel
    constexpr int kMaxDepth = 5;
    // Whether the tree is to have a tile: only where the surface may pass through it.
    auto const wanted = [](float3 const& low, float3 const& high, int) {
        float3 const half = (high - low) * 0.5F;
        return std::fabs(distance(low + half)) < half.x * 1.75F;
    };
    constexpr float kOutside = 3;
    auto const volume =
        buildVolume<BinaryTraits, float>(kVoxelSize, kMaxDepth, wanted, distance, kOutside);
    std::printf("%lld tiles, %lld of them at depth %d\n", volume.container->tileCount(-1),
                volume.container->tileCount(kMaxDepth), kMaxDepth);

    auto object = makePtr<ORV::Object>();
    object->setComponent(Orvane::Geometry::sVoxelTileTree, volume.container);
    object->setComponent(Orvane::Geometry::sVoxelComp, volume.topology);
    object->setComponent("distance", volume.channel);
    return object;
}

}  // namespace

int main() try {
    // One tree for each sampler: the ball, 0.1 thicker.
    auto const coatedBall = [](SamplerType type) {
        return ScalarPtr(
            makePtr<zel::ScalarFieldSubtract>(makePtr<zel::ScalarOrvaneTriggered>("distance", type),
                                              makePtr<zel::ScalarFieldConstant>(0.1F)));
    };

    // The volume is in metres; the trees are evaluated at positions in centimetres.
    Orvane::Object object;
    Orvane::Geometry::setVolume(object, makeBall());
    object.setProperty(Vellum::sceneUnitsInMeters, 0.01F);

    ScalarPtr const linear = bindTree(coatedBall(SamplerType::kLinear), object);
    ScalarPtr const cubic = bindTree(coatedBall(SamplerType::kCubicC1), object);
    Quern::Array<float3> const positions{
        {-100, 0, 0}, {-70, 70, 0}, {0, 0, 103}, {10, 20, -30}, {-250, 0, 0}};
    auto const linearValues = linear->eval(positions);
    auto const cubicValues = cubic->eval(positions);
    std::printf("%21s %10s %10s %32s\n", "position, cm", "linear", "cubic", "gradient, linear");
    for (long long i = 0; i < positions.size(); ++i) {
        float3 const& p = positions[i];
        float3 const g = linear->grad(p, i);
        std::printf("%7.4g%7.4g%7.4g %10.5f %10.5f %12.4f%10.4f%10.4f\n", double{p.x}, double{p.y},
                    double{p.z}, double{(*linearValues)[i]}, double{(*cubicValues)[i]}, double{g.x},
                    double{g.y}, double{g.z});
    }
    return examples::finish("sample_volume");
} catch (std::exception const& error) {
    std::fprintf(stderr, "sample_volume: %s\n", error.what());
    return 1;
}
