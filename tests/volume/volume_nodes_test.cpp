#include <tbb/task_arena.h>

#include "support/float_modes.h"
#include "support/sanitized.h"
#include "volume/volumes.h"

#include "zel_platform/orvane_geometry_volume/channel_pool.h"
#include "zel_platform/shape_store/scene_units.h"

// What volume nodes answer, and what they hold of a volume.
namespace {

using namespace volumes;
using Vellum::sceneUnitsInMeters;

template <class T>
using Interface = std::conditional_t<std::is_same_v<T, float>, zel::ScalarField, zel::VectorField>;

/// A fresh sampler for each position, whose gradient is the interface's difference.
template <class Traits, class T> struct FreshSampler : Interface<T> {
    FreshSampler(Volume<Traits, T> const& volume, SamplerType type)
        : volume(volume), type(static_cast<int>(type)) {}
    using Interface<T>::eval;
    T eval(float3 const& p, long long /*i*/) const override {
        constexpr int kWorld = 2;
        auto const& [tree, topology, channel] = volume;
        if (type == 0) {
            zel::detail::LinearSampler<Traits, T> sampler(*tree, *topology, *channel);
            return sampler.sample(p, Traits::kMaxDepth, kWorld);
        }
        zel::detail::CubicSampler<Traits, T> sampler(*tree, *topology, *channel, type, true, 1,
                                                     nullptr, 0, 0);
        return sampler.sample(p, kWorld);
    }
    Volume<Traits, T> volume;
    int type;
};

Orvane::Object scaled(Orvane::Object object, Quern::Any scale) {
    object.setProperty(sceneUnitsInMeters, std::move(scale));
    return object;
}

/// Of all offsets, as the samplers do; a linear function exactly where that is possible.
TEST(VolumeNodes, ReadEitherKindWithEachSampler) {
    forAllKinds([]<class Traits, class T>(Traits, T) {
        using Other = std::conditional_t<Traits::kBranch == 2, QuinaryTraits, BinaryTraits>;
        struct Case {
            T (*function)(float3 const&);
            VoxelOffsetType offset;
        };
        for (auto const& [function, offset] : {Case{plane<T>, 7},
                                               {waves<T>, 7},
                                               {plane<T>, 0},
                                               {waves<T>, 2},
                                               {plane<T>, 3},
                                               {plane<T>, 6}}) {
            auto const volume = build<Traits, T>(function, offset);
            auto const object = host(volume);
            for (SamplerType const type : kTypes) {
                bool const linear = type == SamplerType::kLinear;
                NodeFor<T> const node(object, "d", type);
                LateNodeFor<T> late("d", type);
                late.apply_object(object);
                EXPECT_TRUE(node.template state<Traits>().valid);
                EXPECT_EQ(bool(node.template state<Traits>().haloChannel), linear && offset == 7);
                EXPECT_EQ(node.samplers(), 0);

                FreshSampler<Traits, T> const fresh(volume, type);
                for (float3 const& p : positions(support::kIsSanitized ? 30 : 200)) {
                    T const value = node.eval(p, 5);
                    ASSERT_TRUE(same(value, fresh.eval(p, 0)));
                    ASSERT_TRUE(same(late.eval(p, -1), value));
                    auto const gradient = node.grad(p, 5);
                    ASSERT_TRUE(same(late.grad(p, -1), gradient));
                    // With other offsets not where the resolution changes.
                    if (function == plane<T> && (offset == 7 || p.x < -0.1F)) {
                        ASSERT_TRUE(same(value, plane<T>(p), 4e-6F)) << p.x << ' ' << p.y;
                    }
                    if constexpr (std::is_same_v<T, float>) {
                        if (linear && function == plane<T> && offset == 7) {
                            ASSERT_TRUE(same(gradient, kSlope, 2e-4F));
                        }
                        if (linear) continue;
                    }
                    ASSERT_TRUE(same(gradient, fresh.grad(p, 0)));
                }
                for (float3 const& p : kNowhere) {
                    EXPECT_TRUE(same(node.eval(p, 0), outside<T>()));
                    EXPECT_TRUE(same(late.eval(p, 0), outside<T>()));
                    GradientOf<T> exact;
                    EXPECT_TRUE(same(node.held().exactGradient(p, exact), outside<T>()));
                    EXPECT_TRUE(same(exact, {}));
                    if (linear && std::is_same_v<T, float>) {
                        EXPECT_TRUE(same(node.grad(p, 0), {}));
                    }
                }
                EXPECT_EQ(node.samplers(), 1);
                // Only a node with a halo keeps its volume when another object comes, of which it
                // has the scale alone.
                bool const keeps = linear && offset == 7;
                auto const other = function == plane<T> ? waves<T> : plane<T>;
                float3 const somewhere{0.12F, 0.03F, -0.21F};
                late.apply_object(host(build<Traits, T>(other, offset)));
                EXPECT_EQ(late.samplers(), keeps ? 1 : 0);
                EXPECT_EQ(same(late.eval(somewhere, 0), node.eval(somewhere, 0)), keeps);
                late.apply_object(scaled(host(build<Other, T>(other, offset)), 0.5F));
                EXPECT_EQ(same(late.eval(somewhere * 2, 0), node.eval(somewhere, 0)), keeps);
                EXPECT_EQ(late.template state<Traits>().valid, keeps);
                EXPECT_EQ(late.template state<Other>().valid, !keeps);
                EXPECT_EQ(bool(late.template state<Traits>().channel), keeps);
                late.apply_object(host(volume, "e"));
                EXPECT_EQ(late.bound(), keeps);
                EXPECT_TRUE(keeps || same(late.eval(somewhere, 0), T{}));
            }
        }
    });
}

TEST(VolumeNodes, AnswerZeroForOtherSamplerTypes) {
    auto const object = host(build<QuinaryTraits, float>(plane<float>));
    for (int const number : {3, -1, 2147483647}) {
        Scalar const node(object, "d", SamplerType(number));
        EXPECT_TRUE(node.bound() && !node.held().hasHalo());
        EXPECT_TRUE(same(node.eval({0.1F, 0, 0}, 0), 0.0F) && same(node.grad({0.1F, 0, 0}, 0), {}));
        float3 exact{1, 2, 3};
        EXPECT_EQ(node.held().exactGradient({0.1F, 0, 0}, exact), 0);
        EXPECT_TRUE(same(exact, {}));
        EXPECT_EQ(node.samplers(), 0);
    }
}

TEST(VolumeNodes, StayUnboundWithoutAllComponents) {
    using namespace Orvane::Geometry;
    auto const binary = build<BinaryTraits, float>(plane<float>);
    auto const quinary = build<QuinaryTraits, float>(plane<float>);
    auto const vectors = build<QuinaryTraits, float3>(plane<float3>);
    auto const without = [&](auto const& volume, Quern::String const& name,
                             Ptr<ORV::Component> const& instead = {}) {
        auto const changed = object(volume);
        changed->setComponent(name, instead);
        return changed;
    };
    for (SamplerType const type : kTypes)
        for (auto const& broken :
             {Ptr<ORV::Object>(), without(binary, sVoxelTileTree), without(binary, sVoxelComp),
              without(binary, "d"), without(quinary, "d"), object(quinary, "e"), object(vectors),
              without(quinary, sVoxelTileTree, binary.container),
              without(binary, sVoxelComp, quinary.topology), without(quinary, "d", binary.channel),
              without(binary, "d", binary.container), makePtr<ORV::Object>()}) {
            Orvane::Object object;
            if (broken) setVolume(object, broken);
            Scalar const node(object, "d", type);
            ScalarLate late("d", type);
            late.apply_object(object);
            EXPECT_FALSE(node.bound() || late.bound());
            float3 const p{0.1F, 0, 0};
            EXPECT_TRUE(same(node.eval(p, 0), 0.0F) && same(node.grad(p, 0), {}));
            EXPECT_TRUE(same(late.eval(p, 0), 0.0F) && same(late.grad(p, 0), {}));
            // A node that is not bound takes the next volume.
            late.apply_object(host(quinary));
            EXPECT_TRUE(same(late.eval({0.1F, 0, 0}, 0), 1.2F, 1e-6F));
        }
    struct Odd : Orvane::Object {
        Quern::Any property(Quern::StringView) const override { return 3; }
    };
    EXPECT_FALSE(Scalar(Odd(), "d", SamplerType::kLinear).bound());
}

TEST(VolumeNodes, AskADerivedClassForTheDifferencesOfCubicGradients) {
    struct Counted : zel::ScalarOrvane {
        using zel::ScalarOrvane::eval;
        using zel::ScalarOrvane::ScalarOrvane;
        float eval(float3 const& p, long long i) const override {
            return calls += i == 12, 2 * zel::ScalarOrvane::eval(p, i);
        }
        mutable int calls = 0;
    };
    auto const object = host(build<QuinaryTraits, float>(plane<float>));
    Counted const node(object, "d", SamplerType::kCubicC1);
    EXPECT_TRUE(same(node.grad({-0.2F, -0.1F, -0.3F}, 12), kSlope * 2, 1e-3F));
    EXPECT_EQ(node.calls, 6);
}

// The scale of triggered nodes.

TEST(VolumeScale, MovesPositionsAndLeavesGradientsOfTheVolume) {
    auto const curved = build<BinaryTraits, float>(waves<float>);
    for (SamplerType const type : kTypes)
        for (float const scale : {2.0F, 0.0F, -0.5F, 1.0F, support::kInf, support::kNaN}) {
            Scalar const plain(host(curved), "d", type);
            ScalarLate late("d", type);
            late.apply_object(scaled(host(curved), scale));
            for (float3 const& p : positions(100, 0.2F)) {
                ASSERT_TRUE(same(late.eval(p, 0), plain.eval(p * scale, 0)));
                ASSERT_TRUE(same(late.grad(p, 0), plain.grad(p * scale, 0)));
            }
        }
    // Of a vector it is the node's own.
    VectorLate late("d", SamplerType::kLinear);
    late.apply_object(scaled(host(build<QuinaryTraits, float3>(plane<float3>)), -0.5F));
    EXPECT_TRUE(same(late.grad({0.2F, 0.1F, 0.3F}, 0)[0], kSlope * -0.5F, 2e-3F));
}

TEST(VolumeScale, StaysWithoutAFloat) {
    auto const object = host(build<BinaryTraits, float>(plane<float>));
    float3 const p{0.05F, 0.1F, -0.1F};
    for (SamplerType const type : kTypes) {
        ScalarLate node("d", type);
        auto const applied = [&](Orvane::Object const& to, Quern::Any const& scale) {
            node.apply_object(scaled(to, scale));
            return node.eval(p, 0);
        };
        EXPECT_EQ(applied({}, 2.0F), 0);  // without a volume the scale is taken all the same
        for (Quern::Any const& other : {Quern::Any(), Quern::Any(3.0)})
            EXPECT_TRUE(same(applied(object, other), plane<float>(p * 2), 1e-6F));
        EXPECT_TRUE(same(applied({}, -2.0F), plane<float>(p * -2), 1e-6F));  // the volume stays
    }
}

// Where halos come from.

TEST(VolumeHalo, AndCoarseSamplesAreTheSameWhateverTheThreadHasSet) {
    auto const at = positions(2000);
    for (VoxelOffsetType const offset : {7, 0}) {  // samples on corners, and means of finer ones
        auto const bind = [&] {
            return Scalar(host(build<BinaryTraits, float>(waves<float>, offset)), "d",
                          SamplerType::kLinear);
        };
        auto const expected = bind().eval(at);
        // An arena gives its tasks the modes in which it began.
        auto const bindInArena = [&] { return tbb::task_arena(2).execute(bind); };
        for (int const direction : support::kDirections)
            EXPECT_EQ(*support::inModes(direction, bindInArena).eval(at), *expected);
    }
}

TEST(VolumeHalo, ComesFromThePoolsAndGoesBack) {
    auto const object = host(build<BinaryTraits, float>(waves<float>));
    for (int const pools : {0, 1, 2, 3}) {
        ChannelMemoryPool::setEnabled(pools & 1);
        ChannelPool::setEnabled(pools & 2);
        for (int round = 0; round < 2; ++round) {  // the second takes what the first gave back
            Scalar const node(object, "d", SamplerType::kLinear);
            EXPECT_EQ(ChannelPool::heldBytes() + ChannelMemoryPool::heldBytes(), 0U) << pools;
        }
        EXPECT_EQ(ChannelPool::heldBytes() > 0, pools >= 2);
        EXPECT_EQ(ChannelMemoryPool::heldBytes() > 0, pools == 1);
    }
    ChannelPool::setEnabled(false);
    ChannelMemoryPool::setEnabled(false);
}

}  // namespace
