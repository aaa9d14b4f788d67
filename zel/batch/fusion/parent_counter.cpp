#include "zel/batch/fusion/parent_counter.h"

namespace zel {

namespace detail {

template <class Interface> void ParentCounter::walk(Interface const& root) {
    count(root);
    while (!m_pending.isEmpty()) {
        NodeRef const node = m_pending.pop();
        m_visited = node.address();
        node.fuse(*this);
    }
}

template void ParentCounter::walk(ScalarField const&);
template void ParentCounter::walk(VectorField const&);

template <class Interface> void ParentCounter::count(Interface const& node) {
    if (m_plan.insert(&node).parentCount++ == 0) m_pending.push(NodeRef(node));
}

void ParentCounter::addFormula(ScalarField const& /*node*/, void const* /*self*/,
                               FormulaStages const& /*stages*/,
                               std::initializer_list<ScalarChild const*> children) {
    for (ScalarChild const* const child : children) count(**child);
}

void ParentCounter::addView(void const* /*self*/, View /*view*/, float3 const& /*gradient*/) {
    m_plan.insert(m_visited).isView = true;
}

}  // namespace detail
}  // namespace zel
