#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

namespace ORV::TileTree3D::Internal {

/// The free entries of a pool, by size. A request takes the smallest entry that is large enough,
/// but none that is more than twice as large, since an owner may live long and leave the rest
/// unused. A list that would exceed its limit is cleared first, so that sizes no longer requested
/// are freed.
template <class Entry> class FreeList {
public:
    explicit FreeList(unsigned long long limit) : m_limit(limit) {}

    bool enabled() const { return m_enabled.load(std::memory_order_relaxed); }

    void setEnabled(bool on) {
        m_enabled.store(on, std::memory_order_relaxed);
        if (!on) clear();
    }

    struct Taken {
        unsigned long long size;
        Entry entry;
    };

    std::optional<Taken> take(unsigned long long size) {
        if (!enabled()) return std::nullopt;
        std::scoped_lock const lock(m_mutex);
        auto const found = m_entries.lower_bound(size);
        if (found == m_entries.end() || found->first - size > size) return std::nullopt;
        std::optional<Taken> taken(Taken{found->first, std::move(found->second.entry)});
        m_heldSize -= found->first;
        m_entries.erase(found);
        return taken;
    }

    /// Adds an entry, and returns whether it did. The entry is left unchanged if the list is
    /// disabled, if the entry alone exceeds the limit, or if no memory is left for the list.
    bool give(unsigned long long size, Entry&& entry) noexcept {
        Entries dropped;
        try {
            std::scoped_lock const lock(m_mutex);
            if (!enabled() || size > m_limit) return false;
            if (m_heldSize > m_limit - size) {
                dropped.swap(m_entries);
                m_heldSize = 0;
            }
            m_entries.emplace(size, Held{std::move(entry)});
            m_heldSize += size;
            return true;
        } catch (...) {
            return false;
        }
    }

    void clear() {
        Entries dropped;
        std::scoped_lock const lock(m_mutex);
        dropped.swap(m_entries);
        m_heldSize = 0;
    }

    unsigned long long heldSize() const {
        std::scoped_lock const lock(m_mutex);
        return m_heldSize;
    }

private:
    /// A hidden type around the entry, so that the library does not export the instances of the
    /// map.
    struct Held {
        Entry entry;
    };
    using Entries = std::multimap<unsigned long long, Held>;

    unsigned long long const m_limit;
    std::atomic<bool> m_enabled = false;
    mutable std::mutex m_mutex;
    Entries m_entries;
    unsigned long long m_heldSize = 0;
};

}  // namespace ORV::TileTree3D::Internal
