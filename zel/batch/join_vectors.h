#pragma once

#include "zel/batch/columns.h"
#include "zel/batch/float_vectors.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/position_loop.h"

// The inverse of split_positions.h: vectors in memory from the columns of their components.
namespace zel::detail {

/// Writes the values of columns to an array.
template <class T> void joinColumns(int count, Columns<T> const& columns, T* to) {
    Quern::forEachPosition(count, [to, from = columns.component](int i)
                                      ZEL_ALWAYS_INLINE { to[i] = Columns<T>{from}[i]; });
}

/// The same for the vectors with the numbers `begin` to `end` - 1, one by one.
inline void joinVectors(int begin, int end, Columns<Orvane::Math::float3>::Components const& from,
                        float* to) {
    for (int i = begin; i < end; ++i)
        for (int c = 0; c < 3; ++c) to[3 * i + c] = from[static_cast<unsigned>(c)][i];
}

/// The same by vectors of AVX2, eight positions at a time: a permutation of each component puts the
/// values where they stand in one of the three registers to be written, and blends choose among
/// them. g++ finds this for the plain loop, clang does not vectorise it.
ZEL_WIDE_TARGET inline void
joinVectorsWide(int count, Columns<Orvane::Math::float3>::Components const& from, float* to) {
    int i = 0;
    for (; i + 8 <= count; i += 8) {
        Float8 x, y, z;
        __builtin_memcpy(&x, from[0] + i, sizeof x);
        __builtin_memcpy(&y, from[1] + i, sizeof y);
        __builtin_memcpy(&z, from[2] + i, sizeof z);
        Float8 const xs = __builtin_shufflevector(x, x, 0, 3, 6, 1, 4, 7, 2, 5),
                     ys = __builtin_shufflevector(y, y, 5, 0, 3, 6, 1, 4, 7, 2),
                     zs = __builtin_shufflevector(z, z, 2, 5, 0, 3, 6, 1, 4, 7);
        Float8 const xy = __builtin_shufflevector(xs, ys, 0, 9, 2, 3, 12, 5, 6, 15),
                     zx = __builtin_shufflevector(zs, xs, 0, 9, 2, 3, 12, 5, 6, 15),
                     yz = __builtin_shufflevector(ys, zs, 0, 9, 2, 3, 12, 5, 6, 15);
        Float8 const a = __builtin_shufflevector(xy, zs, 0, 1, 10, 3, 4, 13, 6, 7),
                     b = __builtin_shufflevector(zx, ys, 0, 1, 10, 3, 4, 13, 6, 7),
                     c = __builtin_shufflevector(yz, xs, 0, 1, 10, 3, 4, 13, 6, 7);
        __builtin_memcpy(to + 3 * i, &a, sizeof a);
        __builtin_memcpy(to + 3 * i + 8, &b, sizeof b);
        __builtin_memcpy(to + 3 * i + 16, &c, sizeof c);
    }
    joinVectors(i, count, from, to);
}

/// The same by vectors of AVX-512, sixteen positions at a time: two permutations for a register.
ZEL_WIDEST_TARGET inline void
joinVectorsWidest(int count, Columns<Orvane::Math::float3>::Components const& from, float* to) {
    int i = 0;
    for (; i + 16 <= count; i += 16) {
        Float16 x, y, z;
        __builtin_memcpy(&x, from[0] + i, sizeof x);
        __builtin_memcpy(&y, from[1] + i, sizeof y);
        __builtin_memcpy(&z, from[2] + i, sizeof z);
        // Those of `x` and `y`, with gaps for `z`.
        Float16 const xy0 = __builtin_shufflevector(x, y, 0, 16, 0, 1, 17, 0, 2, 18, 0, 3, 19, 0, 4,
                                                    20, 0, 5),
                      xy1 = __builtin_shufflevector(x, y, 21, 0, 6, 22, 0, 7, 23, 0, 8, 24, 0, 9,
                                                    25, 0, 10, 26),
                      xy2 = __builtin_shufflevector(x, y, 0, 11, 27, 0, 12, 28, 0, 13, 29, 0, 14,
                                                    30, 0, 15, 31, 0);
        Float16 const a = __builtin_shufflevector(xy0, z, 0, 1, 16, 3, 4, 17, 6, 7, 18, 9, 10, 19,
                                                  12, 13, 20, 15),
                      b = __builtin_shufflevector(xy1, z, 0, 21, 2, 3, 22, 5, 6, 23, 8, 9, 24, 11,
                                                  12, 25, 14, 15),
                      c = __builtin_shufflevector(xy2, z, 26, 1, 2, 27, 4, 5, 28, 7, 8, 29, 10, 11,
                                                  30, 13, 14, 31);
        __builtin_memcpy(to + 3 * i, &a, sizeof a);
        __builtin_memcpy(to + 3 * i + 16, &b, sizeof b);
        __builtin_memcpy(to + 3 * i + 32, &c, sizeof c);
    }
    joinVectors(i, count, from, to);
}

inline void joinColumns(int count, Columns<Orvane::Math::float3> const& columns,
                        Orvane::Math::float3* to) {
    float* const floats = &to->x;
    if (Quern::widestVectors)
        joinVectorsWidest(count, columns.component, floats);
    else if (Quern::wideVectors)
        joinVectorsWide(count, columns.component, floats);
    else
        joinVectors(0, count, columns.component, floats);
}

}  // namespace zel::detail
