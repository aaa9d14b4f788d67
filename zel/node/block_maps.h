#pragma once

#include "zel/batch/block.h"
#include "zel/node/node_access.h"
#include "zel_platform/quern_core/position_loop.h"

// Formulas at all positions of a block, as SIMD code.
namespace zel {

namespace detail {

/// Sets `out` to `formula(node, v...)` at each position, with the values `v` of `columns`. The
/// formula has no state of its own.
template <class T, class Node, class Formula, class... In>
void mapNode(Block& block, BlockResult<T>& out, Node const& node, Formula const& formula,
             Columns<In> const&... columns) {
    Quern::forEachPosition<kComponents<T> == 1>(
        block.count(),
        [write = out.writer(), formula, ... in = columns.component](int i, Node const& n)
            ZEL_ALWAYS_INLINE { write.set(i, formula(n, Columns<In>{in}[i]...)); },
        node);
    out.columns.light = (NodeAccess::isLight<Node> && ... && columns.light);
}

/// Sets `out` to `formula(node, p, i)` at each position `p` with the element index `i`.
template <class T, class Node, class Formula>
void mapPositions(Block& block, BlockResult<T>& out, Node const& node, Formula const& formula) {
    Quern::forEachPosition(
        block.count(),
        [write = out.writer(), formula, p = block.positions().component](int i, Node const& n,
                                                                         Block const& b)
            ZEL_ALWAYS_INLINE { write.set(i, formula(n, Columns<float3>{p}[i], b.index(i))); },
        node, block);
    out.columns.light = NodeAccess::isLight<Node>;
}

}  // namespace detail

/// Sets `out` to `formula(v...)` at each position, with the values `v` of `columns`. A node calls
/// it in its `blockValues` and `blockGradients`.
template <class T, class Formula, class... In>
void mapBlock(Block& block, BlockResult<T>& out, Formula const& formula,
              Columns<In> const&... columns) {
    auto const object = formula;  // a function decays to a pointer, which is an object
    detail::mapNode(
        block, out, object,
        [](auto const& f, auto const&... v) ZEL_ALWAYS_INLINE { return f(v...); }, columns...);
}

}  // namespace zel
