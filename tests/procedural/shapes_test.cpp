#include "support/probe.h"

using namespace support;
using namespace zel;

namespace {
struct At {
    float3 position;
    float value;
    float3 gradient;
};

void checkAt(ScalarField const& shape, std::vector<At> const& rows, float tolerance = 0) {
    for (auto const& [position, value, gradient] : rows)
        for (long long const index : {0LL, kIndex}) {
            SCOPED_TRACE(std::string(shape.getType()) + " at " + std::to_string(position.x) + " " +
                         std::to_string(position.y) + " " + std::to_string(position.z));
            EXPECT_TRUE(same(shape.eval(position, index), value, tolerance));
            EXPECT_TRUE(same(shape.grad(position, index), gradient, tolerance));
        }
}
}  // namespace

TEST(Shapes, Sphere) {
    checkAt(ScalarFieldSphere({}, 2), {{{}, -2, {}},
                                       {{2, 0, 0}, 0, {1, 0, 0}},
                                       {{3, 0, 0}, 1, {1, 0, 0}},
                                       {{0, -0.5F, 0}, -1.5F, {0, -1, 0}},
                                       {{kNaN, 0, 0}, kNaN, {kNaN, 0, 0}}});
    checkAt(ScalarFieldSphere({}, -2), {{{}, 2, {}}});
    checkAt(ScalarFieldSphere({1, 2, 3}, 4), {{{2, 4, 1}, -1, {1 / 3.0F, 2 / 3.0F, -2 / 3.0F}}},
            kRounding);
    checkAt(ScalarFieldSphere({}, kInf), {{{3, 0, 0}, -kInf, {1, 0, 0}}});
    // Far away the square overflows.
    checkAt(ScalarFieldSphere({}, 1), {{{1e38F, 0, 0}, kInf, {0, 0, 0}}});
}

TEST(Shapes, ImplicitBoxIsThePNormLessThePowerOfItsSize) {
    float3 const nan{kNaN, kNaN, kNaN};
    ScalarFieldSphere const sphere({1, 2, 3}, 1);
    ScalarFieldImplicitBox const box({1, 2, 3}, -1, 2);
    for (float3 const p : {float3{2, 4, 1}, float3{1.5F, 2.25F, 3}, float3{-7, 0, 12}})
        checkAt(box, {{p, sphere.eval(p, 0), sphere.grad(p, 0)}}, kRounding);
    // The surface lies at 9, not at 3; the centre has no gradient.
    checkAt(ScalarFieldImplicitBox({}, 3, 2), {{{9, 0, 0}, 0, {1, 0, 0}}, {{}, -9, nan}},
            kRounding);
    // (1 + 8 + 27)^(1/3) - 8, and the squares 1, 4, 9 over 36^(2/3).
    checkAt(ScalarFieldImplicitBox({}, 2, 3),
            {{{1, -2, 3}, -4.69807275F, {0.0917203F, -0.3668812F, 0.8254826F}}}, 1e-6F);
    // An exponent below 2: infinity times 0 where a component is 0.
    checkAt(ScalarFieldImplicitBox({}, 1, 1), {{{2, 0, -3}, 4, {1, kNaN, -1}}});
    // A large exponent approaches a cube.
    checkAt(ScalarFieldImplicitBox({}, 1, 64), {{{0.5F, 1.25F, -0.75F}, 0.25F, {0, 1, 0}}}, 1e-6F);
    checkAt(ScalarFieldImplicitBox({}, kNaN, 2), {{{3, 0, 0}, kNaN, {1, 0, 0}}}, kRounding);
    EXPECT_FALSE(std::isfinite(ScalarFieldImplicitBox({}, 1, 0).eval({1, 2, 3}, 0)));
}

TEST(Shapes, PlaneHasAUnitNormal) {
    checkAt(ScalarFieldPlane({1, 2, 3}, {0, 0, 2}),
            {{{7, 7, 8}, 5, {0, 0, 1}}, {{1, 2, 2}, -1, {0, 0, 1}}});
    checkAt(ScalarFieldPlane({1, 0, 0}, {3, 0, -4}), {{{6, 9, 10}, -5, {0.6F, 0, -0.8F}}},
            kRounding);
    checkAt(ScalarFieldPlane({}, {}), {{{1, 2, 3}, kNaN, {kNaN, kNaN, kNaN}}});
}

TEST(Shapes, MovingCopies) {
    ScalarFieldSphere source({1, 2, 3}, 4);
    ScalarFieldSphere const taken(std::move(source));
    checkAt(source, {{{6, 2, 3}, 1, {1, 0, 0}}});
    checkAt(taken, {{{6, 2, 3}, 1, {1, 0, 0}}});
}
