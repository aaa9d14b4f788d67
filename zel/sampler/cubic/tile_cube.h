#pragma once

#include <algorithm>
#include <bit>
#include <span>

#include "zel/sampler/cubic/source.h"
#include "zel/sampler/cubic/stencil.h"

namespace ORV::TileTree3D::Internal {

/// Whole numbers, of which the fourth is left out of account in a place. In registers: one that is
/// written to memory by parts is slow to be read as a whole.
inline Int4 int4Of(int3 const& v, int fourth) {
    return Int4{v.x, v.y, v.z, fourth};
}
inline int3 int3Of(Int4 const& v) {
    return {v[0], v[1], v[2]};
}

/// A voxel index in the range that a position can have; only where a lattice coordinate is too
/// large for a float would it leave it.
template <class Traits> Int4 limitedVoxel(Int4 const& lijk) {
    constexpr int kLast = Traits::kSamples - 1;
    Int4 const voxel = lijk < -1 ? Int4{} - 1 : lijk;
    return voxel > kLast ? Int4{} + kLast : voxel;
}

/// The voxel of the lowest value of the stencil of a voxel, in the tile that holds it.
template <class Traits> Int4 lowestOf(Int4 const& voxel) {
    return voxel - 1 + ((voxel < 1) & Traits::kSamples);
}

/// The samples of 2x2x2 tiles of one depth, at their blockPlace: those around the stencil of a
/// voxel. The first tile holds its lowest value.
template <class T> struct TileBlock {
    Int4 place{0, 0, 0, -1};          ///< the low corner of the first tile, and the depth
    bool atJump = false;              ///< whether there is one that is missing or of another depth
    std::array<T const*, 8> tiles{};  ///< all of them if not at a jump

    bool is(Int4 const& other) const { return allSet(place == other); }
};

/// Blocks found before, by where they are: a scan line comes back to those of the line before it.
template <class Traits, class T> class TileBlocks {
    using Tile = TileOf<Traits>;
    using Source = CubicSource<Traits, T>;

public:
    explicit TileBlocks(Source const& source)
        : m_accessors{source.accessor, source.accessor, source.accessor, source.accessor,
                      source.accessor, source.accessor, source.accessor, source.accessor},
          m_shift(static_cast<int>(std::bit_width(
                      static_cast<unsigned>(Traits::tileWidth(source.container.depth())))) -
                  1) {}

    /// The place of the block of a voxel of a tile, which is named by its low corner and its depth.
    static Int4 placeOf(int3 const& corner, int depth, Int4 const& voxel) {
        Int4 const below = (voxel < 1) & Int4{-1, -1, -1, 0};
        return int4Of(corner, depth) - (below & Traits::tileWidth(depth));
    }

    /// The block at a place, which is that of a voxel of a tile; valid until the next call.
    TileBlock<T> const& at(Source const& source, Tile const& tile, Int4 const& place) {
        TileBlock<T>& block = entry(place);
        if (!block.is(place)) {
            block.place = place;
            block.atJump = true;
            Tile const& parent = source.container.tile(tile.parentTreeIndex());
            if (parent.exists()) find(source, tile, parent, block);  // around the root is nothing
        }
        return block;
    }

    /// The block at a place if it was found before; else null.
    TileBlock<T> const* known(Int4 const& place) {
        TileBlock<T> const& block = entry(place);
        return block.is(place) ? &block : nullptr;
    }

    /// Finds, and keeps for known(), the blocks at places of one depth. The waits for memory
    /// overlap.
    void findAll(Source const& source, int depth, std::span<TileBlock<T>* const> blocks) {
        constexpr std::size_t kMost = Container<Traits>::kMaxPoints / 8;
        for (; !blocks.empty(); blocks = blocks.subspan(std::min(blocks.size(), kMost))) {
            auto const count = std::min(blocks.size(), kMost);
            std::array<std::array<std::uint32_t, 8 * kMost>, 3> cells;
            for (std::size_t b = 0; b < count; ++b)
                for (unsigned axis = 0; axis < 3; ++axis) {
                    // A place below the root becomes one above it: both are at jumps.
                    std::uint32_t const first = tilesBelow<Traits>(
                        std::min(Traits::aboveRoot(blocks[b]->place[static_cast<int>(axis)]),
                                 Traits::kRootWidth),
                        static_cast<unsigned>(depth));
                    for (unsigned n = 0; n < 8; ++n)
                        cells[axis][8 * b + n] = first + (n >> (2 - axis) & 1);
                }
            std::array<TileRun, 8 * kMost> runs;
            int const runCount =
                source.container.findTiles(depth, cells[0].data(), cells[1].data(), cells[2].data(),
                                           static_cast<int>(8 * count), runs.data());
            std::size_t i = 0;
            for (int r = 0; r < runCount; ++r) {
                TileRun const run = runs[static_cast<std::size_t>(r)];
                for (; i < static_cast<std::size_t>(run.end); ++i)
                    blocks[i / 8]->tiles[i % 8] = source.channel.samples({run.tile, depth});
            }
            for (TileBlock<T>* const block : blocks.first(count)) {
                auto const& tiles = block->tiles;
                block->atJump = std::find(tiles.begin(), tiles.end(), nullptr) != tiles.end();
                entry(block->place) = *block;
            }
        }
    }

private:
    TileBlock<T>& entry(Int4 const& place) {
        auto const cell = [&](int axis) {
            return static_cast<std::uint32_t>(place[axis] >> m_shift);
        };
        return m_blocks[(cell(0) + 19 * cell(1) + 53 * cell(2)) % m_blocks.size()];
    }
    /// Finds the tiles by their parents. Along an axis they have the same one, or two.
    void find(Source const& source, Tile const& tile, Tile const& parent, TileBlock<T>& block) {
        int const width = tile.tileVoxelWidth(), parentWidth = parent.tileVoxelWidth();
        int3 const corner = int3Of(block.place);
        int3 firstParent = parent.tijk();
        unsigned across = 0, own = 0;
        for (int axis = 0; axis < 3; ++axis) {
            int const above = corner[axis] - parent.tijk()[axis];
            unsigned const bit = 4U >> axis;
            if (above < 0) {
                firstParent[axis] -= parentWidth;
                own |= bit;
            }
            if (above < 0 || above == parentWidth - width) across |= bit;
        }
        // Or shallower tiles in their place.
        std::array<Tile const*, 8> parents;
        for (unsigned n = 0; n < 8; ++n) {
            if ((n & ~across) != 0) continue;
            int3 const p = firstParent + stepOf(n) * parentWidth;
            parents[n] = n == own ? &parent : &m_accessors[n].tile(p.x, p.y, p.z, parent.depth());
        }
        block.atJump = false;
        for (unsigned n = 0; n < 8; ++n) {
            Tile const& over = *parents[n & across];
            int3 const child = over.childIJK(corner + stepOf(n) * width);
            block.tiles[n] = over.depth() == parent.depth()
                                 ? source.channel.samples(over.childTreeIndex(child))
                                 : nullptr;
            block.atJump = block.atJump || !block.tiles[n];
        }
    }
    /// The way to a blockPlace from the first one.
    static int3 stepOf(unsigned n) {
        return {static_cast<int>(n >> 2), static_cast<int>(n >> 1 & 1), static_cast<int>(n & 1)};
    }

    // One a parent, so that each finds the next one near its last.
    std::array<typename Container<Traits>::ConstTileAccessor, 8> m_accessors;
    std::array<TileBlock<T>, 128> m_blocks;
    int m_shift;  // 2 to the power of this is about the width of the finest tiles
};

}  // namespace ORV::TileTree3D::Internal
