#include "zel/batch/fusion/fusion_scope.h"

#include <algorithm>
#include <utility>

#include "zel/batch/fusion/fusion.h"
#include "zel/batch/fusion/fusion_plan.h"
#include "zel/batch/known_graphs.h"
#include "zel/batch/workspace.h"
#include "zel/field/scalar_field.h"
#include "zel/field/vector_field.h"
#include "zel_platform/quern_core/simd_target.h"

namespace zel {

namespace detail {

namespace {

/// From this number of positions on the walk that makes a plan takes a small part of the time.
constexpr std::size_t kLeastCount = std::size_t{8} * kBlockSize;
/// A plan gains as much at a few positions as at this number.
constexpr std::size_t kLeastGain = kBlockSize / 2;

template <class Interface>
FusionPlan const* planFor(Workspace& workspace, Interface const& root, GraphOfBatch const& graph,
                          std::size_t count) {
    if (!kFusesNodes || !Quern::wideVectors) return nullptr;
    if (workspace.isNested())
        return count >= kLeastCount ? makeFusionPlan(root, workspace.plans) : nullptr;
    if (graph.pure) {
        KnownGraphs& graphs = KnownGraphs::local();
        KnownGraph& known = graphs.adopt(*graph.pure);
        known.evaluated += std::max(count, kLeastGain);
        if (!known.plan && known.evaluated >= kLeastCount) graphs.makePlan(known, root);
        return known.plan;
    }
    if (std::exchange(workspace.batch, graph.batch) != graph.batch) {
        workspace.planOfBatch = nullptr;
        workspace.countOfBatch = 0;
    }
    workspace.countOfBatch += count;
    if (!workspace.planOfBatch && workspace.countOfBatch >= kLeastCount) {
        workspace.plans.release(nullptr);
        workspace.planOfBatch = makeFusionPlan(root, workspace.plans);
    }
    return workspace.planOfBatch;
}

}  // namespace

// A plan that cannot be made leaves that of the batch around this one in place, and no memory in
// use.
template <class Interface>
FusionScope::FusionScope(Workspace& workspace, Interface const& root, GraphOfBatch const& graph,
                         std::size_t count)
    : m_workspace(workspace), m_outer(workspace.plan), m_mark(workspace.plans.mark()) {
    try {
        workspace.plan = planFor(workspace, root, graph, count);
    } catch (...) {
        if (workspace.isNested()) workspace.plans.release(m_mark);
        throw;
    }
}

template FusionScope::FusionScope(Workspace&, Core::Fields::ScalarField const&, GraphOfBatch const&,
                                  std::size_t);
template FusionScope::FusionScope(Workspace&, Core::Fields::VectorField const&, GraphOfBatch const&,
                                  std::size_t);

FusionScope::~FusionScope() {
    if (m_workspace.isNested()) m_workspace.plans.release(m_mark);
    m_workspace.plan = m_outer;
}

Fusion* FusionScope::dualsOf(void const* node) const {
    return m_workspace.plan ? m_workspace.plan->find(node).duals : nullptr;
}

}  // namespace detail

bool Block::runFusion(void const* node, BlockResult<float>& out) {
    auto const& entry = m_workspace.plan->find(node);
    if (!entry.values || entry.values->isRunning()) return false;
    // Where gradients are asked for, the values of the nodes below are asked for too, and kept. A
    // fusion keeps none; so it runs only if the node's gradients come from a fusion as well.
    if (m_positions.keepAll && !entry.duals) return false;
    entry.values->run(*this, out);
    return true;
}

bool Block::runDualFusion(void const* node, BlockResult<float3>& out) {
    auto const& entry = m_workspace.plan->find(node);
    if (!entry.duals) return false;
    out.set(entry.duals->runDuals(*this).second);
    return true;
}

}  // namespace zel
