#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <barrier>
#include <thread>

#include "faults/every_failure.h"
#include "support/random_nodes.h"
#include "support/sanitized.h"
#include "zel_platform/orvane_geometry_volume/array_pool.h"
#include "zel_platform/orvane_geometry_volume/channel_pool.h"
#include "zel_platform/orvane_math/fcurve.h"
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

template <class Interface>
Bits bitsOf(Interface const& field, Quern::Array<float3> const& positions) {
    Bits bits;
    for (long long i = 0; i < positions.size(); ++i)
        bits << field.eval(positions[i], i) << field.grad(positions[i], i);
    return bits;
}
template <class Interface> Bits bitsOf(Interface const& field) {
    static auto const positions = somePositions(20);
    return bitsOf(field, positions);
}

template <class Traits> Bits bitsOf(Volume<Traits, float> const& volume, bool hasSamples) {
    auto const& [tree, topology, channel] = volume;
    Bits bits;
    bits << static_cast<float>(hasSamples && channel->fits(*tree));
    for (int depth = 0; depth <= tree->depth(); ++depth) {
        bits << static_cast<float>(tree->tileCount(depth));
        long long const count = hasSamples ? channel->elementCount(depth) : 0;
        for (long long i = 0; i < count; ++i) bits << channel->samples({0, depth})[i];
    }
    return bits;
}
Bits show(ScalarPtr const& tree) {
    return bitsOf(*tree);
}
template <class Made> Bits show(Made const& made) {
    return Bits() << made;
}

/// Work that makes a value from a tree, which it leaves as it is.
template <class Make> Case making(std::string const& name, Make const& make, bool binds = true) {
    return {name, [=] {
                struct State {
                    ScalarPtr tree;
                    std::optional<decltype(make(ScalarPtr()))> made;
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

struct WholeWalk : FieldVisitor {
    using FieldVisitor::operator();
    void operator()(Field& node) override { node.accept(*this); }
};

TEST_F(Faults, OfMakingAndCopyingTrees) {
    auto const make = [](ScalarPtr const& tree) -> ScalarPtr {
        auto const a = makePtr<VectorFieldAdvect>(makePtr<VectorFieldPosition>(),
                                                  makePtr<ScalarFieldGradient>(tree), 1.0F);
        auto const late = makePtr<ScalarOrvaneTriggered>("d", SamplerType::kLinear);
        return makePtr<ScalarFieldAdd>(makePtr<VectorFieldDotProduct>(a, a), late);
    };
    auto const accept = [](ScalarPtr const& tree) {
        ScalarPtr copy = tree.clone();
        WholeWalk walk;
        copy->accept(walk);
        return copy;
    };
    for (Case const& one :
         {making("make", make), making("accept", accept),
          making("clone", [](ScalarPtr const& tree) { return tree.clone(); }),
          making("withExactGradients", [](ScalarPtr const& t) { return withExactGradients(t); }),
          making("hasExactGradients",
                 [](ScalarPtr const& tree) { return hasExactGradients(*tree).differences; })})
        failEach(one);
}

/// The results at as many positions as take point calls, blocks, and fused blocks.
template <class Interface> void batches(Interface const& field, Bits& bits) {
    static auto const many = somePositions(support::kIsSanitized ? 600 : 2100),
                      few = somePositions(2), none = somePositions(0);
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

/// Work on a volume of its own, after some more. Its samples may be overwritten in part when it
/// fails, unless it keeps them.
template <class Traits>
Case onVolume(std::string const& name, bool keepsSamples,
              std::function<void(Volume<Traits, float>&)> const& work,
              std::function<void(Volume<Traits, float>&)> const& before = {}) {
    return {name, [=] {
                auto const volume = std::make_shared<Volume<Traits, float>>(
                    volumes::build<Traits, float>(volumes::waves<float>));
                if (before) before(*volume);
                auto const done = std::make_shared<bool>(false);
                return Attempt{[=] {
                                   work(*volume);
                                   *done = true;
                               },
                               [=] { return bitsOf(*volume, keepsSamples || *done); }};
            }};
}

/// Work on trees and their channels, which differs in the kinds of trees.
template <class Traits> std::vector<Case> treeCases() {
    using Made = Volume<Traits, float>;
    constexpr int kHalf = static_cast<int>(Traits::kRootWidth / 2),
                  kDeep = Traits::kBranch == 2 ? 3 : 2;
    auto const addTile = [](Made& volume) {
        volume.container->addTile(kHalf - 1, kHalf - 1, kHalf - 1, Traits::kMaxDepth);
    };
    auto const addChild = [](Made& volume) {  // to a tile that gets others
        volume.container->addTile(-kHalf, -kHalf, -kHalf, kDeep);
        volume.channel->update(*volume.topology);
    };
    auto const refine = [](Made& volume) {
        auto const corner = [](float3 const& low, float3 const&, int) {
            return low.x < -0.4F && low.y < -0.4F;
        };
        refineTree<Traits>(*volume.container, kDeep, corner);
    };
    auto const copy = [](Made& volume) {
        volume.container = makePtr<Container<Traits>>(*volume.container);
        auto const channel = makePtr<DataChannel<Traits, float>>(*volume.channel);
        channel->update(*makePtr<VoxelTopology<Traits>>(volume.container));
        volume.channel = channel;
    };
    auto const update = [](Made& volume) {
        volume.channel->setDepth(Traits::kMaxDepth, *volume.topology);
    };
    return {onVolume<Traits>("addTile", true, addTile),
            onVolume<Traits>("refineTree", true, refine, addChild),
            onVolume<Traits>("copy", false, copy),
            onVolume<Traits>("update", true, update, addTile)};
}

TEST_F(Faults, OfVolumes) {
    using Traits = BinaryTraits;
    using Made = Volume<Traits, float>;
    static ScalarPtr const ball = makePtr<ScalarFieldAdd>(
        makePtr<ScalarFieldSphere>(float3{}, 0.4F),
        makePtr<ScalarFieldSimplexNoise>(makePtr<ScalarFieldConstant>(0.0F), 3));
    Box const box{{-0.5F, -0.5F, -0.5F}, {0.5F, 0.5F, 0.5F}};
    float const voxel = 1 / static_cast<float>(Traits::kRootWidth);
    auto const replace = [=](bool parallel) {
        return [=](Made& volume) {
            BuildOptions options;
            options.parallel = parallel;
            options.maxDepth = 3;
            volume = buildVolume<Traits>(*ball, box, voxel, 1, options);
        };
    };
    auto const fill = [](Made& made) { fillChannel(*made.channel, *made.topology, *ball); };
    auto const plane = [](Made& made) {
        made = volumes::build<Traits, float>(volumes::plane<float>);
    };
    auto const toObject = [](Made& made) { toVolumeObject({{"d", made}, {"e", made}}); };
    std::vector<Case> cases{
        onVolume<Traits>("buildVolume", true, replace(true)),
        onVolume<Traits>("buildVolume, on this thread", true, replace(false)),
        onVolume<Traits>("buildVolume over a tree", true,
                         [](Made& volume) { volume = buildVolume(volume, *ball); }),
        onVolume<Traits>("fillChannel", false, fill),
        onVolume<Traits>("platform buildVolume", true, plane),
        onVolume<Traits>("toVolumeObject", true, toObject),
    };
    std::ranges::copy(treeCases<Traits>(), std::back_inserter(cases));
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
    for (Case const& one : treeCases<QuinaryTraits>()) failEach(one);
}

/// Samples of a node that no thread has read before: on corners, and not.
template <class Traits> Case sampling(SamplerType type, VoxelOffsetType offset) {
    auto const volume = volumes::build<Traits, float>(volumes::waves<float>, offset);
    return {"sampling", [=] {
                ScalarPtr const node = withExactGradients(
                    ScalarPtr(makePtr<ScalarOrvane>(volumes::host(volume), "d", type)));
                auto const results = std::make_shared<Bits>();
                return Attempt{[=] { *results = bitsOf(*node, volumes::positions(40)); },
                               [=] { return *results; }};
            }};
}

TEST_F(Faults, OfSampling) {
    for (SamplerType const type : volumes::kTypes)
        for (VoxelOffsetType const offset : {7, 0}) {
            failEach(sampling<BinaryTraits>(type, offset));
            failEach(sampling<QuinaryTraits>(type, offset));
        }
}

/// The whole text arrives, or std::bad_alloc does.
TEST_F(Faults, OfRefusals) {
    auto const refusal = [](std::string const& name, std::function<void()> const& call) -> Case {
        return {name, [=] {
                    auto const text = std::make_shared<Bits>();
                    return Attempt{[=] { *text = refusalOf(call); }, [=] { return *text; }};
                }};
    };
    static ScalarPtr const ball = makePtr<ScalarFieldSphere>(float3{}, 0.4F);
    Box const box{{-0.5F, -0.5F, -0.5F}, {0.5F, 0.5F, 0.5F}};
    auto const curve = [] {
        using enum Orvane::Math::FCurve::Extrapolation;
        Orvane::Math::FCurve({{5.25, 0, 0, 0, {}}, {-1234.125, 0, 0, 0, {}}}, kConstant, kConstant);
    };
    auto const evaluated = [] {
        std::vector<float> to(3);
        auto const positions = somePositions(2);
        evaluate(*ball, PointView::of({positions.data(), 2}), to);
    };
    auto const unbound = [] {
        ScalarPtr tree = makePtr<ScalarGeoPropertyTriggered>("density");
        bindStrictly(tree, Orvane::Object());
    };
    for (Case const& one :
         {refusal("buildVolume", [=] { buildVolume<BinaryTraits>(*ball, box, -1234.5F, 2); }),
          refusal("addTile", [] { Container<BinaryTraits>(1.0F, 10).addTile(1 << 30, 1, 2, 3); }),
          refusal("FCurve", curve), refusal("evaluate", evaluated),
          refusal("fromJson", [] { scalarFromJson(R"({"zel": 1, "root": "none"})"); }),
          refusal("bindStrictly", unbound)})
        failEach(one);
}

TEST_F(Faults, OfPools) {
    ChannelPool::setEnabled(true);
    auto const volume = volumes::build<BinaryTraits, float>(volumes::plane<float>);
    Quern::Ptr<HaloChannel<BinaryTraits, float>> channel;
    for (int n = 0; !channel; ++n) {
        failAfter(n);
        try {
            channel = ChannelPool::allocate<BinaryTraits, float, 5, 0>(1, false, true, 0, 28, 0,
                                                                       volume.topology.get());
            EXPECT_GT(n, 0);
        } catch (std::bad_alloc const&) {
        }
        endFailures();
        EXPECT_EQ(ChannelPool::heldBytes(), 0U);
    }
    failAll();  // no memory to note what comes back
    channel.reset();
    endFailures();
    EXPECT_EQ(ChannelPool::heldBytes(), 0U);
    ChannelPool::setEnabled(false);
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
          making("bind", bindAll, false)})
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

NodeRegistration<support::OwnScalar> const ownScalar("OwnScalar");
NodeRegistration<support::OwnSum> const ownSum("OwnSum");

template <int n> struct Late : ScalarField {};

/// Returns whether memory lacked.
template <int n> bool failToRegister() {
    std::string const name = "Late" + std::to_string(n);
    failAfter(n);
    try {
        registerNode<Late<n>>(name);
        EXPECT_FALSE(endFailures().came);
        EXPECT_EQ(findNodeClass(Late<n>()), findNodeClass(name));
        return false;
    } catch (std::bad_alloc const&) {
        endFailures();
        EXPECT_EQ(findNodeClass(name), nullptr);
        EXPECT_EQ(findNodeClass(Late<n>()), nullptr);
        registerNode<Late<n>>(name);
        EXPECT_EQ(findNodeClass(Late<n>()), findNodeClass(name));
        return true;
    }
}

TEST_F(Faults, OfScenes) {
    static std::string const text = toJson(makeTree());
    using Tree = ScalarPtr const&;
    for (Case const& one :
         {making("toJson", [](Tree tree) { return toJson(tree); }),
          making("fromJson", [](Tree) { return scalarFromJson(text); }),
          making("describe", [](Tree tree) { return describe(tree); }),
          making("toDot", [](Tree tree) { return toDot(tree); }),
          making("sameTree", [](Tree tree) { return std::to_string(sameTree(tree, tree)); }),
          making("hashOf", [](Tree tree) { return std::to_string(hashOf(tree)); }),
          making("check", [](Tree tree) { return std::to_string(check(tree).size()); })})
        failEach(one);

    // A class each, since a class stays registered.
    [&]<int... n>(std::integer_sequence<int, n...>) {
        EXPECT_FALSE((failToRegister<n>() && ...));
    }
    (std::make_integer_sequence<int, 12>());
}

TEST(FaultsOnThreads, ReachTheCallerOnceAndLeaveTheNextTryAlone) {
    constexpr int kThreads = 8;
    tbb::global_control const limit(tbb::global_control::max_allowed_parallelism, kThreads);
    auto const positions = somePositions(20'000);
    auto const tree = makeTree();
    auto const ball = makePtr<ScalarFieldSphere>(float3{}, 0.4F);
    Box const box{{-0.5F, -0.5F, -0.5F}, {0.5F, 0.5F, 0.5F}};
    float const voxel = 1 / static_cast<float>(BinaryTraits::kRootWidth);
    auto const volumeOf = [&](ScalarField const& field) {
        return bitsOf(buildVolume<BinaryTraits>(field, box, voxel, 1, {.maxDepth = 3}), true);
    };
    Bits const values = Bits() << *tree->eval(positions), samples = volumeOf(*ball);
    for (int const threads : {1, kThreads})
        for (int round = 0; round < 20; ++round) {
            tbb::task_arena arena(threads);
            arena.execute([&] {
                int prepared = 0, released = 0;
                support::FunctionField faulty(
                    [](float3 const&, long long i) { return throw i, 0.0F; }),
                    fine([](float3 const&p, long long i) {
                        ::operator delete(::operator new(8));
                        return p.x - static_cast<float>(i);
                    });
                fine.pre = [&] { ++prepared; };
                faulty.post = fine.post = [&] { ++released; };
                EXPECT_THROW(faulty.ScalarField::eval(positions), long long);
                EXPECT_THROW(volumeOf(faulty), long long);
                EXPECT_EQ(released, 0);
                (void)fine.ScalarField::eval(positions);
                EXPECT_EQ(std::pair(prepared, released), std::pair(1, 1));

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

TEST(SceneThreads, RegisterClassesWhileOthersReadAndSaveOneTree) {
    constexpr int kThreads = 4;
    std::barrier start(kThreads);
    ScalarPtr const tree = makeTree();
    std::string const text = toJson(tree), lines = describe(tree);
    auto const hash = hashOf(tree);
    auto const add = [&]<int n>(std::integral_constant<int, n>) {
        std::string const name = "Late" + std::to_string(n);
        registerNode<Late<n>>(name);
        EXPECT_EQ(findNodeClass(Late<n>()), findNodeClass(name));
        auto const read = scalarFromJson(R"({"version": 1, "root": {"type": ")" + name + "\"}}");
        EXPECT_TRUE(dynamic_cast<Late<n> const*>(read.get()));
        EXPECT_TRUE(std::ranges::count(nodeClasses(), findNodeClass(name)));
        EXPECT_EQ(toJson(tree), text);
        EXPECT_EQ(describe(tree), lines);
        EXPECT_EQ(hashOf(tree), hash);
        EXPECT_TRUE(sameTree(tree, tree.clone()));
    };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([&, thread] {
            start.arrive_and_wait();
            [&]<int... n>(std::integer_sequence<int, n...>) {
                ((n % kThreads == thread ? add(std::integral_constant<int, 100 + n>()) : void()),
                 ...);
            }
            (std::make_integer_sequence<int, 8 * kThreads>());
        });
    for (std::thread& one : threads) one.join();
}

}  // namespace
