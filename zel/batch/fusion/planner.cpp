#include "zel/batch/fusion/planner.h"

#include <algorithm>
#include <array>
#include <utility>

namespace zel {

namespace detail {

namespace {

// A fusion computes the gradients of all children of a node that chooses among them. Node by node,
// a block asks one child alone where all its positions agree on the choice. The fusion still wins
// in graphs up to this size. Below the root of a graph it gains little, because the parents of a
// node also ask for its values alone.
constexpr int kMostNodesWithChoice = 24;

/// Queues the children of a node that is not fused, though it could be.
class ChildQueue final : public Fuser {
public:
    explicit ChildQueue(Planner& planner) : m_planner(planner) {}

    void queue(ScalarField const& child) override { m_planner.queue(child); }
    void queue(VectorField const& child) override { m_planner.queue(child); }
    void offerGradients(std::initializer_list<ScalarChild const*> /*children*/) override {}
    void hideChildren() override {}
    void addFormula(ScalarField const& /*node*/, void const* /*self*/,
                    FormulaStages const& /*stages*/,
                    std::initializer_list<ScalarChild const*> children) override {
        for (ScalarChild const* const child : children) m_planner.queue(**child);
    }
    void addLeaf(void const* /*self*/, LeafStages const& /*stages*/) override {}
    void addView(void const* /*self*/, View /*view*/, float3 const& /*gradient*/) override {}

private:
    Planner& m_planner;
};

}  // namespace

template <class Interface> void Planner::walk(Interface const& root) {
    m_graphRoot = &root;
    tryAsRoot(root);
    while (!m_pending.isEmpty()) {
        NodeRef const node = m_pending.pop();
        m_aim == Aim::kValues ? planValues(node) : planDuals(node);
    }
}

template void Planner::walk(ScalarField const&);
template void Planner::walk(VectorField const&);

template <class Interface> void Planner::tryAsRoot(Interface const& node) {
    FusionPlan::Entry& entry = m_plan.insert(&node);
    bool& isRoot = m_aim == Aim::kValues ? entry.isRootOfValues : entry.isRootOfDuals;
    if (!std::exchange(isRoot, true)) m_pending.push(NodeRef(node));
}

void Planner::planValues(NodeRef const& root) {
    draftFrom(root);
    m_plan.insert(root.address()).values = finished();
}

void Planner::planDuals(NodeRef const& root) {
    if (!m_plan.find(root.address()).hasNoDuals) {
        draftFrom(root);
        bool const choosesAmongMany =
            m_choosesGradient && m_draft.nodeCount() > kMostNodesWithChoice;
        if (!isRuledOut() && !choosesAmongMany) {
            m_plan.insert(root.address()).duals = finished();
            return;
        }
    }
    ChildQueue children(*this);
    root.fuse(children);
}

void Planner::draftFrom(NodeRef const& root) {
    m_root = m_described = root.address();
    m_choosesGradient = false;
    m_result.reset();
    m_draft.begin(m_aim);
    root.fuse(*this);
}

Fusion* Planner::finished() {
    // A single node has nothing to pass on in registers.
    bool const isFusion =
        m_result && m_result->kind == Operand::Kind::kStage && m_draft.nodeCount() >= 2;
    return isFusion ? m_draft.finish() : nullptr;
}

bool Planner::isShared(ScalarChild const& child, FusionPlan::Entry const& entry) const {
    return m_sharing == Sharing::kByOwners ? child.useCount() > 1 : entry.parentCount > 1;
}

Operand Planner::operandOf(ScalarChild const& child) {
    m_result.reset();
    m_described = &*child;
    FusionPlan::Entry const& entry = m_plan.find(&*child);
    if (isShared(child, entry) && !entry.isView)
        queue(*child);
    else
        child->fuse(*this);
    if (m_result) return *m_result;
    // The pass for values has described every node outside of a fusion.
    if (m_aim == Aim::kDuals && m_plan.find(&*child).offersGradients && m_draft.reserveNode())
        return m_draft.addDualChild(child);
    return m_draft.addChild(child);
}

bool Planner::isRuledOut() const {
    // Of most children outside the fusion the gradient must not be asked for wherever the value is:
    // a user's class may count its calls or throw.
    return m_aim == Aim::kDuals &&
           (m_draft.asksForValues() || (m_choosesGradient && m_root != m_graphRoot));
}

void Planner::offerGradients(std::initializer_list<ScalarChild const*> children) {
    bool const ofViews = std::ranges::all_of(
        children, [this](ScalarChild const* child) { return m_plan.find(&**child).isView; });
    m_plan.insert(m_described).offersGradients = ofViews;
}

void Planner::addFormula(ScalarField const& node, void const* self, FormulaStages const& stages,
                         std::initializer_list<ScalarChild const*> children) {
    int const nodesBefore = m_draft.nodeCount();
    if (!m_draft.reserveNode()) return queue(node);
    m_choosesGradient |= stages.choosesGradient;
    std::array<Operand, 3> operands;
    std::size_t count = 0;
    for (ScalarChild const* const child : children) {
        operands[count++] = operandOf(*child);
        if (!isRuledOut()) continue;
        // This fusion is given up. A fusion with this node as its root would meet the same child or
        // choice, and is not tried. Only if the draft is merely full may a fusion from further down
        // have room for its whole subtree. Nodes in the first half of the draft are not tried even
        // then, or each node of a long chain would be the root of a walk.
        if (!m_draft.isFull() || nodesBefore < FusionDraft::kMostNodes / 2)
            m_plan.insert(&node).hasNoDuals = true;
        return;
    }
    m_result = m_draft.addFormula(self, stages, {operands.data(), count});
}

void Planner::addLeaf(void const* self, LeafStages const& stages) {
    if (m_draft.reserveNode()) m_result = m_draft.addLeaf(self, stages);
    m_plan.insert(m_described).offersGradients = true;  // to the fusions of its parents, if shared
}

void Planner::addView(void const* self, View view, float3 const& gradient) {
    if (m_aim == Aim::kValues)
        m_result = m_draft.addView(self, view);
    else if (m_draft.reserveNode())
        m_result = m_draft.addDualView(self, view, gradient);
}

}  // namespace detail
}  // namespace zel
