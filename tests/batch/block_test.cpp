#include <tbb/global_control.h>
#include <tbb/task_arena.h>

#include <cstdlib>
#include <map>
#include <stdexcept>
#include <thread>

#include "support/random_nodes.h"
#include "support/refused.h"
#include "support/sanitized.h"
#include "zel/node/node_impl.h"
#include "zel_platform/quern_core/simd_target.h"

// Evaluation in blocks: that it gives what points give, and asks nodes no more than it may.
namespace {

using namespace zel;
using namespace support;

/// Of the random trees. Another one may be set, to look for more faults.
unsigned seed() {
    char const* const set = std::getenv("ZEL_TEST_SEED");
    return set ? static_cast<unsigned>(std::strtoul(set, nullptr, 10)) : 101;
}

/// Values and gradients of a tree in all ways, with each instruction set, against points.
template <class Interface>
void expectEqual(Interface const& tree, Quern::Array<float3> const& positions) {
    std::vector<std::pair<typename Interface::Value, typename Interface::Gradient>> expected;
    for (long long i = 0; i < positions.size(); ++i)
        expected.emplace_back(tree.eval(positions[i], i), tree.grad(positions[i], i));
    for (Quern::SimdTarget const& target : Quern::simdTargets()) {
        SCOPED_TRACE(target.name);
        Quern::useSimdTarget(target);
        auto const values = tree.eval(positions);
        auto const gradients = Core::Fields::grad(tree, positions);
        auto const both = Core::Fields::evalAndGrad(tree, positions);
        ASSERT_EQ(values->size(), positions.size());
        for (long long i = 0; i < positions.size(); ++i) {
            auto const& [value, gradient] = expected[static_cast<std::size_t>(i)];
            ASSERT_TRUE(same((*values)[i], value)) << i;
            ASSERT_TRUE(same((*both.values)[i], value)) << i;
            ASSERT_TRUE(same((*gradients)[i], gradient)) << i;
            ASSERT_TRUE(same((*both.gradients)[i], gradient)) << i;
        }
    }
    Quern::useSimdTarget(Quern::simdTargets().front());
}
/// On that many threads, which may be more than the machine has cores.
template <class Tree>
void expectEqual(Tree const& tree, Quern::Array<float3> const& positions, int threads) {
    tbb::global_control const limit(tbb::global_control::max_allowed_parallelism,
                                    static_cast<std::size_t>(threads));
    tbb::task_arena(threads).execute([&] { expectEqual(tree, positions); });
}

/// Enough for one thread to evaluate the tree by fused nodes, and no multiple of a block.
Quern::Array<float3> const& manyPositions() {
    static auto const positions = somePositions(5001);
    return positions;
}

template <class Interface>
void expectValues(Interface const& tree, Quern::Array<float3> const& positions) {
    auto const values = tree.eval(positions);
    for (long long i = 0; i < positions.size(); ++i)
        ASSERT_TRUE(same((*values)[i], tree.eval(positions[i], i))) << i;
}

/// Makes nodes of a class.
template <class Node, class Interface = ScalarField>
constexpr auto make =
    [](auto... arguments) { return Quern::Ptr<Interface>(makePtr<Node>(std::move(arguments)...)); };
constexpr auto x = make<ScalarFieldXPosition>;
constexpr auto y = make<ScalarFieldYPosition>;
constexpr auto z = make<ScalarFieldZPosition>;
constexpr auto constant = [](float value) { return make<ScalarFieldConstant>(value); };
constexpr auto add = make<ScalarFieldAdd>;
constexpr auto subtract = make<ScalarFieldSubtract>;
constexpr auto multiply = make<ScalarFieldMultiply>;
constexpr auto negative = make<ScalarFieldNegative>;
constexpr auto absolute = make<ScalarFieldAbsolute>;
constexpr auto sine = make<ScalarFieldSine>;
constexpr auto lesser = make<ScalarFieldMin>;
constexpr auto greater = make<ScalarFieldMax>;
constexpr auto choose = make<ScalarFieldSwitch>;
constexpr auto warp = make<ScalarFieldWarp>;
constexpr auto vector = make<VectorFieldFromComponents, VectorField>;

TEST(Block, EqualsPointsToTheBit) {
    constexpr long long kCounts[] = {0, 1, 2, 3, 63, 64, 65, 127, 128, 129, 255, 256, 257, 1000};
    unsigned number = seed();
    forEveryNode([&](std::string const& name, auto construct) {
        for (int round = 0; round < (support::kIsSanitized ? 6 : 16); ++round, ++number) {
            SCOPED_TRACE(name + ", ZEL_TEST_SEED=" + std::to_string(seed()));
            auto const node = RandomNodes(number).make(construct);
            auto const positions = somePositions(kCounts[number % std::size(kCounts)], number);
            ASSERT_NO_FATAL_FAILURE(expectEqual(*node, positions, 1 << number % 3));
            auto const exact = withExactGradients(node);
            ASSERT_NO_FATAL_FAILURE(expectEqual(*exact, positions, 1));
            for (long long i = 0; i < positions.size(); ++i)
                ASSERT_TRUE(same(exact->eval(positions[i], i), node->eval(positions[i], i)));
        }
    });
    auto const positions = somePositions(100003);
    RandomNodes nodes(5);
    ScalarFieldLerp const tree(nodes, nodes, nodes);
    for (int const threads : {1, 2, 4}) expectEqual(tree, positions, threads);
}

TEST(Block, WorksOutNodesTogetherAsPointsDo) {
    unsigned const count = support::kIsSanitized ? 25 : 100;
    for (unsigned number = seed(); number < seed() + count; ++number) {
        SCOPED_TRACE("ZEL_TEST_SEED=" + std::to_string(number));
        // Some have more nodes than are worked out together.
        ScalarPtr const tree = RandomTrees(number, 2 + number % 100 * (number % 4));
        ASSERT_NO_FATAL_FAILURE(expectEqual(*tree, manyPositions(), number % 4 == 0 ? 2 : 1));
    }
    ScalarPtr const volume = makePtr<ScalarOrvane>(boundObject<ORV::TileTree3D::QuinaryTraits>(),
                                                   "scalar", SamplerType::kLinear);
    expectEqual(*withExactGradients(ScalarPtr(multiply(volume, x()))), manyPositions(), 1);
}

TEST(Block, FollowsPositionsThatMoveAlongOneAxis) {
    ScalarPtr const shared =
        add(makePtr<ScalarFieldSphere>(float3{0, 0.1F, 0}, 1.0F), absolute(y()));
    for (unsigned axis = 0; axis < 3; ++axis) {
        auto const moved = [&](ScalarPtr const& there) {
            std::array<ScalarPtr, 3> at{x(), y(), z()};
            at[axis] = there;
            return warp(shared, vector(at[0], at[1], at[2]));
        };
        ScalarPtr const other = axis == 2 ? x() : z();
        expectEqual(*add(moved(sine(other)), moved(other)), manyPositions(), 1);
    }
}

/// Batches of what follows run on one thread: their leaves keep count.
class OnOneThread : public testing::Test {
    tbb::global_control const m_limit{tbb::global_control::max_allowed_parallelism, 1};
};
using BlockCalls = OnOneThread;
using Fusion = OnOneThread;

TEST_F(Fusion, TellsMoreConstantsApartThanItRemembers) {
    ScalarPtr all = y();
    for (int i = 1; i < 100; ++i)
        all = add(std::move(all), multiply(constant(static_cast<float>(i)), z()));
    expectValues(*all, manyPositions());
}

/// A user's operator, whose value and block form are functions of its children.
struct UserNode : FieldNode<UserNode, ScalarField> {
    using Values = void (*)(UserNode const&, Block&, BlockResult<float>&);
    UserNode(ScalarPtr a, ScalarPtr b, float (*value)(UserNode const&, float3 const&),
             Values values)
        : a(std::move(a)), b(std::move(b)), value(value), values(values) {}
    using ScalarField::eval;
    float eval(float3 const& p, long long) const override { return value(*this, p); }
    void blockValues(Block& block, BlockResult<float>& out) const { values(*this, block, out); }
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }

    ScalarPtr a, b;
    float (*value)(UserNode const&, float3 const&);
    Values values;
    ScalarField const* parent = nullptr;
};
constexpr auto kPass = [](float value) { return value; };

/// Calls `work` for the block whose positions lie `by` further along x.
void atMoved(Block& block, float by, auto const& work) {
    Block::Frame const frame(block);
    auto moved = block.result<float3>();
    mapBlock(
        block, moved,
        [by](float3 const& p) {
            return float3{p.x + by, p.y, p.z};
        },
        block.positions());
    block.withPositions(moved.columns, work);
}

TEST_F(Fusion, MayBeAskedByItsOwnChild) {
    auto const again = makePtr<UserNode>(
        y(), y(),
        [](UserNode const& node, float3 const& p) {
            return p.x < 1 ? p.y : node.parent->eval({p.x - 1, p.y, p.z}, 0);
        },
        [](UserNode const& node, Block& block, BlockResult<float>& out) {
            if (block.positions()[0].x < 1) return out.set(block.positions().part(1));
            atMoved(block, -1,
                    [&](Block& there) { mapBlock(there, out, kPass, there.values(*node.parent)); });
        });
    ScalarPtr const tree = add(multiply(x(), x()), again);
    again->parent = tree.get();
    expectValues(*tree, Quern::Array<float3>(manyPositions().size(), float3{3.5F, 2, 1}));
}

/// Counts its calls by element, and notes whether they come in rising order.
struct Counted : OwnScalar {
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override {
        rising &= counts.empty() || i >= counts.rbegin()->first;
        ++counts[i];
        return OwnScalar::eval(p, i);
    }
    mutable std::map<long long, int> counts;
    mutable bool rising = true;
};

TEST_F(BlockCalls, AskALeafNoMoreOftenThanItsTreeNeeds) {
    auto const leaf = makePtr<Counted>();
    ScalarPtr shared = negative(leaf);
    ScalarPtr deep = shared;
    for (int i = 0; i < 40; ++i) {
        deep = add(deep, deep);
        // Each child of a switch adds the positions at which the block lacks its values.
        if (i % 4 == 0) deep = choose(deep, deep, lesser(deep, deep));
        if (i % 4 == 1) deep = add(choose(x(), deep, constant(1)), deep);
        if (i % 4 == 2) deep = multiply(deep, constant(0.1F));
    }
    ScalarPtr const moved = makePtr<ScalarFieldTranslate>(leaf, float3{1, 2, 3}), one = x();
    VectorPtr const moves = vector(x(), leaf, y());
    shared = negative(absolute(leaf));
    auto const user = makePtr<UserNode>(
        shared, y(), [](UserNode const& node, float3 const& p) { return node.a->eval(p, 0); },
        [](UserNode const& node, Block& block, BlockResult<float>& out) {
            mapBlock(block, out, kPass, block.values(node.a));
        });

    using Times = int (*)(float3 const&);
    Times const never = [](float3 const&) { return 0; }, once = [](float3 const&) { return 1; },
                twice = [](float3 const&) { return 2; },
                ifLess = [](float3 const&p) { return p.x < p.y ? 3 : 1; };
    struct Row {
        char const* name;
        ScalarPtr tree;
        Times forValues, forGradients;  // at most so many values of the leaf at a position
        bool inRisingOrder = true;
    };
    for (auto const& [name, tree, forValues, forGradients, inRisingOrder] :
         std::initializer_list<Row>{
             {"shared node", deep, once, once, false},
             {"shared transform over a user's leaf", add(moved, moved), once, never},
             {"user's leaf with two parents", add(leaf, leaf), twice, never, false},
             {"node shared by a fused parent and a user's",
              add(multiply(std::move(shared), x()), user), once, nullptr},
             {"first choice", choose(x(), leaf, y()),
              [](float3 const& p) { return p.x > 0 ? 1 : 0; }, never},
             {"second choice", choose(x(), y(), leaf),
              [](float3 const& p) { return p.x > 0 ? 0 : 1; }, never},
             {"lesser child, through a warp", lesser(warp(x(), moves), y()), once, ifLess},
             {"lesser child, through a switch", lesser(choose(add(leaf, y()), one, one), y()), once,
              ifLess}})
        for (bool const gradients : {false, true}) {
            SCOPED_TRACE(std::string(name) + (gradients ? ", gradients" : ", values"));
            Times const times = gradients ? forGradients : forValues;
            if (!times) continue;
            *leaf = Counted();
            if (gradients)
                Core::Fields::grad(*tree, manyPositions());
            else
                tree->eval(manyPositions());
            for (long long i = 0; i < manyPositions().size(); ++i)
                ASSERT_LE(leaf->counts[i], times(manyPositions()[i])) << i;
            EXPECT_TRUE(leaf->rising || gradients || !inRisingOrder);
        }
}

TEST_F(BlockCalls, AskATimeForNoGradientThatPointsDoNotNeed) {
    struct Time : OwnScalar {
        float3 grad(float3 const&, long long) const override { throw std::runtime_error("asked"); }
    };
    ScalarPtr const noise = make<ScalarFieldSimplexNoise>(makePtr<Time>(), 7);
    auto const tree = withExactGradients(ScalarPtr(lesser(absolute(noise), constant(-1))));
    EXPECT_NO_THROW(Core::Fields::evalAndGrad(*tree, manyPositions()));
}

TEST_F(BlockCalls, OfTwoChildrenThatThrowTheFirstIsHeard) {
    auto const throwing = [](char const* what) {
        return makePtr<FunctionField>([what](float3 const& p, long long i) {
            return i == manyPositions().size() - 1 ? throw std::runtime_error(what) : p.x;
        });
    };
    ScalarPtr const tree = subtract(absolute(throwing("first")), negative(throwing("second")));
    expectRefused<std::runtime_error>([&] { tree->eval(manyPositions()); }, "first");
}

TEST_F(BlockCalls, RetirePointsThatHaveCome) {
    // The transform leaves a position alone, or moves it on by 0.5 each time.
    std::map<long long, int> counts;
    auto const distance = makePtr<FunctionField>([&](float3 const& p, long long i) {
        ++counts[i];
        return p.x > 0 ? 0.0F : 0.5F;
    });
    distance->gradient = [](float3 const&, long long) { return float3{1, 0, 0}; };
    VectorPtr const tree = makePtr<VectorFieldIteratedNearPointTransform>(distance, 0.1F, 5);
    auto const positions = somePositions(500);
    expectEqual(*tree, positions);
    counts.clear();
    tree->eval(positions);
    for (long long i = 0; i < positions.size(); ++i)
        if (length(positions[i]) < 1e6F) {
            ASSERT_EQ(counts[i], positions[i].x > 0 ? 2 : 6) << positions[i].x;
        }
}

/// A user's leaf with a block form.
struct Guarded : LeafNode<Guarded, ScalarField> {
    float valueOf(float3 const& p, long long) const { return p.x; }
    float3 gradientOf(float3 const& p, long long) const {
        if (p.x < 0) throw std::domain_error("not asked by points");
        return {1, 0, 0};
    }
};
/// A user's node that derives from a node of the library.
template <class Node> struct Halved : Node {
    using Node::eval, Node::Node;
    auto eval(float3 const& p, long long i) const -> typename Node::Value override {
        return Node::eval(p, i) * 0.5F;
    }
    auto grad(float3 const& p, long long i) const -> typename Node::Gradient override {
        return Node::grad(p, i) * 0.5F;
    }
};

TEST(Block, TreatsNodesOfUsersAsPointsDo) {
    expectEqual(*greater(makePtr<Guarded>(), constant(0)), somePositions(1000));

    // A node that evaluates one child at other positions while the other is under way.
    ScalarPtr const g = sine(y());
    ScalarPtr tree = makePtr<UserNode>(
        makePtr<ScalarFieldCosine>(g), g,
        [](UserNode const& node, float3 const& p) {
            return node.a->eval({p.x + 1, p.y, p.z}, 0) * node.b->eval(p, 0);
        },
        [](UserNode const& node, Block& block, BlockResult<float>& out) {
            atMoved(block, 1, [&](Block& there) {
                auto const product = [](float a, float b) { return a * b; };
                mapBlock(there, out, product, there.values(node.a), block.values(node.b));
            });
        });
    for (int i = 0; i < 40; ++i) {  // enough to write over results that were given up
        ScalarPtr const twice = sine(x());
        tree = add(tree, add(twice, twice));
    }
    expectEqual(*multiply(tree, g), somePositions(1000));

    for (ScalarPtr const& own : std::initializer_list<ScalarPtr>{
             makePtr<Halved<ScalarFieldSwitch>>(x(), y(), z()),
             makePtr<Halved<ScalarFieldMultiply>>(x(), y()),
             makePtr<Halved<ScalarFieldMax>>(x(), y()),
             makePtr<Halved<ScalarFieldRotate>>(x(), float3{1, 2, 3}),
             makePtr<Halved<ScalarFieldSphere>>(float3{}, 1.0F),
             makePtr<Halved<ScalarFieldDivergence>>(makePtr<VectorFieldPosition>())}) {
        expectEqual(*lesser(add(own, x()), own), manyPositions());
        expectEqual(*own, somePositions(300));
    }
}

TEST(BlockDeathTest, RunsWhileTheObjectsOfTheThreadAreDestroyed) {
    struct AtExit {
        ~AtExit() {
            for (long long const count : {1, 5001}) {
                Quern::Array<float3> const at(count, float3{1, 2, 3});
                long long const last = count - 1;
                if (!same((*tree->eval(at))[last], tree->eval(at[last], last))) std::_Exit(1);
            }
        }
        RandomNodes nodes{3};
        ScalarPtr tree = makePtr<ScalarFieldLerp>(nodes, nodes, nodes);
    };
    EXPECT_EXIT(
        {
            static AtExit const last;
            last.tree->eval(somePositions(1));
            std::thread([] {
                thread_local AtExit const ofThread;
                ofThread.tree->eval(somePositions(1));
            }).join();
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST(Block, SurvivesExceptionsAndBatchesInsideOfIt) {
    long long bad = -1;
    RandomNodes const nodes(11);
    ScalarPtr const inside = makePtr<ScalarFieldLerp>(nodes, nodes, nodes);
    auto const inner = makePtr<FunctionField>([&](float3 const& p, long long i) {
        if (i == bad) throw std::runtime_error("element");
        if (i % 100 != 0) return p.x;
        Quern::Array<float3> const there(i == 2600 ? 5001 : 5, p);
        return (*inside->eval(there))[4] + (*Core::Fields::grad(*inside, there))[2].x;
    });
    ScalarPtr const shared = negative(inner);
    ScalarPtr const tree =
        add(makePtr<ScalarFieldTranslate>(shared, float3{1, 2, 3}), multiply(shared, shared));
    for (int round = 0; round < 3; ++round) {
        bad = 2700 + round;
        EXPECT_THROW(tree->eval(manyPositions()), std::runtime_error);
        EXPECT_THROW(Core::Fields::grad(*tree, manyPositions()), std::runtime_error);
        bad = -1;
        expectValues(*tree, manyPositions());
    }
}

}  // namespace
