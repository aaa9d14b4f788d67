#pragma once

#include <cstddef>
#include <cstdint>

#include "zel/batch/known_graphs.h"
#include "zel/batch/position_set.h"
#include "zel/batch/workspace.h"
#include "zel/field/evaluate.h"
#include "zel_platform/quern_core/always_inline.h"
#include "zel_platform/quern_core/float_environment.h"

namespace zel::detail {

class Watch;

/// The positions and the results of a batch.
template <class Interface> struct Batch {
    PointView points;
    typename Interface::Value* values = nullptr;  ///< null if not wanted, as `gradients`
    typename Interface::Gradient* gradients = nullptr;
    long long firstIndex = 0;  ///< the element index of the first position
    bool parallel = true;
    bool ownedByCaller = false;  ///< whether the results are arrays of the caller's, not new ones
    Watch* watch = nullptr;      ///< null if nobody watches
};

/// Writes the results at a few positions by point calls, if those take less time than a block and
/// nobody can tell the difference. Else returns false. `gradients` may be null, and `values` if
/// `gradients` is not. Costs a fifth of a point call of a small tree.
template <class Interface>
ZEL_ALWAYS_INLINE inline bool
callPoints(Interface const& field, PointView const& points, typename Interface::Value* values,
           typename Interface::Gradient* gradients, long long firstIndex) {
    KnownGraphs* const graphs = KnownGraphs::localIfAny();
    KnownGraph const* const graph = graphs ? graphs->findKnown(field) : nullptr;
    if (!graph) return false;
    // No position is too many, since the hooks may have an effect.
    std::size_t const most = gradients ? graph->mostPointGradients : graph->mostPointValues;
    if (points.count - 1 >= most) return false;
    // Point calls look at no stack. The deepest graph is a chain.
    constexpr std::size_t kShallow = 64;        // nodes
    constexpr std::size_t kLargestFrame = 512;  // bytes
    if (graph->nodeCount > kShallow &&
        !Workspace::local().hasStack(graph->nodeCount * kLargestFrame))
        return false;
    Quern::Internal::FloatEnvironment const standard;
    auto const callAt = [&](std::size_t i, Orvane::Math::float3 const& p) ZEL_ALWAYS_INLINE {
        long long const index = elementAfter(firstIndex, i);
        if (!gradients || values) values[i] = field.eval(p, index);
        if (gradients) gradients[i] = field.grad(p, index);
    };
    std::ptrdiff_t at = 0;
    if (points.count > 0 && points.y == points.x + 1 && points.z == points.x + 2) {
        // A node that reads a copy waits for the copy, which is a tenth of the time.
        for (std::size_t i = 0; i < points.count; ++i, at += points.stride)
            callAt(i, reinterpret_cast<Orvane::Math::float3 const&>(points.x[at]));
    } else {
        for (std::size_t i = 0; i < points.count; ++i, at += points.stride)
            callAt(i, {points.x[at], points.y[at], points.z[at]});
    }
    return true;
}

/// A number that no other batch of the process has, of either interface.
std::uint64_t newBatch();

/// Evaluates a field at all positions of a batch, between its hooks. What all batches have in
/// common, of either interface.
template <class Interface> void runBatch(Interface const& field, Batch<Interface> const& batch);

}  // namespace zel::detail
