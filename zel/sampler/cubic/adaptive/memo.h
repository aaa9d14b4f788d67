#pragma once

#include <bit>
#include <cstdint>
#include <vector>

#include "zel_platform/orvane_geometry_volume/traits.h"

namespace ORV::TileTree3D::Internal {

/// Nested samples of the adaptive path, by all that their values depend on. The points of a stencil
/// ask for the same nested samples, and so do other stencils near by: without the memo, the time of
/// a sample would grow as a power of the number of levels that meet there. Direct-mapped: a value
/// stays until one of the same hash takes its slot.
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
        Entry const& entry = m_entries[slotOf(key)];
        return entry.key == key ? &entry.value : nullptr;
    }
    void keep(Key const& key, T const& value) {
        if (!m_entries.empty()) m_entries[slotOf(key)] = {key, value};
    }

private:
    static constexpr std::size_t kSize = 4096;
    struct Entry {
        Key key;  // at first of no tile
        T value{};
    };

    static std::size_t slotOf(Key const& key) {
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
