#pragma once

// ScalarArithmetic: the types and operations of the simplex kernel for one point. The four
// coordinates of the point are lanes of one register, or of two for 64-bit types. Each operation is
// exact or rounded once, so that SimdArithmetic, which arranges numbers differently, gives the same
// bits.

#include "zel_platform/orvane_math_support/simplex_kernel.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>

namespace Orvane::Math::Simplex {

using Float4 = float __attribute__((vector_size(16)));
using Double2 = double __attribute__((vector_size(16)));
using Word4 = std::uint32_t __attribute__((vector_size(16)));
using Long2 = std::uint64_t __attribute__((vector_size(16)));

/// Four 64-bit values in two registers.
struct Long4 {
    Long2 xy, zw;
    ZEL_ALWAYS_INLINE std::uint64_t operator[](int i) const { return i < 2 ? xy[i] : zw[i - 2]; }
    ZEL_ALWAYS_INLINE Long4 operator+(Long4 const& b) const { return {xy + b.xy, zw + b.zw}; }
    ZEL_ALWAYS_INLINE Long4 operator+(std::uint64_t b) const { return {xy + b, zw + b}; }
};

/// Four doubles in two registers.
struct Double4 {
    Double2 xy, zw;
    ZEL_ALWAYS_INLINE double operator[](int i) const { return i < 2 ? xy[i] : zw[i - 2]; }
    ZEL_ALWAYS_INLINE Double4 operator+(Double4 const& b) const { return {xy + b.xy, zw + b.zw}; }
    ZEL_ALWAYS_INLINE Double4 operator-(Double4 const& b) const { return {xy - b.xy, zw - b.zw}; }
    ZEL_ALWAYS_INLINE Double4 operator+(double b) const { return {xy + b, zw + b}; }
    ZEL_ALWAYS_INLINE Double4 operator-(double b) const { return {xy - b, zw - b}; }
    ZEL_ALWAYS_INLINE Double4 operator*(double b) const { return {xy * b, zw * b}; }
};

/// The operations that do not depend on the type of a Real. Cells are found in double precision in
/// both.
struct ScalarCells {
    /// The unit of direction(), a power of two: times this, its coordinates are those of the table.
    static constexpr double kDirectionUnit = 1;
    using Word = std::uint32_t;
    using Word4 = Simplex::Word4;
    using Wide = double;
    using Wide4 = Double4;
    using Cell = std::uint64_t;
    using Cell4 = Long4;

    ZEL_ALWAYS_INLINE static Word4 load(std::array<std::uint32_t, 4> const& a) {
        return Word4{a[0], a[1], a[2], a[3]};
    }
    ZEL_ALWAYS_INLINE static Wide4 load(std::array<double, 4> const& a) {
        return {Double2{a[0], a[1]}, Double2{a[2], a[3]}};
    }
    /// (a, a, a, b)
    ZEL_ALWAYS_INLINE static Wide4 spread(double a, double b) {
        return {Double2{a, a}, Double2{a, b}};
    }
    ZEL_ALWAYS_INLINE static Cell4 spread(std::uint64_t a, std::uint64_t b) {
        return {Long2{a, a}, Long2{a, b}};
    }
    ZEL_ALWAYS_INLINE static double cutToFloat(double a) { return Simplex::cutToFloat(a); }
    ZEL_ALWAYS_INLINE static double sum(Wide4 const& a) { return (a[0] + a[1]) + (a[2] + a[3]); }
    /// The sum of the absolute values.
    ZEL_ALWAYS_INLINE static double size(Wide4 const& a) {
        constexpr std::uint64_t bits = ~std::uint64_t{0} >> 1;
        return sum({reinterpret_cast<Double2>(reinterpret_cast<Long2>(a.xy) & bits),
                    reinterpret_cast<Double2>(reinterpret_cast<Long2>(a.zw) & bits)});
    }
    ZEL_ALWAYS_INLINE static Cell4 bits(Wide4 const& a) {
        return {reinterpret_cast<Long2>(a.xy), reinterpret_cast<Long2>(a.zw)};
    }
    ZEL_ALWAYS_INLINE static Cell4 unbiased(Cell4 const& a) { return a + (0 - kCellBias); }
    ZEL_ALWAYS_INLINE static Word4 low(Cell4 const& a) {
        return __builtin_shufflevector(reinterpret_cast<Word4>(a.xy), reinterpret_cast<Word4>(a.zw),
                                       0, 2, 4, 6);
    }
    ZEL_ALWAYS_INLINE static Word4 high(Cell4 const& a) {
        return __builtin_shufflevector(reinterpret_cast<Word4>(a.xy), reinterpret_cast<Word4>(a.zw),
                                       1, 3, 5, 7);
    }
    /// The high words of the next cell along each axis.
    ZEL_ALWAYS_INLINE static Word4 highOfNext(Cell4 const& a) { return high(a + 1); }
    /// Masks, each coordinate all ones or zeros: of the largest coordinate, of the two largest, and
    /// of the three largest.
    using Order = std::array<Word4, 3>;
    /// Of two equal coordinates the later counts as larger.
    ZEL_ALWAYS_INLINE static Order order(Float4 d) {
        auto const above = [&](Float4 other, Word4 later) ZEL_ALWAYS_INLINE {
            return reinterpret_cast<Word4>(d > other) |
                   (reinterpret_cast<Word4>(d == other) & later);
        };
        constexpr std::uint32_t yes = ~0u;
        // Compares each coordinate with the three others.
        Word4 const a = above(__builtin_shufflevector(d, d, 1, 2, 3, 0), Word4{0, 0, 0, yes}),
                    b = above(__builtin_shufflevector(d, d, 2, 3, 0, 1), Word4{0, 0, yes, yes}),
                    c = above(__builtin_shufflevector(d, d, 3, 0, 1, 2), Word4{0, yes, yes, yes});
        return {a & b & c, (a & b) | (c & (a | b)), a | b | c};
    }
    /// Compares in single precision. Where two coordinates are equal as floats, the vertices that
    /// their order selects contribute less than the rounding error of a double.
    ZEL_ALWAYS_INLINE static Order order(Double4 const& d) { return order(round(d)); }
    ZEL_ALWAYS_INLINE static Float4 round(Double4 const& a) {
        using Float2 = float __attribute__((vector_size(8)));
        return __builtin_shufflevector(__builtin_convertvector(a.xy, Float2),
                                       __builtin_convertvector(a.zw, Float2), 0, 1, 2, 3);
    }
    /// `first`, with the bits of `flip` flipped along the axes of the `n` largest coordinates.
    template <int n>
    ZEL_ALWAYS_INLINE static Word flipped(Word first, Word4 flip, Order const& order) {
        return first ^ fold(flip & order[n - 1]);
    }
    /// The exclusive or of the four words.
    ZEL_ALWAYS_INLINE static Word fold(Word4 a) {
        a ^= __builtin_shufflevector(a, a, 2, 3, 0, 1);
        return a[0] ^ a[1];
    }
};

template <class RealType> struct ScalarArithmetic;

template <> struct ScalarArithmetic<float> : ScalarCells {
    using Number = float;  // the type of a Real's lanes
    using Real = float;
    using Real4 = Float4;

    ZEL_ALWAYS_INLINE static Real4 narrow(Wide4 const& a) { return round(a); }
    using ScalarCells::size;
    ZEL_ALWAYS_INLINE static float size(Real4 a) {
        a = reinterpret_cast<Float4>(reinterpret_cast<Word4>(a) & (~0u >> 1));
        return (a[0] + a[1]) + (a[2] + a[3]);
    }
    ZEL_ALWAYS_INLINE static float dot(Real4 a, Real4 b) { return sum(a * b); }
    /// The dot product of the first three coordinates.
    ZEL_ALWAYS_INLINE static float dot3(Real4 a, Real4 b) {
        Float4 const p = a * b;
        return (p + __builtin_shufflevector(p, p, 1, 0, 3, 2))[0] + p[2];
    }
    using ScalarCells::sum;
    ZEL_ALWAYS_INLINE static float sum(Real4 p) {
        p += __builtin_shufflevector(p, p, 1, 0, 3, 2);
        return p[0] + p[2];
    }
    /// `a` if it is above 0, else 0. The formula is exact, and a compiler cannot make a branch of
    /// it as it can of a comparison.
    ZEL_ALWAYS_INLINE static float positive(float a) { return (a + std::abs(a)) * 0.5f; }
    /// Adds `a - 1` to the `n` largest coordinates, and `a` to the others.
    template <int n> ZEL_ALWAYS_INLINE static Real4 step(Real4 d, Order const& order, float a) {
        Word4 const m = order[n - 1];
        return d + (a - reinterpret_cast<Float4>(m & std::bit_cast<std::uint32_t>(1.0f)));
    }
    /// The gradient direction of a vertex, from its hash.
    ZEL_ALWAYS_INLINE static Real4 direction(Word hash) {
        auto const& d = kDirectionTable<float>[hash >> kDirectionShift];
        return Float4{d.x, d.y, d.z, d.w};
    }
    /// The spatial direction indexed by the six bits of the hash from bit `low` on.
    template <int low> ZEL_ALWAYS_INLINE static Real4 spatialDirection(Word hash) {
        auto const& d = kSpatialDirectionTable<float>[hash >> low & 63];
        return Float4{d.x, d.y, d.z, d.w};
    }
};

template <> struct ScalarArithmetic<double> : ScalarCells {
    using Number = double;
    using Real = double;
    using Real4 = Double4;

    ZEL_ALWAYS_INLINE static Real4 narrow(Wide4 const& a) { return a; }
    ZEL_ALWAYS_INLINE static double dot(Real4 const& a, Real4 const& b) {
        return sum({a.xy * b.xy, a.zw * b.zw});
    }
    ZEL_ALWAYS_INLINE static double dot3(Real4 const& a, Real4 const& b) {
        return (a[0] * b[0] + a[1] * b[1]) + a[2] * b[2];
    }
    ZEL_ALWAYS_INLINE static double positive(double a) { return (a + std::abs(a)) * 0.5; }
    template <int n>
    ZEL_ALWAYS_INLINE static Real4 step(Real4 const& d, Order const& order, double a) {
        Word4 const m = order[n - 1];
        constexpr auto one = std::bit_cast<std::uint64_t>(1.0);
        auto const wide = [](Word4 pairs) ZEL_ALWAYS_INLINE {
            return reinterpret_cast<Double2>(reinterpret_cast<Long2>(pairs) & one);
        };
        return {d.xy + (a - wide(__builtin_shufflevector(m, m, 0, 0, 1, 1))),
                d.zw + (a - wide(__builtin_shufflevector(m, m, 2, 2, 3, 3)))};
    }
    ZEL_ALWAYS_INLINE static Real4 direction(Word hash) {
        auto const& d = kDirectionTable<double>[hash >> kDirectionShift];
        return {Double2{d.x, d.y}, Double2{d.z, d.w}};
    }
    template <int low> ZEL_ALWAYS_INLINE static Real4 spatialDirection(Word hash) {
        auto const& d = kSpatialDirectionTable<double>[hash >> low & 63];
        return {Double2{d.x, d.y}, Double2{d.z, d.w}};
    }
};

}  // namespace Orvane::Math::Simplex
