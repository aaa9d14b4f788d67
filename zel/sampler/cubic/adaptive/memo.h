#pragma once

#include <bit>
#include <cstdint>
#include <vector>

#include "zel_platform/orvane_geometry_volume/traits.h"

namespace ORV::TileTree3D::Internal {

/// Values that the adaptive path has found between data points, of coarser tiles or on the lattice
/// of finer ones, by all that they follow from. The points of a stencil, and stencils near by, ask
/// for the same ones: without it, a sample where many levels meet would take time that grows as a
/// power of their number. A value is kept until another one of the same hash takes its place.
template <class T> class AdaptiveMemo {
public:
    struct Key {
        TreeIndex tree;
        int3 lijk;
        int depthLimit = -1;
        float3 frac;

        bool operator==(Key const&) const = default;
    };

    /// Without room, `find` finds nothing. Throws std::bad_alloc.
    explicit AdaptiveMemo(bool withRoom) : m_entries(withRoom ? kSize : 0) {}

    /// The value of a key, or null.
    T const* find(Key const& key) const {
        if (m_entries.empty()) return nullptr;
        Entry const& entry = m_entries[placeOf(key)];
        return entry.key == key ? &entry.value : nullptr;
    }
    void keep(Key const& key, T const& value) {
        if (!m_entries.empty()) m_entries[placeOf(key)] = {key, value};
    }

private:
    static constexpr std::size_t kSize = 4096;
    struct Entry {
        Key key;  // no tree at first, which nobody asks for
        T value{};
    };

    static std::size_t placeOf(Key const& key) {
        std::uint64_t hash = static_cast<std::uint64_t>(key.tree.tile);
        auto const mix = [&](std::uint64_t part) {
            hash = (hash ^ part) * 0x9E3779B97F4A7C15U;
            hash ^= hash >> 29;
        };
        mix(static_cast<std::uint64_t>(key.tree.depth) << 32 |
            static_cast<std::uint32_t>(key.depthLimit));
        mix(static_cast<std::uint64_t>(key.lijk.x + 1) << 32 |
            static_cast<std::uint64_t>(key.lijk.y + 1) << 16 |
            static_cast<std::uint64_t>(key.lijk.z + 1));
        mix(std::uint64_t{std::bit_cast<std::uint32_t>(key.frac.x)} << 32 |
            std::bit_cast<std::uint32_t>(key.frac.y));
        mix(std::bit_cast<std::uint32_t>(key.frac.z));
        return static_cast<std::size_t>(hash >> 32) % kSize;
    }

    std::vector<Entry> m_entries;
};

}  // namespace ORV::TileTree3D::Internal
