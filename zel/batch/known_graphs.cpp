#include "zel/batch/known_graphs.h"

#include "zel/batch/fusion/fusion_plan.h"
#include "zel/batch/fusion/parent_counter.h"
#include "zel/batch/fusion/pending_nodes.h"

namespace zel::detail {

namespace {

// The times of a node in a point call, and of a block of up to 64 positions, in the same unit: by
// measurements of trees of light nodes. Heavy nodes take longer in both.
constexpr std::size_t kOfBlock = 60, kOfNodeInBlock = 4;

/// Counts the nodes that a point call asks: one with several parents as often as they ask it.
class PointCallCounter final : public Fuser {
public:
    explicit PointCallCounter(Arena& memory) : m_pending(memory) {}

    /// Ends early above `most`.
    template <class Interface> std::size_t count(Interface const& root, std::size_t most) {
        std::size_t calls = 0;
        m_pending.push(NodeRef(root));
        for (; !m_pending.isEmpty() && calls <= most; ++calls) m_pending.pop().fuse(*this);
        return calls;
    }

    void queue(ScalarField const& child) override { m_pending.push(NodeRef(child)); }
    void queue(VectorField const& child) override { m_pending.push(NodeRef(child)); }
    void offerGradients(std::initializer_list<ScalarChild const*> /*children*/) override {}
    void hideChildren() override {}
    void addFormula(ScalarField const& /*node*/, void const* /*self*/,
                    FormulaStages const& /*stages*/,
                    std::initializer_list<ScalarChild const*> children) override {
        for (ScalarChild const* const child : children) queue(**child);
    }
    void addLeaf(void const* /*self*/, LeafStages const& /*stages*/) override {}
    void addView(void const* /*self*/, View /*view*/, float3 const& /*gradient*/) override {}

private:
    PendingNodes m_pending;
};

/// Releases at its end what was allocated while it existed, unless it is told to keep that.
class PlanScope {
public:
    explicit PlanScope(Arena& memory) : m_memory(memory), m_mark(memory.mark()) {}
    PlanScope(PlanScope const&) = delete;
    PlanScope& operator=(PlanScope const&) = delete;
    ~PlanScope() {
        if (!m_isKept) m_memory.release(m_mark);
    }
    void keep() { m_isKept = true; }

private:
    Arena& m_memory;
    Arena::Mark const m_mark;
    bool m_isKept = false;
};

}  // namespace

template <class Interface> KnownGraph KnownGraphs::examined(Interface const& root) {
    KnownGraph graph;
    graph.version = GraphVersions::watch(root);
    PlanScope const scope(m_plans);
    FusionPlan nodes(m_plans);
    ParentCounter counter(nodes, m_plans);
    counter.walk(root, kMostNodes);
    graph.nodeCount = counter.nodeCount();
    graph.isPure = graph.nodeCount <= kMostNodes && !counter.hasHooks() &&
                   counter.sharing() == Sharing::kByParents;
    if (graph.isPure) {
        // The most positions for which point calls take less time than a block. A gradient asks the
        // descendants of many operators for their values, too.
        constexpr std::size_t kMostCallsForGradients = 64;
        std::size_t const ofBlock = kOfBlock + kOfNodeInBlock * graph.nodeCount,
                          calls = PointCallCounter(m_plans).count(root, ofBlock),
                          most = ofBlock / calls;
        graph.mostPointValues = static_cast<std::uint32_t>(most);
        if (calls <= kMostCallsForGradients)
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
    PlanScope scope(m_plans);
    graph.plan = makeFusionPlan(root, m_plans);
    scope.keep();
    m_nodesPlanned += graph.nodeCount;
}

template void KnownGraphs::makePlan(KnownGraph&, Core::Fields::ScalarField const&);
template void KnownGraphs::makePlan(KnownGraph&, Core::Fields::VectorField const&);

}  // namespace zel::detail
