#include <gtest/gtest.h>
#include <tbb/global_control.h>
#include <tbb/task_arena.h>

#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>

#include "support/random_nodes.h"
#include "support/refused.h"
#include "zel/node/node_impl.h"
#include "zel_platform/quern_core/simd_target.h"

// Evaluation in blocks: that it gives what points give, and asks nodes no more than it may.
namespace {

using namespace zel;
using namespace support;

/// Of the random trees. Another one may be set, to look for more faults.
unsigned seed() {
    char const* const set = std::getenv("ZEL_TEST_SEED");
    return set ? static_cast<unsigned>(std::strtoul(set, nullptr, 10)) : 20250117;
}

/// Enough for one thread to work out nodes together, and no multiple of a block.
constexpr long long kManyPositions = 5001;

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

ScalarField const& field(ScalarPtr const& node) {
    return *node;
}

void expectValues(ScalarPtr const& tree, Quern::Array<float3> const& positions) {
    auto const values = field(tree).eval(positions);
    for (long long i = 0; i < positions.size(); ++i)
        ASSERT_TRUE(same((*values)[i], tree->eval(positions[i], i))) << i;
}

ScalarPtr x() {
    return makePtr<ScalarFieldXPosition>();
}
ScalarPtr y() {
    return makePtr<ScalarFieldYPosition>();
}
ScalarPtr z() {
    return makePtr<ScalarFieldZPosition>();
}
ScalarPtr constant(float value) {
    return makePtr<ScalarFieldConstant>(value);
}

TEST(Block, EqualsPointsToTheBit) {
    constexpr long long kCounts[] = {0, 1, 2, 3, 63, 64, 65, 127, 128, 129, 255, 256, 257, 1000};
    unsigned number = seed();
    forEveryNode([&]<class Node>(std::string const& name) {
        for (int round = 0; round < 16; ++round, ++number) {
            SCOPED_TRACE(name + ", ZEL_TEST_SEED=" + std::to_string(seed()));
            auto const node = RandomNodes(number).make<Node>();
            auto const count = kCounts[number % std::size(kCounts)];
            ASSERT_NO_FATAL_FAILURE(
                expectEqual(*node, somePositions(count, number), 1 << number % 3));
        }
    });
    auto const positions = somePositions(100003);
    RandomNodes nodes(5);
    ScalarFieldLerp const tree(nodes, nodes, nodes);
    for (int const threads : {1, 2, 4}) expectEqual(tree, positions, threads);
}

TEST(Block, WorksOutNodesTogetherAsPointsDo) {
    auto const positions = somePositions(kManyPositions);
    for (unsigned number = seed(); number < seed() + 100; ++number) {
        SCOPED_TRACE("ZEL_TEST_SEED=" + std::to_string(number));
        // Some have more nodes than are worked out together.
        ScalarPtr const tree = RandomTrees(number, 2 + number % 100 * (number % 4));
        ASSERT_NO_FATAL_FAILURE(expectEqual(*tree, positions, number % 4 == 0 ? 2 : 1));
    }
}

TEST(Block, FollowsPositionsThatMoveAlongOneAxis) {
    ScalarPtr const shared = makePtr<ScalarFieldAdd>(
        makePtr<ScalarFieldSphere>(float3{0, 0.1F, 0}, 1.0F), makePtr<ScalarFieldAbsolute>(y()));
    for (unsigned axis = 0; axis < 3; ++axis) {
        auto const moved = [&](ScalarPtr const& there) {
            std::array<ScalarPtr, 3> at{x(), y(), z()};
            at[axis] = there;
            return makePtr<ScalarFieldWarp>(
                shared, makePtr<VectorFieldFromComponents>(at[0], at[1], at[2]));
        };
        ScalarPtr const other = axis == 2 ? x() : z();
        expectEqual(*makePtr<ScalarFieldAdd>(moved(makePtr<ScalarFieldSine>(other)), moved(other)),
                    somePositions(kManyPositions), 1);
    }
}

/// Batches of what follows run on one thread: their leaves keep count.
class OnOneThread : public testing::Test {
    tbb::global_control const m_limit{tbb::global_control::max_allowed_parallelism, 1};
};
using BlockCalls = OnOneThread;
using Fusion = OnOneThread;

TEST_F(Fusion, KeepsMoreConstantsThanItRemembers) {
    auto const sum = [](int first) {
        ScalarPtr all = y();
        for (int i = 0; i < 30; ++i)
            all = makePtr<ScalarFieldMax>(
                std::move(all),
                makePtr<ScalarFieldMultiply>(constant(static_cast<float>(first + i)), z()));
        return all;
    };
    // Which constants a range meets first depends on where it is.
    ScalarPtr tree = sum(0);
    for (int k = 1; k < 5; ++k)
        tree = makePtr<ScalarFieldSwitch>(
            makePtr<ScalarFieldSubtract>(x(), constant(0.5F * static_cast<float>(k))),
            sum(k % 2 ? 30 * k : -30 * k), tree);
    Quern::Array<float3> positions = somePositions(100003);
    for (long long i = 0; i < positions.size(); ++i)
        positions[i].x = static_cast<float>(i / 1000 * 7 % 6) / 2;
    expectValues(tree, positions);
}

TEST_F(Fusion, IsOfOneBatchAndTreeAlone) {
    auto const positions = somePositions(kManyPositions);
    for (int round = 0; round < 3; ++round) {
        // What is freed by the one batch is used again by the tree of the other.
        expectValues(makePtr<ScalarFieldAdd>(makePtr<ScalarFieldAdd>(x(), y()), x()), positions);
        VectorPtr const tree = makePtr<VectorFieldFromComponents>(
            makePtr<ScalarFieldAdd>(makePtr<ScalarFieldAdd>(y(), y()), y()), x(), x());
        auto const got = tree->eval(positions);
        for (long long i = 0; i < positions.size(); ++i)
            ASSERT_TRUE(same((*got)[i], tree->eval(positions[i], i))) << i;
    }
}

/// Writes what a node gives at positions that lie `by` further along x.
void writeMoved(Block& block, float by, auto const& work) {
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
constexpr auto kPass = [](float value) { return value; };

/// A field that is made of the one above it, at other positions.
struct Again : FieldNode<Again, ScalarField> {
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override {
        return p.x < 1 ? p.y : above->eval({p.x - 1, p.y, p.z}, i);
    }
    template <class Node> static auto children(Node& node) { return std::tie(node.none); }
    void blockValues(Block& block, BlockResult<float>& out) const {
        if (block.positions()[0].x < 1) return out.set(block.positions().part(1));
        writeMoved(block, -1,
                   [&](Block& there) { mapBlock(there, out, kPass, there.values(*above)); });
    }
    ScalarPtr none = z();
    ScalarField const* above = nullptr;
};

TEST_F(Fusion, MayBeAskedByItsOwnChild) {
    auto const again = makePtr<Again>();
    ScalarPtr const tree = makePtr<ScalarFieldAdd>(makePtr<ScalarFieldMultiply>(x(), x()), again);
    again->above = &field(tree);
    expectValues(tree, Quern::Array<float3>(kManyPositions, float3{3.5F, 2, 1}));
}

/// Remembers how often it was asked for each element, and whether they came in rising order.
struct Counted : OwnScalar {
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override {
        ++counts[i];
        rising &= i >= last;
        last = i;
        return OwnScalar::eval(p, i);
    }
    mutable std::map<long long, int> counts;
    mutable long long last = -1;
    mutable bool rising = true;
};

/// Expects that values and gradients of `tree` ask `leaf` as often as `times` says of each
/// position.
void expectCalls(ScalarPtr const& tree, Counted& leaf, auto const& times) {
    auto const positions = somePositions(kManyPositions);
    for (bool const gradients : {false, true}) {
        leaf.counts.clear();
        leaf.last = -1;
        if (gradients)
            Core::Fields::grad(*tree, positions);
        else
            field(tree).eval(positions);
        for (long long i = 0; i < positions.size(); ++i)
            ASSERT_EQ(leaf.counts[i], times(positions[i], gradients)) << i << " " << gradients;
    }
}
constexpr auto kOnce = [](float3 const&, bool) { return 1; };

/// Hands on what its child gives, in blocks.
struct Passing : FieldNode<Passing, ScalarField> {
    explicit Passing(ScalarPtr field) : child(std::move(field)) {}
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override { return child->eval(p, i); }
    template <class Node> static auto children(Node& node) { return std::tie(node.child); }
    void blockValues(Block& block, BlockResult<float>& out) const {
        mapBlock(block, out, kPass, block.values(child));
    }
    ScalarPtr child;
};

TEST_F(BlockCalls, AskSharedNodesOnce) {
    auto const leaf = makePtr<Counted>();
    ScalarPtr const negative = makePtr<ScalarFieldNegative>(leaf);
    ScalarPtr tree = negative;
    for (int i = 0; i < 40; ++i) {
        tree = makePtr<ScalarFieldAdd>(tree, tree);
        // Where a branch is taken or not, the rest of the block is asked for what it lacks.
        if (i % 4 == 0)
            tree = makePtr<ScalarFieldSwitch>(tree, tree, makePtr<ScalarFieldMin>(tree, tree));
        if (i % 4 == 1)
            tree =
                makePtr<ScalarFieldAdd>(makePtr<ScalarFieldSwitch>(x(), tree, constant(1)), tree);
        if (i % 4 == 2) tree = makePtr<ScalarFieldMultiply>(tree, constant(0.1F));
    }
    expectCalls(tree, *leaf, kOnce);
    // So is a node of the library that hands on what a user's node gave.
    ScalarPtr const moved = makePtr<ScalarFieldTranslate>(leaf, float3{1, 2, 3});
    expectCalls(makePtr<ScalarFieldAdd>(moved, moved), *leaf,
                [](float3 const&, bool gradients) { return gradients ? 0 : 1; });
    // A node of the user's is asked by each parent; for gradients this sum asks no value.
    expectCalls(makePtr<ScalarFieldAdd>(leaf, leaf), *leaf,
                [](float3 const&, bool gradients) { return gradients ? 0 : 2; });
    // Parents in one fusion and out of it share a node.
    *leaf = Counted();
    {
        ScalarPtr shared = makePtr<ScalarFieldNegative>(makePtr<ScalarFieldAbsolute>(leaf));
        auto const passing = makePtr<Passing>(shared);
        field(ScalarPtr(makePtr<ScalarFieldAdd>(
                  makePtr<ScalarFieldMultiply>(std::move(shared), x()), passing)))
            .eval(somePositions(kManyPositions));
    }
    for (auto const& [i, count] : leaf->counts) ASSERT_EQ(count, 1) << i;
    EXPECT_EQ(leaf->counts.size(), std::size_t{kManyPositions});
    EXPECT_TRUE(leaf->rising);
}

TEST_F(BlockCalls, AskOnlyWhatPointsAsk) {
    auto const leaf = makePtr<Counted>(), other = makePtr<Counted>();
    ScalarPtr const chosen = makePtr<ScalarFieldSwitch>(x(), leaf, other);
    expectCalls(chosen, *leaf,
                [](float3 const& p, bool gradients) { return !gradients && p.x > 0; });
    EXPECT_TRUE(leaf->rising);
    expectCalls(chosen, *other,
                [](float3 const& p, bool gradients) { return !gradients && !(p.x > 0); });
    EXPECT_TRUE(other->rising);
    // The gradient of a minimum asks the lesser child alone, be it through a warp or a switch.
    VectorPtr const warp = makePtr<VectorFieldFromComponents>(x(), leaf, y());
    ScalarPtr const one = x();
    for (ScalarPtr const& child :
         {ScalarPtr(makePtr<ScalarFieldWarp>(x(), warp)),
          ScalarPtr(makePtr<ScalarFieldSwitch>(makePtr<ScalarFieldAdd>(leaf, y()), one, one))}) {
        auto const positions = somePositions(kManyPositions);
        leaf->counts.clear();
        Core::Fields::grad(*ScalarPtr(makePtr<ScalarFieldMin>(child, y())), positions);
        for (long long i = 0; i < positions.size(); ++i)
            ASSERT_LE(leaf->counts.at(i), positions[i].x < positions[i].y ? 3 : 1) << i;
    }
}

TEST_F(BlockCalls, OfTwoChildrenThatThrowTheFirstIsHeard) {
    struct Throwing : ScalarField {
        explicit Throwing(char const* what) : what(what) {}
        using ScalarField::eval;
        float eval(float3 const& p, long long i) const override {
            return i == kManyPositions - 1 ? throw std::runtime_error(what) : p.x;
        }
        char const* what;
    };
    ScalarPtr const tree =
        makePtr<ScalarFieldSubtract>(makePtr<ScalarFieldAbsolute>(makePtr<Throwing>("first")),
                                     makePtr<ScalarFieldNegative>(makePtr<Throwing>("second")));
    expectRefused<std::runtime_error>([&] { field(tree).eval(somePositions(kManyPositions)); },
                                      "first");
}

TEST_F(BlockCalls, RetirePointsThatHaveCome) {
    // The transform leaves a position alone, or moves it on by 0.5 each time.
    struct Distance : Counted {
        using ScalarField::eval;
        float eval(float3 const& p, long long i) const override {
            Counted::eval(p, i);
            return p.x > 0 ? 0.0F : 0.5F;
        }
        float3 grad(float3 const&, long long) const override { return {1, 0, 0}; }
    };
    auto const distance = makePtr<Distance>();
    VectorPtr const tree = makePtr<VectorFieldIteratedNearPointTransform>(distance, 0.1F, 5);
    auto const positions = somePositions(500);
    expectEqual(*tree, positions);
    distance->counts.clear();
    tree->eval(positions);
    for (long long i = 0; i < positions.size(); ++i)
        if (length(positions[i]) < 1e6F) {
            ASSERT_EQ(distance->counts[i], positions[i].x > 0 ? 2 : 6) << positions[i].x;
        }
}

/// Nodes as a user builds them, outside of the library, or derives them from one of it.
struct Guarded : LeafNode<Guarded, ScalarField> {
    float valueOf(float3 const& p, long long) const { return p.x; }
    float3 gradientOf(float3 const& p, long long) const {
        if (p.x < 0) throw std::domain_error("not asked by points");
        return {1, 0, 0};
    }
};
struct Beside : FieldNode<Beside, ScalarField> {
    Beside(ScalarPtr f, ScalarPtr g) : f(std::move(f)), g(std::move(g)) {}
    using ScalarField::eval;
    template <class Node> static auto children(Node& node) { return std::tie(node.f, node.g); }
    float eval(float3 const& p, long long i) const override {
        return f->eval({p.x + 1, p.y, p.z}, i) * g->eval(p, i);
    }
    void blockValues(Block& block, BlockResult<float>& out) const {
        // Asks for positions of this block while others are at work.
        writeMoved(block, 1, [&](Block& there) {
            mapBlock(
                there, out, [](float a, float b) { return a * b; }, there.values(f),
                block.values(g));
        });
    }
    ScalarPtr f, g;
};
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
    expectEqual(*makePtr<ScalarFieldMax>(makePtr<Guarded>(), constant(0)), somePositions(1000));

    ScalarPtr const g = makePtr<ScalarFieldSine>(y());
    ScalarPtr tree = makePtr<Beside>(makePtr<ScalarFieldCosine>(g), g);
    for (int i = 0; i < 40; ++i) {  // enough to write over results that were given up
        ScalarPtr const twice = makePtr<ScalarFieldSine>(x());
        tree = makePtr<ScalarFieldAdd>(tree, makePtr<ScalarFieldAdd>(twice, twice));
    }
    expectEqual(*makePtr<ScalarFieldMultiply>(tree, g), somePositions(1000));

    for (ScalarPtr const& own : std::initializer_list<ScalarPtr>{
             makePtr<Halved<ScalarFieldSwitch>>(x(), y(), z()),
             makePtr<Halved<ScalarFieldMultiply>>(x(), y()),
             makePtr<Halved<ScalarFieldMax>>(x(), y()),
             makePtr<Halved<ScalarFieldRotate>>(x(), float3{1, 2, 3}),
             makePtr<Halved<ScalarFieldSphere>>(float3{}, 1.0F),
             makePtr<Halved<ScalarFieldDivergence>>(makePtr<VectorFieldPosition>())}) {
        auto const both = makePtr<ScalarFieldMin>(makePtr<ScalarFieldAdd>(own, x()), own);
        expectEqual(*both, somePositions(kManyPositions));
        expectEqual(*own, somePositions(300));
    }
}

TEST(BlockDeathTest, RunsWhileTheObjectsOfTheThreadAreDestroyed) {
    struct AtExit {
        ~AtExit() {
            Quern::Array<float3> const at(1, float3{1, 2, 3});
            if (!same((*field(tree).eval(at))[0], tree->eval(at[0], 0))) std::_Exit(1);
        }
        ScalarPtr tree = RandomNodes(3).make<ScalarFieldLerp>();
    };
    EXPECT_EXIT(
        {
            static AtExit const last;
            field(last.tree).eval(somePositions(1));
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST(Block, SurvivesExceptionsAndBatchesInsideOfIt) {
    struct Inner : ScalarField {
        using ScalarField::eval;
        float eval(float3 const& p, long long i) const override {
            if (i == bad) throw std::runtime_error("element");
            if (i % 100 != 0) return p.x;
            Quern::Array<float3> const there(i == 2600 ? kManyPositions : 5, p);
            return (*field(tree).eval(there))[4] + (*Core::Fields::grad(*tree, there))[2].x;
        }
        long long bad = -1;
        ScalarPtr tree = RandomNodes(11).make<ScalarFieldLerp>();
    };
    auto const inner = makePtr<Inner>();
    ScalarPtr const shared = makePtr<ScalarFieldNegative>(inner);
    ScalarPtr const tree =
        makePtr<ScalarFieldAdd>(makePtr<ScalarFieldTranslate>(shared, float3{1, 2, 3}),
                                makePtr<ScalarFieldMultiply>(shared, shared));
    auto const positions = somePositions(kManyPositions);
    for (int round = 0; round < 3; ++round) {
        inner->bad = 2700 + round;
        EXPECT_THROW(field(tree).eval(positions), std::runtime_error);
        EXPECT_THROW(Core::Fields::grad(*tree, positions), std::runtime_error);
        inner->bad = -1;
        expectValues(tree, positions);
    }
}

}  // namespace
