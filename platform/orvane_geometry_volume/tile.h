#pragma once

#include <algorithm>
#include <bit>
#include <limits>

#include "zel_platform/orvane_geometry_volume/lattice_cell.h"
#include "zel_platform/orvane_geometry_volume/traits.h"

namespace ORV::TileTree3D {

/// The part of a tile that depends only on the number of its children, N. Samplers read the fields
/// directly; only the tree writes them. A default-constructed tile is the sentinel, which a look-up
/// returns that finds no tile: it does not exist, has depth -1, contains nothing, and its voxel
/// width is 1.
template <int N> class TileBinaryNonCompatible {
public:
    static_assert(N == 8 || N == 125);
    static constexpr int kBranch = N == 8 ? 2 : 5;

    int3 m_tijk;                         ///< low corner on the finest-voxel lattice
    std::int32_t m_depth = -1;           ///< 0 for the root
    std::int64_t m_parentIndex = -1;     ///< place within the depth above; -1 without a parent
    std::int32_t* m_children = nullptr;  ///< the child table: the place of each child within the
                                         ///< depth below, x fastest, or -1; null without children
    std::int32_t m_index = -1;           ///< place within the depth
    std::uint8_t m_exists = 0;           ///< 0 for the sentinel

    bool exists() const { return m_exists != 0; }
    int depth() const { return m_depth; }
    int3 const& tijk() const { return m_tijk; }
    TreeIndex treeIndex() const { return {m_index, m_depth}; }
    /// (-1, -1) without a parent.
    TreeIndex parentTreeIndex() const {
        return m_parentIndex < 0 ? TreeIndex() : TreeIndex{m_parentIndex, m_depth - 1};
    }
    /// The child at a child position, 0 to B - 1 along each axis; (-1, -1) if there is none, also
    /// for a position out of that range.
    TreeIndex childTreeIndex(int3 const& childPosition) const {
        std::int32_t const child = childIndex(childPosition);
        return child < 0 ? TreeIndex() : TreeIndex{child, m_depth + 1};
    }
    /// Whether there is no child at that position.
    bool isLeaf(int3 const& childPosition) const { return childIndex(childPosition) < 0; }

    /// The entry of the child table for a child position in range.
    static constexpr int childSlot(int x, int y, int z) { return x + kBranch * (y + kBranch * z); }

private:
    std::int32_t childIndex(int3 const& position) const {
        constexpr auto inRange = [](std::int32_t c) {
            return static_cast<std::uint32_t>(c) < std::uint32_t{kBranch};
        };
        if (!m_children || !inRange(position.x) || !inRange(position.y) || !inRange(position.z))
            return -1;
        return m_children[childSlot(position.x, position.y, position.z)];
    }
};

/// A tile of a tree of one kind: its place, and the widths that follow from its depth.
template <class Traits, int N> class Tile : public TileBinaryNonCompatible<N> {
public:
    static_assert(N == Traits::kChildCount);

    static constexpr int voxelDataWidth(int depth) { return Traits::voxelWidth(depth); }
    static constexpr int tileVoxelWidth(int depth) { return Traits::tileWidth(depth); }

    int voxelDataWidth() const { return Traits::voxelWidth(this->m_depth); }
    int tileVoxelWidth() const { return Traits::tileWidth(this->m_depth); }
    /// The voxel width one level deeper; 1 below the deepest depth and for the sentinel.
    int childVoxelDataWidth() const {
        return this->m_depth < 0 ? 1 : Traits::voxelWidth(this->m_depth + 1);
    }

    /// Whether the tile exists and a lattice point lies in it.
    bool contains(int i, int j, int k) const {
        auto const width = static_cast<std::uint32_t>(tileVoxelWidth());
        return Internal::covers(this->m_tijk, width, {i, j, k}) && this->m_exists != 0;
    }
    bool contains(int3 const& p) const { return contains(p.x, p.y, p.z); }

    /// The child position, 0 to B - 1 along each axis, of the child that contains a lattice point
    /// of this tile. The result for a point outside the tile is unspecified, but in that range.
    int3 childIJK(int3 const& p) const {
        int3 child;
        childIJK(p.x, p.y, p.z, child.x, child.y, child.z);
        return child;
    }
    void childIJK(int const& i, int const& j, int const& k, int& ci, int& cj, int& ck) const {
        auto const width = static_cast<std::uint32_t>(tileVoxelWidth() / Traits::kBranch);
        ci = childCoordinate(i, this->m_tijk.x, width);
        cj = childCoordinate(j, this->m_tijk.y, width);
        ck = childCoordinate(k, this->m_tijk.z, width);
    }

    /// The index, within this tile, of the voxel that contains a lattice point: the voxel's low
    /// corner is tijk + voxelDataWidth() times the index. Along each axis it is 0 to W - 1 for a
    /// point of this tile; for a point outside, it continues beyond the tile's faces, clamped to
    /// the 32-bit range.
    int3 childDataIJK(int3 const& p) const { return childDataIJK(p.x, p.y, p.z); }
    int3 childDataIJK(int const& i, int const& j, int const& k) const {
        int const width = voxelDataWidth();
        return {voxelCoordinate(i, this->m_tijk.x, width),
                voxelCoordinate(j, this->m_tijk.y, width),
                voxelCoordinate(k, this->m_tijk.z, width)};
    }

private:
    static std::uint32_t above(std::int32_t p, std::int32_t corner) {
        return static_cast<std::uint32_t>(p) - static_cast<std::uint32_t>(corner);
    }
    static int childCoordinate(std::int32_t p, std::int32_t corner, std::uint32_t width) {
        // The quotient, limited to B - 1: counted, since a division takes longer.
        std::uint32_t const distance = above(p, corner);
        int child = 0;
        for (std::uint32_t n = 1; n < Traits::kBranch; ++n) child += distance >= n * width;
        return child;
    }
    static int voxelCoordinate(std::int32_t p, std::int32_t corner, int width) {
        std::int64_t const distance = std::int64_t{p} - corner;
        std::int64_t voxel;
        if constexpr (Traits::kBranch == 2)  // a power of two; the shift rounds down
            voxel = distance >> std::countr_zero(static_cast<unsigned>(width));
        else if (distance >= 0)  // less than 2^32
            voxel = static_cast<std::uint32_t>(distance) / static_cast<std::uint32_t>(width);
        else
            voxel = (distance + 1) / width - 1;
        using Limits = std::numeric_limits<std::int32_t>;
        return static_cast<int>(std::clamp<std::int64_t>(voxel, Limits::min(), Limits::max()));
    }
};

template <class Traits> using TileOf = Tile<Traits, Traits::kChildCount>;

static_assert(sizeof(TileOf<BinaryTraits>) <= 48 && sizeof(TileOf<QuinaryTraits>) <= 48);

}  // namespace ORV::TileTree3D
