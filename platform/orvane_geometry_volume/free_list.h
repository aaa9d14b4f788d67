#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

namespace ORV::TileTree3D::Internal {

/// What a pool holds, by size. A request takes the smallest entry that is large enough, and none
/// that is more than twice as large, so that little memory lies idle in a long-lived owner.
template <class Entry> class FreeList {
public:
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
        if (found == m_entries.end() || found->first / 2 > size) return std::nullopt;
        std::optional<Taken> taken(Taken{found->first, std::move(found->second)});
        m_heldSize -= found->first;
        m_entries.erase(found);
        return taken;
    }

    /// Whether the entry was taken over. A list that is disabled, or has no memory to note the
    /// entry, leaves it to its owner.
    bool give(unsigned long long size, Entry&& entry) noexcept {
        try {
            std::scoped_lock const lock(m_mutex);
            if (!enabled()) return false;
            m_entries.emplace(size, std::move(entry));
            m_heldSize += size;
            return true;
        } catch (...) {
            return false;
        }
    }

    void clear() {
        std::multimap<unsigned long long, Entry> dropped;
        std::scoped_lock const lock(m_mutex);
        dropped.swap(m_entries);
        m_heldSize = 0;
    }

    unsigned long long heldSize() const {
        std::scoped_lock const lock(m_mutex);
        return m_heldSize;
    }

private:
    std::atomic<bool> m_enabled = false;
    mutable std::mutex m_mutex;
    std::multimap<unsigned long long, Entry> m_entries;
    unsigned long long m_heldSize = 0;
};

}  // namespace ORV::TileTree3D::Internal
