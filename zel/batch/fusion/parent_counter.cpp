#include "zel/batch/fusion/parent_counter.h"

namespace zel {

namespace detail {

template <class Interface> void ParentCounter::walk(Interface const& root, std::size_t mostNodes) {
    count(root);
    while (!m_pending.isEmpty() && m_nodeCount <= mostNodes) {
        NodeRef const node = m_pending.pop();
        m_visited = node.address();
        node.fuse(*this);
    }
}

template void ParentCounter::walk(ScalarField const&, std::size_t);
template void ParentCounter::walk(VectorField const&, std::size_t);

template <class Interface> void ParentCounter::count(Interface const& node) {
    if (m_plan.insert(&node).parentCount++ > 0) return;
    ++m_nodeCount;
    m_pending.push(NodeRef(node));
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
