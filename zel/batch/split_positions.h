#pragma once

#include <algorithm>
#include <cstddef>

#include "zel/batch/float_vectors.h"
#include "zel/field/evaluate.h"
#include "zel_platform/quern_core/always_inline.h"
#include "zel_platform/quern_core/position_loop.h"

namespace zel::detail {

/// Writes the coordinates of `count` positions to three columns. `p` has three floats a position.
inline void splitPositions(int count, float const* p, float* x, float* y, float* z) {
    ZEL_INDEPENDENT
    for (int i = 0; i < count; ++i) {
        x[i] = p[3 * i];
        y[i] = p[3 * i + 1];
        z[i] = p[3 * i + 2];
    }
}

/// The same by vectors of AVX2, eight positions at a time. Three registers hold the coordinates of
/// eight positions in turn. Two blends gather the eight values of a coordinate in one register, and
/// a permutation sorts them. A compiler makes fifteen shuffles of the plain loop, most of them
/// across the halves of a register.
ZEL_WIDE_TARGET inline void splitPositionsWide(int count, float const* p, float* x, float* y,
                                               float* z) {
    int i = 0;
    for (; i + 8 <= count; i += 8) {
        // By __builtin_memcpy, since the arrays need not be aligned, and std::memcpy may be checked
        // (_FORTIFY_SOURCE); one by one, so that the values stay in registers.
        Float8 a, b, c;
        float const* const from = p + 3 * i;
        __builtin_memcpy(&a, from, sizeof a);
        __builtin_memcpy(&b, from + 8, sizeof b);
        __builtin_memcpy(&c, from + 16, sizeof c);
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
        __builtin_memcpy(x + i, &allX, sizeof allX);
        __builtin_memcpy(y + i, &allY, sizeof allY);
        __builtin_memcpy(z + i, &allZ, sizeof allZ);
    }
    splitPositions(count - i, p + 3 * i, x + i, y + i, z + i);
}

/// The same by vectors of AVX-512, sixteen positions at a time: two permutations for a coordinate.
ZEL_WIDEST_TARGET inline void splitPositionsWidest(int count, float const* p, float* x, float* y,
                                                   float* z) {
    int i = 0;
    for (; i + 16 <= count; i += 16) {
        Float16 a, b, c;
        float const* const from = p + 3 * i;
        __builtin_memcpy(&a, from, sizeof a);
        __builtin_memcpy(&b, from + 16, sizeof b);
        __builtin_memcpy(&c, from + 32, sizeof c);
        // Those of `a` and `b`, then with those of `c`, which follow.
        Float16 const xOfAb = __builtin_shufflevector(a, b, 0, 3, 6, 9, 12, 15, 18, 21, 24, 27, 30,
                                                      0, 0, 0, 0, 0),
                      yOfAb = __builtin_shufflevector(a, b, 1, 4, 7, 10, 13, 16, 19, 22, 25, 28, 31,
                                                      0, 0, 0, 0, 0),
                      zOfAb = __builtin_shufflevector(a, b, 2, 5, 8, 11, 14, 17, 20, 23, 26, 29, 0,
                                                      0, 0, 0, 0, 0);
        Float16 const allX = __builtin_shufflevector(xOfAb, c, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 17,
                                                     20, 23, 26, 29),
                      allY = __builtin_shufflevector(yOfAb, c, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 18,
                                                     21, 24, 27, 30),
                      allZ = __builtin_shufflevector(zOfAb, c, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 16, 19,
                                                     22, 25, 28, 31);
        __builtin_memcpy(x + i, &allX, sizeof allX);
        __builtin_memcpy(y + i, &allY, sizeof allY);
        __builtin_memcpy(z + i, &allZ, sizeof allZ);
    }
    splitPositions(count - i, p + 3 * i, x + i, y + i, z + i);
}

/// Positions in memory, to be copied to columns.
class PositionReader {
public:
    explicit PositionReader(PointView const& points)
        : m_points(points), m_isInterleaved(points.count > 0 && points.stride == 3 &&
                                            points.y == points.x + 1 && points.z == points.x + 2) {}

    /// Writes the coordinates of `count` positions from number `first` on to three columns, and
    /// loads those of the `next` positions behind them into the cache.
    ZEL_ALWAYS_INLINE void read(std::size_t first, std::size_t count, std::size_t next, float* x,
                                float* y, float* z) const {
        std::ptrdiff_t const stride = m_points.stride,
                             at = stride * static_cast<std::ptrdiff_t>(first);
        if (m_isInterleaved) {
            float const* const from = m_points.x + at;
            (Quern::widestVectors ? splitPositionsWidest
             : Quern::wideVectors ? splitPositionsWide
                                  : splitPositions)(static_cast<int>(count), from, x, y, z);
            prefetch(from + 3 * count, 3 * next);
        } else {
            readColumn(m_points.x + at, stride, count, next, x);
            readColumn(m_points.y + at, stride, count, next, y);
            readColumn(m_points.z + at, stride, count, next, z);
        }
    }

private:
    /// Inlined at once: g++ 12 drops a call of a function that only prefetches.
    ZEL_ALWAYS_INLINE static void prefetch(float const* floats, std::size_t count) {
        constexpr std::size_t kLine = 64 / sizeof(float);
        for (std::size_t at = 0; at < count; at += kLine) __builtin_prefetch(floats + at, 0, 2);
    }
    ZEL_ALWAYS_INLINE static void readColumn(float const* from, std::ptrdiff_t stride,
                                             std::size_t count, std::size_t next, float* to) {
        if (stride == 1) {
            std::copy_n(from, count, to);
            prefetch(from + count, next);
        } else {
            for (std::size_t i = 0; i < count; ++i)
                to[i] = from[stride * static_cast<std::ptrdiff_t>(i)];
        }
    }

    PointView m_points;
    bool m_isInterleaved;
};

}  // namespace zel::detail
