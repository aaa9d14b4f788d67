#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "zel/batch/arena.h"
#include "zel/batch/thread_object.h"
#include "zel/field/graph_version.h"

namespace zel {

namespace detail {

class FusionPlan;

/// What a thread knows of a graph.
struct KnownGraph {
    GraphVersion version;
    std::size_t nodeCount = 0;
    /// Whether all nodes are of the library and no hook has an effect. Nobody can tell then whether
    /// hooks are called, nor how often and in which order nodes are asked.
    bool isPure = false;
    /// At so many positions values alone, or also gradients, are computed by point calls.
    std::uint32_t mostPointValues = 0, mostPointGradients = 0;
    /// Of one position in a batch, without and with gradients, in nanoseconds; 0 if unknown.
    std::array<float, 2> positionTimes{};
    std::size_t evaluated = 0;         ///< positions by this thread, which count towards a plan
    FusionPlan const* plan = nullptr;  ///< of this thread, null if there is none yet
};

/// The graphs that a thread has evaluated last, with the plans of those that are pure.
class KnownGraphs {
public:
    /// Those of the calling thread.
    static KnownGraphs& local() { return threadObject<KnownGraphs>(); }
    static KnownGraphs* localIfAny() { return threadObjectIfAny<KnownGraphs>(); }

    /// The graph below `root`; null if it is not known.
    KnownGraph const* findKnown(Field const& root) {
        GraphVersion const version = GraphVersions::of(root);
        KnownGraph const& graph = slotOf(version);
        return graph.version == version ? &graph : nullptr;
    }

    /// The same, but examines the graph if it is not known.
    template <class Interface> KnownGraph const& find(Interface const& root) {
        if (KnownGraph const* const known = findKnown(root)) return *known;
        return slotOf(GraphVersions::of(root)) = examined(root);
    }

    /// The same graph as another thread knows it.
    KnownGraph& adopt(KnownGraph const& other) {
        KnownGraph& graph = slotOf(other.version);
        if (graph.version != other.version) {
            graph = other;
            graph.evaluated = 0;
            graph.plan = nullptr;
        }
        return graph;
    }

    void noteTime(GraphVersion const& version, bool withGradients, float positionTime) {
        KnownGraph& graph = slotOf(version);
        if (graph.version == version) graph.positionTimes[withGradients] = positionTime;
    }

    /// Sets the plan of a graph. Those of other graphs may end; none may be in use.
    template <class Interface> void makePlan(KnownGraph& graph, Interface const& root);

private:
    // A graph with more nodes is as one that is not pure, so that a thread keeps few megabytes.
    static constexpr std::size_t kMostNodes = 4096, kSlots = 64;

    KnownGraph& slotOf(GraphVersion const& version) {
        auto const address = reinterpret_cast<std::uintptr_t>(version.root);
        return m_graphs[address * 0x9e3779b97f4a7c15U >> 58];
    }
    template <class Interface> KnownGraph examined(Interface const& root);

    std::array<KnownGraph, kSlots> m_graphs;
    Arena m_plans;
    std::size_t m_nodesPlanned = 0;
};

}  // namespace detail
}  // namespace zel
