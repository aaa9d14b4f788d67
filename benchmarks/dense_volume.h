#pragma once

#include <cmath>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "zel_platform/orvane_geometry_volume/volume_builder.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/array.h"

/// The function with which the sampler benchmarks fill their volumes: curved, and with a crease.
template <class T> T creasedFunction(Orvane::Math::float3 const& p) {
    float const v = p.x * p.y - p.z + std::abs(p.x - p.z);
    if constexpr (std::is_same_v<T, float>)
        return v;
    else
        return {v, 1 - v, 2 * v};
}

/// Samples in a dense array, `size` along each axis, x fastest, from lattice point `low` on, with
/// samplers that are written by hand for speed: the alternative of a caller without a sparse
/// volume.
template <class T> struct DenseVolume {
    using float3 = Orvane::Math::float3;

    int low, size;
    float inverseVoxelSize;
    Quern::Array<T> samples{};

    /// The trilinear value, and its gradient; zero outside.
    T linear(float3 const& p, float3* gradient = nullptr) const {
        Place at(*this, p);
        if (!at.inside(0, size - 1)) return T();
        std::ptrdiff_t const row = size, slice = row * size;
        T const* const c = at.sample(*this);
        T const x00 = lerp(c[0], c[1], at.fx), x10 = lerp(c[row], c[row + 1], at.fx),
                x01 = lerp(c[slice], c[slice + 1], at.fx),
                x11 = lerp(c[slice + row], c[slice + row + 1], at.fx);
        T const y0 = lerp(x00, x10, at.fy), y1 = lerp(x01, x11, at.fy);
        if constexpr (std::is_same_v<T, float>) {
            if (gradient) {
                float const dx0 = lerp(c[1] - c[0], c[row + 1] - c[row], at.fy);
                float const dx1 =
                    lerp(c[slice + 1] - c[slice], c[slice + row + 1] - c[slice + row], at.fy);
                *gradient =
                    float3{lerp(dx0, dx1, at.fz), lerp(x10 - x00, x11 - x01, at.fz), y1 - y0} *
                    inverseVoxelSize;
            }
        }
        return lerp(y0, y1, at.fz);
    }

    /// The tricubic value by Lagrange polynomials; zero outside. Sums four rows along x at a time.
    T cubic(float3 const& p) const {
        Place at(*this, p);
        if (!at.inside(1, size - 2)) return T();
        float wx[4], wy[4], wz[4];
        weights(at.fx, wx);
        weights(at.fy, wy);
        weights(at.fz, wz);
        std::ptrdiff_t const row = size, slice = row * size;
        T const* const corner = at.sample(*this) - 1 - row - slice;
        T columns[4] = {};  // the sums over y and z, for each x
        for (int c = 0; c < 4; ++c)
            for (int b = 0; b < 4; ++b) {
                float const w = wy[b] * wz[c];
                T const* const from = corner + row * b + slice * c;
                for (int a = 0; a < 4; ++a) columns[a] += from[a] * w;
            }
        return columns[0] * wx[0] + columns[1] * wx[1] + columns[2] * wx[2] + columns[3] * wx[3];
    }

private:
    struct Place {
        Place(DenseVolume const& volume, float3 const& p) {
            auto const l = static_cast<float>(volume.low);
            x = p.x * volume.inverseVoxelSize - l;
            y = p.y * volume.inverseVoxelSize - l;
            z = p.z * volume.inverseVoxelSize - l;
        }
        /// Whether all coordinates are from `first` to below `end`. Sets their integer parts and
        /// fractions if they are.
        bool inside(int first, int end) {
            auto const a = static_cast<float>(first), b = static_cast<float>(end);
            if (!(x >= a && x < b && y >= a && y < b && z >= a && z < b)) return false;
            i = static_cast<int>(x), j = static_cast<int>(y), k = static_cast<int>(z);
            fx = x - static_cast<float>(i);
            fy = y - static_cast<float>(j);
            fz = z - static_cast<float>(k);
            return true;
        }
        T const* sample(DenseVolume const& volume) const {
            std::ptrdiff_t const row = volume.size;
            return volume.samples.data() + i + row * j + row * row * k;
        }

        float x, y, z, fx = 0, fy = 0, fz = 0;
        int i = 0, j = 0, k = 0;
    };

    static T lerp(T const& a, T const& b, float t) { return (b - a) * t + a; }
    static void weights(float t, float (&w)[4]) {
        w[0] = t * (1 - t) * (t - 2) * (1.0F / 6);
        w[1] = (t + 1) * (t - 1) * (t - 2) * 0.5F;
        w[2] = t * (t + 1) * (2 - t) * 0.5F;
        w[3] = t * (t + 1) * (t - 1) * (1.0F / 6);
    }
};

/// Copies the samples of the deepest depth from a volume with samples on voxel corners.
template <class Traits, class T>
DenseVolume<T> denseCopy(ORV::TileTree3D::Volume<Traits, T> const& volume, int low, int size) {
    DenseVolume<T> dense{low, size, 1 / volume.container->voxelSize(), {}};
    dense.samples.reserve(static_cast<long long>(size) * size * size);
    auto const accessor = volume.container->tileAccessor();
    for (int k = low; k < low + size; ++k)
        for (int j = low; j < low + size; ++j)
            for (int i = low; i < low + size; ++i) {
                auto const& tile = accessor.tile(i, j, k, Traits::kMaxDepth);
                bool const there = tile.depth() == Traits::kMaxDepth;
                dense.samples.push_back(there ? std::as_const(*volume.channel)
                                                    .tileData(tile.treeIndex())(
                                                        Orvane::Math::int3{i, j, k} - tile.tijk())
                                              : T());
            }
    return dense;
}
