#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include "faults/every_failure.h"
#include "support/random_nodes.h"
#include "zel_platform/orvane_geometry_volume/array_pool.h"
#include "zel_platform/orvane_geometry_volume/channel_pool.h"
#include "zel_scene/bind.h"
#include "zel_scene/compare.h"
#include "zel_scene/describe.h"
#include "zel_scene/json.h"
#include "zel_scene/register_node.h"

namespace {

using namespace zel;
using namespace faults;
using namespace ORV::TileTree3D;
using Quern::makePtr;
using support::somePositions;

/// Without other threads, whose part in the work varies.
class Faults : public testing::Test {
    tbb::global_control limit{tbb::global_control::max_allowed_parallelism, 1};
};

/// A tree with nodes of many classes, some shared, and leaves that wait for an object.
ScalarPtr makeTree(unsigned seed = 3, bool binds = true) {
    support::RandomNodes nodes(seed, binds);
    nodes.make<VectorField>([](support::RandomNodes const& from) {
        return VectorPtr(makePtr<VectorFieldLerp>(VectorFieldLerp{from, from, from}));
    });
    return nodes.make<ScalarField>([](support::RandomNodes const& from) {
        return ScalarPtr(makePtr<ScalarFieldAdd>(ScalarFieldAdd{from, from}));
    });
}

template <class Interface> Bits bitsOf(Interface const& field) {
    Bits bits;
    static auto const positions = somePositions(20);
    for (long long i = 0; i < positions.size(); ++i)
        bits << field.eval(positions[i], i) << field.grad(positions[i], i);
    return bits;
}

/// Work that makes a value from a tree, which it leaves as it is. `show` has the value's bits.
template <class Make, class Show>
Case making(std::string const& name, Make const& make, Show const& show, bool binds = true) {
    return {name, [=] {
                using Made = decltype(make(ScalarPtr()));
                struct State {
                    ScalarPtr tree;
                    std::optional<Made> made;
                };
                auto const state = std::make_shared<State>();
                state->tree = makeTree(3, binds);
                return Attempt{[=] { state->made.emplace(make(state->tree)); },
                               [=] {
                                   Bits bits = bitsOf(*state->tree);
                                   return state->made ? bits << show(*state->made) : bits;
                               }};
            }};
}

/// The tree copied in one way or another, with leaves bound on the way.
auto const kShowTree = [](ScalarPtr const& tree) { return bitsOf(*tree); };

struct WholeWalk : FieldVisitor {
    using FieldVisitor::operator();
    void operator()(Field& node) override { node.accept(*this); }
};

TEST_F(Faults, OfMakingAndCopyingTrees) {
    std::vector<Case> const cases{
        making(
            "make",
            [](ScalarPtr const& tree) -> ScalarPtr {
                auto const a = makePtr<VectorFieldAdvect>(makePtr<VectorFieldPosition>(),
                                                          makePtr<ScalarFieldGradient>(tree), 1.0F);
                auto const late = makePtr<ScalarOrvaneTriggered>("d", SamplerType::kLinear);
                return makePtr<ScalarFieldAdd>(makePtr<VectorFieldDotProduct>(a, a), late);
            },
            kShowTree),
        making(
            "clone", [](ScalarPtr const& tree) { return tree.clone(); }, kShowTree),
        making(
            "withExactGradients", [](ScalarPtr const& tree) { return withExactGradients(tree); },
            kShowTree),
        making(
            "hasExactGradients",
            [](ScalarPtr const& tree) { return hasExactGradients(*tree).differences; },
            [](std::vector<std::string> const& names) { return Bits() << names; }),
        making(
            "accept",
            [](ScalarPtr const& tree) {
                ScalarPtr copy = tree.clone();
                WholeWalk walk;
                copy->accept(walk);
                return copy;
            },
            kShowTree)};
    for (Case const& one : cases) failEach(one);
}

/// The results at as many positions as take point calls, blocks, and fused blocks.
template <class Interface> void batches(Interface const& field, Bits& bits) {
    static auto const many = somePositions(2100), few = somePositions(2), none = somePositions(0);
    for (auto const* const positions : {&few, &many, &none}) {
        bits << *field.eval(*positions) << *Core::Fields::grad(field, *positions);
        auto const both = Core::Fields::evalAndGrad(field, *positions);
        bits << *both.values << *both.gradients;
    }
}

TEST_F(Faults, OfBatches) {
    unsigned seed = 0;
    support::forEveryNode([&](std::string const& name, auto construct) {
        failEach({name, [=, seed = seed++] {
                      struct State {
                          decltype(support::RandomNodes(0).make(construct)) node;
                          std::optional<Bits> results;
                      };
                      auto const state = std::make_shared<State>();
                      state->node = support::RandomNodes(seed).make(construct);
                      return Attempt{[=] {
                                         Bits bits;
                                         batches(*state->node, bits);
                                         state->results = std::move(bits);
                                     },
                                     [=] { return state->results.value_or(Bits()); }};
                  }});
    });
}

template <class Traits, class T>
Bits bitsOf(Container<Traits> const& tree, DataChannel<Traits, T> const* channel) {
    Bits bits;
    for (int depth = 0; depth <= tree.depth(); ++depth) {
        bits << static_cast<float>(tree.tileCount(depth));
        if (!channel || !channel->fits(tree)) continue;
        T const* const samples = channel->samples({0, depth});
        for (long long i = 0; i < channel->elementCount(depth); ++i) bits << samples[i];
    }
    return bits;
}

/// Work on a volume of its own, whose samples may be overwritten in part when it fails.
template <class Traits, class T> struct VolumeCase {
    using Made = Volume<Traits, T>;

    static Case of(std::string const& name, std::function<void(Made&)> const& work,
                   bool keepsSamples) {
        return {name, [=] {
                    auto const volume =
                        std::make_shared<Made>(volumes::build<Traits, T>(volumes::waves<T>));
                    auto const done = std::make_shared<bool>(false);
                    return Attempt{[=] {
                                       work(*volume);
                                       *done = true;
                                   },
                                   [=] {
                                       bool const reads = keepsSamples || *done;
                                       return bitsOf(*volume->container,
                                                     reads ? volume->channel.get() : nullptr);
                                   }};
                }};
    }
};

TEST_F(Faults, OfVolumes) {
    using Traits = BinaryTraits;
    using Of = VolumeCase<Traits, float>;
    static ScalarPtr const ball = makePtr<ScalarFieldAdd>(
        makePtr<ScalarFieldSphere>(float3{}, 0.4F),
        makePtr<ScalarFieldSimplexNoise>(makePtr<ScalarFieldConstant>(0.0F), 3));
    Box const box{{-0.5F, -0.5F, -0.5F}, {0.5F, 0.5F, 0.5F}};
    float const voxel = 1 / static_cast<float>(Traits::kRootWidth);
    auto const replace = [=](bool parallel) {
        return [=](Of::Made& volume) {
            BuildOptions options;
            options.parallel = parallel;
            options.maxDepth = 3;
            volume = buildVolume<Traits>(*ball, box, voxel, 1, options);
        };
    };
    std::vector<Case> const cases{
        Of::of("buildVolume", replace(true), true),
        Of::of("buildVolume, on this thread", replace(false), true),
        Of::of(
            "buildVolume over a tree",
            [](Of::Made& volume) { volume = buildVolume(volume, *ball); }, true),
        Of::of(
            "fillChannel",
            [](Of::Made& volume) { fillChannel(*volume.channel, *volume.topology, *ball); }, false),
        Of::of(
            "platform buildVolume",
            [](Of::Made& volume) { volume = volumes::build<Traits, float>(volumes::plane<float>); },
            true),
        Of::of(
            "refineTree",
            [](Of::Made& volume) {
                refineTree<Traits>(*volume.container, 3,
                                   [](float3 const& low, float3 const&, int) { return low.x < 0; });
            },
            false),
        Of::of(
            "copy",
            [](Of::Made& volume) {
                volume.container = makePtr<Container<Traits>>(*volume.container);
                auto const channel = makePtr<DataChannel<Traits, float>>(*volume.channel);
                channel->update(*makePtr<VoxelTopology<Traits>>(volume.container));
                volume.channel = channel;
            },
            false),
        Of::of(
            "toVolumeObject",
            [](Of::Made& volume) {
                toVolumeObject({{"d", volume}, {"e", volume}});
            },
            true),
    };
    for (bool const pools : {false, true}) {
        ChannelPool::setEnabled(pools);
        ArrayPool::setEnabled(pools);
        for (Case const& one : cases) {
            failEach(one);
            ChannelPool::clear();
        }
    }
    ChannelPool::setEnabled(false);
    ArrayPool::setEnabled(false);
}

/// A node bound to one object, that is then bound to another.
template <class Node, class... Args> Case binding(std::string const& name, Args const&... args) {
    static auto const earlier = [] {
        Orvane::Object object;
        Orvane::Geometry::setGeoProperty(object, "scalar", 7.0F,
                                         makePtr<Quern::Array<float>>(8LL, 2.5F));
        Orvane::Geometry::setGeoProperty(object, "short", 7.0F,
                                         makePtr<Quern::Array<float>>(8LL, 2.5F));
        Orvane::Geometry::setGeoProperty(object, "vector", float3{7, 7, 7},
                                         makePtr<Quern::Array<float3>>(8LL, float3{1, 2, 3}));
        object.setProperty("scene units in meters", 0.75F);
        return object;
    }();
    return {name, [=] {
                auto const node = makePtr<Node>(args...);
                node->apply_object(earlier);
                return Attempt{[=] { node->apply_object(support::boundObject<BinaryTraits>()); },
                               [=] { return bitsOf(*node); }};
            }};
}

TEST_F(Faults, OfBinding) {
    auto const bindAll = [](ScalarPtr tree) {
        bind(tree, support::boundObject<BinaryTraits>(), makePtr<Quern::Array<long long>>(5LL));
        return tree;
    };
    for (Case const& one :
         {binding<ScalarGeoPropertyTriggered>("ScalarGeoPropertyTriggered", "scalar"),
          binding<ScalarGeoPropertyTriggered>("ScalarGeoPropertyTriggered, converted", "short"),
          binding<VectorGeoPropertyTriggered>("VectorGeoPropertyTriggered", "vector"),
          making("bind", bindAll, kShowTree, false)})
        failEach(one);
    // A volume node throws a copy of the exception, of which the text alone is left, and keeps what
    // it has found until then.
    Case volume =
        binding<ScalarOrvaneTriggered>("ScalarOrvaneTriggered", "scalar", SamplerType::kLinear);
    volume.throwsText = true;
    volume.prepare = [prepare = volume.prepare] {
        return Attempt{prepare().work, [] { return Bits(); }};
    };
    failEach(volume);
}

template <int n> struct Late : ScalarField {};

template <int n> void failToRegister() {
    std::string const name = "Late" + std::to_string(n);
    failAfter(n);
    try {
        registerNode<Late<n>>(name);
        EXPECT_FALSE(endFailures().came);
    } catch (std::bad_alloc const&) {
        endFailures();
        EXPECT_EQ(findNodeClass(name), nullptr);
        EXPECT_EQ(findNodeClass(Late<n>()), nullptr);
        registerNode<Late<n>>(name);
    }
    EXPECT_EQ(findNodeClass(Late<n>()), findNodeClass(name));
}

TEST_F(Faults, OfScenes) {
    registerNode<support::OwnScalar>("OwnScalar");
    registerNode<support::OwnSum>("OwnSum");
    static std::string const text = toJson(makeTree());
    auto const showText = [](std::string const& made) { return Bits() << made; };
    std::vector<Case> const cases{
        making(
            "toJson", [](ScalarPtr const& tree) { return toJson(tree); }, showText),
        making(
            "fromJson", [](ScalarPtr const&) { return scalarFromJson(text); }, kShowTree),
        making(
            "describe", [](ScalarPtr const& tree) { return describe(tree); }, showText),
        making(
            "toDot", [](ScalarPtr const& tree) { return toDot(tree); }, showText),
        making(
            "sameTree", [](ScalarPtr const& tree) { return std::to_string(sameTree(tree, tree)); },
            showText),
        making(
            "hashOf", [](ScalarPtr const& tree) { return std::to_string(hashOf(tree)); }, showText),
        making(
            "check", [](ScalarPtr const& tree) { return check(tree).size(); },
            [](std::size_t count) { return Bits() << static_cast<float>(count); })};
    for (Case const& one : cases) failEach(one);

    // A class each, since a class stays registered.
    [&]<int... n>(std::integer_sequence<int, n...>) {
        (failToRegister<n>(), ...);
    }
    (std::make_integer_sequence<int, 12>());
}

/// Throws at each position, or allocates there.
struct Faulty : ScalarField {
    using ScalarField::eval;
    explicit Faulty(bool throws_) : throws(throws_) {}
    float eval(float3 const& p, long long i) const override {
        if (throws) throw i;
        ::operator delete(::operator new(8));
        return p.x - static_cast<float>(i);
    }
    void preSampleField() const override { ++prepared; }
    void postSampleField() const override { ++released; }
    bool throws;
    mutable int prepared = 0, released = 0;
};

TEST(FaultsOnThreads, ReachTheCallerOnceAndLeaveTheNextTryAlone) {
    constexpr int kThreads = 8;
    tbb::global_control const limit(tbb::global_control::max_allowed_parallelism, kThreads);
    auto const positions = somePositions(20'000);
    auto const tree = makeTree();
    auto const ball = makePtr<ScalarFieldSphere>(float3{}, 0.4F);
    Box const box{{-0.5F, -0.5F, -0.5F}, {0.5F, 0.5F, 0.5F}};
    float const voxel = 1 / static_cast<float>(BinaryTraits::kRootWidth);
    auto const volumeOf = [&](ScalarField const& field) {
        auto const volume = buildVolume<BinaryTraits>(field, box, voxel, 1, {.maxDepth = 3});
        return bitsOf(*volume.container, volume.channel.get());
    };
    Bits const values = Bits() << *tree->eval(positions), samples = volumeOf(*ball);
    for (int const threads : {1, kThreads})
        for (int round = 0; round < 20; ++round) {
            tbb::task_arena arena(threads);
            arena.execute([&] {
                Faulty const faulty(true), fine(false);
                EXPECT_THROW(faulty.eval(positions), long long);
                EXPECT_THROW(volumeOf(faulty), long long);
                EXPECT_EQ(faulty.released, 0);
                (void)fine.eval(positions);
                EXPECT_EQ(std::pair(fine.prepared, fine.released), std::pair(1, 1));

                auto const failing = [](auto const& call) {
                    failAll();
                    EXPECT_THROW(call(), std::bad_alloc);
                    endFailures();
                };
                std::vector<float> to(20'000);
                evaluate(fine, PointView::of({positions.data(), to.size()}), to);
                failing([&] { evaluate(fine, PointView::of({positions.data(), to.size()}), to); });
                failing([&] { (void)volumeOf(*ball); });
                EXPECT_TRUE(values == (Bits() << *tree->eval(positions)));
                EXPECT_TRUE(samples == volumeOf(*ball));
            });
        }
}

}  // namespace
