#pragma once

#include <cstddef>
#include <cstring>

#include "zel/batch/float8.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/position_loop.h"

namespace zel::detail {

/// Writes the coordinates of `count` positions to three columns.
inline void splitPositions(int count, Orvane::Math::float3 const* p, float* x, float* y, float* z) {
    ZEL_INDEPENDENT
    for (int i = 0; i < count; ++i) {
        x[i] = p[i].x;
        y[i] = p[i].y;
        z[i] = p[i].z;
    }
}

/// The same by vectors of AVX2, eight positions at a time. Three registers hold the coordinates of
/// eight positions in turn. Two blends gather the eight values of a coordinate in one register, and
/// a permutation sorts them. A compiler makes fifteen shuffles of the plain loop, most of them
/// across the halves of a register.
ZEL_WIDE_TARGET inline void splitPositionsWide(int count, Orvane::Math::float3 const* p, float* x,
                                               float* y, float* z) {
    static_assert(sizeof(*p) == 3 * sizeof(float));
    int i = 0;
    for (; i + 8 <= count; i += 8) {
        // By memcpy, since the arrays need not be aligned; one by one, so that the values stay in
        // registers.
        Float8 a, b, c;
        auto const* const from = reinterpret_cast<std::byte const*>(p + i);
        std::memcpy(&a, from, sizeof a);
        std::memcpy(&b, from + sizeof a, sizeof a);
        std::memcpy(&c, from + 2 * sizeof a, sizeof a);
        // a: x0 y0 z0 x1 y1 z1 x2 y2; b: z2 x3 y3 z3 x4 y4 z4 x5; c: y5 z5 x6 y6 z6 x7 y7 z7
        Float8 const xOfAb = __builtin_shufflevector(a, b, 0, 9, 2, 3, 12, 5, 6, 15),
                     yOfBc = __builtin_shufflevector(b, c, 8, 1, 2, 11, 4, 5, 14, 7),
                     zOfAb = __builtin_shufflevector(a, b, 8, 1, 2, 11, 4, 5, 14, 7);
        Float8 const xs = __builtin_shufflevector(xOfAb, c, 0, 1, 10, 3, 4, 13, 6, 7),
                     ys = __builtin_shufflevector(yOfBc, a, 0, 9, 2, 3, 12, 5, 6, 15),
                     zs = __builtin_shufflevector(zOfAb, c, 0, 9, 2, 3, 12, 5, 6, 15);
        Float8 const allX = __builtin_shufflevector(xs, xs, 0, 3, 6, 1, 4, 7, 2, 5),
                     allY = __builtin_shufflevector(ys, ys, 1, 4, 7, 2, 5, 0, 3, 6),
                     allZ = __builtin_shufflevector(zs, zs, 2, 5, 0, 3, 6, 1, 4, 7);
        std::memcpy(x + i, &allX, sizeof allX);
        std::memcpy(y + i, &allY, sizeof allY);
        std::memcpy(z + i, &allZ, sizeof allZ);
    }
    splitPositions(count - i, p + i, x + i, y + i, z + i);
}

}  // namespace zel::detail
