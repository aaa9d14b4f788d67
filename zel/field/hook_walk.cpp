#include "zel/field/hook_walk.h"

#include <cstdint>
#include <utility>
#include <vector>

#include "zel/field/thread_object.h"

namespace zel::detail {

namespace {

/// The nodes that the hooks at work on a thread have come to, each with the number of its walk.
class Visited {
public:
    int depth = 0;                ///< of the walk that runs
    unsigned long long walk = 0;  ///< its number
    unsigned long long lastWalk = 0;
    int alive = 0;  ///< parts of all walks of the thread

    bool insert(void const* node) {
        if (2 * (m_count + 1) > m_slots.size()) grow();
        Slot& slot = find(m_slots, {node, walk});
        if (slot.node) return false;
        slot = {node, walk};
        ++m_count;
        return true;
    }

    /// Forgets all, once no walk is left.
    void clear() {
        if (m_count > 0) m_slots.assign(m_slots.size(), {});
        m_count = 0;
    }

private:
    struct Slot {
        void const* node = nullptr;
        unsigned long long walk = 0;
    };

    static Slot& find(std::vector<Slot>& slots, Slot const& wanted) {
        std::size_t const mask = slots.size() - 1;
        auto const address = reinterpret_cast<std::uintptr_t>(wanted.node);
        std::size_t at = ((address >> 4) + wanted.walk) * 0x9e3779b97f4a7c15U >> 32;
        while (slots[at & mask].node &&
               (slots[at & mask].node != wanted.node || slots[at & mask].walk != wanted.walk))
            ++at;
        return slots[at & mask];
    }
    void grow() {
        std::vector<Slot> larger(m_slots.empty() ? 64 : 2 * m_slots.size());
        for (Slot const& slot : m_slots)
            if (slot.node) find(larger, slot) = slot;
        m_slots = std::move(larger);
    }

    std::vector<Slot> m_slots;
    std::size_t m_count = 0;
};

Visited& visited() {
    return threadObject<Visited>();
}

}  // namespace

HookWalk::HookWalk(void const* node, Hook hook) {
    Visited& nodes = visited();
    if (nodes.depth == 0) nodes.walk = ++nodes.lastWalk;
    m_first = nodes.insert(static_cast<char const*>(node) + (hook == Hook::kPost ? 1 : 0));
    ++nodes.depth;
    ++nodes.alive;
}

HookWalk::~HookWalk() {
    Visited& nodes = visited();
    --nodes.depth;
    if (--nodes.alive == 0) nodes.clear();
}

HookWalk::Scope::Scope() {
    Visited& nodes = visited();
    m_outerDepth = std::exchange(nodes.depth, 0);
    m_outerWalk = nodes.walk;
}

HookWalk::Scope::~Scope() {
    Visited& nodes = visited();
    nodes.depth = m_outerDepth;
    nodes.walk = m_outerWalk;
}

}  // namespace zel::detail
