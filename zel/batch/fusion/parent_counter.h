#pragma once

#include <cstddef>
#include <limits>

#include "zel/batch/fusion/fuser.h"
#include "zel/batch/fusion/fusion_plan.h"
#include "zel/batch/fusion/pending_nodes.h"

namespace zel {

namespace detail {

/// How a plan tells that a node is shared: by its parents in the graph where these are all known,
/// else by the owners of its pointer. In the second case a node that a caller also owns counts as
/// shared, since the owner might be a parent that the graph does not show.
enum class Sharing { kByParents, kByOwners };

/// The first pass over a graph: enters each node into the plan, with the number of its parents. A
/// shared node is not to be computed in each of several fusions, but once, by itself or as a root.
class ParentCounter final : public Fuser {
public:
    ParentCounter(FusionPlan& plan, Arena& memory) : m_plan(plan), m_pending(memory) {}

    /// Ends early where the graph has more than `mostNodes` nodes.
    template <class Interface>
    void walk(Interface const& root,
              std::size_t mostNodes = std::numeric_limits<std::size_t>::max());

    /// Known once the walk is done.
    Sharing sharing() const { return m_hasHidden ? Sharing::kByOwners : Sharing::kByParents; }
    /// Whether some node has hooks that do more than to pass on calls, as far as nodes are known.
    bool hasHooks() const { return m_hasHooks; }
    std::size_t nodeCount() const { return m_nodeCount; }

    void queue(ScalarField const& child) override { count(child); }
    void queue(VectorField const& child) override { count(child); }
    void offerGradients(std::initializer_list<ScalarChild const*> /*children*/) override {}
    void hideChildren() override { m_hasHidden = true; }
    void haveHooks() override { m_hasHooks = true; }
    void addFormula(ScalarField const& node, void const* self, FormulaStages const& stages,
                    std::initializer_list<ScalarChild const*> children) override;
    void addLeaf(void const* /*self*/, LeafStages const& /*stages*/) override {}
    void addView(void const* self, View view, float3 const& gradient) override;

private:
    template <class Interface> void count(Interface const& node);

    FusionPlan& m_plan;
    PendingNodes m_pending;
    void const* m_visited = nullptr;
    std::size_t m_nodeCount = 0;
    bool m_hasHidden = false, m_hasHooks = false;
};

}  // namespace detail
}  // namespace zel
