#pragma once

#include <optional>

#include "zel/batch/fusion/fuser.h"
#include "zel/batch/fusion/fusion_draft.h"
#include "zel/batch/fusion/fusion_plan.h"
#include "zel/batch/fusion/parent_counter.h"
#include "zel/batch/fusion/pending_nodes.h"

namespace zel {

namespace detail {

/// The second and the third pass over a graph: plan the fusions of values, and those of duals. From
/// the root of the graph on, each node that is to be computed is tried as the root of a fusion,
/// which takes in its descendants as far as they can be fused. Where it ends, children outside are
/// queued, to be tried as roots in turn.
class Planner final : public Fuser {
public:
    Planner(FusionPlan& plan, FusionDraft& draft, Arena& memory, Aim aim, Sharing sharing)
        : m_plan(plan), m_draft(draft), m_aim(aim), m_sharing(sharing), m_pending(memory) {}

    template <class Interface> void walk(Interface const& root);

    void queue(ScalarField const& child) override { tryAsRoot(child); }
    void queue(VectorField const& child) override { tryAsRoot(child); }
    void offerGradients(std::initializer_list<ScalarChild const*> children) override;
    void hideChildren() override {}
    void addFormula(ScalarField const& node, void const* self, FormulaStages const& stages,
                    std::initializer_list<ScalarChild const*> children) override;
    void addLeaf(void const* self, LeafStages const& stages) override;
    void addView(void const* self, View view, float3 const& gradient) override;

private:
    template <class Interface> void tryAsRoot(Interface const& node);
    void planValues(NodeRef const& root);
    void planDuals(NodeRef const& root);
    void draftFrom(NodeRef const& root);
    Fusion* finished();
    Operand operandOf(ScalarChild const& child);
    bool isShared(ScalarChild const& child, FusionPlan::Entry const& entry) const;
    bool isRuledOut() const;

    FusionPlan& m_plan;
    FusionDraft& m_draft;
    Aim const m_aim;
    Sharing const m_sharing;
    PendingNodes m_pending;
    void const* m_graphRoot = nullptr;
    void const* m_described = nullptr;  // the node whose description is received

    // The fusion that is drafted:
    void const* m_root = nullptr;
    bool m_choosesGradient = false;   // some formula does
    std::optional<Operand> m_result;  // of the node that was described last, if it was fused
};

}  // namespace detail
}  // namespace zel
