#pragma once

#include <algorithm>
#include <span>

#include "zel/sampler/common/lattice_cache.h"
#include "zel/sampler/cubic/source.h"

namespace ORV::TileTree3D::Internal {

/// The samples of 2x2x2 tiles of one depth: those around the stencil of a voxel. The first tile
/// holds the lowest value of the stencil.
template <class T> struct TileCube {
    Int4 key{0, 0, 0, -1};  ///< the low corner of the first tile, and the depth
    bool atJump = false;    ///< whether a tile is missing, of another depth or without data
    std::array<T const*, 8> tiles{};  ///< by slot; none is null away from a jump

    bool is(Int4 const& other) const { return allSet(key == other); }

    /// The slot of tile (a, b, c), each index 0 or 1 along x, y, z.
    static constexpr unsigned slotOf(int a, int b, int c) {
        return static_cast<unsigned>(c + 2 * (b + 2 * a));
    }
    static int3 indexOf(unsigned slot) {
        return {static_cast<int>(slot >> 2), static_cast<int>(slot >> 1 & 1),
                static_cast<int>(slot & 1)};
    }
};

/// The voxel of the lowest value of the stencil of a voxel, in the tile that holds that value.
template <class Traits> Int4 lowestOf(Int4 const& voxel) {
    return voxel - 1 + ((voxel < 1) & Traits::kSamples);
}

/// The rows of stencils in the tiles of a TileCube.
template <class Traits, class T> class TileCubeRows {
public:
    using Tiles = std::array<T const*, 8>;

    /// A function for CubicStencil::gather: of the stencil whose lowest value is the voxel `low` of
    /// the first tile. Valid until the next call.
    auto columnsOf(Tiles const& tiles, Int4 const& low) {
        return [this, &tiles, low](int i) {
            int const x = low[0] + i, side = x >= kW;
            findRows(tiles, side, low[1], low[2]);
            return [this, offset = std::ptrdiff_t{x - kW * side}](int j, int k) {
                return m_rows[j][k] + offset;
            };
        };
    }

    /// The same for a few rows, which are not kept.
    static auto fewColumnsOf(Tiles const& tiles, Int4 const& low) {
        return [&tiles, x = low[0], y = low[1], z = low[2]](int i) {
            int const side = x + i >= kW;
            return [&tiles, side, inX = x + i - kW * side, y, z](int j, int k) {
                return rowIn(tiles, side, y + j, z + k) + inX;
            };
        };
    }

private:
    static constexpr int kW = Traits::kSamples;

    /// The begin of the row along x of the indices y and z, in the lower or the higher tiles along
    /// x.
    static T const* rowIn(Tiles const& tiles, int side, int y, int z) {
        int const b = y >= kW, c = z >= kW;
        return tiles[TileCube<T>::slotOf(side, b, c)] + kW * (y - kW * b) +
               std::ptrdiff_t{kW * kW} * (z - kW * c);
    }

    /// Finds the 4x4 rows along x on one side. Those of the next stencil along x are mostly the
    /// same.
    void findRows(Tiles const& tiles, int side, int lowY, int lowZ) {
        T const* const first = tiles[TileCube<T>::slotOf(side, 0, 0)];
        if (first == m_first && lowY == m_lowY && lowZ == m_lowZ) return;
        m_first = first;
        m_lowY = lowY;
        m_lowZ = lowZ;
        for (int j = 0; j < 4; ++j)
            for (int k = 0; k < 4; ++k) m_rows[j][k] = rowIn(tiles, side, lowY + j, lowZ + k);
    }

    T const* m_first = nullptr;
    int m_lowY = 0, m_lowZ = 0;
    T const* m_rows[4][4] = {};
};

/// The cubes that were found last.
template <class Traits, class T> class TileCubeCache {
    using Tile = TileOf<Traits>;
    using Source = CubicSource<Traits, T>;

public:
    explicit TileCubeCache(Source const& source)
        : m_accessors{source.accessor, source.accessor, source.accessor, source.accessor,
                      source.accessor, source.accessor, source.accessor, source.accessor},
          m_cubes(Traits::tileWidth(source.container.depth())) {}

    /// The key of the cube of a voxel of a tile, which is named by its low corner and its depth.
    static Int4 keyOf(int3 const& corner, int depth, Int4 const& voxel) {
        Int4 const below = (voxel < 1) & Int4{-1, -1, -1, 0};
        return int4Of(corner, depth) - (below & Traits::tileWidth(depth));
    }

    /// The cube of a key, which is that of a voxel of a tile. Valid until the next call.
    TileCube<T> const& cubeOf(Source const& source, Tile const& tile, Int4 const& key) {
        TileCube<T>& cube = m_cubes.slotOf(key);
        if (!cube.is(key)) {
            cube.key = key;
            cube.atJump = true;
            Tile const& parent = source.container.tile(tile.parentTreeIndex());
            // The root has no tiles around it.
            if (parent.exists()) fetch(source, tile, parent, cube);
        }
        return cube;
    }

    /// The cube of a key if it is in the cache; else null.
    TileCube<T> const* known(Int4 const& key) {
        TileCube<T> const& cube = m_cubes.slotOf(key);
        return cube.is(key) ? &cube : nullptr;
    }

    /// Fetches the tiles of cubes of one depth, whose keys are set, and keeps copies for known().
    /// The waits for memory overlap.
    ZEL_ALWAYS_INLINE void fetchAll(Source const& source, int depth,
                                    std::span<TileCube<T>* const> cubes) {
        constexpr std::size_t kMost = Container<Traits>::kMaxPoints / 8;
        for (; !cubes.empty(); cubes = cubes.subspan(std::min(cubes.size(), kMost))) {
            auto const count = std::min(cubes.size(), kMost);
            std::array<std::array<std::uint32_t, 8 * kMost>, 3> cells;
            std::array<std::uint8_t const*, kMost> orders;
            for (std::size_t n = 0; n < count; ++n) {
                std::array<std::uint32_t, 3> firsts;
                unsigned across = 0;  // the axes with two parents
                for (unsigned axis = 0; axis < 3; ++axis) {
                    // A corner below the root becomes one above it: both cubes are at jumps.
                    firsts[axis] = tilesBelow<Traits>(
                        std::min(Traits::aboveRoot(cubes[n]->key[static_cast<int>(axis)]),
                                 Traits::kRootWidth),
                        static_cast<unsigned>(depth));
                    if ((firsts[axis] + 1) % Traits::kBranch == 0) across |= 4U >> axis;
                }
                orders[n] = kOrders[across].data();
                for (unsigned i = 0; i < 8; ++i)
                    for (unsigned axis = 0; axis < 3; ++axis)
                        cells[axis][8 * n + i] = firsts[axis] + (orders[n][i] >> (2 - axis) & 1);
            }
            std::array<TileRun, 8 * kMost> runs;
            int const runCount =
                source.container.findTiles(depth, cells[0].data(), cells[1].data(), cells[2].data(),
                                           static_cast<int>(8 * count), runs.data());
            std::size_t i = 0;
            for (TileRun const& run : std::span(runs).first(static_cast<std::size_t>(runCount)))
                for (; i < static_cast<std::size_t>(run.end); ++i)
                    cubes[i / 8]->tiles[orders[i / 8][i % 8]] =
                        source.channel.samples({run.tile, depth});
            for (TileCube<T>* const cube : cubes.first(count)) {
                auto const& tiles = cube->tiles;
                cube->atJump = std::find(tiles.begin(), tiles.end(), nullptr) != tiles.end();
                m_cubes.slotOf(cube->key) = *cube;
            }
        }
    }

    /// The same for one cube. Slower than cubeOf() for a cube next to the one fetched last.
    [[gnu::noinline]] TileCube<T> const& fetchApart(Source const& source, Int4 const& key) {
        TileCube<T>& cube = m_cubes.slotOf(key);
        cube.key = key;
        fetchAll(source, key[3], std::array{&cube});
        return cube;
    }

private:
    /// By the axes along which there are two parents: the slots in an order in which those of one
    /// parent follow each other, so that findTiles() looks up each parent once.
    static constexpr auto kOrders = [] {
        std::array<std::array<std::uint8_t, 8>, 8> orders{};
        for (unsigned across = 0; across < 8; ++across) {
            unsigned n = 0;
            for (unsigned parent = 0; parent < 8; ++parent)
                for (unsigned slot = 0; slot < 8; ++slot)
                    if ((slot & across) == parent)
                        orders[across][n++] = static_cast<std::uint8_t>(slot);
        }
        return orders;
    }();

    /// Fetches the tiles through their parents, of which there are one or two along each axis.
    void fetch(Source const& source, Tile const& tile, Tile const& parent, TileCube<T>& cube) {
        int const width = tile.tileVoxelWidth(), parentWidth = parent.tileVoxelWidth();
        int3 const corner = int3Of(cube.key);
        int3 firstParent = parent.tijk();
        unsigned across = 0, own = 0;  // the axes with two parents; the slot of `parent`
        for (int axis = 0; axis < 3; ++axis) {
            int const above = corner[axis] - parent.tijk()[axis];
            unsigned const bit = 4U >> axis;
            if (above < 0) {
                firstParent[axis] -= parentWidth;
                own |= bit;
            }
            if (above < 0 || above == parentWidth - width) across |= bit;
        }
        std::array<Tile const*, 8> parents;  // or shallower tiles in their place
        for (unsigned slot = 0; slot < 8; ++slot) {
            if ((slot & ~across) != 0) continue;
            int3 const p = firstParent + TileCube<T>::indexOf(slot) * parentWidth;
            parents[slot] =
                slot == own ? &parent : &m_accessors[slot].tile(p.x, p.y, p.z, parent.depth());
        }
        cube.atJump = false;
        for (unsigned slot = 0; slot < 8; ++slot) {
            Tile const& over = *parents[slot & across];
            int3 const child = over.childIJK(corner + TileCube<T>::indexOf(slot) * width);
            cube.tiles[slot] = over.depth() == parent.depth()
                                   ? source.channel.samples(over.childTreeIndex(child))
                                   : nullptr;
            cube.atJump = cube.atJump || !cube.tiles[slot];
        }
    }

    // One a parent, so that each look-up starts near the last one of the same slot.
    std::array<typename Container<Traits>::ConstTileAccessor, 8> m_accessors;
    LatticeCache<TileCube<T>> m_cubes;
};

}  // namespace ORV::TileTree3D::Internal
