#pragma once

#include <array>

#include "zel/sampler/common/gradient.h"
#include "zel/sampler/cubic/kernels.h"
#include "zel_platform/orvane_geometry_volume/traits.h"
#include "zel_platform/quern_core/simd_target.h"

namespace ORV::TileTree3D::Internal {

/// The 4x4x4 values around a voxel, and the range of the eight at its corners.
///
/// The four values along z lie next to each other; a float3 takes four floats. Along x and y the
/// values are stored in a ring, so that the stencil of the next voxel replaces a quarter of them.
template <class T> class CubicStencil {
    using Register = RegisterOf<T>;
    static constexpr int kComponents = RegisterTraits<T>::kComponents;

public:
    /// Copies the values that `columnAt(i)(j, k)` points to, each index 0 to 3.
    template <class ColumnAt> void gather(ColumnAt const& columnAt) {
        m_first = {};
        take(columnAt, 0, 4, 0, 4);
    }
    // Inlining is fixed by hand in the steps and take(): left to itself, g++ decides differently
    // for each caller, and the wrong choice makes steps a third slower.

    /// The same for the stencil -3 to 3 voxels further on along x. Values that the two stencils
    /// share are not read again.
    template <class ColumnAt>
    ZEL_ALWAYS_INLINE void stepAlongX(int steps, ColumnAt const& columnAt) {
        if (steps == 0) return;
        m_first[0] += static_cast<unsigned>(steps);
        take(columnAt, steps > 0 ? 4 - steps : 0, steps > 0 ? 4 : -steps, 0, 4);
    }
    /// The same along y.
    template <class ColumnAt>
    ZEL_ALWAYS_INLINE void stepAlongY(int steps, ColumnAt const& columnAt) {
        if (steps == 0) return;
        m_first[1] += static_cast<unsigned>(steps);
        takeInline(columnAt, 0, 4, steps > 0 ? 4 - steps : 0, steps > 0 ? 4 : -steps);
    }

    /// The value at a fraction of the voxel: along x, then y, then z. `clamp` limits it to the
    /// range of the corners.
    T interpolate(std::int32_t type, bool clamp, Float4 const& frac) const;
    /// The same with the gradient by the fraction, times `scale`. A clamped component has a
    /// gradient of 0, unless it exceeds its range by so little that rounding alone may be the
    /// cause.
    T interpolate(std::int32_t type, bool clamp, Float4 const& frac, float scale,
                  GradientOf<T>& gradient) const;

private:
    static constexpr unsigned kFloats = kComponents == 1 ? 1 : 4;    // of a value
    static constexpr unsigned kRow = 4 * kFloats, kSlab = 4 * kRow;  // along z; along y and z

    // `Gradient` is nothing, or a float, the scale, and a gradient to be set. clang takes the
    // attributes of a template's member from here alone.
    template <int Type> ZEL_ALWAYS_INLINE T value(bool clamp, Float4 const& frac) const;
    template <int Type>
    ZEL_ALWAYS_INLINE T value(bool clamp, Float4 const& frac, float scale,
                              GradientOf<T>& gradient) const;
    template <int Type, class... Gradient>
    __attribute__((flatten)) T narrowValue(bool clamp, Float4 const& frac,
                                           Gradient&... gradient) const;
    template <int Type, class... Gradient>
    ZEL_WIDE_TARGET __attribute__((flatten)) T wideValue(bool clamp, Float4 const& frac,
                                                         Gradient&... gradient) const;
    ZEL_ALWAYS_INLINE void clearClamped(Register const& value, Register& x, Register& y,
                                        Register& z) const;

    // The offsets of the values of index `i` along x, and of index `j` along y.
    unsigned slab(int i) const { return (m_first[0] + static_cast<unsigned>(i)) % 4 * kSlab; }
    unsigned row(int j) const { return (m_first[1] + static_cast<unsigned>(j)) % 4 * kRow; }

    template <class ColumnAt>
    [[gnu::noinline]] void take(ColumnAt const& columnAt, int beginI, int endI, int beginJ,
                                int endJ) {
        takeInline(columnAt, beginI, endI, beginJ, endJ);
    }
    template <class ColumnAt>
    ZEL_ALWAYS_INLINE void takeInline(ColumnAt const& columnAt, int beginI, int endI, int beginJ,
                                      int endJ) {
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
        __builtin_memcpy(to, &four, sizeof four);
    }
    static void put(float* to, float3 const& a, float3 const& b, float3 const& c, float3 const& d) {
        Float4 const four[4] = {float4Of(a), float4Of(b), float4Of(c), float4Of(d)};
        __builtin_memcpy(to, four, sizeof four);
    }
    void findRange() {
        Register most[2], least[2];
        unsigned const low = slab(1), high = slab(2), below = row(1), above = row(2);
        for (unsigned k = 1; k < 3; ++k) {
            auto const corner = [&](unsigned offset) {
                Register v;
                __builtin_memcpy(&v, m_values + offset + k * kFloats, sizeof v);
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
    std::array<unsigned, 2> m_first{};  ///< of the rings along x and y, modulo 4
    Register m_low, m_high;
};

extern template class CubicStencil<float>;
extern template class CubicStencil<float3>;

}  // namespace ORV::TileTree3D::Internal
