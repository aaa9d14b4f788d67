#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace ORV::TileTree3D::Internal {

/// The inner tiles of one depth, those with children, by their place on the lattice: a hash table
/// of buckets of 4, at most half full, with 8 bytes an entry. An entry is a hash and the number of
/// a child table; the caller checks whether a table of the same hash belongs to the tile.
///
/// A bucket is compared as a whole, without a branch on the position of an entry in it: in look-ups
/// at random places mispredicted branches cost more than memory accesses.
class InnerTileIndex {
public:
    static std::uint32_t hash(std::uint32_t x, std::uint32_t y, std::uint32_t z) {
        std::uint64_t h = x * std::uint64_t{0x9e3779b97f4a7c15};
        h += y * std::uint64_t{0xc2b2ae3d27d4eb4f};
        h += z * std::uint64_t{0x165667b19e3779f9};
        return static_cast<std::uint32_t>(h >> 32);
    }

    /// Allocates room for one more entry, so that the next add() cannot fail.
    void reserveOne() {
        std::size_t const size = bucketsFor(m_count + 1);
        if (size <= m_buckets.size()) return;
        std::vector<Bucket> buckets(size);
        buckets.swap(m_buckets);
        for (Bucket const& bucket : buckets)
            for (unsigned s = 0; s < kBucketSize; ++s)
                if (bucket.table[s] >= 0) put(bucket.hash[s], bucket.table[s]);
    }
    void add(std::uint32_t hash, std::int32_t table) {
        put(hash, table);
        ++m_count;
    }
    /// Prefetches the bucket that find() reads first.
    void prefetch(std::uint32_t hash) const {
        if (m_count > 0) __builtin_prefetch(&m_buckets[hash & mask()]);
    }
    /// Calls `resolve` with each table of that hash, until it returns a pointer that is not null,
    /// and returns that pointer; else null.
    template <class Resolve>
    auto find(std::uint32_t hash, Resolve const& resolve) const
        -> decltype(resolve(std::int32_t{})) {
        if (m_count == 0) return nullptr;
        for (std::size_t at = hash & mask();; at = (at + 1) & mask()) {
            Bucket const& bucket = m_buckets[at];
            unsigned same = 0;
            for (unsigned s = 0; s < kBucketSize; ++s)
                same |= unsigned{bucket.hash[s] == hash} << s;
            for (; same != 0; same &= same - 1) {
                std::int32_t const table =
                    bucket.table[static_cast<unsigned>(std::countr_zero(same))];
                if (table < 0) break;
                if (auto const resolved = resolve(table)) return resolved;
            }
            if (bucket.table[kBucketSize - 1] < 0) return nullptr;  // not full
        }
    }
    void clear() {
        m_buckets.assign(m_buckets.size(), Bucket());
        m_count = 0;
    }

    /// The bytes that the present entries need, and the bytes allocated.
    std::size_t bytesUsed() const { return m_count > 0 ? bucketsFor(m_count) * sizeof(Bucket) : 0; }
    std::size_t bytes() const { return m_buckets.capacity() * sizeof(Bucket); }

private:
    static constexpr unsigned kBucketSize = 4;

    /// The entries in use come first; a table of -1 marks a free entry.
    struct alignas(32) Bucket {
        std::array<std::uint32_t, kBucketSize> hash{};
        std::array<std::int32_t, kBucketSize> table{-1, -1, -1, -1};
    };

    static std::size_t bucketsFor(std::size_t count) {
        return std::bit_ceil((2 * count + kBucketSize - 1) / kBucketSize);
    }
    std::size_t mask() const { return m_buckets.size() - 1; }
    void put(std::uint32_t hash, std::int32_t table) {
        for (std::size_t at = hash & mask();; at = (at + 1) & mask())
            for (unsigned s = 0; s < kBucketSize; ++s)
                if (m_buckets[at].table[s] < 0) {
                    m_buckets[at].hash[s] = hash;
                    m_buckets[at].table[s] = table;
                    return;
                }
    }

    std::vector<Bucket> m_buckets;
    std::size_t m_count = 0;
};

}  // namespace ORV::TileTree3D::Internal
