#pragma once

#include <bit>
#include <cstdint>
#include <memory>
#include <vector>

#include "zel/sampler/cubic/kernels.h"
#include "zel_platform/orvane_geometry_volume/traits.h"

namespace ORV::TileTree3D::Internal {

/// The stencil of a sample in three dimensions, as the tree makes it: all that its interpolation
/// takes but the sample's place within the voxel.
template <class T> struct AdaptiveStencil {
    /// Four points, rows or planes along an axis.
    struct Line {
        RegisterOf<T> values[4];  ///< of points; those of rows and planes depend on the place
        int starts[4];            ///< lattice coordinates
        bool jump;                ///< whether they are off the uniform grid
    };
    /// Four times four rows and the plane that they make, then the volume of the planes.
    Line lines[21];
};

/// What the adaptive path keeps from sample to sample, by all that it depends on: the values of
/// nested samples, and the stencils of voxels. The points of a stencil ask for the same nested
/// samples, and so do other stencils near by: without the memo, the time of a sample would grow as
/// a power of the number of levels that meet there. A stencil serves further samples in its voxel,
/// such as those of differences. Direct-mapped: an entry stays until one of the same hash takes its
/// slot.
template <class T> class AdaptiveMemo {
public:
    struct Key {
        TreeIndex tree;
        int3 lijk;
        int depthLimit = -1;
        float3 frac;

        bool operator==(Key const&) const = default;
    };

    /// Without room, nothing is kept. Throws std::bad_alloc.
    explicit AdaptiveMemo(bool withRoom)
        : m_entries(withRoom ? kSize : 0), m_stencilKeys(withRoom ? kStencils : 0),
          m_stencils(withRoom ? std::make_unique_for_overwrite<AdaptiveStencil<T>[]>(kStencils)
                              : nullptr) {}

    /// The value of a key, or null.
    T const* find(Key const& key) const {
        if (m_entries.empty()) return nullptr;
        Entry const& entry = m_entries[slotOf(key)];
        return entry.key == key ? &entry.value : nullptr;
    }
    void keep(Key const& key, T const& value) {
        if (!m_entries.empty()) m_entries[slotOf(key)] = {key, value};
    }

    /// A voxel, the lattice point of a sample in it, and the deepest depth that it reads.
    struct StencilKey {
        TreeIndex tree;
        int3 lijk, tijk;
        int depthLimit = -1;

        bool operator==(StencilKey const&) const = default;
    };
    /// The stencil of a key, or null.
    AdaptiveStencil<T> const* findStencil(StencilKey const& key) const {
        if (m_stencilKeys.empty()) return nullptr;
        std::size_t const slot = slotOf(key);
        return m_stencilKeys[slot] == key ? &m_stencils[slot] : nullptr;
    }
    void keepStencil(StencilKey const& key, AdaptiveStencil<T> const& stencil) {
        if (m_stencilKeys.empty()) return;
        std::size_t const slot = slotOf(key);
        m_stencilKeys[slot] = key;
        m_stencils[slot] = stencil;
    }

private:
    static constexpr std::size_t kSize = 4096, kStencils = 256;
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
    static std::size_t slotOf(StencilKey const& key) {
        std::uint64_t hash = static_cast<std::uint64_t>(key.tree.tile) * 64 +
                             static_cast<std::uint64_t>(key.tree.depth);
        for (int axis = 0; axis < 3; ++axis)
            hash = (hash * 0x9E3779B97F4A7C15U >> 7) ^
                   static_cast<std::uint64_t>(std::int64_t{key.tijk[axis]});
        return static_cast<std::size_t>(hash * 0x9E3779B97F4A7C15U >> 56) % kStencils;
    }

    std::vector<Entry> m_entries;
    std::vector<StencilKey> m_stencilKeys;  ///< at first of no tile
    std::unique_ptr<AdaptiveStencil<T>[]> m_stencils;
};

}  // namespace ORV::TileTree3D::Internal
