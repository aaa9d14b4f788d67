#pragma once

#include <array>
#include <bit>
#include <cstdint>

#include "zel/sampler/common/float4.h"

namespace ORV::TileTree3D::Internal {

/// Entries that belong to points of the lattice, in a direct-mapped table: an entry stays until one
/// of the same hash takes its slot. A scan line comes back to the entries of the line before it.
template <class Entry> class LatticeCache {
public:
    /// For entries about `width` apart, or more.
    explicit LatticeCache(int width)
        : m_shift(static_cast<int>(std::bit_width(static_cast<unsigned>(width))) - 1) {}

    /// The slot for a point. What it holds may belong to another point.
    Entry& slotOf(Int4 const& point) {
        auto const cell = [&](int axis) {
            return static_cast<std::uint32_t>(point[axis] >> m_shift);
        };
        return m_entries[(cell(0) + 19 * cell(1) + 53 * cell(2)) % m_entries.size()];
    }

private:
    std::array<Entry, 128> m_entries;
    int m_shift;  ///< 2 to the power of this is about the width
};

}  // namespace ORV::TileTree3D::Internal
