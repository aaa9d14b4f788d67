#include <cstdint>

#include "support/probe.h"

using namespace support;
using namespace zel;

// The expected numbers are worked out by hand; the gradients of children are kMatrixA and kMatrixB.
// Ordinary numbers of nodes that are derivatives are the business of the tests of those.
namespace {
constexpr float3 kV{2, -1, 4}, kNaNs{kNaN, kNaN, kNaN};
constexpr float3x3 kZero{};
}  // namespace

TEST(VectorNodes, Arithmetic) {
    check(VectorRows{
        {makePtr<VectorFieldConstant>(), {}, kZero},
        {makePtr<VectorFieldDivide>(v(kV), v({0, -0.0F, 1}, kZero)),
         {kInf, kInf, 4},
         {{kNaNs, kNaNs, kMatrixA[2]}}},
        {makePtr<VectorFieldLerp>(v({1e8F, 0, 1}), v({1, kInf, 2}, kZero), s(1, {})),
         {1, kInf, 2},
         {{{0, 0, 0}, kNaNs, {0, 0, 0}}}},
    });
}

TEST(VectorNodes, UnitVectorTakesOutTheChangeOfLengthButDoesNotDivideByIt) {
    auto const unit = [](float3 value) { return makePtr<VectorFieldUnitVector>(v(value)); };
    check(VectorRows{
        {unit({1, 2, -2}),
         {1 / 3.0F, 2 / 3.0F, -2 / 3.0F},
         {{{19 / 9.0F, 10 / 9.0F, -2}, {49 / 18.0F, -52 / 9.0F, 7}, {34 / 9.0F, -47 / 9.0F, 6}}},
         kRounding},
        {unit({0, -0.0F, 0}), {0, -0.0F, 0}, {{kNaNs, kNaNs, kNaNs}}},
        {unit({kInf, 1, 0}), {kNaN, 0, 0}, {{kNaNs, kNaNs, kNaNs}}},
    });
    // So short that its square is 0 in single precision.
    EXPECT_TRUE(same(unit({1e-30F, 0, 0})->eval({}, 0), {1e-30F, 0, 0}));
}

TEST(VectorNodes, ConstantArrayTakesTheIndexAsUnsigned) {
    VectorFieldConstantArray const three(Quern::Array<float3>{{1, 2, 3}, {4, 5, 6}, {7, 8, 9}});
    // 2^64 leaves 1 on division by 3, so -1 is element 0 and the least index, 2^63, element 2.
    std::pair<long long, float> const firsts[] = {{0, 1},  {2, 7},  {3, 1},         {4, 4},
                                                  {-1, 1}, {-2, 7}, {INT64_MAX, 4}, {INT64_MIN, 7}};
    for (auto const& [index, x] : firsts) {
        EXPECT_EQ(three.eval({kNaN, kInf, 1}, index).x, x) << index;
        EXPECT_TRUE(same(three.grad(kPosition, index), kZero));
    }
    EXPECT_TRUE(same(VectorFieldConstantArray().eval(kPosition, 5), float3{}));
    EXPECT_TRUE(same(VectorFieldConstantArray().grad(kPosition, 5), kZero));
}

TEST(VectorNodes, Powers) {
    check(VectorRows{
        {makePtr<VectorFieldPow>(v({0, -8, 0}), float3{0.5F, 0.3F, 0}),
         {0, kNaN, 1},
         {{{kInf, kInf, -kInf}, {kNaN, kNaN, kNaN}, {kNaN, kNaN, kNaN}}}},
        {makePtr<VectorFieldSquareRoot>(v({4, -4, 16})),
         {2, 0, 4},
         {{{0.25F, 0.5F, -0.75F}, {}, {0.75F, -0.875F, 1}}}},
        {makePtr<VectorFieldSquareRoot>(v({kNaN, 0, kInf})),
         {0, 0, kInf},
         {{{}, {}, {0, -0.0F, 0}}}},
    });
    // Where single and double precision may round apart, the single one counts.
    float volatile base = 0x1.00bf28p+1F;
    float3 const power = VectorFieldPow(v({base, 1, 1}), {1.5F, 1, 1}).eval({}, 0);
    EXPECT_EQ(power.x, std::pow(base, 1.5F));

    struct Fixed : VectorFieldSquareRoot {
        using VectorFieldSquareRoot::eval;
        using VectorFieldSquareRoot::VectorFieldSquareRoot;
        float3 eval(float3 const& /*p*/, long long /*i*/) const override { return {0, 0.5F, 1}; }
    };
    EXPECT_TRUE(same(Fixed(v({9, 9, 9})).grad({}, 0), {{{}, {0.5F, -4, 5}, {3, -3.5F, 4}}}));
}

TEST(VectorNodes, SelectValuesByComponentAndGradientsByLexicographicOrder) {
    auto const max = [](float3 x, float3 y) {
        return makePtr<VectorFieldMax>(v(x, kMatrixA), v(y, kMatrixB));
    };
    auto const min = [](float3 x, float3 y) {
        return makePtr<VectorFieldMin>(v(x, kMatrixA), v(y, kMatrixB));
    };
    auto const abs = [](float3 x) { return makePtr<VectorFieldAbsolute>(v(x)); };
    auto const clamp = [](float3 x, float3 lo, float3 hi) {
        return makePtr<VectorFieldClamp>(v(x), lo, hi);
    };
    float3 const zero, one{1, 1, 1};
    check(VectorRows{
        {max({1, 5, 0}, {2, 0, 0}), {2, 5, 0}, kMatrixB},
        {max({1, 5, 0}, {1, 5, 1}), {1, 5, 1}, kMatrixB},
        {max({-0.0F, 0, 1}, {0, -0.0F, 1}), {0, -0.0F, 1}, kMatrixB},
        {max({kNaN, 5, 5}, zero), {0, 5, 5}, kMatrixB},
        {max({1, kInf, 0}, {1, kNaN, 0}), {1, kNaN, 0}, kMatrixB},
        {min({1, 5, 0}, {1, 5, 1}), {1, 5, 0}, kMatrixA},
        {min({-0.0F, 0, 1}, {0, -0.0F, 1}), {0, -0.0F, 1}, kMatrixB},
        {abs({0, -1, 5}), {0, 1, 5}, -kMatrixA},
        {abs({-0.0F, 0, -0.0F}), zero, kMatrixA},
        {clamp({0.5F, -1, 2}, one, zero), {0.5F, 0, 1}, kZero},
        {clamp(zero, zero, one), zero, kZero},
        {clamp({0, 0, 0.5F}, zero, one), {0, 0, 0.5F}, kMatrixA},
        {clamp({kNaN, 2, -2}, zero, one), {kNaN, 1, 0}, kZero},
    });
}

TEST(VectorNodes, Projection) {
    check(ScalarRows{
        {makePtr<VectorFieldComponent>(v(kV), 3), 0, {}},
        {makePtr<VectorFieldComponent>(v(kV), INT32_MIN), 0, {}},
        {makePtr<VectorFieldLength>(v({})), 0, kNaNs},
    });
}

TEST(VectorNodes, Spatial) {
    auto const scale = [](float3 factor) { return makePtr<VectorFieldScale>(v(kV), factor); };
    auto const turn = [](auto rotation) { return makePtr<VectorFieldRotate>(v(kV), rotation); };
    float const h = 1.57079633F;
    float3 const p{1, 2, 3};
    // Only the value and the columns of the matrix are turned, and uneven scales leave the matrix.
    check(VectorRows{
        {scale({2, -4, 0.5F}), {4, 4, 2}, kMatrixA, 0, {2, 4, 8}, {1, -1, 16}},
        {turn(float4{0, 0, 0, 2}), {8, -4, 16}, kMatrixA * 4, 0, p, {4, 8, 12}},
        {turn(float4{0.5F, 0.5F, 0.5F, 0.5F}),
         {4, 2, -1},
         {{{6, -7, 8}, {1, 2, -3}, {0.5F, -4, 5}}},
         0,
         p,
         {2, 3, 1}},
        {turn(float3{0, 0, h}),
         {-1, -2, 4},
         {{{0.5F, -4, 5}, {-1, -2, 3}, {6, -7, 8}}},
         2e-6F,
         {1, 0, 3},
         {0, 1, 3}},
    });
}
