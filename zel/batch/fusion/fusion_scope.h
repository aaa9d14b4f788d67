#pragma once

#include <cstddef>
#include <cstdint>

#include "zel/batch/block.h"

namespace zel {

namespace detail {

class Fusion;
struct KnownGraph;

/// By what the ranges of a batch, or of several, tell that their graph is the same.
struct GraphOfBatch {
    KnownGraph const* pure;  ///< the graph, if it is pure
    std::uint64_t batch;     ///< else the number of the batch
};

/// Chooses the plan of fusions for a range of a batch's positions on this thread, and sets it in
/// the workspace for as long as it exists.
///
/// A thread plans a graph once it has had enough positions to make up for the walk, and keeps the
/// plan for the further ranges that it is given: those of the batch, or, if the graph is pure, also
/// those of later batches. A batch that a node runs while another batch is computed on the same
/// thread is planned for the one range.
class FusionScope {
public:
    /// For a range of `count` positions at which the graph below `root` is evaluated.
    template <class Interface>
    FusionScope(Workspace& workspace, Interface const& root, GraphOfBatch const& graph,
                std::size_t count);
    ~FusionScope();
    FusionScope(FusionScope const&) = delete;
    FusionScope& operator=(FusionScope const&) = delete;

    /// The fusion of a node's values and gradients, or null.
    Fusion* dualsOf(void const* node) const;

private:
    Workspace& m_workspace;
    FusionPlan const* const m_outer;
    Arena::Mark const m_mark;
};

}  // namespace detail
}  // namespace zel
