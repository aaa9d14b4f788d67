#include <gtest/gtest.h>
#include <tbb/global_control.h>
#include <tbb/task_arena.h>

#include <cstdlib>
#include <map>
#include <random>
#include <stdexcept>
#include <string>

#include "support/random_nodes.h"
#include "zel/batch/fusion/fusion_plan.h"
#include "zel/batch/fusion/stage.h"
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

TEST(Block, KeepsIndicesThroughChoicesAmongMovedPositions) {
    ScalarPtr const x = makePtr<ScalarFieldXPosition>(), y = makePtr<ScalarFieldYPosition>();
    ScalarPtr tree = makePtr<OwnScalar>();
    for (int i = 0; i < 4; ++i)
        tree = makePtr<ScalarFieldSwitch>(
            i % 2 ? x : y, makePtr<ScalarFieldTranslate>(tree, float3{0.3F, -0.2F, 0}), x);
    expectEqual(*tree, somePositions(1000));
}

ScalarField const& field(ScalarPtr const& node) {
    return *node;
}

void expectValues(ScalarPtr const& tree, Quern::Array<float3> const& positions) {
    auto const values = field(tree).eval(positions);
    for (long long i = 0; i < positions.size(); ++i)
        ASSERT_TRUE(same((*values)[i], tree->eval(positions[i], i))) << i;
}

/// A user's leaf that is a leaf of the library to begin with.
struct OwnSphere : ScalarFieldSphere {
    using ScalarField::eval;
    using ScalarFieldSphere::ScalarFieldSphere;
    float eval(float3 const& p, long long i) const override {
        return 0.5F * ScalarFieldSphere::eval(p, i);
    }
};

/// A tree of light nodes, most with one parent; of three trees one has others among them, and one
/// also a user's.
class RandomTree {
public:
    explicit RandomTree(unsigned seed) : m_random(seed), m_kinds(seed % 3) {}

    ScalarPtr grow(unsigned nodes) {
        ScalarPtr const tree = nodes > 1 ? grown(nodes - 1) : leaf();
        if (random() % 8 == 0) m_shared.push_back(tree);
        return tree;
    }

private:
    unsigned random() { return static_cast<unsigned>(m_random()); }
    float number() { return static_cast<float>(random() % 1000) / 500 - 1; }
    ScalarPtr leaf() {
        if (!m_shared.empty() && random() % 8 == 0) return m_shared[random() % m_shared.size()];
        float3 const p{number(), number(), number()};
        switch (random() % std::array{5U, 6U, 8U}[m_kinds]) {
        case 0:
            return makePtr<ScalarFieldXPosition>();
        case 1:
            return makePtr<ScalarFieldZPosition>();
        case 2:
            return makePtr<ScalarFieldConstant>(number());
        case 3:
            return makePtr<ScalarFieldSphere>(p, number());
        case 4:
            return makePtr<ScalarFieldPlane>(p, float3{1, number(), number()});
        case 5:
            return makePtr<ScalarFieldImplicitBox>(p, number(), 3.0F);
        case 6:
            return makePtr<OwnSphere>(p, number());
        default:
            return makePtr<OwnScalar>();
        }
    }
    ScalarPtr grown(unsigned nodes) {
        unsigned const left = random() % 3 ? random() % nodes : 0;
        auto const first = [&] { return grow(left); };
        auto const second = [&] { return grow(nodes - left); };
        switch (random() % std::array{13U, 17U, 18U}[m_kinds]) {
        case 0:
            return makePtr<ScalarFieldAbsolute>(grow(nodes));
        case 1:
            return makePtr<ScalarFieldNegative>(grow(nodes));
        case 2:
            return makePtr<ScalarFieldClamp>(grow(nodes), -0.5F, 0.5F);
        case 3:
            return makePtr<ScalarFieldSquareRoot>(grow(nodes));
        case 4:
            return makePtr<ScalarFieldMask>(grow(nodes));
        case 5:
            return makePtr<ScalarFieldLerp>(first(), second(), leaf());
        case 6:
            return makePtr<ScalarFieldLerp>(leaf(), first(), second());
        case 7:
            return makePtr<ScalarFieldMin>(first(), second());
        case 8:
            return makePtr<ScalarFieldMax>(first(), second());
        case 9:
            return makePtr<ScalarFieldMultiply>(first(), second());
        case 10:
            return makePtr<ScalarFieldDivide>(first(), second());
        case 11:
            return makePtr<ScalarFieldSubtract>(first(), second());
        case 12:
            return makePtr<ScalarFieldAdd>(first(), second());
        case 13:
            return makePtr<ScalarFieldSine>(grow(nodes));
        case 14:
            return makePtr<ScalarFieldTranslate>(grow(nodes), float3{number(), 0, 1});
        case 15:
            return makePtr<ScalarFieldSwitch>(leaf(), first(), second());
        case 16:
            return makePtr<ScalarFieldWarp>(first(), makePtr<ScalarFieldGradient>(second()));
        default:
            return makePtr<OwnSum>(first(), second());
        }
    }

    std::mt19937 m_random;
    unsigned m_kinds;
    std::vector<ScalarPtr> m_shared;
};

TEST(Block, WorksOutNodesTogetherAsPointsDo) {
    auto const positions = somePositions(kManyPositions);
    for (unsigned number = seed(); number < seed() + 100; ++number) {
        SCOPED_TRACE("ZEL_TEST_SEED=" + std::to_string(number));
        ScalarPtr const tree = RandomTree(number).grow(2 + number % 50);
        ASSERT_NO_FATAL_FAILURE(expectEqual(*tree, positions, number % 4 == 0 ? 2 : 1));
    }
}

TEST(Block, WorksOutLongChainsOnBothSides) {
    auto const x = [] { return makePtr<ScalarFieldXPosition>(); };
    ScalarPtr left = makePtr<ScalarFieldMultiply>(x(), x()), right = left.clone();
    for (int length = 1; length < 90; ++length) {
        float3 const center{0.01F * static_cast<float>(length), 0.2F, -0.3F};
        auto const sphere = [&] { return makePtr<ScalarFieldSphere>(center, 0.5F); };
        left = makePtr<ScalarFieldSubtract>(std::move(left), sphere());
        right = makePtr<ScalarFieldSubtract>(sphere(), std::move(right));
        if (length % 11 == 0)
            expectEqual(*makePtr<ScalarFieldMin>(left, right), somePositions(kManyPositions), 1);
    }
}

TEST(Block, FollowsPositionsThatMoveAlongOneAxis) {
    ScalarPtr const shared =
        makePtr<ScalarFieldAdd>(makePtr<ScalarFieldSphere>(float3{0, 0.1F, 0}, 1.0F),
                                makePtr<ScalarFieldAbsolute>(makePtr<ScalarFieldYPosition>()));
    auto const moved = [&](ScalarPtr const& y) {
        return makePtr<ScalarFieldWarp>(
            shared, makePtr<VectorFieldFromComponents>(makePtr<ScalarFieldXPosition>(), y,
                                                       makePtr<ScalarFieldZPosition>()));
    };
    expectEqual(
        *makePtr<ScalarFieldAdd>(moved(makePtr<ScalarFieldSine>(makePtr<ScalarFieldZPosition>())),
                                 moved(makePtr<ScalarFieldZPosition>())),
        somePositions(kManyPositions), 1);
}

/// Batches of what follows run on one thread: their leaves keep count.
class OnOneThread : public testing::Test {
    tbb::global_control const m_limit{tbb::global_control::max_allowed_parallelism, 1};
};
using BlockCalls = OnOneThread;
using Fusion = OnOneThread;

TEST_F(Fusion, KeepsMoreConstantsThanItRemembers) {
    auto const sum = [](int first) {
        ScalarPtr all = makePtr<ScalarFieldYPosition>();
        for (int i = 0; i < 30; ++i)
            all = makePtr<ScalarFieldMax>(
                std::move(all), makePtr<ScalarFieldMultiply>(
                                    makePtr<ScalarFieldConstant>(static_cast<float>(first + i)),
                                    makePtr<ScalarFieldZPosition>()));
        return all;
    };
    // Which constants a range meets first depends on where it is.
    ScalarPtr tree = sum(0);
    for (int k = 1; k < 5; ++k)
        tree = makePtr<ScalarFieldSwitch>(
            makePtr<ScalarFieldSubtract>(
                makePtr<ScalarFieldXPosition>(),
                makePtr<ScalarFieldConstant>(0.5F * static_cast<float>(k))),
            sum(k % 2 ? 30 * k : -30 * k), tree);
    Quern::Array<float3> positions = somePositions(100003);
    for (long long i = 0; i < positions.size(); ++i)
        positions[i].x = static_cast<float>(i / 1000 * 7 % 6) / 2;
    expectValues(tree, positions);
}

TEST_F(Fusion, IsOfOneBatchAndTreeAlone) {
    auto const x = [] { return makePtr<ScalarFieldXPosition>(); };
    auto const y = [] { return makePtr<ScalarFieldYPosition>(); };
    auto const positions = somePositions(kManyPositions);
    for (int round = 0; round < 3; ++round) {
        // What is freed by the one batch is used again by the tree of the other.
        expectValues(makePtr<ScalarFieldAdd>(makePtr<ScalarFieldAdd>(x(), y()), x()), positions);
        EXPECT_EQ(detail::Workspace::local().planOfBatch != nullptr,
                  detail::kFusesNodes && Quern::wideVectors);
        VectorPtr const tree = makePtr<VectorFieldFromComponents>(
            makePtr<ScalarFieldAdd>(makePtr<ScalarFieldAdd>(y(), y()), y()), x(), x());
        auto const got = tree->eval(positions);
        for (long long i = 0; i < positions.size(); ++i)
            ASSERT_TRUE(same((*got)[i], tree->eval(positions[i], i))) << i;
    }
}

TEST_F(Fusion, IsFoundWhereItPays) {
    if (!detail::kFusesNodes || !Quern::wideVectors) GTEST_SKIP();
    auto const chain = [](ScalarPtr tree, int length) {
        for (int i = 0; i < length; ++i) {
            tree = makePtr<ScalarFieldAbsolute>(std::move(tree));
            tree = makePtr<ScalarFieldMin>(std::move(tree), makePtr<ScalarFieldXPosition>());
        }
        return tree;
    };
    auto const x = [] { return makePtr<ScalarFieldXPosition>(); };
    auto const positions = somePositions(kManyPositions);
    struct Found {
        ScalarPtr tree;
        bool values, duals;
    };
    for (auto const& [tree, values, duals] :
         {Found{chain(x(), 4), true, true}, Found{chain(x(), 20), true, false},
          Found{chain(makePtr<ScalarFieldSine>(x()), 4), true, false},
          Found{makePtr<ScalarFieldAbsolute>(makePtr<OwnScalar>()), false, false}}) {
        field(tree).eval(positions);
        auto const& found = detail::Workspace::local().planOfBatch->find(&field(tree));
        EXPECT_EQ(found.values != nullptr, values);
        EXPECT_EQ(found.duals != nullptr, duals);
    }
}

/// A field that is made of the one above it, at other positions.
struct Again : FieldNode<Again, ScalarField> {
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override {
        return p.x < 1 ? p.y : above->eval({p.x - 1, p.y, p.z}, i);
    }
    template <class Node> static auto children(Node& node) { return std::tie(node.none); }
    void blockValues(Block& block, BlockResult<float>& out) const {
        if (block.positions()[0].x < 1) return out.set(block.positions().part(1));
        Block::Frame const frame(block);
        auto moved = block.result<float3>();
        mapBlock(
            block, moved,
            [](float3 const& p) {
                return float3{p.x - 1, p.y, p.z};
            },
            block.positions());
        block.withPositions(moved.columns, [&](Block& there) { there.writeValues(*above, out); });
    }
    ScalarPtr none = makePtr<ScalarFieldZPosition>();
    ScalarField const* above = nullptr;
};

TEST_F(Fusion, MayBeAskedByItsOwnChild) {
    auto const again = makePtr<Again>();
    ScalarPtr const tree =
        makePtr<ScalarFieldAdd>(makePtr<ScalarFieldMultiply>(makePtr<ScalarFieldXPosition>(),
                                                             makePtr<ScalarFieldXPosition>()),
                                again);
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

TEST_F(BlockCalls, AsksSharedNodesOnce) {
    auto const leaf = makePtr<Counted>();
    ScalarPtr tree = makePtr<ScalarFieldNegative>(leaf);
    for (int i = 0; i < 40; ++i) {
        tree = makePtr<ScalarFieldAdd>(tree, tree);
        // Where a branch is taken or not, the rest of the block is asked for what it lacks.
        if (i % 4 == 0)
            tree = makePtr<ScalarFieldSwitch>(tree, tree, makePtr<ScalarFieldMin>(tree, tree));
        if (i % 4 == 1)
            tree = makePtr<ScalarFieldAdd>(
                makePtr<ScalarFieldSwitch>(makePtr<ScalarFieldXPosition>(), tree,
                                           makePtr<ScalarFieldConstant>(1.0F)),
                tree);
        if (i % 4 == 2)
            tree = makePtr<ScalarFieldMultiply>(tree, makePtr<ScalarFieldConstant>(0.1F));
    }
    Quern::Array<float3> const positions = somePositions(kManyPositions);
    field(tree).eval(positions);
    for (auto const& [i, count] : leaf->counts) ASSERT_EQ(count, 1) << i;
    ASSERT_EQ(leaf->counts.size(), std::size_t{kManyPositions});
    leaf->counts.clear();
    Core::Fields::grad(*tree, positions);
    for (auto const& [i, count] : leaf->counts) ASSERT_EQ(count, 1) << i;

    // A node of the user's is asked by each parent.
    auto const own = makePtr<Counted>();
    ScalarPtr const twice = makePtr<ScalarFieldAdd>(own, own);
    field(twice).eval(positions);
    for (auto const& [i, count] : own->counts) ASSERT_EQ(count, 2) << i;
}

/// Hands on what its child gives, in blocks.
struct Passing : FieldNode<Passing, ScalarField> {
    explicit Passing(ScalarPtr field) : child(std::move(field)) {}
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override { return child->eval(p, i); }
    template <class Node> static auto children(Node& node) { return std::tie(node.child); }
    void blockValues(Block& block, BlockResult<float>& out) const { block.writeValues(child, out); }
    ScalarPtr child;
};

TEST_F(Fusion, AsksItsChildrenAsTheirParentsWould) {
    auto const positions = somePositions(kManyPositions);
    auto const leaf = makePtr<Counted>();
    {
        ScalarPtr shared = makePtr<ScalarFieldNegative>(makePtr<ScalarFieldAbsolute>(leaf));
        auto const passing = makePtr<Passing>(shared);
        field(ScalarPtr(makePtr<ScalarFieldAdd>(
                  makePtr<ScalarFieldMultiply>(std::move(shared), makePtr<ScalarFieldXPosition>()),
                  passing)))
            .eval(positions);
    }
    EXPECT_EQ(leaf->counts.size(), std::size_t{kManyPositions});
    for (auto const& [i, count] : leaf->counts) ASSERT_EQ(count, 1) << i;
    EXPECT_TRUE(leaf->rising);

    // Of two children that throw the first one is heard.
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
    try {
        field(tree).eval(positions);
        ADD_FAILURE();
    } catch (std::runtime_error const& error) {
        EXPECT_STREQ(error.what(), "first");
    }
}

TEST_F(BlockCalls, AsksOnlyWhatPointsAsk) {
    // A node of the library that hands on what a user's node gave is shared like any other.
    auto const leaf = makePtr<Counted>();
    Counted const& counts = *leaf;
    ScalarPtr const moved = makePtr<ScalarFieldTranslate>(leaf, float3{1, 2, 3});
    auto const positions = somePositions(kManyPositions);
    field(ScalarPtr(makePtr<ScalarFieldAdd>(moved, moved))).eval(positions);
    for (auto const& [i, count] : counts.counts) ASSERT_EQ(count, 1) << i;

    // The gradient of a minimum asks the lesser child alone, be it through a warp or a switch.
    auto const flow = makePtr<Counted>();
    ScalarPtr const y = makePtr<ScalarFieldYPosition>(), x = makePtr<ScalarFieldXPosition>();
    VectorPtr const warp = makePtr<VectorFieldFromComponents>(x, flow, y);
    for (ScalarPtr const& child :
         {ScalarPtr(makePtr<ScalarFieldWarp>(x, warp)),
          ScalarPtr(makePtr<ScalarFieldSwitch>(makePtr<ScalarFieldAdd>(flow, y), x, x))}) {
        flow->counts.clear();
        Core::Fields::grad(*ScalarPtr(makePtr<ScalarFieldMin>(child, y)), positions);
        auto const values = flow->counts;
        for (long long i = 0; i < positions.size(); ++i)
            ASSERT_LE(values.at(i), positions[i].x < positions[i].y ? 3 : 1) << i;
    }
}

TEST_F(BlockCalls, AsksTheChosenBranchAlone) {
    auto const a = makePtr<Counted>(), b = makePtr<Counted>();
    ScalarPtr const tree = makePtr<ScalarFieldSwitch>(makePtr<ScalarFieldXPosition>(), a, b);
    auto const positions = somePositions(kManyPositions);
    field(tree).eval(positions);
    for (long long i = 0; i < positions.size(); ++i) {
        ASSERT_EQ(a->counts.count(i), positions[i].x > 0 ? 1U : 0U);
        ASSERT_EQ(b->counts.count(i), positions[i].x > 0 ? 0U : 1U);
    }
    EXPECT_TRUE(a->rising && b->rising);
}

TEST_F(BlockCalls, RetiresPointsThatHaveCome) {
    // The transform leaves a position alone, or moves it on by 0.5 each time.
    struct Distance : ScalarField {
        using ScalarField::eval;
        float eval(float3 const& p, long long i) const override {
            ++(*calls)[i];
            return p.x > 0 ? 0.0F : 0.5F;
        }
        float3 grad(float3 const&, long long) const override { return {1, 0, 0}; }
        explicit Distance(std::map<long long, int>& calls) : calls(&calls) {}
        std::map<long long, int>* calls;
    };
    std::map<long long, int> calls;
    VectorPtr const tree =
        makePtr<VectorFieldIteratedNearPointTransform>(makePtr<Distance>(calls), 0.1F, 5);
    auto const positions = somePositions(500);
    expectEqual(*tree, positions);
    calls.clear();
    tree->eval(positions);
    for (long long i = 0; i < positions.size(); ++i)
        if (length(positions[i]) < 1e6F) {
            ASSERT_EQ(calls[i], positions[i].x > 0 ? 2 : 6) << positions[i].x;
        }
}

/// Nodes as a user builds them, outside of the library.
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
        Block::Frame const frame(block);
        auto moved = block.result<float3>();
        mapBlock(
            block, moved,
            [](float3 const& p) {
                return float3{p.x + 1, p.y, p.z};
            },
            block.positions());
        // Asks for positions of this block while others are at work.
        block.withPositions(moved.columns, [&](Block& there) {
            mapBlock(
                there, out, [](float x, float y) { return x * y; }, there.values(f),
                block.values(g));
        });
    }
    ScalarPtr f, g;
};

TEST(Block, TreatsNodesOfUsersAsPointsDo) {
    ScalarPtr const zero = makePtr<ScalarFieldConstant>(0.0F);
    expectEqual(*makePtr<ScalarFieldMax>(makePtr<Guarded>(), zero), somePositions(1000));

    ScalarPtr const g = makePtr<ScalarFieldSine>(makePtr<ScalarFieldYPosition>());
    ScalarPtr tree = makePtr<Beside>(makePtr<ScalarFieldCosine>(g), g);
    for (int i = 0; i < 40; ++i) {  // enough to write over results that were given up
        ScalarPtr const twice = makePtr<ScalarFieldSine>(makePtr<ScalarFieldXPosition>());
        tree = makePtr<ScalarFieldAdd>(tree, makePtr<ScalarFieldAdd>(twice, twice));
    }
    expectEqual(*makePtr<ScalarFieldMultiply>(tree, g), somePositions(1000));
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
            return (*field(tree).eval(there))[4] + (*grad(field(tree), there))[2].x;
        }
        using ScalarField::grad;
        static Quern::Ptr<Quern::Array<float3>> grad(ScalarField const& f,
                                                     Quern::Array<float3> const& p) {
            return Core::Fields::grad(f, p);
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
