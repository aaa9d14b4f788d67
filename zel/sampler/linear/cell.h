#pragma once

#include "zel/sampler/common/gradient.h"

namespace ORV::TileTree3D::Internal {

/// The eight samples around a position, interpolated along x first, then y, then z.
template <class T> class LinearCell;

template <> class LinearCell<float> {
public:
    /// From the lowest sample, in tile data `width` samples wide.
    LinearCell(float const* corner, int width)
        : m_low(load(corner, corner + width)),
          m_high(load(corner + width * width, corner + width * width + width)) {}

    float value(Float4 const& t) const {
        Float4 const rows = alongX(t);
        Float4 const f = lerp(even(rows, rows), odd(rows, rows), t[1]);
        return lerp(f[0], f[1], t[2]);
    }
    /// The value, and the gradient by the position in voxels, times `perVoxel`: blends of the
    /// differences along an axis, by the two other coordinates.
    float value(Float4 const& t, float perVoxel, float3& gradient) const {
        Float4 const rows = alongX(t);
        Float4 const dx = odd(m_low, m_high) - even(m_low, m_high);
        Float4 const dy = __builtin_shufflevector(m_low, m_high, 2, 3, 6, 7) -
                          __builtin_shufflevector(m_low, m_high, 0, 1, 4, 5);
        Float4 const dz = m_high - m_low;
        // Value and x, then y and z: two at a time for the first coordinate, all for the second.
        Float4 const byY = lerp(even(rows, dx), odd(rows, dx), t[1]);
        Float4 const byX = lerp(even(dy, dz), odd(dy, dz), t[0]);
        Float4 const all = lerp(even(byY, byX), odd(byY, byX), Float4{t[2], t[2], t[2], t[1]});
        gradient = {all[1] * perVoxel, all[2] * perVoxel, all[3] * perVoxel};
        return all[0];
    }

private:
    static Float4 even(Float4 const& a, Float4 const& b) {
        return __builtin_shufflevector(a, b, 0, 2, 4, 6);
    }
    static Float4 odd(Float4 const& a, Float4 const& b) {
        return __builtin_shufflevector(a, b, 1, 3, 5, 7);
    }
    /// Between the samples along x, at (y, z) of (0, 0), (1, 0), (0, 1) and (1, 1).
    Float4 alongX(Float4 const& t) const {
        return lerp(even(m_low, m_high), odd(m_low, m_high), t[0]);
    }

    Float4 m_low, m_high;  ///< of the lower z and the higher one: two along x, then the next y
};

template <> class LinearCell<float3> {
public:
    LinearCell(float3 const* corner, int width) : m_corner(corner), m_width(width) {}

    ZEL_ALWAYS_INLINE float3 value(Float4 const& t) const {
        int const slice = m_width * m_width;
        Float4 const low = lerp(row(0).at(t[0]), row(m_width).at(t[0]), t[1]);
        Float4 const high = lerp(row(slice).at(t[0]), row(slice + m_width).at(t[0]), t[1]);
        return float3Of(lerp(low, high, t[2]));
    }
    /// The same with the gradient. A component has the bits of a float's cell.
    float3 value(Float4 const& t, float perVoxel, Orvane::Math::float3x3& gradient) const {
        int const slice = m_width * m_width;
        // By y, then z.
        Row const a = row(0), b = row(m_width), c = row(slice), d = row(slice + m_width);
        Float4 const low = lerp(a.at(t[0]), b.at(t[0]), t[1]);
        Float4 const high = lerp(c.at(t[0]), d.at(t[0]), t[1]);
        Float4 const dx =
            lerp(lerp(a.step(), b.step(), t[1]), lerp(c.step(), d.step(), t[1]), t[2]);
        Float4 const dy = lerp((b - a).at(t[0]), (d - c).at(t[0]), t[2]);
        Float4 const dz = lerp((c - a).at(t[0]), (d - b).at(t[0]), t[1]);
        gradient = gradientOf(dx, dy, dz, perVoxel);
        return float3Of(lerp(low, high, t[2]));
    }

private:
    /// Two samples along x. The fourth elements are undefined.
    struct Row {
        Float4 low, high;

        Float4 step() const { return high - low; }
        Float4 at(float t) const { return lerp(low, high, t); }
        Row operator-(Row const& other) const { return {low - other.low, high - other.high}; }
    };

    Row row(int offset) const {
        float const* const six = &m_corner[offset].x;
        Float4 const last = load(six + 2);
        return {load(six), __builtin_shufflevector(last, last, 1, 2, 3, 3)};
    }

    float3 const* m_corner;
    int m_width;
};

}  // namespace ORV::TileTree3D::Internal
