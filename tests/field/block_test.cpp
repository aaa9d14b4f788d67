#include <gtest/gtest.h>
#include <tbb/global_control.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "quern_core/simd_target.h"
#include "support/probe.h"
#include "zel/zel.h"

// Evaluation in blocks: that it gives what points give, and asks nodes no more than it may.
namespace {

using namespace zel;
using Quern::makePtr;
using support::same;

Quern::Array<float3> somePositions(long long count, unsigned seed = 7) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> coordinate(-2, 2);
    std::array<float, 8> const odd = {0,     -0.0F, 1e-40F,        1e20F,
                                      1e38F, -1,    support::kInf, support::kNaN};
    auto const number = [&] { return random() % 40 ? coordinate(random) : odd[random() % 8]; };
    Quern::Array<float3> positions(count);
    for (auto& p : positions) p = {number(), number(), number()};
    return positions;
}

/// Leaves of a user: the position and the index both show.
struct OwnScalar : ScalarField {
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override {
        return p.x * p.y - p.z + static_cast<float>(i % 7);
    }
    float3 grad(float3 const& p, long long) const override { return {p.y, p.x, -1}; }
};
struct OwnSum : ScalarFieldAdd {
    using ScalarField::eval;
    using ScalarFieldAdd::ScalarFieldAdd;
    float eval(float3 const& p, long long i) const override {
        return 0.5F * ScalarFieldAdd::eval(p, i);
    }
};

/// Makes trees of all kinds of nodes, whose nodes have many parents.
class RandomTrees {
public:
    explicit RandomTrees(unsigned seed) : random(seed) {
        auto x = keep(makePtr<ScalarFieldXPosition>());
        keep(makePtr<OwnScalar>());
        keep(makePtr<ScalarFieldConstant>(0.5F));
        keep(makePtr<ScalarFieldSphere>(float3{0.1F, 0.2F, -0.3F}, 0.8F));
        keep(makePtr<ScalarFieldPlane>(float3{0.1F, 0, 0}, float3{1, 2, -1}));
        keep(makePtr<ScalarFieldSimplexNoise>(x, 5));
        keep(makePtr<ScalarFieldFractalNoise>(1.0F, 2.5F, 1.5F, 0.5F, 0.6F, x, 1.2F, 9));
        keep(makePtr<VectorFieldPosition>());
        keep(makePtr<VectorFieldConstant>(float3{1, -2, 0.5F}));
        keep(makePtr<VectorFieldConstantArray>(
            Quern::Array<float3>{{1, 2, 3}, {-4, 5, 0.5F}, {0.25F, -2, 8}}));
        keep(makePtr<VectorFieldCurlNoise>(x, random() % 2 == 0, 3));
        keep(makePtr<VectorFieldFractalTurbulence>(1.0F, 1.5F, 1.0F, 0.5F, 0.5F, pick(scalars),
                                                   1.0F, random() % 2 == 0, 3));
    }

    ScalarPtr scalar() {
        for (int i = 0; i < 7; ++i) random() % 2 ? void(growScalar()) : void(growVector());
        return growScalar();
    }
    VectorPtr vector() {
        for (int i = 0; i < 7; ++i) random() % 2 ? void(growScalar()) : void(growVector());
        return growVector();
    }

private:
    ScalarPtr s() { return pick(scalars); }
    VectorPtr v() { return pick(vectors); }
    template <class Pool> typename Pool::value_type pick(Pool const& pool) {
        return pool[pool.size() - 1 - std::min<std::size_t>(random() % 12, pool.size() - 1)];
    }
    ScalarPtr keep(ScalarPtr node) { return scalars.emplace_back(std::move(node)); }
    VectorPtr keep(VectorPtr node) { return vectors.emplace_back(std::move(node)); }

    ScalarPtr growScalar() {
        float3 const k{0.7F, -0.4F, 1.3F};
        switch (random() % 26) {
        case 0:
            return keep(makePtr<ScalarFieldAdd>(s(), s()));
        case 1:
            return keep(makePtr<ScalarFieldSubtract>(s(), s()));
        case 2:
            return keep(makePtr<ScalarFieldMultiply>(s(), s()));
        case 3:
            return keep(makePtr<ScalarFieldDivide>(s(), s()));
        case 4:
            return keep(makePtr<ScalarFieldLerp>(s(), s(), s()));
        case 5:
            return keep(makePtr<ScalarFieldMin>(s(), s()));
        case 6:
            return keep(makePtr<ScalarFieldMax>(s(), s()));
        case 7:
            return keep(makePtr<ScalarFieldClamp>(s(), -0.5F, 0.75F));
        case 8:
            return keep(makePtr<ScalarFieldSwitch>(s(), s(), s()));
        case 9:
            return keep(makePtr<ScalarFieldAbsolute>(s()));
        case 10:
            return keep(makePtr<ScalarFieldSquareRoot>(s()));
        case 11:
            return keep(makePtr<ScalarFieldExp>(s()));
        case 12:
            return keep(makePtr<ScalarFieldTranslate>(s(), k));
        case 13:
            return keep(makePtr<ScalarFieldScale>(s(), k));
        case 14:
            return keep(makePtr<ScalarFieldRotate>(s(), k));
        case 15:
            return keep(makePtr<ScalarFieldWarp>(s(), v()));
        case 16:
            return keep(makePtr<ScalarFieldAdvect>(s(), v(), 0.25F));
        case 17:
            return keep(makePtr<VectorFieldDotProduct>(v(), v()));
        case 18:
            return keep(makePtr<VectorFieldComponent>(v(), static_cast<int>(random() % 4)));
        case 19:
            return keep(makePtr<VectorFieldXComponent>(v()));
        case 20:
            return keep(makePtr<VectorFieldLength>(v()));
        case 21:
            return keep(makePtr<ScalarFieldDivergence>(v()));
        case 22:
            return keep(makePtr<ScalarFieldArcTangent_2D>(s(), s()));
        case 23:
            return keep(makePtr<OwnSum>(s(), s()));
        case 24:
            return keep(makePtr<ScalarFieldMask>(s()));
        default:
            return keep(makePtr<ScalarFieldFCurve>(s(), curve));
        }
    }
    VectorPtr growVector() {
        float3 const k{0.7F, -0.4F, 1.3F};
        switch (random() % 22) {
        case 0:
            return keep(makePtr<VectorFieldAdd>(v(), v()));
        case 1:
            return keep(makePtr<VectorFieldMultiply>(v(), v()));
        case 2:
            return keep(makePtr<VectorFieldDivide>(v(), v()));
        case 3:
            return keep(makePtr<VectorFieldVSMultiply>(v(), s()));
        case 4:
            return keep(makePtr<VectorFieldVSDivide>(v(), s()));
        case 5:
            return keep(makePtr<VectorFieldLerp>(v(), v(), s()));
        case 6:
            return keep(makePtr<VectorFieldCross>(v(), v()));
        case 7:
            return keep(makePtr<VectorFieldUnitVector>(v()));
        case 8:
            return keep(makePtr<VectorFieldMax>(v(), v()));
        case 9:
            return keep(makePtr<VectorFieldClamp>(v(), float3{-1, -1, -1}, float3{1, 2, 1}));
        case 10:
            return keep(makePtr<VectorFieldSwitch>(s(), v(), v()));
        case 11:
            return keep(makePtr<VectorFieldFromComponents>(s(), s(), s()));
        case 12:
            return keep(makePtr<VectorFieldTranslate>(v(), k));
        case 13:
            return keep(makePtr<VectorFieldScale>(v(), k));
        case 14:
            return keep(makePtr<VectorFieldRotate>(v(), k));
        case 15:
            return keep(makePtr<VectorFieldWarp>(v(), v()));
        case 16:
            return keep(makePtr<VectorFieldAdvect>(v(), v(), 0.5F));
        case 17:
            return keep(makePtr<ScalarFieldGradient>(s()));
        case 18:
            return keep(makePtr<VectorFieldCurl>(v()));
        case 19:
            return keep(makePtr<VectorFieldClosestPointTransform>(s()));
        case 20:
            return keep(makePtr<VectorFieldIteratedNearPointTransform>(s(), 0.1F, 3));
        default:
            return keep(makePtr<VectorFieldFCurve>(v(), curve));
        }
    }

    std::mt19937 random;
    std::vector<ScalarPtr> scalars;
    std::vector<VectorPtr> vectors;
    Quern::Ptr<Orvane::Math::FCurve> curve = makePtr<Orvane::Math::FCurve>();
};

/// Values and gradients of a tree in all ways, against points.
template <class Interface>
void expectEqual(Quern::Ptr<Interface> const& tree, Quern::Array<float3> const& positions) {
    auto const values = tree->eval(positions);
    auto const gradients = Core::Fields::grad(*tree, positions);
    auto const both = Core::Fields::evalAndGrad(*tree, positions);
    for (long long i = 0; i < positions.size(); ++i) {
        ASSERT_TRUE(same((*values)[i], tree->eval(positions[i], i))) << i;
        ASSERT_TRUE(same((*both.values)[i], (*values)[i])) << i;
        ASSERT_TRUE(same((*gradients)[i], tree->grad(positions[i], i))) << i;
        ASSERT_TRUE(same((*both.gradients)[i], (*gradients)[i])) << i;
    }
}

TEST(Block, EqualsPointsToTheBit) {
    for (Quern::SimdTarget const& target : Quern::simdTargets()) {
        Quern::useSimdTarget(target);
        for (unsigned seed = 0; seed < 40; ++seed) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", " + target.name);
            RandomTrees trees(seed);
            auto const count = std::array{1LL, 3LL, kBlockSize - 1LL, kBlockSize + 9LL}[seed % 4];
            expectEqual(trees.scalar(), somePositions(count, seed));
            expectEqual(trees.vector(), somePositions(count, seed));
        }
    }
    Quern::useSimdTarget(Quern::simdTargets().front());
}

/// Batches of what follows run on one thread: their leaves keep count.
class OnOneThread : public testing::Test {
    tbb::global_control const m_limit{tbb::global_control::max_allowed_parallelism, 1};
};
using BlockCalls = OnOneThread;

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

ScalarField const& field(ScalarPtr const& node) {
    return *node;
}

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
    Quern::Array<float3> const positions = somePositions(300);
    field(tree).eval(positions);
    for (auto const& [i, count] : leaf->counts) ASSERT_EQ(count, 1) << i;
    ASSERT_EQ(leaf->counts.size(), 300U);
    leaf->counts.clear();
    Core::Fields::grad(*tree, positions);
    for (auto const& [i, count] : leaf->counts) ASSERT_EQ(count, 1) << i;

    // A node of the user's is asked by each parent.
    auto const own = makePtr<Counted>();
    ScalarPtr const twice = makePtr<ScalarFieldAdd>(own, own);
    field(twice).eval(positions);
    for (auto const& [i, count] : own->counts) ASSERT_EQ(count, 2) << i;
}

TEST_F(BlockCalls, AsksOnlyWhatPointsAsk) {
    // A node of the library that hands on what a user's node gave is shared like any other.
    auto const leaf = makePtr<Counted>();
    Counted const& counts = *leaf;
    ScalarPtr const moved = makePtr<ScalarFieldTranslate>(leaf, float3{1, 2, 3});
    auto const positions = somePositions(300);
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
    auto const positions = somePositions(1000);
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
    expectEqual(tree, positions);
    calls.clear();
    tree->eval(positions);
    for (long long i = 0; i < positions.size(); ++i)
        if (length(positions[i]) < 1e6F) {
            ASSERT_EQ(calls[i], positions[i].x > 0 ? 2 : 6) << positions[i].x;
        }
}

TEST(Block, SurvivesExceptionsAndBatchesInsideOfIt) {
    struct Inner : ScalarField {
        using ScalarField::eval;
        float eval(float3 const& p, long long i) const override {
            if (i == bad) throw std::runtime_error("element");
            if (i % 100 != 0) return p.x;
            Quern::Array<float3> const there(5, p);
            return (*field(tree).eval(there))[4] + (*grad(field(tree), there))[2].x;
        }
        using ScalarField::grad;
        static Quern::Ptr<Quern::Array<float3>> grad(ScalarField const& f,
                                                     Quern::Array<float3> const& p) {
            return Core::Fields::grad(f, p);
        }
        long long bad = -1;
        ScalarPtr tree = RandomTrees(11).scalar();
    };
    auto const inner = makePtr<Inner>();
    ScalarPtr const shared = makePtr<ScalarFieldNegative>(inner);
    ScalarPtr const tree =
        makePtr<ScalarFieldAdd>(makePtr<ScalarFieldTranslate>(shared, float3{1, 2, 3}),
                                makePtr<ScalarFieldMultiply>(shared, shared));
    auto const positions = somePositions(600);
    for (int round = 0; round < 3; ++round) {
        inner->bad = 300 + round;
        EXPECT_THROW(field(tree).eval(positions), std::runtime_error);
        EXPECT_THROW(Core::Fields::grad(*tree, positions), std::runtime_error);
        inner->bad = -1;
        auto const values = field(tree).eval(positions);
        for (long long i = 0; i < positions.size(); ++i)
            ASSERT_TRUE(same((*values)[i], tree->eval(positions[i], i))) << i;
    }
}

}  // namespace
