#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zel/api.h"

// How batches tell that a graph is the one that they have evaluated before, without a walk over it.
namespace zel {

class Field;

namespace detail {

/// Two equal versions of a graph that exists have the same nodes, with the same members.
struct GraphVersion {
    Field const* root = nullptr;
    std::uint64_t construction = 0;  ///< changes when a node is constructed at the root's address
    std::uint64_t change = 0;        ///< changes with every change of a node, in any graph

    bool operator==(GraphVersion const&) const = default;
};

/// The numbers of the versions. A node below a root lives as long as the root does, and stays as it
/// is until a GraphChange.
class GraphVersions {
public:
    /// The version of the graph below a node. It equals no version from `watch` if the address of
    /// the node has not been watched since a node was constructed there.
    static GraphVersion of(Field const& root) {
        return {&root, slotOf(&root).load(std::memory_order_relaxed),
                s_change.load(std::memory_order_relaxed)};
    }

    /// The same, and watches the address from now on.
    static GraphVersion watch(Field const& root) {
        std::atomic<std::uint64_t>& slot = slotOf(&root);
        std::uint64_t seen = slot.load(std::memory_order_relaxed);
        while (!isWatched(seen) &&
               !slot.compare_exchange_weak(seen, seen + 1, std::memory_order_relaxed)) {
        }
        // Not by of(root): a node constructed on another thread may have ended the watch already.
        return {&root, seen + !isWatched(seen), s_change.load(std::memory_order_relaxed)};
    }

    /// Each node reports its construction.
    static void noteConstruction(Field const* node) {
        std::atomic<std::uint64_t>& slot = slotOf(node);
        std::uint64_t seen = slot.load(std::memory_order_relaxed);
        while (isWatched(seen) &&
               !slot.compare_exchange_weak(seen, seen + 1, std::memory_order_relaxed)) {
        }
    }

    static void noteChange() { s_change.fetch_add(1, std::memory_order_relaxed); }

private:
    // Some addresses have a slot in common. A slot is odd while one of them is watched.
    static constexpr std::size_t kSlots = 1024;
    static bool isWatched(std::uint64_t slot) { return slot % 2 == 1; }
    static std::atomic<std::uint64_t>& slotOf(Field const* node) {
        auto const hash = reinterpret_cast<std::uintptr_t>(node) * 0x9e3779b97f4a7c15U;
        return s_slots[hash >> 32 & (kSlots - 1)];
    }

    static std::array<std::atomic<std::uint64_t>, kSlots> s_slots;
    static std::atomic<std::uint64_t> s_change;
};

/// Stands where a node gets other children or another formula, and reports that at its end.
class ZEL_API GraphChange {
public:
    GraphChange() = default;
    ~GraphChange();
    GraphChange(GraphChange const&) = delete;
    GraphChange& operator=(GraphChange const&) = delete;
};

}  // namespace detail
}  // namespace zel
