#include "zel/batch/fusion/fusion_plan.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <span>

#include "zel/batch/fusion/parent_counter.h"
#include "zel/batch/fusion/planner.h"

namespace zel {

namespace detail {

std::size_t FusionPlan::slotOf(void const* node) const {
    auto const hash = reinterpret_cast<std::uintptr_t>(node) * 0x9e3779b97f4a7c15U >> 32;
    std::size_t slot = hash & (m_size - 1);
    while (m_entries[slot].node && m_entries[slot].node != node) slot = (slot + 1) & (m_size - 1);
    return slot;
}

FusionPlan::Entry& FusionPlan::insert(void const* node) {
    if (2 * m_count >= m_size) grow();
    Entry& entry = m_entries[slotOf(node)];
    m_count += !entry.node;
    entry.node = node;
    return entry;
}

void FusionPlan::grow() {
    std::span const old(m_entries, m_size);
    m_size = std::max<std::size_t>(16, 2 * old.size());
    m_entries = static_cast<Entry*>(m_memory.allocate(m_size * sizeof(Entry)));
    std::uninitialized_fill_n(m_entries, m_size, Entry{});
    for (Entry const& entry : old)
        if (entry.node) m_entries[slotOf(entry.node)] = entry;
}

template <class Interface> FusionPlan const* makeFusionPlan(Interface const& root, Arena& memory) {
    auto* const plan = new (memory.allocate(sizeof(FusionPlan))) FusionPlan(memory);
    ParentCounter parents(*plan, memory);
    parents.walk(root);
    FusionDraft draft(memory);
    for (Aim const aim : {Aim::kValues, Aim::kDuals})
        Planner(*plan, draft, memory, aim, parents.sharing()).walk(root);
    return plan;
}

template FusionPlan const* makeFusionPlan(Core::Fields::ScalarField const&, Arena&);
template FusionPlan const* makeFusionPlan(Core::Fields::VectorField const&, Arena&);

}  // namespace detail
}  // namespace zel
