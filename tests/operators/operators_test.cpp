#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "support/probe.h"

// Warps, advection, derivatives as fields, and closest points.
namespace {

using namespace zel;
using namespace support;

/// A vector field with an asymmetric Jacobian that no transposition leaves alone, and its exact
/// derivative.
class Bent : public VectorField {
public:
    using VectorField::eval;
    float3 eval(float3 const& p, long long /*i*/) const override {
        return {0.5F * p.x + p.y * p.z, p.x * p.x - 0.25F * p.z, 0.125F * p.y * p.y + 2 * p.x};
    }
    float3x3 grad(float3 const& p, long long /*i*/) const override {
        return {{{0.5F, p.z, p.y}, {2 * p.x, 0, -0.25F}, {2, 0.25F * p.y, 0}}};
    }
};

class Hill : public ScalarField {
public:
    using ScalarField::eval;
    float eval(float3 const& p, long long /*i*/) const override {
        return p.x * p.y + 3 * p.z - p.z * p.z;
    }
    float3 grad(float3 const& p, long long /*i*/) const override { return {p.y, p.x, 3 - 2 * p.z}; }
};

/// The derivative along an axis by central differences, exact but for rounding on polynomials of
/// low degree.
constexpr float kNumeric = 2e-2F;
template <class F> float3 numericColumn(F const& f, float3 p, int axis) {
    constexpr float kStep = 1 / 64.0F;
    float3 q = p;
    p[axis] += kStep;
    q[axis] -= kStep;
    return (f(p) - f(q)) / (2 * kStep);
}

TEST(Warp, FollowsTheChainRule) {
    VectorPtr const bent = makePtr<Bent>();
    ScalarPtr const hill = makePtr<Hill>();
    std::mt19937 random(7);
    std::uniform_real_distribution<float> coordinate(-1, 1);
    std::vector<ScalarPtr> const scalars{makePtr<ScalarFieldWarp>(hill, bent),
                                         makePtr<ScalarFieldAdvect>(hill, bent, 0.5F)};
    std::vector<VectorPtr> const vectors{makePtr<VectorFieldWarp>(makePtr<Bent>(), bent),
                                         makePtr<VectorFieldAdvect>(makePtr<Bent>(), bent, -0.75F)};
    for (int n = 0; n < 20; ++n) {
        float3 const p{coordinate(random), coordinate(random), coordinate(random)};
        for (auto const& field : scalars) {
            auto const f = [&](float3 const& at) { return float3{field->eval(at, 0), 0, 0}; };
            for (int c = 0; c < 3; ++c)
                EXPECT_NEAR(field->grad(p, 0)[c], numericColumn(f, p, c).x, kNumeric) << c;
        }
        for (auto const& field : vectors) {
            auto const f = [&](float3 const& at) { return field->eval(at, 0); };
            for (int c = 0; c < 3; ++c)
                for (int r = 0; r < 3; ++r)
                    EXPECT_NEAR(field->grad(p, 0)[r][c], numericColumn(f, p, c)[r], kNumeric)
                        << r << c;
        }
    }
}

TEST(Warp, AsksItsChildrenWhereAndWhenItShould) {
    float3 const moved{1, 2, 4};
    float3 const stepped{3 - 0.5F * 1, -5 - 0.5F * 2, 7 - 0.5F * 4};
    struct Case {
        ScalarPtr scalar;
        VectorPtr vector;
        float3 at;
        char const* evalCalls;
        char const* scalarGrad;
        char const* vectorGrad;
    };
    auto const map = [&] { return v(moved, kMatrixB, "m"); };
    for (Case const& c :
         {Case{makePtr<ScalarFieldWarp>(s(9, kA, "f"), map()),
               makePtr<VectorFieldWarp>(v({9, 8, 7}, kMatrixA, "f"), map()), moved,
               "m.eval f.eval ", "m.eval f.grad m.grad ", "m.eval f.grad m.grad "},
          Case{makePtr<ScalarFieldAdvect>(s(9, kA, "f"), map(), 0.5F),
               makePtr<VectorFieldAdvect>(v({9, 8, 7}, kMatrixA, "f"), map(), 0.5F), stepped,
               "m.eval f.eval ", "m.eval f.grad m.grad ", "m.grad m.eval f.grad "}}) {
        calls.clear();
        EXPECT_EQ(c.scalar->eval(kPosition, kIndex), 9);
        EXPECT_EQ(c.vector->eval(kPosition, kIndex), (float3{9, 8, 7}));
        auto const expectCalls = [&](std::string const& expected) {
            expectIndices('f');
            for (Call const& call : calls)
                if (call.what[0] == 'f') {
                    EXPECT_EQ(call.position, c.at) << call.what;
                }
            EXPECT_EQ(takeCalls(), expected);
        };
        expectCalls(std::string(c.evalCalls) + c.evalCalls);
        c.scalar->grad(kPosition, kIndex);
        expectCalls(c.scalarGrad);
        c.vector->grad(kPosition, kIndex);
        expectCalls(c.vectorGrad);
    }
}

TEST(Warp, ByThePositionAndByNoTimeIsTheIdentity) {
    VectorPtr const position = makePtr<VectorFieldPosition>();
    ScalarPtr const hill = makePtr<Hill>();
    float3 const p{0.3F, -2, 5};
    ScalarFieldWarp const warp(hill, position);
    ScalarFieldAdvect const still(hill, makePtr<Bent>(), 0);
    EXPECT_TRUE(same(warp.eval(p, 0), hill->eval(p, 0)));
    EXPECT_TRUE(same(warp.grad(p, 0), hill->grad(p, 0)));
    EXPECT_TRUE(same(still.grad(p, 0), hill->grad(p, 0)));
    ScalarFieldWarp const constant(hill, makePtr<VectorFieldConstant>(float3{1, 2, 3}));
    EXPECT_EQ(constant.grad(p, 0), float3{});
}

TEST(Derivatives, OfKnownFields) {
    ScalarPtr const x = makePtr<ScalarFieldXPosition>();
    ScalarPtr const y = makePtr<ScalarFieldYPosition>();
    ScalarPtr const zero = makePtr<ScalarFieldConstant>();
    VectorPtr const position = makePtr<VectorFieldPosition>();
    VectorPtr const whirl =
        makePtr<VectorFieldFromComponents>(makePtr<ScalarFieldNegative>(y), x, zero);
    EXPECT_EQ(VectorFieldCurl(whirl).eval(kPosition, 0), (float3{0, 0, 2}));
    EXPECT_EQ(VectorFieldCurl(position).eval(kPosition, 0), float3{});
    EXPECT_EQ(ScalarFieldDivergence(position).eval(kPosition, 0), 3);
    EXPECT_EQ(ScalarFieldDivergence(whirl).eval(kPosition, 0), 0);
    ScalarFieldGradient const normal(makePtr<ScalarFieldPlane>(float3{}, float3{0, 3, 4}));
    EXPECT_TRUE(same(normal.eval(kPosition, 0), float3{0, 0.6F, 0.8F}));

    // Each entry of the child's matrix has its place, and the index arrives.
    calls.clear();
    EXPECT_EQ(VectorFieldCurl(v({}, kMatrixA)).eval(kPosition, kIndex),
              (float3{-7 - 5, -3 - 6, 0.5F - 2}));
    EXPECT_EQ(ScalarFieldDivergence(v({}, kMatrixA)).eval(kPosition, kIndex), 1 - 4 + 8);
    EXPECT_EQ(ScalarFieldGradient(s(0, kB)).eval(kPosition, kIndex), kB);
    expectIndices();
    EXPECT_EQ(takeCalls(), ".grad .grad .grad ");

    // Second derivatives, by differences of the first.
    float3x3 const second = ScalarFieldGradient(makePtr<Hill>()).grad(float3{1, 2, 3}, 0);
    float3x3 const expected{{{0, 1, 0}, {1, 0, 0}, {0, 0, -2}}};
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(second[r][c], expected[r][c], 1e-3F);
}

TEST(ClosestPoint, ProjectsOntoADistanceInOneStep) {
    ScalarPtr const ball = makePtr<ScalarFieldSphere>(float3{}, 1.0F);
    VectorFieldClosestPointTransform const step(ball);
    EXPECT_EQ(step.eval(float3{3, 0, 0}, 0), (float3{1, 0, 0}));
    EXPECT_EQ(step.eval(float3{}, 0), float3{});  // no gradient at the centre
    VectorFieldClosestPointTransform const probe(s(2, kA, "f"));
    EXPECT_EQ(probe.eval(kPosition, kIndex), kPosition - 2 * kA);
    expectIndices();
    EXPECT_EQ(takeCalls(), "f.grad f.eval ");
}

/// A field of unit gradient along x whose steps are 1, 1/2, 1/4, ... long, counted by its calls.
class Halving : public ScalarField {
public:
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override {
        EXPECT_EQ(i, kIndex);
        ++steps;
        return 0.5F * p.x;
    }
    float3 grad(float3 const& /*p*/, long long /*i*/) const override { return {1, 0, 0}; }
    mutable int steps = 0;
};

TEST(IteratedNearPoint, MakesTheStepsItShould) {
    struct Case {
        float tolerance;
        int iterations, steps;
    };
    // From x = 2 the first step goes to 1, and the repeats move by 0.5, 0.25, 0.125, ...
    for (Case const c :
         {Case{0.5F, 10, 3},  // a move of exactly the tolerance goes on
          Case{0.6F, 10, 2}, Case{0.5F, 1, 2}, Case{0.5F, 0, 1}, Case{0.5F, -3, 1}, Case{0, 5, 6},
          Case{-1, 5, 6}, Case{kNaN, 5, 6}, Case{kInf, 5, 2}, Case{1e-30F, 5, 6}}) {
        auto const field = makePtr<Halving>();
        VectorFieldIteratedNearPointTransform const node(field, c.tolerance, c.iterations);
        EXPECT_EQ(node.eval(float3{2, 0, 0}, kIndex).x, std::ldexp(2.0F, -c.steps));
        EXPECT_EQ(field->steps, c.steps) << c.tolerance << " " << c.iterations;
    }
    auto const field = makePtr<Halving>();
    VectorFieldIteratedNearPointTransform const node(field, 1, 4);
    EXPECT_TRUE(std::isnan(node.eval(float3{kNaN, 0, 0}, kIndex).x));
    EXPECT_EQ(field->steps, 5);  // such a move is never short
}

template <class Interface> struct Hooked : Interface {
    Hooked(char name, std::string& log) : name(name), log(&log) {}
    void preSampleField() const override { *log += name; }
    void postSampleField() const override { *log += static_cast<char>(std::toupper(name)); }
    char name;
    std::string* log;
};

TEST(Operators, WalkAndHookTheirChildrenInOrder) {
    struct Walked : FieldConstVisitor {
        void operator()(Field const& node) override { seen.push_back(&node); }
        std::vector<Field const*> seen;
    };
    std::string log;
    ScalarPtr const f = makePtr<Hooked<ScalarField>>('f', log);
    VectorPtr const g = makePtr<Hooked<VectorField>>('g', log),
                    m = makePtr<Hooked<VectorField>>('m', log);
    auto const check = [&](auto const& node, std::vector<Field const*> const& children,
                           char const* hooks) {
        SCOPED_TRACE(node->getType());
        EXPECT_EQ(node->getType(), typeNameOf(typeid(*node)));
        EXPECT_FALSE(node->is_triggerable());
        for (auto const& copy : {node, node.clone()}) {
            Walked walked;
            copy->accept(walked);
            if (!children.empty()) {
                EXPECT_EQ(walked.seen, children);
            }
            log.clear();
            copy->preSampleField();
            copy->postSampleField();
            EXPECT_EQ(log, hooks);
        }
    };
    check(makePtr<ScalarFieldWarp>(f, m), {f.get(), m.get()}, "fmFM");
    check(makePtr<VectorFieldWarp>(g, m), {g.get(), m.get()}, "gmGM");
    check(makePtr<ScalarFieldAdvect>(f, m, 1.0F), {f.get(), m.get()}, "fmFM");
    check(makePtr<VectorFieldAdvect>(g, m, 1.0F), {g.get(), m.get()}, "gmGM");
    check(makePtr<ScalarFieldGradient>(f), {f.get()}, "fF");
    check(makePtr<ScalarFieldDivergence>(g), {g.get()}, "gG");
    check(makePtr<VectorFieldCurl>(g), {g.get()}, "gG");
    check(makePtr<VectorFieldClosestPointTransform>(f), {f.get()}, "fF");
    auto const curve = makePtr<Orvane::Math::FCurve>();
    check(makePtr<ScalarFieldFCurve>(f, curve), {f.get()}, "fF");
    check(makePtr<VectorFieldFCurve>(g, curve), {g.get()}, "gG");
    auto const near = makePtr<VectorFieldIteratedNearPointTransform>(f, 1.0F, 1);
    check(near, {}, "fF");
    Walked walked;
    near->accept(walked);
    ASSERT_EQ(walked.seen.size(), 1U);
    EXPECT_NE(dynamic_cast<VectorFieldClosestPointTransform const*>(walked.seen[0]), nullptr);
}

}  // namespace
