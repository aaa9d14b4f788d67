#include "zel/batch/known_graphs.h"

#include "zel/batch/fusion/fusion_plan.h"
#include "zel/batch/fusion/parent_counter.h"

namespace zel::detail {

namespace {

/// The most positions for which point calls take less time than a block, where the time of up to 64
/// positions is the same: by measurements of trees of light nodes. Heavy nodes take longer in both.
std::size_t mostPointCalls(std::size_t nodeCount) {
    constexpr std::size_t kOfBlock = 60, kOfNode = 4;
    return (kOfBlock + kOfNode * nodeCount) / nodeCount;
}

}  // namespace

template <class Interface> KnownGraph KnownGraphs::examined(Interface const& root) {
    KnownGraph graph;
    graph.version = GraphVersions::watch(root);
    Arena::Mark const mark = m_plans.mark();
    FusionPlan nodes(m_plans);
    ParentCounter counter(nodes, m_plans);
    counter.walk(root, kMostNodes);
    m_plans.release(mark);
    graph.nodeCount = counter.nodeCount();
    graph.isPure = graph.nodeCount <= kMostNodes && !counter.hasHooks() &&
                   counter.sharing() == Sharing::kByParents;
    // With several parents an operator would be asked several times. So are the descendants of many
    // operators for their values, where gradients are asked for.
    if (graph.isPure && !counter.sharesOperators()) {
        constexpr std::size_t kMostNodesForGradients = 64;
        std::size_t const most = mostPointCalls(graph.nodeCount);
        graph.mostPointValues = static_cast<std::uint32_t>(most);
        if (graph.nodeCount <= kMostNodesForGradients)
            graph.mostPointGradients = static_cast<std::uint32_t>(most / 2);
    }
    return graph;
}

template KnownGraph KnownGraphs::examined(Core::Fields::ScalarField const&);
template KnownGraph KnownGraphs::examined(Core::Fields::VectorField const&);

template <class Interface> void KnownGraphs::makePlan(KnownGraph& graph, Interface const& root) {
    if (m_nodesPlanned + graph.nodeCount > kMostNodes) {
        for (KnownGraph& known : m_graphs) {
            known.plan = nullptr;
            known.evaluated = 0;
        }
        m_plans.release(nullptr);
        m_nodesPlanned = 0;
    }
    graph.plan = makeFusionPlan(root, m_plans);
    m_nodesPlanned += graph.nodeCount;
}

template void KnownGraphs::makePlan(KnownGraph&, Core::Fields::ScalarField const&);
template void KnownGraphs::makePlan(KnownGraph&, Core::Fields::VectorField const&);

}  // namespace zel::detail
