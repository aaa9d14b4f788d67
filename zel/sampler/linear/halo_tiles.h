#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "zel_platform/orvane_geometry_volume/tile.h"

namespace ORV::TileTree3D::Internal {

/// The halos of tiles that a sampler filled: of each tile the samples of itself and around it. A
/// halo stays until another tile of the same slot takes its place, so that a scan line comes back
/// to those of the line before it. Tiles of even depths and of odd ones have slots of their own: a
/// tile does not take the place of its parent, from which it is filled. All memory is allocated at
/// construction, and used as slots are.
template <class Traits, class T> class HaloTiles {
public:
    /// Without slots: neither find() nor replace() may be called.
    HaloTiles() = default;
    /// For halos of `count` samples.
    explicit HaloTiles(std::size_t count)
        : m_count(count), m_tiles(std::make_unique<std::array<TreeIndex, 2 * kSlots>>()),
          m_samples(std::make_unique_for_overwrite<T[]>(2 * kSlots * count)) {}

    /// The halo of a tile, if it is here.
    T* find(TileOf<Traits> const& tile) const {
        std::size_t const slot = slotOf(tile);
        return (*m_tiles)[slot] == tile.treeIndex() ? m_samples.get() + slot * m_count : nullptr;
    }
    /// Room for the halo of a tile, which the caller fills; what was there is lost.
    T* replace(TileOf<Traits> const& tile) {
        std::size_t const slot = slotOf(tile);
        (*m_tiles)[slot] = tile.treeIndex();
        return m_samples.get() + slot * m_count;
    }

private:
    static constexpr std::size_t kSlots = 256;

    /// Differs for up to 256 tiles in a row along an axis, or half as many of Traits<5, 5, 1>.
    static std::size_t slotOf(TileOf<Traits> const& tile) {
        auto const depth = static_cast<unsigned>(tile.depth());
        auto const width = static_cast<unsigned>(tile.tileVoxelWidth());
        auto const cell = [&](std::int32_t corner) {
            return static_cast<std::uint32_t>(corner >> (std::bit_width(width) - 1));
        };
        int3 const& corner = tile.m_tijk;
        return (cell(corner.x) + 19 * cell(corner.y) + 53 * cell(corner.z)) % kSlots +
               depth % 2 * kSlots;
    }

    std::size_t m_count = 0;
    std::unique_ptr<std::array<TreeIndex, 2 * kSlots>> m_tiles;
    std::unique_ptr<T[]> m_samples;
};

}  // namespace ORV::TileTree3D::Internal
