#pragma once

#include <array>
#include <cstring>

#include "orvane_geometry_volume/traits.h"
#include "zel/sampler/cubic_kernels.h"

namespace ORV::TileTree3D::Internal {

/// Four samples in a row along x, by component.
template <class T> struct SampleRow {
    std::array<Lanes, LaneTraits<T>::kComponents> lanes;

    explicit SampleRow(T const* from);
};
template <> inline SampleRow<float>::SampleRow(float const* from) : lanes{load(from)} {}
template <> inline SampleRow<float3>::SampleRow(float3 const* from) {
    static_assert(sizeof(float3) == 3 * sizeof(float));
    Lanes const a = load(&from[0].x);  // x0 y0 z0 x1
    Lanes b, c;                        // y1 z1 x2 y2 and z2 x3 y3 z3
    std::memcpy(&b, reinterpret_cast<char const*>(from) + 16, sizeof b);
    std::memcpy(&c, reinterpret_cast<char const*>(from) + 32, sizeof c);
    Lanes const xy23 = __builtin_shufflevector(b, c, 2, 3, 5, 6);  // x2 y2 x3 y3
    Lanes const yz01 = __builtin_shufflevector(a, b, 1, 2, 4, 5);  // y0 z0 y1 z1
    lanes[0] = __builtin_shufflevector(a, xy23, 0, 3, 4, 6);
    lanes[1] = __builtin_shufflevector(yz01, xy23, 0, 2, 5, 7);
    lanes[2] = __builtin_shufflevector(yz01, c, 1, 3, 4, 7);
}

/// The 4x4x4 values around a voxel, and the range of the eight at its corners.
template <class T> class CubicStencil {
public:
    static constexpr int kComponents = LaneTraits<T>::kComponents;

    /// Takes the values from `rowAt(j, k)`, the row of four along x at place (j, k), 0 to 3.
    template <class RowAt> void gather(RowAt rowAt) { gather<0>(rowAt, rowAt); }

    /// The same where each row is the last `4 - Shift` of the four of one row, and the first
    /// `Shift` of another.
    template <int Shift, class RowAt, class NextRowAt>
    void gather(RowAt rowAt, NextRowAt nextRowAt) {
        for (unsigned j = 0; j < 4; ++j) {
            Columns const columns = columnsOf(rowAt, j);
            Columns const next = Shift == 0 ? columns : columnsOf(nextRowAt, j);
            for (unsigned c = 0; c < unsigned{kComponents}; ++c)
                for (unsigned i = 0; i < 4; ++i)
                    m_components[c].values[i][j] =
                        i + Shift < 4 ? columns[c][i + Shift] : next[c][i + Shift - 4];
        }
        for (Component& component : m_components) component.findRange();
    }

    /// The value at a fraction of the voxel: along x, then y, then z. `clamp` limits it to the
    /// range of the corners.
    T interpolate(std::int32_t type, bool clamp, float3 const& frac) const {
        return withType(type, [&]<int Type>() -> T {
            UniformWeights<Type, Lanes> const weights(lanesOf(frac));
            UniformInterpolant<Type> const x(weights, 0), y(weights, 1), z(weights, 2);
            if constexpr (kComponents == 1) {
                return m_components[0].interpolate(clamp, x, y, z);
            } else {
                return {m_components[0].interpolate(clamp, x, y, z),
                        m_components[1].interpolate(clamp, x, y, z),
                        m_components[2].interpolate(clamp, x, y, z)};
            }
        });
    }

private:
    struct Component {
        Lanes values[4][4];  // by x and y, and a lane for each z
        float low, high;

        template <class Interpolant>
        float interpolate(bool clamp, Interpolant const& x, Interpolant const& y,
                          Interpolant const& z) const {
            auto const& f = values;
            Lanes const plane =
                y(x(f[0][0], f[1][0], f[2][0], f[3][0]), x(f[0][1], f[1][1], f[2][1], f[3][1]),
                  x(f[0][2], f[1][2], f[2][2], f[3][2]), x(f[0][3], f[1][3], f[2][3], f[3][3]));
            float const value = z(plane[0], plane[1], plane[2], plane[3]);
            return clamp ? limited(value, low, high) : value;
        }
        void findRange() {
            Lanes const most =
                larger(larger(values[1][1], values[2][1]), larger(values[1][2], values[2][2]));
            Lanes const least =
                smaller(smaller(values[1][1], values[2][1]), smaller(values[1][2], values[2][2]));
            high = larger(most[1], most[2]);
            low = smaller(least[1], least[2]);
        }
    };

    /// The samples of four rows along x, by component and x, with a lane for each z.
    using Columns = std::array<std::array<Lanes, 4>, kComponents>;

    template <class RowAt> static Columns columnsOf(RowAt const& rowAt, unsigned j) {
        auto const row = static_cast<int>(j);
        SampleRow<T> const r0 = rowAt(row, 0), r1 = rowAt(row, 1), r2 = rowAt(row, 2),
                           r3 = rowAt(row, 3);
        Columns columns;
        for (unsigned c = 0; c < unsigned{kComponents}; ++c)
            columns[c] = transposed(r0.lanes[c], r1.lanes[c], r2.lanes[c], r3.lanes[c]);
        return columns;
    }
    static std::array<Lanes, 4> transposed(Lanes r0, Lanes r1, Lanes r2, Lanes r3) {
        Lanes const low01 = __builtin_shufflevector(r0, r1, 0, 4, 1, 5),
                    high01 = __builtin_shufflevector(r0, r1, 2, 6, 3, 7),
                    low23 = __builtin_shufflevector(r2, r3, 0, 4, 1, 5),
                    high23 = __builtin_shufflevector(r2, r3, 2, 6, 3, 7);
        return {__builtin_shufflevector(low01, low23, 0, 1, 4, 5),
                __builtin_shufflevector(low01, low23, 2, 3, 6, 7),
                __builtin_shufflevector(high01, high23, 0, 1, 4, 5),
                __builtin_shufflevector(high01, high23, 2, 3, 6, 7)};
    }

    std::array<Component, kComponents> m_components;
};

/// The place of tile (a, b, c), each 0 or 1 along x, y, z, in a block of 2x2x2.
constexpr unsigned blockPlace(int a, int b, int c) {
    return static_cast<unsigned>(c + 2 * (b + 2 * a));
}

/// Gathers a stencil out of 2x2x2 tiles, at their blockPlace. `low` is the voxel of the lowest
/// value, in the first tile.
template <class Traits, class T>
void gatherBlock(std::array<T const*, 8> const& data, int3 const& low, CubicStencil<T>& stencil) {
    constexpr int kW = Traits::kSamples;
    // Which tile, and where in it, by the place along y and z.
    struct Place {
        int tile, offset;
    };
    auto const places = [](int first, int stride) {
        std::array<Place, 4> four;
        for (int n = 0; n < 4; ++n) {
            int const tile = first + n >= kW ? 1 : 0;
            four[static_cast<unsigned>(n)] = {tile, stride * (first + n - kW * tile)};
        }
        return four;
    };
    auto const y = places(low.y, kW), z = places(low.z, kW * kW);
    auto const rowIn = [&](int side, int j, int k) {
        auto const [b, inY] = y[static_cast<unsigned>(j)];
        auto const [c, inZ] = z[static_cast<unsigned>(k)];
        return data[blockPlace(side, b, c)] + (inY + inZ);
    };
    // A row that starts behind sample W - 4 ends in the next tile.
    auto const across = [&]<int Shift>() {
        stencil.template gather<Shift>(
            [&](int j, int k) { return SampleRow<T>(rowIn(0, j, k) + (kW - 4)); },
            [&](int j, int k) { return SampleRow<T>(rowIn(1, j, k)); });
    };
    switch (low.x - (kW - 4)) {
    case 1:
        return across.template operator()<1>();
    case 2:
        return across.template operator()<2>();
    case 3:
        return across.template operator()<3>();
    default:
        stencil.gather([&](int j, int k) { return SampleRow<T>(rowIn(0, j, k) + low.x); });
    }
}

}  // namespace ORV::TileTree3D::Internal
