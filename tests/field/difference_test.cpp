#include <cmath>
#include <random>

#include "support/probe.h"

// The default gradients, by relative differences.
namespace {

using namespace zel;
using namespace support;

/// Records where it is asked.
struct Bumpy : VectorField {
    using VectorField::eval;
    float3 eval(float3 const& p, long long i) const override {
        EXPECT_EQ(i, kIndex);
        asked.push_back(p);
        return {std::sin(p.x) + p.y, p.y * p.z, p.x / (p.z + 9)};
    }
    mutable std::vector<float3> asked;
};
struct First : ScalarField {
    explicit First(Bumpy const& field) : field(&field) {}
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override { return field->eval(p, i).x; }
    Bumpy const* field;
};

TEST(DefaultGradient, KeepsItsOrderOfOperationsToTheBit) {
    Bumpy const field;
    float const q = 1.01F, qinv = 0.990099F;
    std::mt19937 random(11);
    std::uniform_real_distribution<float> coordinate(-3, 3);
    std::vector<float3> points{{0, 1, 2}, {1, -0.0F, 2}, {kNaN, 1, 1}, {1, 2, 1e30F}};
    for (int n = 0; n < 50; ++n)
        points.push_back({coordinate(random), coordinate(random), coordinate(random)});
    for (float3 const& p : points) {
        field.asked.clear();
        float3x3 const m = field.grad(p, kIndex);
        float3 const first = First(field).grad(p, kIndex);
        ASSERT_EQ(field.asked.size(), 12U);
        for (int axis = 0; axis < 3; ++axis) {
            float const d = p[axis] == 0 ? 0.0001F : 0;
            float3 up = p, down = p;
            up[axis] = (p[axis] + d) * q;
            down[axis] = (p[axis] + d) * qinv;
            auto const at = static_cast<std::size_t>(2 * axis);
            EXPECT_TRUE(same(field.asked[at], up));
            EXPECT_TRUE(same(field.asked[at + 1], down));
            float3 const f1 = field.eval(up, kIndex), f2 = field.eval(down, kIndex);
            float const divisor = (d + p[axis]) * 0.019900978F;
            for (int r = 0; r < 3; ++r)  // components in rows, coordinates in columns
                EXPECT_TRUE(same(m[r][axis], (f1[r] - f2[r]) / divisor));
            EXPECT_TRUE(same(first[axis], m[0][axis]));
        }
    }
}

}  // namespace
