#pragma once

#include <algorithm>
#include <cmath>

#include "zel/sampler/cubic/adaptive/adaptive.h"
#include "zel/sampler/cubic/jump.h"

// AdaptiveSample: the sample's voxel, and the lookup of one stencil point.
namespace ORV::TileTree3D::Internal {

/// How many lattice units a place in a voxel lies above the voxel's corner, rounded down. A place
/// far outside, which no position has, gives one that cannot overflow, and NaN gives 0.
inline int latticeSteps(int width, float frac) {
    constexpr float kBound = 536870912.0F;
    float const steps = std::floor(static_cast<float>(width) * frac);
    return std::isnan(steps) ? 0 : static_cast<int>(std::clamp(steps, -kBound, kBound));
}

template <class Traits, class T, class Trace>
AdaptiveSample<Traits, T, Trace>::AdaptiveSample(CubicSource<Traits, T> const& source,
                                                 TileOf<Traits> const& tile, int3 const& lijk,
                                                 float3 const& frac, int depthLimit)
    : m_source(source), m_tile(tile), m_lijk(lijk), m_frac(frac), m_depthLimit(depthLimit),
      m_vdw(tile.voxelDataWidth()), m_tvw(tile.tileVoxelWidth()),
      m_llc(tile.tijk() + lijk * tile.voxelDataWidth()), m_tijk(m_llc) {
    for (int axis = 0; axis < 3; ++axis) m_tijk[axis] += latticeSteps(m_vdw, frac[axis]);
}

/// The sample of a voxel; the default value of a tile of which the channel has no data.
template <class Traits, class T, class Trace>
T AdaptiveSample<Traits, T, Trace>::sampleOf(T const* data, int3 const& lijk) const {
    return data ? data[DataChannel<Traits, T>::Layout::flat(lijk.x, lijk.y, lijk.z)]
                : m_source.m_defaultValue;
}

template <class Traits, class T, class Trace>
short const* AdaptiveSample<Traits, T, Trace>::dofOf(Tile const& tile) const {
    return m_source.m_dofChannel ? m_source.m_dofChannel->samples(tile.treeIndex()) : nullptr;
}

/// Whether a voxel's own value does not count.
template <class Traits, class T, class Trace>
bool AdaptiveSample<Traits, T, Trace>::isFlagged(short const* dof, int3 const& lijk) const {
    return dof && (dof[DofChannel<Traits>::Layout::flat(lijk.x, lijk.y, lijk.z)] &
                   m_source.m_dofMask) != 0;
}

/// The value of a sample that lies on a data point.
template <class Traits, class T, class Trace>
T AdaptiveSample<Traits, T, Trace>::dataPoint() const {
    if (isFlagged(dofOf(m_tile), m_lijk)) {
        if (m_tile.m_parentIndex < 0) return m_source.m_defaultValue;
        Tile const& parent = m_source.m_container->tile(m_tile.parentTreeIndex());
        int const width = parent.voxelDataWidth();
        int3 const voxel = parent.childDataIJK(m_tijk);
        int3 const above = m_llc - (parent.tijk() + voxel * width);
        float3 frac;
        for (int axis = 0; axis < 3; ++axis)
            frac[axis] = static_cast<float>(above[axis]) / static_cast<float>(width);
        return sampleVoxel(parent, voxel, frac);
    }
    // A voxel just below the tile is one of another tile.
    if (m_lijk.x < 0 || m_lijk.y < 0 || m_lijk.z < 0)
        return sampleChannelPoint<Traits, T>(m_llc, m_tile.depth(),
                                             m_source.m_topology->offsetType(), *m_source.m_channel,
                                             m_source.m_tileAccessor);
    return sampleOf(m_source.m_channel->samples(m_tile.treeIndex()), m_lijk);
}

/// Fetches the tiles of the block: `sizes` of them along the first `count` of `axes`. The first one
/// holds the lowest stencil point.
template <class Traits, class T, class Trace>
void AdaptiveSample<Traits, T, Trace>::fetchTiles(int3 const& sizes, int3 const& axes, int count) {
    Trace::fetchTilesBegin(sizes, axes, count);
    int const depth = m_tile.depth();
    for (int c = 0; c < sizes.z; ++c)
        for (int b = 0; b < sizes.y; ++b)
            for (int a = 0; a < sizes.x; ++a) {
                int3 const step{a, b, c};
                int3 p = m_llc, place;
                for (int n = 0; n < count; ++n) {
                    p[axes[n]] += m_tvw * step[n] - m_vdw;
                    place[axes[n]] = step[n];
                }
                Tile const& tile = m_source.tileAt(p, depth);
                Trace::fetched(place, tile.tijk(), tile.depth());
                unsigned const entry = blockPlace(place.x, place.y, place.z);
                m_tileBlock[entry] = &tile;
                m_dataBlock[entry] = m_source.m_channel->samples(tile.treeIndex());
                m_dofBlock[entry] = dofOf(tile);
                if (tile.depth() != depth || !m_dataBlock[entry])
                    m_atResolutionJump = true;
                else if (tile.contains(m_tijk))
                    m_originIndex = place;
            }
    m_origin = m_tileBlock[blockPlace(m_originIndex.x, m_originIndex.y, m_originIndex.z)]->tijk();
    Trace::fetchTilesEnd(m_atResolutionJump, m_origin);
    Trace::info(m_atResolutionJump);
}

template <class Traits, class T, class Trace> void AdaptiveSample<Traits, T, Trace>::fetchBlock() {
    fetchTiles({2, 2, 2}, {0, 1, 2}, 3);
}

/// The deepest tile over a point that is no deeper than the sample's: one of the block, at `lti`,
/// or one that is looked up.
template <class Traits, class T, class Trace>
auto AdaptiveSample<Traits, T, Trace>::getTile(int3 const& tijk, int3& lti, bool& inBlock) const
    -> Tile const& {
    inBlock = true;
    for (int axis = 0; axis < 3; ++axis) {
        auto const distance = static_cast<float>(std::int64_t{tijk[axis]} - m_origin[axis]);
        lti[axis] = static_cast<int>(std::floor(distance / static_cast<float>(m_tvw))) +
                    m_originIndex[axis];
        inBlock = inBlock && (lti[axis] & ~1) == 0;
    }
    Tile const* tile = inBlock ? m_tileBlock[blockPlace(lti.x, lti.y, lti.z)] : nullptr;
    // Next to a coarser tile the block may be aligned to that one, and a tile found in it by
    // mistake would hide a finer one.
    inBlock = tile && tile->depth() == m_tile.depth() && tile->contains(tijk);
    if (!inBlock) tile = &m_source.tileAt(tijk, m_tile.depth());
    Trace::getTile(tijk, m_origin, m_originIndex, lti, tile->tijk(), inBlock);
    return *tile;
}

/// Looks up the stencil point that answers for a lattice point in a row along an axis. True if it
/// is off the uniform grid of the sample's level. `point` comes in with the voxel to step on from
/// in empty space.
template <class Traits, class T, class Trace>
bool AdaptiveSample<Traits, T, Trace>::getValue(int3 const& tijk, int axis, Point& point) const {
    constexpr int kAtThisLevel = 3;
    Trace::getValue(tijk);
    int const which = findValue(tijk, axis, point);
    if constexpr (Trace::kCheckNaN) checkPoint(which, point);
    return which != kAtThisLevel;
}

/// The number of the case: 1 for a coarser value, 2 for the default value, 3 for one of this level,
/// 4 for a refined neighbour.
template <class Traits, class T, class Trace>
int AdaptiveSample<Traits, T, Trace>::findValue(int3 const& tijk, int axis, Point& point) const {
    int3 lti;
    bool inBlock;
    Tile const& tile = getTile(tijk, lti, inBlock);
    if (!tile.exists()) return getDefaultValue(point);
    if (tile.depth() < m_tile.depth()) {
        Trace::coarserTile();
        return getCoarserValue(tile, tijk, axis, point);
    }
    unsigned const place = inBlock ? blockPlace(lti.x, lti.y, lti.z) : 0;
    T const* const data =
        inBlock ? m_dataBlock[place] : m_source.m_channel->samples(tile.treeIndex());
    int3 const lijk = tile.childDataIJK(tijk), childPosition = tile.childIJK(tijk);
    Trace::voxel(lijk, childPosition);

    if (tile.depth() != m_depthLimit && !tile.isLeaf(childPosition)) {
        Trace::refined();
        Tile const& child = m_source.m_container->tile(tile.childTreeIndex(childPosition));
        int3 const voxel = child.childDataIJK(tijk);
        if (isFlagged(dofOf(child), voxel)) {
            Trace::flaggedInRefined();
            return getValueAtThisLevel(tile, lijk, data, tijk, axis, point);
        }
        int const width = child.voxelDataWidth();
        point = {sampleOf(m_source.m_channel->samples(child.treeIndex()), voxel),
                 child.tijk()[axis] + voxel[axis] * width, width};
        return 4;
    }

    Trace::leaf();
    if (isFlagged(inBlock ? m_dofBlock[place] : dofOf(tile), lijk)) {
        Trace::flagged();
        if (tile.m_parentIndex < 0) return getDefaultValue(point);
        return getCoarserValue(m_source.m_container->tile(tile.parentTreeIndex()), tijk, axis,
                               point);
    }
    return getValueAtThisLevel(tile, lijk, data, tijk, axis, point);
}

/// The sample of a voxel of this level, or the value on its low face along the axis where the row
/// does not run through data points: on the lattice of a finer neighbour.
template <class Traits, class T, class Trace>
int AdaptiveSample<Traits, T, Trace>::getValueAtThisLevel(Tile const& tile, int3 const& lijk,
                                                          T const* data, int3 const& tijk, int axis,
                                                          Point& point) const {
    int3 const corner = tile.tijk() + lijk * m_vdw;
    int3 across = tijk - corner;
    across[axis] = 0;
    if (across == int3{}) {
        point.value = sampleOf(data, lijk);
    } else {
        float3 frac;
        for (int a = 0; a < 3; ++a)
            frac[a] = static_cast<float>(across[a]) / static_cast<float>(m_vdw);
        Trace::recursionBegin();
        point.value = sampleVoxel(tile, lijk, frac);
        Trace::recursionEnd(tijk);
    }
    point.start = corner[axis];
    point.step = m_vdw;
    Trace::getValueAtThisLevel(point.start, point.step);
    return 3;
}

/// The value at the low face, along the axis, of a voxel of a coarser tile, and at the row's true
/// place across it.
template <class Traits, class T, class Trace>
int AdaptiveSample<Traits, T, Trace>::getCoarserValue(Tile const& tile, int3 const& tijk, int axis,
                                                      Point& point) const {
    int const width = tile.voxelDataWidth();
    int3 const voxel = tile.childDataIJK(tijk);
    int3 const corner = tile.tijk() + voxel * width;
    float3 frac;
    for (int a = 0; a < 3; ++a)
        frac[a] = static_cast<float>(tijk[a] - corner[a]) / static_cast<float>(width);
    float3 across = frac;
    across[axis] = 0;
    Trace::getCoarserValueBegin(frac, across);
    Trace::recursionBegin();
    point = {sampleVoxel(tile, voxel, across), corner[axis], width};
    Trace::recursionEnd(tijk);
    Trace::getCoarserValueEnd(point.start, point.step);
    return 1;
}

/// A stencil runs on across empty space in steps of the last voxel that it saw.
template <class Traits, class T, class Trace>
int AdaptiveSample<Traits, T, Trace>::getDefaultValue(Point& point) const {
    Trace::getDefaultValue();
    point.value = m_source.m_defaultValue;
    point.start += point.step;
    return 2;
}

/// The value of another tile, or between data points of this one. A trace follows all of its way,
/// and so does a search for NaNs.
template <class Traits, class T, class Trace>
T AdaptiveSample<Traits, T, Trace>::sampleVoxel(Tile const& tile, int3 const& lijk,
                                                float3 const& frac) const {
    auto const find = [&] {
        return adaptiveValue<Traits, T, Trace>(m_source, tile.treeIndex(), lijk, frac,
                                               m_depthLimit);
    };
    if (Trace::kOn || Trace::kCheckNaN || frac == float3{}) return find();
    typename AdaptiveMemo<T>::Key const key{tile.treeIndex(), lijk, m_depthLimit, frac};
    if (T const* const known = m_source.m_memo.find(key)) return *known;
    T const value = find();
    m_source.m_memo.keep(key, value);
    return value;
}

}  // namespace ORV::TileTree3D::Internal
