#pragma once

#include <cstdint>

#include "zel_platform/quern_core/expect.h"

namespace Orvane::Math {

/// Three floats: a position, a direction, a gradient.
struct float3 {
    float x = 0, y = 0, z = 0;

    constexpr float& operator[](int i) {
        ZEL_EXPECT(0 <= i && i < 3);
        return i == 0 ? x : i == 1 ? y : z;
    }
    constexpr float const& operator[](int i) const {
        ZEL_EXPECT(0 <= i && i < 3);
        return i == 0 ? x : i == 1 ? y : z;
    }
    constexpr bool operator==(float3 const&) const = default;
};

constexpr float3 operator+(float3 const& a, float3 const& b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
constexpr float3 operator-(float3 const& a, float3 const& b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
/// Flips the three sign bits.
constexpr float3 operator-(float3 const& a) {
    return {-a.x, -a.y, -a.z};
}
constexpr float3 operator*(float3 const& a, float s) {
    return {a.x * s, a.y * s, a.z * s};
}
constexpr float3 operator*(float s, float3 const& a) {
    return a * s;
}
/// Three divisions, not a product with the reciprocal.
constexpr float3 operator/(float3 const& a, float s) {
    return {a.x / s, a.y / s, a.z / s};
}
constexpr float3& operator+=(float3& a, float3 const& b) {
    return a = a + b;
}
constexpr float3& operator-=(float3& a, float3 const& b) {
    return a = a - b;
}
constexpr float3& operator*=(float3& a, float s) {
    return a = a * s;
}
constexpr float3& operator/=(float3& a, float s) {
    return a = a / s;
}

/// Three 32-bit integers: a lattice point or an index.
struct int3 {
    std::int32_t x = 0, y = 0, z = 0;

    constexpr std::int32_t& operator[](int i) {
        ZEL_EXPECT(0 <= i && i < 3);
        return i == 0 ? x : i == 1 ? y : z;
    }
    constexpr std::int32_t const& operator[](int i) const {
        ZEL_EXPECT(0 <= i && i < 3);
        return i == 0 ? x : i == 1 ? y : z;
    }
    constexpr bool operator==(int3 const&) const = default;
};

constexpr int3 operator+(int3 const& a, int3 const& b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
constexpr int3 operator-(int3 const& a, int3 const& b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
constexpr int3 operator-(int3 const& a) {
    return {-a.x, -a.y, -a.z};
}
constexpr int3 operator*(int3 const& a, std::int32_t s) {
    return {a.x * s, a.y * s, a.z * s};
}

/// Four floats: a noise coordinate, or a quaternion whose real part is w.
struct float4 {
    float x = 0, y = 0, z = 0, w = 0;

    constexpr bool operator==(float4 const&) const = default;
};

/// Four doubles: a noise coordinate.
struct double4 {
    double x = 0, y = 0, z = 0, w = 0;

    constexpr bool operator==(double4 const&) const = default;
};

}  // namespace Orvane::Math
