#include "zel/field/math.h"

#include "support/probe.h"

using namespace support;
using namespace Orvane::Math;

TEST(Math, Vectors) {
    // x and y meet first, so the 1 is lost.
    EXPECT_EQ(dot({1, 1e8F, -1e8F}, {1, 1, 1}), 0);
    EXPECT_TRUE(same(cross({1, 2, 3}, {4, -5, 6}), {27, 6, -13}));
    // 5 * (1 / 49.0F) is another float than 5 / 49.0F.
    EXPECT_TRUE(same(float3{5, 7, 98} / 49.0F, {0.102040820F, 0.142857149F, 2}));

    struct Case {
        float3 a, b;
        bool above, below;
    };
    for (auto const& [a, b, above, below] :
         std::vector<Case>{{{1, 0, 0}, {0, 9, 9}, true, false},
                           {{0, 9, 9}, {0, 9, 9}, false, false},
                           {{1, 1, 9}, {1, 2, 0}, false, true},
                           {{-0.0F, 0, 1}, {0, -0.0F, 0}, true, false},
                           {{1, kNaN, 9}, {1, 0, 0}, false, false},
                           {{2, kNaN, 9}, {1, 0, 0}, true, false}}) {
        EXPECT_TRUE((a > b) == above && (b < a) == above) << a.x << " " << a.y << " " << a.z;
        EXPECT_TRUE((a < b) == below && (b > a) == below) << a.x << " " << a.y << " " << a.z;
    }
}

TEST(Math, Matrices) {
    float3x3 const &a = kMatrixA, &b = kMatrixB;
    EXPECT_TRUE(same(a * float3{2, 3, -1}, {11, -16, -17}));
    EXPECT_TRUE(same(float3{2, 3, -1} * a, {-2.5F, -1, 1}));
    EXPECT_TRUE(same(a * b, {{{26, 6, -1.5F}, {-41, -15.5F, 12.5F}, {-57, -33, 42}}}));
    EXPECT_TRUE(same(a * identity(), a));
    float3x3 const divided = float3x3{{{5, 7, 49}, {}, {98, 0, -5}}} / 49.0F;
    EXPECT_TRUE(same(divided, {{{0.102040820F, 0.142857149F, 1}, {}, {2, 0, -0.102040820F}}}));
    EXPECT_TRUE(same(outerProduct({1, 2, 3}, {4, 5, 6}), {{{4, 5, 6}, {8, 10, 12}, {12, 15, 18}}}));
}

TEST(Math, Quaternions) {
    float4 const i{1, 0, 0, 0}, j{0, 1, 0, 0}, k{0, 0, 1, 0};
    EXPECT_TRUE(i * j == k && j * k == i && k * i == j && j * i == float4(conjugate(k)));
    EXPECT_EQ((float4{1, 2, 3, 4} * float4{5, 6, 7, 8}), (float4{24, 48, 48, -6}));
    EXPECT_EQ(rotate({0, 0, 0, 1}, {1, 2, 3}), (float3{1, 2, 3}));
    EXPECT_EQ(rotate({1, 1, 1, 1}, {1, 2, 3}), (float3{12, 4, 8}));
    float4 const q{0.1F, -0.5F, 0.7F, 0.5F};  // of length 1
    EXPECT_TRUE(same(rotate(conjugate(q), rotate(q, {1, 2, 3})), {1, 2, 3}, 2e-6F));
}
