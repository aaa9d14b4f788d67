#include "zel/sampler/cubic/adaptive/sample.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "zel/sampler/cubic/adaptive/nan_report.h"
#include "zel/sampler/cubic/stencil.h"
#include "zel/sampler/cubic/tile_cube.h"

namespace ORV::TileTree3D::Internal {

namespace {

/// A lattice coordinate rounded down to a multiple of a width, counted from the root's low corner.
template <class Traits> int roundedDown(int coordinate, int width) {
    std::int64_t const above = std::int64_t{coordinate} - Traits::kRootCorner;
    std::int64_t const rest = above % width;
    return static_cast<int>(coordinate - (rest < 0 ? rest + width : rest));
}

}  // namespace

/// A row of four points along an axis. Each point comes from the voxel next to the last one's,
/// whatever its size. True if a point is off the uniform grid.
template <class Traits, class T, class Trace>
bool AdaptiveSample<Traits, T, Trace>::getValue1D(int3 tijk, int axis, float position,
                                                  Register& value) const {
    Trace::getValue1DBegin(axis, position, tijk);
    Register values[4];
    int starts[4];
    bool jump = false;
    auto const take = [&](int n, StencilPoint<T>& point) {
        jump = m_points.getValue(tijk, axis, point) || jump;
        values[n] = RegisterTraits<T>::from(point.value);
        starts[n] = point.start;
    };
    // The point that holds the sample lies, without a tile, in the voxel of the sample's level.
    StencilPoint<T> point{T(), roundedDown<Traits>(tijk[axis], m_state.vdw) - m_state.vdw,
                          m_state.vdw};
    take(1, point);
    // And the one below lies, without a tile, one step below it.
    StencilPoint<T> below{T(), point.start - 2 * point.step, point.step};
    tijk[axis] = point.start - 1;
    take(0, below);
    for (int n = 2; n < 4; ++n) {
        tijk[axis] = point.start + point.step;
        take(n, point);
        // If only a part of a coarser voxel is flagged, that voxel may begin before the end of the
        // last one.
        int const before = tijk[axis] - point.start;
        if (before > 0) {
            starts[n] = point.start += before;
            point.step -= before;
        }
    }
    value = interpolateValues1D(values, starts, axis, position, jump);
    Trace::getValue1DEnd(axis, RegisterTraits<T>::to(value));
    return jump;
}

/// Four rows across an axis, or four planes. `locate(tijk, position, increment)` tells where the
/// row over a lattice point lies and how far it is to the next row, and `sample(tijk, value)` gives
/// its value. True if a point is off the uniform grid, or if `jump` is true.
template <class Traits, class T, class Trace>
template <class Locate, class Sample>
bool AdaptiveSample<Traits, T, Trace>::compose(int3 tijk, int axis, float samplePosition, bool jump,
                                               Locate locate, Sample sample,
                                               Register& value) const {
    Register values[4];
    int starts[4];
    auto const take = [&](int n, int at, int& position, int& increment) {
        tijk[axis] = at;
        locate(tijk, position, increment);
        tijk[axis] = position;
        starts[n] = position;
        jump = sample(tijk, values[n]) || jump;
    };
    int position, increment, lowest, lowestIncrement;
    take(1, tijk[axis], position, increment);
    take(0, position - 1, lowest, lowestIncrement);
    take(2, position + increment, position, increment);
    take(3, position + increment, position, increment);
    // Next to a refined neighbour whose voxels are flagged the rows lie on its lattice, though all
    // their points are of this level.
    int const step = starts[2] - starts[1];
    jump = jump || starts[1] - starts[0] != step || starts[3] - starts[2] != step;
    value = interpolateValues1D(values, starts, axis, samplePosition, jump);
    return jump;
}

/// A plane: rows along the second axis, across the first.
template <class Traits, class T, class Trace>
bool AdaptiveSample<Traits, T, Trace>::getValue2D(int3 const& tijk, int across, int along,
                                                  float3 const& position, Register& value) const {
    Trace::getValue2DBegin(across, along, position, tijk);
    bool const jump = compose(
        tijk, across, position[across], false,
        [&](int3 const& p, int& start, int& increment) {
            getIncrementAndPosition2D(p, across, along, start, increment);
        },
        [&](int3 const& p, Register& row) { return getValue1D(p, along, position[along], row); },
        value);
    Trace::getValue2DEnd(RegisterTraits<T>::to(value));
    return jump;
}

/// The volume: planes along x and y, across z.
template <class Traits, class T, class Trace>
bool AdaptiveSample<Traits, T, Trace>::getValue3D(float3 const& position, Register& value) const {
    return compose(
        m_state.tijk, 2, position.z, m_state.atJump,
        [&](int3 const& p, int& start, int& increment) {
            getIncrementAndPosition3D(p, start, increment);
        },
        [&](int3 const& p, Register& plane) { return getValue2D(p, 0, 1, position, plane); },
        value);
}

/// Where the row over a lattice point lies, and how far it is to the next row: rows lie on the
/// lattice of the smallest of four voxels along the row.
template <class Traits, class T, class Trace>
void AdaptiveSample<Traits, T, Trace>::getIncrementAndPosition2D(int3 const& tijk, int across,
                                                                 int along, int& position,
                                                                 int& increment) const {
    Trace::getIncrementAndPosition2DBegin(tijk);
    increment = std::numeric_limits<int>::max();
    for (int o = -1; o <= 2 && increment >= m_state.vdw; ++o) {
        int3 p = tijk;
        p[along] += m_state.vdw * o;
        increment = std::min(increment, m_points.smallestVoxelWidth(p));
    }
    position = roundedDown<Traits>(tijk[across], increment);
    Trace::getIncrementAndPosition2DEnd(position, increment);
}

/// The same for a plane along x and y, with 4x4 voxels.
template <class Traits, class T, class Trace>
void AdaptiveSample<Traits, T, Trace>::getIncrementAndPosition3D(int3 const& tijk, int& position,
                                                                 int& increment) const {
    increment = std::numeric_limits<int>::max();
    for (int oj = -1; oj <= 2; ++oj)
        for (int oi = -1; oi <= 2; ++oi) {
            increment = std::min(
                increment,
                m_points.smallestVoxelWidth(tijk + int3{m_state.vdw * oi, m_state.vdw * oj, 0}));
            if (increment < m_state.vdw) break;
        }
    position = roundedDown<Traits>(tijk.z, increment);
}

/// Interpolates between four points that start at lattice coordinates. Far from the origin, where
/// floats cannot tell these apart, they are counted from the sample's voxel; if one step is some
/// 2^24 times another, positions that still coincide are moved to the next float.
template <class Traits, class T, class Trace>
auto AdaptiveSample<Traits, T, Trace>::interpolateValues1D(Register const (&values)[4],
                                                           int const (&starts)[4], int axis,
                                                           float position, bool jump) const
    -> Register {
    if constexpr (kUsesMemo) {
        if (m_recorded) {
            std::copy_n(values, 4, m_recorded->values);
            std::copy_n(starts, 4, m_recorded->starts);
            m_recorded->jump = jump;
            ++m_recorded;
        }
    }
    float positions[4];
    auto const countFrom = [&](int origin) {
        for (int n = 0; n < 4; ++n)
            positions[n] = static_cast<float>(std::int64_t{starts[n]} - origin);
        return positions[0] < positions[1] && positions[1] < positions[2] &&
               positions[2] < positions[3];
    };
    if (!countFrom(0)) {
        position = static_cast<float>(m_state.vdw) * m_state.frac[axis];
        if (!countFrom(m_state.llc[axis]))
            for (int n = 1; n < 4; ++n)
                positions[n] =
                    std::max(positions[n], std::nextafter(positions[n - 1],
                                                          std::numeric_limits<float>::infinity()));
    }
    Register const value = Internal::interpolateValues1D(m_state.source.type, m_state.source.clamp,
                                                         values, positions, position, jump);
    if constexpr (Trace::kCheckNaN)
        return checkedRow<Traits, T>(m_state, values, positions, position, jump, value);
    return value;
}

/// The value of getValue3D() from the lines that it recorded.
template <class Traits, class T, class Trace>
auto AdaptiveSample<Traits, T, Trace>::interpolateStencil(AdaptiveStencil<T> const& stencil,
                                                          float3 const& position) const
    -> Register {
    constexpr int kOrder[] = {1, 0, 2, 3};  // that of compose()
    auto const* line = stencil.lines;
    Register planes[4];
    for (int const plane : kOrder) {
        Register rows[4];
        for (int const row : kOrder) {
            rows[row] = interpolateValues1D(line->values, line->starts, 1, position.y, line->jump);
            ++line;
        }
        planes[plane] = interpolateValues1D(rows, line->starts, 0, position.x, line->jump);
        ++line;
    }
    return interpolateValues1D(planes, line->starts, 2, position.z, line->jump);
}

/// Away from a jump the kernels read the cube.
template <class Traits, class T, class Trace>
T AdaptiveSample<Traits, T, Trace>::interpolateBlock3D() const {
    TileCubeRows<Traits, T> rows;
    CubicStencil<T> stencil;
    stencil.gather(rows.columnsOf(m_state.samples, lowestOf<Traits>(int4Of(m_state.lijk, 0))));
    return stencil.interpolate(m_state.source.type, m_state.source.clamp, float4Of(m_state.frac));
}

template <class Traits, class T, class Trace> T AdaptiveSample<Traits, T, Trace>::value() {
    T const result = interpolate();
    if (!isNaN(result)) return result;
    reportNaN(m_state, "voxelSamplerCubic: output is NAN");
    return T();
}

template <class Traits, class T, class Trace> T AdaptiveSample<Traits, T, Trace>::interpolate() {
    // The axes along which the sample lies between data points.
    int3 axes;
    int count = 0;
    float3 position;
    for (int axis = 0; axis < 3; ++axis) {
        position[axis] = static_cast<float>(m_state.vdw) * m_state.frac[axis] +
                         static_cast<float>(m_state.llc[axis]);
        if (!(m_state.frac[axis] == 0)) axes[count++] = axis;
    }
    if (count == 0) return m_points.dataPoint();

    typename AdaptiveMemo<T>::StencilKey const key{m_state.tile.treeIndex(), m_state.lijk,
                                                   m_state.tijk, m_state.depthLimit};
    if (kUsesMemo && count == 3)
        if (auto const* const stencil = m_state.memo.findStencil(key)) {
            T const result = RegisterTraits<T>::to(interpolateStencil(*stencil, position));
            if (!isNaN(result)) return result;  // else the report shows the walk
        }

    m_points.fetchTiles({2, count > 1 ? 2 : 1, count > 2 ? 2 : 1}, axes, count);
    Register value;
    if (count == 1) {
        getValue1D(m_state.tijk, axes.x, position[axes.x], value);
    } else if (count == 2) {
        getValue2D(m_state.tijk, axes.x, axes.y, position, value);
    } else if (!m_state.atJump && m_state.tile.depth() == m_state.depthLimit) {
        return interpolateBlock3D();
    } else {
        AdaptiveStencil<T> stencil;
        if (kUsesMemo) m_recorded = stencil.lines;
        getValue3D(position, value);
        if (kUsesMemo) m_state.memo.keepStencil(key, stencil);
    }
    return RegisterTraits<T>::to(value);
}

template <class Traits, class T, class Trace>
T adaptiveValue(CubicSource<Traits, T> const& source, AdaptiveMemo<T>& memo, TreeIndex const& tree,
                int3 const& lijk, float3 const& frac, int depth) {
    if (!tree.valid() || source.minDepth > tree.depth) return source.defaultValue;
    auto const& tile = source.container.tile(tree);
    if (!tile.exists()) return source.defaultValue;
    AdaptiveState<Traits, T> state(source, memo, tile, lijk, frac,
                                   std::min(source.maxDepth, depth));
    return AdaptiveSample<Traits, T, Trace>(state).value();
}

template <class Traits, class T>
void traceTileCube(CubicSource<Traits, T> const& source, AdaptiveMemo<T>& memo,
                   TreeIndex const& tree, int3 const& lijk, float3 const& frac) {
    auto const& tile = source.container.tile(tree);
    if (!tile.exists()) return;
    AdaptiveState<Traits, T> state(source, memo, tile, lijk, frac, tree.depth);
    StencilPoints<Traits, T, StreamTrace>(state).fetchTiles({2, 2, 2}, {0, 1, 2}, 3);
}

ZEL_SAMPLER_INSTANCES(ZEL_DETAIL_ADAPTIVE, );
ZEL_DETAIL_ADAPTIVE_VALUE(, BinaryTraits, float, CheckTrace);

}  // namespace ORV::TileTree3D::Internal
