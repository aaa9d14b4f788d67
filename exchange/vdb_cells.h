#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <vector>

#include "vdb_source.h"
#include "vdb_values.h"
#include "zel_platform/orvane_geometry_volume/parallel.h"

// Where the values of a VDB tree change. A box of 4 voxels along each axis is constant if the
// values at its voxels, and at those just across its high faces, edges and corner, are all the
// same: the trilinear function is then constant in it. The boxes lie on multiples of 4, as the
// nodes of OpenVDB do.
namespace zel::detail {

/// Compares by the order of a depth-first walk through an octree.
inline bool isBeforeInOctree(int3 const& a, int3 const& b) {
    auto const difference = [&](int axis) {
        return static_cast<std::uint32_t>(a[axis]) ^ static_cast<std::uint32_t>(b[axis]);
    };
    int axis = 2;
    for (int other : {1, 0}) {
        auto const most = difference(axis), more = difference(other);
        if (most < more && most < (most ^ more)) axis = other;
    }
    return a[axis] < b[axis];
}

/// Finds the cells of a VDB tree.
template <class Tree> class VdbScan {
public:
    /// At most `limit` parts may be found, and no value but the background farther from `centre`
    /// than `reach` along an axis.
    VdbScan(Tree const& tree, long long limit, int3 const& centre, int reach)
        : m_tree(tree), m_limit(limit), m_centre(centre), m_reach(reach) {}

    /// The cells with parts that are not constant, in the order of an octree. Throws TooManyTiles
    /// and OutsideLattice.
    std::vector<VdbCell> run() {
        findBlocks();
        sortBlocks();
        std::vector<std::vector<VdbCell>> found(m_blocks.size());
        ORV::TileTree3D::Internal::parallelRanges(
            static_cast<long long>(m_blocks.size()), 1, [&](long long first, long long last) {
                VdbSource<Tree> source(m_tree);
                Table table(kEdge * kEdge * kEdge);
                for (auto i = static_cast<std::size_t>(first); i < static_cast<std::size_t>(last);
                     ++i)
                    scan(m_blocks[i] * kBlock, source, table, found[i]);
            });
        std::size_t count = 0;
        for (auto const& part : found) count += part.size();
        std::vector<VdbCell> cells;
        cells.reserve(count);
        for (auto& part : found) {
            cells.insert(cells.end(), part.begin(), part.end());
            std::vector<VdbCell>().swap(part);
        }
        return cells;
    }

private:
    using Value = typename Tree::ValueType;
    using Root = typename Tree::RootNodeType;
    using Upper = typename Root::ChildNodeType;
    using Lower = typename Upper::ChildNodeType;
    using Leaf = typename Lower::ChildNodeType;
    static constexpr int kBlock = Lower::DIM;  ///< 128: blocks are scanned together
    static constexpr int kRegion = Upper::DIM;
    static constexpr int kLeaf = Leaf::DIM;
    static constexpr int kLeaves = kBlock / kLeaf, kEdge = kLeaves + 1;

    /// What a box of 8 voxels along each axis holds.
    struct Entry {
        Value const* voxels;  ///< of a leaf; null without one
        Value value;          ///< without a leaf
        /// Which parts of the leaf have one value at their own voxels: bits as of VdbCell::parts.
        std::uint8_t uniform;
    };
    using Table = std::vector<Entry>;  ///< of a block and the layer above its high faces
    static int place(int3 const& at) { return at.x + kEdge * (at.y + kEdge * at.z); }

    /// A part of a box of 8 voxels is a number with a bit for each axis, x first, that is set for
    /// the high half. A direction is one with the bits of the axes along which it goes up: 1, 2 and
    /// 4 are those across faces, 3, 5 and 6 across edges, 7 across the corner.
    static constexpr int3 step(int direction) {
        return {direction & 1, direction >> 1 & 1, direction >> 2};
    }
    static int3 cornerOf(openvdb::Coord const& at) { return {at.x(), at.y(), at.z()}; }

    void sortBlocks() {
        std::sort(m_blocks.begin(), m_blocks.end(), isBeforeInOctree);
        m_blocks.erase(std::unique(m_blocks.begin(), m_blocks.end()), m_blocks.end());
        m_sorted = m_blocks.size();
    }
    void addBlock(int3 const& block) {
        m_blocks.push_back(block);
        if (m_blocks.size() < m_sorted * 2 + (std::size_t{1} << 20)) return;
        sortBlocks();
        if (static_cast<long long>(m_sorted) > m_limit) throw TooManyTiles{};
    }
    /// The block, and those whose high faces, edges or corner touch it.
    void addWithLower(int3 const& at) {
        int3 const block{at.x >> 7, at.y >> 7, at.z >> 7};
        for (int direction = 0; direction < 8; ++direction) addBlock(block - step(direction));
    }

    void findBlocks() {
        static_assert(kBlock == 1 << 7);
        auto const& root = m_tree.root();
        Value const background = m_tree.background();
        for (auto upper = root.cbeginChildOn(); upper; ++upper) {
            checkRegion(cornerOf(upper->origin()));
            for (auto lower = upper->cbeginChildOn(); lower; ++lower)
                addWithLower(cornerOf(lower->origin()));
            for (auto tile = upper->cbeginValueAll(); tile; ++tile)
                if (!isSame(*tile, background)) addWithLower(cornerOf(tile.getCoord()));
        }
        VdbSource<Tree> source(m_tree);
        for (auto tile = root.cbeginValueAll(); tile; ++tile)
            if (!isSame(*tile, background)) {
                int3 const corner = cornerOf(tile.getCoord());
                checkRegion(corner);
                for (int direction = 1; direction < 8; ++direction) {
                    addShell(source, corner, corner + step(direction) * kRegion, *tile, direction);
                    int3 const lower = corner - step(direction) * kRegion;
                    addShell(source, lower, corner, source.value(lower), direction);
                }
            }
    }
    void checkRegion(int3 const& corner) const {
        for (int axis = 0; axis < 3; ++axis) {
            long long const at = static_cast<long long>(corner[axis]) - m_centre[axis];
            if (at < -static_cast<long long>(m_reach) + 2 * kRegion ||
                at >= static_cast<long long>(m_reach) - 2 * kRegion)
                throw OutsideLattice{corner};
        }
    }
    /// Adds the blocks of a region at those of its high faces that `direction` names, unless the
    /// region across them is of the same value.
    void addShell(VdbSource<Tree>& source, int3 const& region, int3 const& across,
                  Value const& value, int direction) {
        auto const isTile = [&](int3 const& at) { return !source.template node<Upper>(at); };
        if (isTile(region) && isTile(across) && isSame(source.value(across), value)) return;
        constexpr int kCount = kRegion / kBlock;
        int3 const first = step(direction) * (kCount - 1);
        int3 const base{region.x >> 7, region.y >> 7, region.z >> 7};
        for (int z = first.z; z < kCount; ++z)
            for (int y = first.y; y < kCount; ++y)
                for (int x = first.x; x < kCount; ++x) addBlock(base + int3{x, y, z});
    }

    void scan(int3 const& corner, VdbSource<Tree>& source, Table& table,
              std::vector<VdbCell>& cells) {
        if (!fill(corner, source, table)) return;
        long long parts = 0;
        for (std::uint32_t number = 0; number < kLeaves * kLeaves * kLeaves; ++number) {
            int3 const at{everyThirdBit(number), everyThirdBit(number >> 1),
                          everyThirdBit(number >> 2)};
            std::uint8_t const mask = varyingParts(&table[static_cast<std::size_t>(place(at))]);
            if (mask == 0) continue;
            cells.push_back({corner + at * kLeaf, mask});
            parts += std::popcount(mask);
        }
        if (m_parts.fetch_add(parts) + parts > m_limit) throw TooManyTiles{};
    }

    /// Fills the table of a block. False if the block and those it touches are of one value.
    static bool fill(int3 const& corner, VdbSource<Tree>& source, Table& table) {
        std::array<Lower const*, 8> nodes;
        std::array<Value, 8> values;
        bool isConstant = true;
        for (unsigned direction = 0; direction < 8; ++direction) {
            int3 const at = corner + step(static_cast<int>(direction)) * kBlock;
            nodes[direction] = source.template node<Lower>(at);
            values[direction] = source.value(at);
            isConstant = isConstant && !nodes[direction] && isSame(values[direction], values[0]);
        }
        if (isConstant) return false;
        for (unsigned direction = 0; direction < 8; ++direction) {
            int3 const to = step(static_cast<int>(direction));
            int3 at;
            for (at.z = to.z * kLeaves; at.z < kLeaves + to.z; ++at.z)
                for (at.y = to.y * kLeaves; at.y < kLeaves + to.y; ++at.y)
                    for (at.x = to.x * kLeaves; at.x < kLeaves + to.x; ++at.x) {
                        Entry& entry = table[static_cast<std::size_t>(place(at))];
                        if (Lower const* const node = nodes[direction])
                            fill(*node, at - to * kLeaves, entry);
                        else
                            entry = {nullptr, values[direction], 0};
                    }
        }
        return true;
    }
    static void fill(Lower const& node, int3 const& at, Entry& entry) {
        auto const slot = static_cast<openvdb::Index>(at.x << 8 | at.y << 4 | at.z);
        auto const& held = node.getTable()[slot];
        if (!node.isChildMaskOn(slot)) {
            entry = {nullptr, held.getValue(), 0};
            return;
        }
        entry.voxels = held.getChild()->buffer().data();
        entry.uniform = 0;
        for (unsigned part = 0; part < 8; ++part)
            if (VdbSource<Tree>::isUniformPart(entry.voxels + kOffsets[part]))
                entry.uniform |= static_cast<std::uint8_t>(1U << part);
    }

    /// The bits 0, 3, 6 and 9 of a number, as one of 4 bits: the numbers of the boxes of a block,
    /// which have the bits of x, y and z by turns, run in the order of an octree.
    static int everyThirdBit(std::uint32_t number) {
        return static_cast<int>((number & 1) | (number >> 2 & 2) | (number >> 4 & 4) |
                                (number >> 6 & 8));
    }

    /// The parts of a box that are not constant. The entries of the boxes above it lie behind its
    /// own.
    static std::uint8_t varyingParts(Entry const* entry) {
        // The directions in which values may differ, a bit each. A box without a leaf has one value
        // itself, so that only boxes across its faces matter, and to the parts at these faces.
        unsigned across = 0xFF;
        if (!entry->voxels) {
            across = 0;
            for (int direction = 1; direction < 8; ++direction) {
                Entry const& other = entry[place(step(direction))];
                if (other.voxels || !isSame(other.value, entry->value)) across |= 1U << direction;
            }
            if (across == 0) return 0;
        }
        unsigned mask = 0;
        for (unsigned part = 0; part < 8; ++part)
            if ((across & kOutwards[part]) != 0 && !isConstant(entry, part)) mask |= 1U << part;
        return static_cast<std::uint8_t>(mask);
    }
    /// By part, the directions that lead out of the box at once, a bit each: those along axes on
    /// which the part is the high half.
    static constexpr std::array<unsigned, 8> kOutwards = [] {
        std::array<unsigned, 8> outwards{};
        for (unsigned part = 0; part < 8; ++part)
            for (unsigned direction = 0; direction < 8; ++direction)
                if ((direction & part) == direction) outwards[part] |= 1U << direction;
        return outwards;
    }();
    /// The places of a leaf's parts among its voxels.
    static constexpr std::array<int, 8> kOffsets = [] {
        std::array<int, 8> offsets{};
        for (unsigned part = 0; part < 8; ++part)
            offsets[part] = VdbSource<Tree>::offset(step(static_cast<int>(part)) * 4);
        return offsets;
    }();

    static bool isConstant(Entry const* entry, unsigned part) {
        if (entry->voxels && (entry->uniform >> part & 1) == 0) return false;
        Value const value = entry->voxels ? entry->voxels[kOffsets[part]] : entry->value;
        for (unsigned direction = 1; direction < 8; ++direction) {
            // The neighbour in this direction: a step up from a low half leads to the high half of
            // the same box, and from a high half to the low half of the next box. So the halves
            // change along the axes of the direction, and the box along those where the part is
            // high, too.
            Entry const& other = entry[place(step(static_cast<int>(part & direction)))];
            unsigned const otherPart = part ^ direction;
            if (!other.voxels) {
                if (!isSame(other.value, value)) return false;
                continue;
            }
            Value const* const first = other.voxels + kOffsets[otherPart];
            if (!isSame(*first, value)) return false;
            if ((other.uniform >> otherPart & 1) != 0) continue;
            // The layer of the neighbour at this part: one voxel thick along the direction.
            int3 const thin = step(static_cast<int>(direction));
            if (!VdbSource<Tree>::isSameBox(first, int3{4, 4, 4} - thin * 3, value)) return false;
        }
        return true;
    }

    Tree const& m_tree;
    long long m_limit;
    int3 m_centre;
    int m_reach;
    std::vector<int3> m_blocks;
    std::size_t m_sorted = 0;  ///< how many blocks were left when they were sorted last
    std::atomic<long long> m_parts{0};
};

}  // namespace zel::detail
