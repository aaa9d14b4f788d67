#pragma once

// Types and operations of the simplex kernel for one point. The four coordinates stand side by side
// in a register; every operation is exact or rounded once, so that any other arrangement gives the
// same bits.

#include "orvane_math_support/simplex_gradients.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>

// Registers must not pass through memory, and a call per vertex would cost more than the vertex.
#define ZEL_INLINE [[gnu::always_inline]] inline

namespace Orvane::Math::Simplex {

using Float4 = float __attribute__((vector_size(16)));
using Double2 = double __attribute__((vector_size(16)));
using Word4 = std::uint32_t __attribute__((vector_size(16)));
using Long2 = std::uint64_t __attribute__((vector_size(16)));

/// Four 64-bit values in two registers.
struct Long4 {
    Long2 xy, zw;
    ZEL_INLINE Long4 operator+(Long4 const& b) const { return {xy + b.xy, zw + b.zw}; }
    ZEL_INLINE Long4 operator+(std::uint64_t b) const { return {xy + b, zw + b}; }
    ZEL_INLINE Long4 operator&(Long4 const& b) const { return {xy & b.xy, zw & b.zw}; }
    ZEL_INLINE Long4 operator|(Long4 const& b) const { return {xy | b.xy, zw | b.zw}; }
};

struct Double4 {
    Double2 xy, zw;
    ZEL_INLINE double operator[](int i) const { return i < 2 ? xy[i] : zw[i - 2]; }
    ZEL_INLINE Double4 operator+(Double4 const& b) const { return {xy + b.xy, zw + b.zw}; }
    ZEL_INLINE Double4 operator-(Double4 const& b) const { return {xy - b.xy, zw - b.zw}; }
    ZEL_INLINE Double4 operator+(double b) const { return {xy + b, zw + b}; }
    ZEL_INLINE Double4 operator-(double b) const { return {xy - b, zw - b}; }
    ZEL_INLINE Double4 operator*(double b) const { return {xy * b, zw * b}; }
};

/// What both precisions share: cells are found in double precision.
struct ScalarCells {
    using Word = std::uint32_t;
    using Word4 = Simplex::Word4;
    using Wide = double;
    using Wide4 = Double4;
    using Cell4 = Long4;

    ZEL_INLINE static Word4 load(std::array<std::uint32_t, 4> const& a) {
        return Word4{a[0], a[1], a[2], a[3]};
    }
    ZEL_INLINE static double sum(Wide4 const& a) { return (a[0] + a[1]) + (a[2] + a[3]); }
    /// Sum of absolute values.
    ZEL_INLINE static double size(Wide4 const& a) {
        constexpr std::uint64_t bits = ~std::uint64_t{0} >> 1;
        return sum({reinterpret_cast<Double2>(reinterpret_cast<Long2>(a.xy) & bits),
                    reinterpret_cast<Double2>(reinterpret_cast<Long2>(a.zw) & bits)});
    }
    /// Integers c with c <= a <= c + 1, `a` within 2^50: as a number and as 64 bits. Adding 1.5 *
    /// 2^52 leaves the rounded number in the low bits of the sum.
    ZEL_INLINE static Cell4 cell(Wide4 const& a, Wide4& whole) {
        constexpr double shift = 0x1.8p52;
        Wide4 const v = (a - 0.5) + shift;
        whole = v - shift;
        constexpr auto bits = std::bit_cast<std::uint64_t>(shift);
        return Long4{reinterpret_cast<Long2>(v.xy), reinterpret_cast<Long2>(v.zw)} + (0 - bits);
    }
    ZEL_INLINE static Word4 low(Cell4 const& a) {
        return __builtin_shufflevector(reinterpret_cast<Word4>(a.xy), reinterpret_cast<Word4>(a.zw),
                                       0, 2, 4, 6);
    }
    ZEL_INLINE static Word4 high(Cell4 const& a) {
        return __builtin_shufflevector(reinterpret_cast<Word4>(a.xy), reinterpret_cast<Word4>(a.zw),
                                       1, 3, 5, 7);
    }
    /// Exclusive or of the four.
    ZEL_INLINE static Word fold(Word4 a) {
        a ^= __builtin_shufflevector(a, a, 2, 3, 0, 1);
        return a[0] ^ a[1];
    }
};

template <class RealType> struct ScalarLane;

template <> struct ScalarLane<float> : ScalarCells {
    using Number = float;  // one number of a Real
    using Real = float;
    using Real4 = Float4;
    using Mask4 = Word4;  // all ones, or zeros

    ZEL_INLINE static Real4 narrow(Wide4 const& a) {
        using Float2 = float __attribute__((vector_size(8)));
        return __builtin_shufflevector(__builtin_convertvector(a.xy, Float2),
                                       __builtin_convertvector(a.zw, Float2), 0, 1, 2, 3);
    }
    ZEL_INLINE static float dot(Real4 a, Real4 b) {
        Float4 p = a * b;
        p += __builtin_shufflevector(p, p, 1, 0, 3, 2);
        return p[0] + p[2];
    }
    /// 2a if that is above 0, else 0; exactly, and without the branch that a compiler may make of a
    /// comparison.
    ZEL_INLINE static float twicePositive(float a) { return a + std::abs(a); }
    /// For each coordinate, whether it is above each of the three others, in any order. Of two
    /// equal ones the later is above.
    ZEL_INLINE static std::array<Mask4, 3> comparisons(Real4 d) {
        auto const above = [&](Float4 other, Word4 later) __attribute__((always_inline)) {
            return reinterpret_cast<Word4>(d > other) |
                   (reinterpret_cast<Word4>(d == other) & later);
        };
        constexpr std::uint32_t yes = ~0u;
        return {above(__builtin_shufflevector(d, d, 1, 2, 3, 0), Word4{0, 0, 0, yes}),
                above(__builtin_shufflevector(d, d, 2, 3, 0, 1), Word4{0, 0, yes, yes}),
                above(__builtin_shufflevector(d, d, 3, 0, 1, 2), Word4{0, yes, yes, yes})};
    }
    ZEL_INLINE static Word4 words(Mask4 m) { return m; }
    /// 1 where the mask is set, else 0.
    ZEL_INLINE static Real4 ones(Mask4 m) {
        return reinterpret_cast<Float4>(m & std::bit_cast<std::uint32_t>(1.0f));
    }
    ZEL_INLINE static Real4 direction(Word row) {
        auto const& d = kDirectionTable<float>[row];
        return Float4{d.x, d.y, d.z, d.w};
    }
};

template <> struct ScalarLane<double> : ScalarCells {
    using Number = double;
    using Real = double;
    using Real4 = Double4;
    using Mask4 = Long4;

    ZEL_INLINE static Real4 narrow(Wide4 const& a) { return a; }
    ZEL_INLINE static double dot(Real4 const& a, Real4 const& b) {
        return sum({a.xy * b.xy, a.zw * b.zw});
    }
    ZEL_INLINE static double twicePositive(double a) { return a + std::abs(a); }
    ZEL_INLINE static std::array<Mask4, 3> comparisons(Real4 const& d) {
        constexpr std::uint64_t yes = ~std::uint64_t{0};
        auto const half = [](Double2 a, Double2 other, Long2 later) __attribute__((always_inline)) {
            return reinterpret_cast<Long2>(a > other) |
                   (reinterpret_cast<Long2>(a == other) & later);
        };
        Double2 const yz = __builtin_shufflevector(d.xy, d.zw, 1, 2);
        Double2 const wx = __builtin_shufflevector(d.zw, d.xy, 1, 2);
        return {Long4{half(d.xy, yz, Long2{0, 0}), half(d.zw, wx, Long2{0, yes})},
                Long4{half(d.xy, d.zw, Long2{0, 0}), half(d.zw, d.xy, Long2{yes, yes})},
                Long4{half(d.xy, wx, Long2{0, yes}), half(d.zw, yz, Long2{yes, yes})}};
    }
    ZEL_INLINE static Word4 words(Mask4 const& m) { return low(m); }
    ZEL_INLINE static Real4 ones(Mask4 const& m) {
        constexpr auto one = std::bit_cast<std::uint64_t>(1.0);
        return {reinterpret_cast<Double2>(m.xy & one), reinterpret_cast<Double2>(m.zw & one)};
    }
    ZEL_INLINE static Real4 direction(Word row) {
        auto const& d = kDirectionTable<double>[row];
        return {Double2{d.x, d.y}, Double2{d.z, d.w}};
    }
};

}  // namespace Orvane::Math::Simplex
