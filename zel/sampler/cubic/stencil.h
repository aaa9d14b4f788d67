#pragma once

#include <array>
#include <cstring>

#include "zel/sampler/cubic/kernels.h"
#include "zel_platform/orvane_geometry_volume/traits.h"

namespace ORV::TileTree3D::Internal {

/// The 4x4x4 values around a voxel, and the range of the eight at its corners.
///
/// A float has the four values along z next to each other, a float3 each value in four floats. The
/// places along x and y go round, so that the stencil of the next voxel along one of them takes the
/// place of this one with a quarter of the values.
template <class T> class CubicStencil {
    using Register = RegisterOf<T>;
    static constexpr int kComponents = RegisterTraits<T>::kComponents;

public:
    /// Takes the values from where `columnAt(i)(j, k)` points to, each 0 to 3.
    template <class ColumnAt> void gather(ColumnAt const& columnAt) {
        m_first = {};
        take(columnAt, 0, 4, 0, 4);
    }
    /// The same, -3 to 3 voxels further on along x (axis 0) or y: what both have is not read again.
    template <class ColumnAt> void gatherNext(unsigned axis, int steps, ColumnAt const& columnAt) {
        if (steps == 0) return;
        m_first[axis] += static_cast<unsigned>(steps);
        int const begin = steps > 0 ? 4 - steps : 0, end = steps > 0 ? 4 : -steps;
        if (axis == 0)
            take(columnAt, begin, end, 0, 4);
        else
            take(columnAt, 0, 4, begin, end);
    }

    /// The value at a fraction of the voxel: along x, then y, then z. `clamp` limits it to the
    /// range of the corners.
    T interpolate(std::int32_t type, bool clamp, Float4 const& frac) const;

private:
    static constexpr unsigned kFloats = kComponents == 1 ? 1 : 4;    // of a value
    static constexpr unsigned kRow = 4 * kFloats, kSlab = 4 * kRow;  // along z; along y and z

    template <int Type> T value(bool clamp, Float4 const& frac) const;
    template <int Type> T narrowValue(bool clamp, Float4 const& frac) const;
    template <int Type> T wideValue(bool clamp, Float4 const& frac) const;

    // Where values are that are `i` along x, and `j` along y.
    unsigned slab(int i) const { return (m_first[0] + static_cast<unsigned>(i)) % 4 * kSlab; }
    unsigned row(int j) const { return (m_first[1] + static_cast<unsigned>(j)) % 4 * kRow; }

    template <class ColumnAt>
    void take(ColumnAt const& columnAt, int beginI, int endI, int beginJ, int endJ) {
        unsigned const rows[4] = {row(0), row(1), row(2), row(3)};
        for (int i = beginI; i < endI; ++i) {
            auto const column = columnAt(i);
            float* const to = m_values + slab(i);
            for (int j = beginJ; j < endJ; ++j)
                put(to + rows[j], *column(j, 0), *column(j, 1), *column(j, 2), *column(j, 3));
        }
        findRange();
    }
    static void put(float* to, float a, float b, float c, float d) {
        Float4 const four{a, b, c, d};
        std::memcpy(to, &four, sizeof four);
    }
    static void put(float* to, float3 const& a, float3 const& b, float3 const& c, float3 const& d) {
        Float4 const four[4] = {float4Of(a), float4Of(b), float4Of(c), float4Of(d)};
        std::memcpy(to, four, sizeof four);
    }
    void findRange() {
        Register most[2], least[2];
        unsigned const low = slab(1), high = slab(2), below = row(1), above = row(2);
        for (unsigned k = 1; k < 3; ++k) {
            auto const corner = [&](unsigned place) {
                Register v;
                std::memcpy(&v, m_values + place + k * kFloats, sizeof v);
                return v;
            };
            Register const a = corner(low + below), b = corner(high + below),
                           c = corner(low + above), d = corner(high + above);
            most[k - 1] = larger(larger(a, b), larger(c, d));
            least[k - 1] = smaller(smaller(a, b), smaller(c, d));
        }
        m_high = larger(most[0], most[1]);
        m_low = smaller(least[0], least[1]);
    }

    alignas(32) float m_values[4 * kSlab];
    std::array<unsigned, 2> m_first{};  // where the lowest values along x and y are, modulo 4
    Register m_low, m_high;
};

extern template class CubicStencil<float>;
extern template class CubicStencil<float3>;

/// The place of tile (a, b, c), each 0 or 1 along x, y, z, in a block of 2x2x2.
constexpr unsigned blockPlace(int a, int b, int c) {
    return static_cast<unsigned>(c + 2 * (b + 2 * a));
}

/// Where the values of stencils are in blocks of 2x2x2 tiles.
template <class Traits, class T> class StencilRows {
public:
    /// A function for `gather`: of the stencil whose lowest value is the voxel `low` of the first
    /// tile. The tiles are at their blockPlace. Valid until the next call.
    auto columnsOf(std::array<T const*, 8> const& tiles, Int4 const& low) {
        return [this, &tiles, low](int i) {
            int const x = low[0] + i, side = x >= kW;
            findRows(tiles, side, low[1], low[2]);
            return [this, offset = std::ptrdiff_t{x - kW * side}](int j, int k) {
                return m_rows[j][k] + offset;
            };
        };
    }

    /// The same for a few rows, without those of before.
    static auto fewColumnsOf(std::array<T const*, 8> const& tiles, Int4 const& low) {
        return [&tiles, x = low[0], y = low[1], z = low[2]](int i) {
            int const side = x + i >= kW;
            return [&tiles, side, inX = x + i - kW * side, y, z](int j, int k) {
                return inTile(tiles, side, y + j, z + k) + inX;
            };
        };
    }

private:
    static constexpr int kW = Traits::kSamples;

    /// Where the row at a place along y and z begins in one half of the tiles along x.
    static T const* inTile(std::array<T const*, 8> const& tiles, int side, int y, int z) {
        int const b = y >= kW, c = z >= kW;
        return tiles[blockPlace(side, b, c)] + kW * (y - kW * b) +
               std::ptrdiff_t{kW * kW} * (z - kW * c);
    }

    /// The 4x4 rows along x in one half of the tiles. Those of the next stencil along x are mostly
    /// the same.
    void findRows(std::array<T const*, 8> const& tiles, int side, int lowY, int lowZ) {
        T const* const first = tiles[blockPlace(side, 0, 0)];
        if (first == m_first && lowY == m_lowY && lowZ == m_lowZ) return;
        m_first = first;
        m_lowY = lowY;
        m_lowZ = lowZ;
        for (int j = 0; j < 4; ++j)
            for (int k = 0; k < 4; ++k) m_rows[j][k] = inTile(tiles, side, lowY + j, lowZ + k);
    }

    T const* m_first = nullptr;
    int m_lowY = 0, m_lowZ = 0;
    T const* m_rows[4][4] = {};
};

}  // namespace ORV::TileTree3D::Internal
