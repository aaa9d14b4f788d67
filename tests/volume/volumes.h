#pragma once

#include <random>

#include "support/probe.h"
#include "zel/volume/volume_reader.h"
#include "zel/zel.h"
#include "zel_platform/orvane_geometry_volume/tile_tree.h"

// Volumes for tests of the nodes that read them, and a look at what such a node holds.
namespace volumes {

using namespace ORV::TileTree3D;
using Quern::makePtr;
using Quern::Ptr;
using support::make;
using support::same;
using zel::SamplerType;

inline constexpr SamplerType kTypes[] = {SamplerType::kLinear, SamplerType::kCubicC0,
                                         SamplerType::kCubicC1};
inline constexpr float3 kSlope{2, -3, 0.5F};

/// Linear functions of the position, which every sampler reproduces, and curved ones.
template <class T> T plane(float3 const& p) {
    float const v = 1 + 2 * p.x - 3 * p.y + 0.5F * p.z;
    return make<T>(v, -2 * v, p.z);
}
template <class T> T waves(float3 const& p) {
    float const v = std::sin(7 * p.x) + std::cos(5 * p.y) * p.z;
    return make<T>(v, std::sin(9 * p.z) + p.y, 1 - v);
}

/// What is read outside the tree.
template <class T> T outside() {
    return make<T>(-7, 8, -9);
}

/// A tree from -0.5 to 0.5 along each axis: even, and finer where all coordinates are positive.
template <class Traits, class T>
Volume<Traits, T> build(PositionFunction<T> const& function, VoxelOffsetType offset = 7) {
    int const even = Traits::kBranch == 2 ? 2 : 1;
    float const size = 1 / static_cast<float>(Traits::kRootWidth);
    return buildVolume<Traits, T>(
        size, even + 1,
        [=](float3 const& low, float3 const&, int depth) {
            return depth <= even || (low.x > -0.01F && low.y > -0.01F && low.z > -0.01F);
        },
        function, outside<T>(), offset);
}

/// The volume as an object, with the channel under that name.
template <class Traits, class T>
Ptr<ORV::Object> object(Volume<Traits, T> const& volume, char const* channel = "d") {
    auto made = makePtr<ORV::Object>();
    made->setComponent(Orvane::Geometry::sVoxelTileTree, volume.container);
    made->setComponent(Orvane::Geometry::sVoxelComp, volume.topology);
    made->setComponent(channel, volume.channel);
    return made;
}
template <class Traits, class T>
Orvane::Object host(Volume<Traits, T> const& volume, char const* channel = "d") {
    Orvane::Object made;
    Orvane::Geometry::setVolume(made, object(volume, channel));
    return made;
}

/// A node whose reader a test may see.
template <class Node> struct Peek : Node {
    using Node::Node;
    auto const& held() const { return *this->reader; }
    bool bound() const { return held().isBound(); }
    int samplers() const { return held().samplerCount(); }
    template <class Traits> auto const& state() const {
        static zel::detail::VolumeStateOf<Traits, typename Node::Value> const none;
        auto const* const state = held().template state<Traits>();
        return state ? *state : none;
    }
};
using Scalar = Peek<zel::ScalarOrvane>;
using Vector = Peek<zel::VectorOrvane>;
using ScalarLate = Peek<zel::ScalarOrvaneTriggered>;
using VectorLate = Peek<zel::VectorOrvaneTriggered>;

template <class T> using NodeFor = std::conditional_t<std::is_same_v<T, float>, Scalar, Vector>;
template <class T>
using LateNodeFor = std::conditional_t<std::is_same_v<T, float>, ScalarLate, VectorLate>;

/// Positions within `reach` of the origin along each axis, and then places where nothing is.
inline Quern::Array<float3> positions(long long count, float reach = 0.42F) {
    std::mt19937 random(20250102);
    std::uniform_real_distribution<float> coordinate(-reach, reach);
    Quern::Array<float3> at(count);
    for (auto& p : at) p = {coordinate(random), coordinate(random), coordinate(random)};
    return at;
}
inline std::array<float3, 6> const kNowhere{{{0.6F, 0, 0},
                                             {0, -1e38F, 0},
                                             {0, 0, support::kInf},
                                             {-support::kInf, 0, 0},
                                             {support::kNaN, 0, 0},
                                             {0, 0.1F, support::kNaN}}};

/// Calls `test` for each kind of tree and type of value, with the tags `Traits` and `T`.
template <class Test> void forAllKinds(Test const& test) {
    test(BinaryTraits(), float());
    test(QuinaryTraits(), float());
    test(BinaryTraits(), float3());
    test(QuinaryTraits(), float3());
}

}  // namespace volumes
