// Builds an adaptive volume of a ball, sets it as the volume of an object, binds trees of fields
// that were made without it to the object, samples them and prints a table.

#include <cstdio>
#include <exception>

#include <zel_platform/shape_store/scene_units.h>

#include "binder.h"
#include "output.h"

namespace {

using Orvane::Math::float3;
using Quern::makePtr;
using zel::SamplerType;
using zel::ScalarPtr;

/// A volume with the distance from a ball of radius 1 in its channel "distance". Its voxels are
/// 1/32 wide in a band of 3 voxels on both sides of the surface, and wider elsewhere.
Quern::Ptr<ORV::Object> makeBall() {
    zel::ScalarFieldSphere const ball({0, 0, 0}, 1);
    zel::Box const box{{-2, -2, -2}, {2, 2, 2}};
    auto const volume = zel::buildVolume<zel::BinaryTraits>(ball, box, 1.0F / 32, 3);
    auto const& tree = *volume.container;
    std::printf("%lld tiles, %lld of them at depth %d\n", tree.tileCount(-1),
                tree.tileCount(tree.depth()), tree.depth());
    return zel::toVolumeObject({{"distance", volume}});
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
