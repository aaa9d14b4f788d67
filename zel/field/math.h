#pragma once

#include <cmath>

#include "zel_platform/orvane_math/float3x3.h"
#include "zel_platform/orvane_math/vectors.h"

// The small mathematics of the nodes, in single precision. Where a rounding could show, the order
// of operations is part of the definition.
namespace Orvane::Math {

/// (a.y*b.y + a.x*b.x) + a.z*b.z
constexpr float dot(float3 const& a, float3 const& b) {
    return (a.y * b.y + a.x * b.x) + a.z * b.z;
}

constexpr float3 cross(float3 const& a, float3 const& b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

inline float length(float3 const& v) {
    return std::sqrt(dot(v, v));
}

/// The vector (f(x...), f(y...), f(z...)) of the components of the arguments.
template <class F, class... Vectors>
constexpr float3 mapComponents(F const& f, Vectors const&... v) {
    return {f(v.x...), f(v.y...), f(v.z...)};
}

/// `a` if the condition holds, else `b`. By components: where a condition chooses between whole
/// vectors, clang vectorises no loop.
constexpr float3 choose(bool condition, float3 const& a, float3 const& b) {
    return mapComponents([condition](float x, float y) { return condition ? x : y; }, a, b);
}

constexpr float3 multiplyComponents(float3 const& a, float3 const& b) {
    return {a.x * b.x, a.y * b.y, a.z * b.z};
}

constexpr float3 divideComponents(float3 const& a, float3 const& b) {
    return {a.x / b.x, a.y / b.y, a.z / b.z};
}

/// The larger of `v` and +0; +0 for a NaN.
constexpr float positivePart(float v) {
    return v > 0 ? v : 0.0F;
}

/// Lexicographic in the order x, y, z: the first component in which the two differ decides. False
/// if none differs, or if the component that decides is a NaN.
constexpr bool operator<(float3 const& a, float3 const& b) {
    if (a.x != b.x) return a.x < b.x;
    if (a.y != b.y) return a.y < b.y;
    return a.z < b.z;
}
constexpr bool operator>(float3 const& a, float3 const& b) {
    return b < a;
}

constexpr float3x3 operator+(float3x3 const& a, float3x3 const& b) {
    return {{a[0] + b[0], a[1] + b[1], a[2] + b[2]}};
}
constexpr float3x3 operator-(float3x3 const& a, float3x3 const& b) {
    return {{a[0] - b[0], a[1] - b[1], a[2] - b[2]}};
}
constexpr float3x3 operator-(float3x3 const& m) {
    return {{-m[0], -m[1], -m[2]}};
}
constexpr float3x3 operator*(float3x3 const& m, float s) {
    return {{m[0] * s, m[1] * s, m[2] * s}};
}
/// Nine divisions.
constexpr float3x3 operator/(float3x3 const& m, float s) {
    return {{m[0] / s, m[1] / s, m[2] / s}};
}

/// Component `r` is the sum over `c`, from 0 up, of `m[r][c] * v[c]`.
constexpr float3 operator*(float3x3 const& m, float3 const& v) {
    float3 result;
    for (int r = 0; r < 3; ++r) result[r] = m[r].x * v.x + m[r].y * v.y + m[r].z * v.z;
    return result;
}

/// Component `c` is the sum over `r`, from 0 up, of `v[r] * m[r][c]`. With `m` the gradient of a
/// vector field, this is the gradient of its dot product with a constant `v`.
constexpr float3 operator*(float3 const& v, float3x3 const& m) {
    float3 result;
    for (int c = 0; c < 3; ++c) result[c] = m[0][c] * v.x + m[1][c] * v.y + m[2][c] * v.z;
    return result;
}

/// The matrix product: entry `[r][c]` is the sum over `k`, from 0 up, of `a[r][k] * b[k][c]`.
constexpr float3x3 operator*(float3x3 const& a, float3x3 const& b) {
    return {{a[0] * b, a[1] * b, a[2] * b}};
}

/// Entry `[r][c]` is `a[r] * b[c]`.
constexpr float3x3 outerProduct(float3 const& a, float3 const& b) {
    return {{b * a.x, b * a.y, b * a.z}};
}

constexpr float3x3 identity() {
    return {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};
}

/// The matrix of the rows f(0), f(1) and f(2).
template <class F> constexpr float3x3 rowsOf(F const& f) {
    return {{f(0), f(1), f(2)}};
}

/// The columns of `m`, each replaced by `f(column)`.
template <class F> constexpr float3x3 mapColumns(F const& f, float3x3 const& m) {
    float3x3 result;
    for (int c = 0; c < 3; ++c) {
        float3 const column = f(float3{m[0][c], m[1][c], m[2][c]});
        for (int r = 0; r < 3; ++r) result[r][c] = column[r];
    }
    return result;
}

constexpr float4 conjugate(float4 const& q) {
    return {-q.x, -q.y, -q.z, q.w};
}

/// The Hamilton product; w is the real part.
constexpr float4 operator*(float4 const& a, float4 const& b) {
    return {a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,
            a.w * b.y + a.y * b.w + a.z * b.x - a.x * b.z,
            a.w * b.z + a.z * b.w + a.x * b.y - a.y * b.x,
            a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z};
}

/// `v` turned by `q`: the vector part of q * (v, 0) * conjugate(q). `q` is not normalised: a
/// quaternion of length `m` also scales by `m * m`.
constexpr float3 rotate(float4 const& q, float3 const& v) {
    float4 const turned = (q * float4{v.x, v.y, v.z, 0.0F}) * conjugate(q);
    return {turned.x, turned.y, turned.z};
}

}  // namespace Orvane::Math
