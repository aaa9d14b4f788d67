#pragma once

#include <bit>
#include <cstdint>

#ifdef __SSE__
#include <xmmintrin.h>
#endif

#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/always_inline.h"

// Four floats in a register, by the vector extension of the compilers. A vector operation acts on
// each element with the bits of scalar code. Where a function has an overload for `float`, one
// template serves both.
namespace ORV::TileTree3D::Internal {

using Orvane::Math::float3;
using Orvane::Math::int3;

using Float4 = float __attribute__((vector_size(16)));
using Int4 = std::int32_t __attribute__((vector_size(16)));

inline Float4 float4Of(float3 const& v) {
    return Float4{v.x, v.y, v.z, 0};
}
/// The same of a position, whose floats may just have been written one by one. clang would read two
/// of them at once, which waits until both have reached the cache: a third of a cubic sample.
inline Float4 positionOf(float3 const& p) {
    float y = p.y;
#if defined(__clang__) && defined(__SSE__)
    asm("" : "+x"(y));
#endif
    return Float4{p.x, y, p.z, 0};
}
inline float3 float3Of(Float4 const& v) {
    return {v[0], v[1], v[2]};
}

inline Int4 int4Of(int3 const& v, int fourth) {
    return Int4{v.x, v.y, v.z, fourth};
}
inline int3 int3Of(Int4 const& v) {
    return {v[0], v[1], v[2]};
}

/// All bits set where a comparison holds, else none. A choice between floats by a mask is faster
/// than by a condition, of which compilers may make a branch.
inline Int4 maskOf(Int4 const& holds) {
    return holds;
}
inline std::int32_t maskOf(bool holds) {
    return -static_cast<std::int32_t>(holds);
}
inline bool allSet(Int4 const& mask) {
    using Halves = std::int64_t __attribute__((vector_size(16)));
    auto const halves = std::bit_cast<Halves>(mask);
    return (halves[0] & halves[1]) == -1;
}
/// 0 where the mask is set.
inline Float4 cleared(Float4 const& v, Int4 const& mask) {
    return std::bit_cast<Float4>(std::bit_cast<Int4>(v) & ~mask);
}
inline float cleared(float v, std::int32_t mask) {
    return std::bit_cast<float>(std::bit_cast<std::int32_t>(v) & ~mask);
}

/// The lesser of two numbers; `b` where one of them is NaN.
inline Float4 lower(Float4 const& a, Float4 const& b) {
#ifdef __SSE__
    return _mm_min_ps(a, b);
#else
    return a < b ? a : b;
#endif
}
inline float lower(float a, float b) {
    return a < b ? a : b;
}

/// The integer part; `v` must fit.
inline Int4 truncated(Float4 const& v) {
    return __builtin_convertvector(v, Int4);
}
inline std::int32_t truncated(float v) {
    return static_cast<std::int32_t>(v);
}
inline Float4 converted(Int4 const& v) {
    return __builtin_convertvector(v, Float4);
}
inline float converted(std::int32_t v) {
    return static_cast<float>(v);
}
/// The greatest integer that is not above `v`, which must fit.
template <class V> ZEL_ALWAYS_INLINE inline auto floorOf(V const& v) {
    auto const integer = truncated(v);
    return integer + maskOf(converted(integer) > v);
}

// By __builtin_memcpy, since a std::memcpy that is checked (_FORTIFY_SOURCE) keeps vectors out of
// registers.
inline Float4 load(float const* four) {
    Float4 v;
    __builtin_memcpy(&v, four, sizeof v);
    return v;
}
/// Two floats from each address.
inline Float4 load(float const* two, float const* twoMore) {
    using Pairs = std::uint64_t __attribute__((vector_size(16)));
    std::uint64_t a, b;
    __builtin_memcpy(&a, two, sizeof a);
    __builtin_memcpy(&b, twoMore, sizeof b);
    return std::bit_cast<Float4>(Pairs{a, b});
}

/// From `a` to `b` as `t` goes from 0 to 1.
template <class V, class S> V lerp(V const& a, V const& b, S const& t) {
    return (b - a) * t + a;
}

}  // namespace ORV::TileTree3D::Internal
