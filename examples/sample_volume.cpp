// A volume, from its making to its values: an adaptive volume of a ball is built, put on an object,
// bound to a tree of fields that was written down without it, and sampled. Prints a table.

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

/// A volume from -2 to 2 along each axis that holds the distance from a ball of radius 1 in its
/// channel "distance". Its tiles have 4 by 4 by 4 voxels, each half as wide at the next depth.
Quern::Ptr<ORV::Object> makeBall() {
    using namespace ORV::TileTree3D;
    constexpr float kVoxelSize =
        4.0F / static_cast<float>(BinaryTraits::kRootWidth);  // of the deepest depth of all
    constexpr int kMaxDepth = 5;
    // Whether there shall be a tile: finer ones only where the surface may pass through.
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
    // The trees, one for each sampler: the ball with a coat of 0.1.
    auto const coatedBall = [](SamplerType type) {
        return ScalarPtr(
            makePtr<zel::ScalarFieldSubtract>(makePtr<zel::ScalarOrvaneTriggered>("distance", type),
                                              makePtr<zel::ScalarFieldConstant>(0.1F)));
    };

    // The object. The trees are asked at places in centimetres, and the volume is in metres.
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
