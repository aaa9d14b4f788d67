#include "sampler/cubic_volume.h"

namespace {

using namespace ORV::TileTree3D;
using namespace ORV::TileTree3D::Internal;
using support::kInf;
using support::kNaN;
using support::same;

constexpr int kTypes[] = {kQuadraticC0Averaged, kCubicC0, kCubicC1, kCubicC1Monotonic};

struct Row {
    float f[4];
    float x[4];
    float at;
};

Row randomRow(trees::Random& random, bool uniform) {
    Row row;
    row.x[0] = random.real(-3, 3);
    for (int i = 1; i < 4; ++i) row.x[i] = row.x[i - 1] + (uniform ? 1 : random.real(0.5F, 4));
    for (float& f : row.f) f = random.real(-10, 10);
    row.at = row.x[1] + random.real(0, 1) * (row.x[2] - row.x[1]);
    return row;
}

float value(int type, Row const& row, bool atJump, bool clamp = false) {
    return interpolateValues1D(type, clamp, row.f, row.x, row.at, atJump);
}

double expected(int type, Row const& row) {
    auto const four = [](float const(&from)[4]) {
        return cubic::Four{from[0], from[1], from[2], from[3]};
    };
    return cubic::interpolant(type, four(row.x), four(row.f), row.at);
}

TEST(Interpolant, ClosedFormsEndsAndClamp) {
    trees::Random random(11);
    for (int n = 0; n < 2000; ++n) {
        bool const uniform = n % 2 == 0;
        Row row = randomRow(random, uniform);
        if (n % 5 == 0) row.f[2] = row.f[1];
        if (n % 7 == 0)
            for (float& f : row.f) f = random(0, 1) == 0 ? 0.0F : -0.0F;
        if (n % 11 == 0) row.at = row.x[random(1, 2)];
        float const low = std::min(row.f[1], row.f[2]), high = std::max(row.f[1], row.f[2]);
        for (bool const atJump : {true, false}) {
            if (!atJump && !uniform) continue;
            for (int type : kTypes) {
                float const free = value(type, row, atJump);
                EXPECT_NEAR(free, expected(type, row), atJump ? 2e-4 : 5e-5) << type;
                EXPECT_TRUE(same(value(type, row, atJump, true), std::clamp(free, low, high)));
            }
            EXPECT_EQ(value(9, row, atJump), 0);
            EXPECT_EQ(value(-1, row, atJump, true), std::clamp(0.0F, low, high));
        }
    }
}

TEST(Interpolant, LanesHaveTheBitsOfFloats) {
    trees::Random random(16);
    constexpr float kOdd[] = {-0.0F, 0.0F, kNaN, kInf, 1e38F, -1e38F};
    for (int n = 0; n < 3000; ++n) {
        Row rows[4];
        Float4 f[4];
        for (int lane = 0; lane < 4; ++lane) {
            rows[lane] = randomRow(random, false);
            if (n % 3 == 0) rows[lane].f[random(0, 3)] = kOdd[random(0, 5)];
            if (n % 7 == 0)  // the clamp tells zeros apart
                for (int i : {1, 2}) rows[lane].f[i] = kOdd[random(0, 1)];
            std::copy_n(rows[0].x, 4, rows[lane].x);
            rows[lane].at = rows[0].at;
            for (int i = 0; i < 4; ++i) f[i][lane] = rows[lane].f[i];
        }
        for (int type : kTypes)
            for (int mode = 0; mode < 4; ++mode) {
                bool const atJump = (mode & 1) != 0, clamp = (mode & 2) != 0;
                Float4 const lanes =
                    interpolateValues1D(type, clamp, f, rows[0].x, rows[0].at, atJump);
                for (int lane = 0; lane < 4; ++lane)
                    EXPECT_TRUE(same(lanes[lane], value(type, rows[lane], atJump, clamp)));
            }
    }
}

}  // namespace
