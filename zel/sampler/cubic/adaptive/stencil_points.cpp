#include "zel/sampler/cubic/adaptive/stencil_points.h"

#include <cmath>

#include "zel/sampler/cubic/adaptive/nan_report.h"
#include "zel/sampler/cubic/adaptive/sample.h"
#include "zel/sampler/cubic/jump.h"
#include "zel/sampler/cubic/tile_cube.h"

namespace ORV::TileTree3D::Internal {

namespace {

/// The fraction of a voxel that a lattice point lies above the voxel's low corner.
float3 fractionOf(int3 const& above, int width) {
    float3 frac;
    for (int axis = 0; axis < 3; ++axis)
        frac[axis] = static_cast<float>(above[axis]) / static_cast<float>(width);
    return frac;
}

}  // namespace

/// The sample of a voxel; the default value in a tile of which the channel has no data.
template <class Traits, class T, class Trace>
T StencilPoints<Traits, T, Trace>::sampleOf(T const* data, int3 const& lijk) const {
    return data ? data[DataChannel<Traits, T>::Layout::flat(lijk.x, lijk.y, lijk.z)]
                : m_state.source.defaultValue;
}

template <class Traits, class T, class Trace>
short const* StencilPoints<Traits, T, Trace>::flagsOf(Tile const& tile) const {
    auto const* const channel = m_state.source.dofChannel;
    return channel ? channel->samples(tile.treeIndex()) : nullptr;
}

/// Whether a voxel holds no value of its own.
template <class Traits, class T, class Trace>
bool StencilPoints<Traits, T, Trace>::isFlagged(short const* flags, int3 const& lijk) const {
    return flags && (flags[DofChannel<Traits>::Layout::flat(lijk.x, lijk.y, lijk.z)] &
                     m_state.source.dofMask) != 0;
}

template <class Traits, class T, class Trace> T StencilPoints<Traits, T, Trace>::dataPoint() const {
    auto const& source = m_state.source;
    Tile const& tile = m_state.tile;
    int3 const& lijk = m_state.lijk;
    if (isFlagged(flagsOf(tile), lijk)) {
        if (tile.m_parentIndex < 0) return source.defaultValue;
        Tile const& parent = source.container.tile(tile.parentTreeIndex());
        int const width = parent.voxelDataWidth();
        int3 const voxel = parent.childDataIJK(m_state.tijk);
        return nestedValue(parent, voxel,
                           fractionOf(m_state.llc - (parent.tijk() + voxel * width), width));
    }
    // A voxel of index -1 is one of another tile.
    if (lijk.x < 0 || lijk.y < 0 || lijk.z < 0)
        return sampleChannelPoint<Traits, T>(m_state.llc, tile.depth(),
                                             source.topology.offsetType(), source.channel,
                                             source.accessor);
    return sampleOf(source.channel.samples(tile.treeIndex()), lijk);
}

template <class Traits, class T, class Trace>
void StencilPoints<Traits, T, Trace>::fetchTiles(int3 const& sizes, int3 const& axes, int count) {
    Trace::fetchTilesBegin(sizes, axes, count);
    int const depth = m_state.tile.depth();
    for (int c = 0; c < sizes.z; ++c)
        for (int b = 0; b < sizes.y; ++b)
            for (int a = 0; a < sizes.x; ++a) {
                int3 const step{a, b, c};
                int3 p = m_state.llc, index;
                for (int n = 0; n < count; ++n) {
                    p[axes[n]] += m_state.tvw * step[n] - m_state.vdw;
                    index[axes[n]] = step[n];
                }
                Tile const& tile = m_state.source.tileAt(p, depth);
                Trace::fetched(index, tile.tijk(), tile.depth());
                unsigned const slot = TileCube<T>::slotOf(index.x, index.y, index.z);
                m_state.tiles[slot] = &tile;
                m_state.samples[slot] = m_state.source.channel.samples(tile.treeIndex());
                m_state.flags[slot] = flagsOf(tile);
                if (tile.depth() != depth || !m_state.samples[slot])
                    m_state.atJump = true;
                else if (tile.contains(m_state.tijk))
                    m_state.originIndex = index;
            }
    int3 const& index = m_state.originIndex;
    m_state.origin = m_state.tiles[TileCube<T>::slotOf(index.x, index.y, index.z)]->tijk();
    Trace::fetchTilesEnd(m_state.atJump, m_state.origin);
    Trace::info(m_state.atJump);
}

/// The deepest tile over a lattice point that is no deeper than the sample's: one of the fetched
/// tiles, of the indices `lti`, or one that is looked up.
template <class Traits, class T, class Trace>
auto StencilPoints<Traits, T, Trace>::getTile(int3 const& tijk, int3& lti, bool& inCube) const
    -> Tile const& {
    inCube = true;
    for (int axis = 0; axis < 3; ++axis) {
        std::int64_t const distance = std::int64_t{tijk[axis]} - m_state.origin[axis];
        if constexpr (Trace::kOn)
            lti[axis] = static_cast<int>(
                std::floor(static_cast<float>(distance) / static_cast<float>(m_state.tvw)));
        else  // as far as it is in the cube
            lti[axis] = distance < 0 ? -1 : distance < m_state.tvw ? 0 : 1;
        lti[axis] += m_state.originIndex[axis];
        inCube = inCube && (lti[axis] & ~1) == 0;
    }
    Tile const* tile = inCube ? m_state.tiles[TileCube<T>::slotOf(lti.x, lti.y, lti.z)] : nullptr;
    // Next to a coarser tile the fetched tiles may be aligned to that tile, and one found among
    // them by mistake would hide a finer tile.
    bool const covers = tile && tile->contains(tijk);
    inCube = covers && tile->depth() == m_state.tile.depth();
    if (!inCube && !(covers && tile->isLeaf(tile->childIJK(tijk))))
        tile = &m_state.source.tileAt(tijk, m_state.tile.depth());
    Trace::getTile(tijk, m_state.origin, m_state.originIndex, lti, tile->tijk(), inCube);
    return *tile;
}

template <class Traits, class T, class Trace>
bool StencilPoints<Traits, T, Trace>::getValue(int3 const& tijk, int axis, Point& point) const {
    Trace::getValue(tijk);
    PointCase const found = findPoint(tijk, axis, point);
    if constexpr (Trace::kCheckNaN) checkPoint(m_state, found, point);
    return found != PointCase::kThisLevel;
}

template <class Traits, class T, class Trace>
PointCase StencilPoints<Traits, T, Trace>::findPoint(int3 const& tijk, int axis,
                                                     Point& point) const {
    auto const& source = m_state.source;
    int3 lti;
    bool inCube;
    Tile const& tile = getTile(tijk, lti, inCube);
    if (!tile.exists()) return getDefaultValue(point);
    if (tile.depth() < m_state.tile.depth()) {
        Trace::coarserTile();
        return getCoarserValue(tile, tijk, axis, point);
    }
    unsigned const slot = inCube ? TileCube<T>::slotOf(lti.x, lti.y, lti.z) : 0;
    T const* const data = inCube ? m_state.samples[slot] : source.channel.samples(tile.treeIndex());
    int3 const lijk = tile.childDataIJK(tijk), childPosition = tile.childIJK(tijk);
    Trace::voxel(lijk, childPosition);

    if (tile.depth() != m_state.depthLimit && !tile.isLeaf(childPosition)) {
        Trace::refined();
        Tile const& child = source.container.tile(tile.childTreeIndex(childPosition));
        int3 const voxel = child.childDataIJK(tijk);
        if (isFlagged(flagsOf(child), voxel)) {
            Trace::flaggedInRefined();
            return getValueAtThisLevel(tile, lijk, data, tijk, axis, point);
        }
        int const width = child.voxelDataWidth();
        point = {sampleOf(source.channel.samples(child.treeIndex()), voxel),
                 child.tijk()[axis] + voxel[axis] * width, width};
        return PointCase::kRefined;
    }

    Trace::leaf();
    if (isFlagged(inCube ? m_state.flags[slot] : flagsOf(tile), lijk)) {
        Trace::flagged();
        if (tile.m_parentIndex < 0) return getDefaultValue(point);
        return getCoarserValue(source.container.tile(tile.parentTreeIndex()), tijk, axis, point);
    }
    return getValueAtThisLevel(tile, lijk, data, tijk, axis, point);
}

/// The sample of a voxel of this level, or the value on its low face along the axis where the row
/// does not run through data points: on the lattice of a finer neighbour.
template <class Traits, class T, class Trace>
PointCase StencilPoints<Traits, T, Trace>::getValueAtThisLevel(Tile const& tile, int3 const& lijk,
                                                               T const* data, int3 const& tijk,
                                                               int axis, Point& point) const {
    int3 const corner = tile.tijk() + lijk * m_state.vdw;
    int3 across = tijk - corner;
    across[axis] = 0;
    if (across == int3{}) {
        point.value = sampleOf(data, lijk);
    } else {
        Trace::recursionBegin();
        point.value = nestedValue(tile, lijk, fractionOf(across, m_state.vdw));
        Trace::recursionEnd(tijk);
    }
    point.start = corner[axis];
    point.step = m_state.vdw;
    Trace::getValueAtThisLevel(point.start, point.step);
    return PointCase::kThisLevel;
}

/// The value at the low face, along the axis, of a voxel of a coarser tile, and at the row's true
/// place across it.
template <class Traits, class T, class Trace>
PointCase StencilPoints<Traits, T, Trace>::getCoarserValue(Tile const& tile, int3 const& tijk,
                                                           int axis, Point& point) const {
    int const width = tile.voxelDataWidth();
    int3 const voxel = tile.childDataIJK(tijk);
    int3 const corner = tile.tijk() + voxel * width;
    float3 const frac = fractionOf(tijk - corner, width);
    float3 across = frac;
    across[axis] = 0;
    Trace::getCoarserValueBegin(frac, across);
    Trace::recursionBegin();
    point = {nestedValue(tile, voxel, across), corner[axis], width};
    Trace::recursionEnd(tijk);
    Trace::getCoarserValueEnd(point.start, point.step);
    return PointCase::kCoarser;
}

/// A stencil runs on across empty space in steps of the last voxel that it met.
template <class Traits, class T, class Trace>
PointCase StencilPoints<Traits, T, Trace>::getDefaultValue(Point& point) const {
    Trace::getDefaultValue();
    point.value = m_state.source.defaultValue;
    point.start += point.step;
    return PointCase::kDefault;
}

/// A sample of another tile, or between the data points of this tile along fewer axes. Traces and
/// searches for NaNs pass the memo by, so that they see every step.
template <class Traits, class T, class Trace>
T StencilPoints<Traits, T, Trace>::nestedValue(Tile const& tile, int3 const& lijk,
                                               float3 const& frac) const {
    auto const sample = [&] {
        return adaptiveValue<Traits, T, Trace>(m_state.source, m_state.memo, tile.treeIndex(), lijk,
                                               frac, m_state.depthLimit);
    };
    if (Trace::kOn || Trace::kCheckNaN || frac == float3{}) return sample();
    typename AdaptiveMemo<T>::Key const key{tile.treeIndex(), lijk, m_state.depthLimit, frac};
    if (T const* const known = m_state.memo.find(key)) return *known;
    T const value = sample();
    m_state.memo.keep(key, value);
    return value;
}

template <class Traits, class T, class Trace>
int StencilPoints<Traits, T, Trace>::smallestVoxelWidth(int3 const& p) const {
    int3 lti;
    bool inCube;
    Tile const& tile = getTile(p, lti, inCube);
    if (!tile.exists()) return m_state.vdw;
    int const depth = m_state.tile.depth();
    bool const mayBeRefined = tile.depth() >= depth && m_state.depthLimit > depth;
    return mayBeRefined && !tile.isLeaf(tile.childIJK(p)) ? tile.childVoxelDataWidth()
                                                          : tile.voxelDataWidth();
}

ZEL_SAMPLER_INSTANCES(ZEL_DETAIL_STENCIL_POINTS, );
template class StencilPoints<BinaryTraits, float, CheckTrace>;

}  // namespace ORV::TileTree3D::Internal
