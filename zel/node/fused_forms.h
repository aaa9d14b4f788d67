#pragma once

#include <concepts>
#include <cstddef>
#include <cstring>
#include <tuple>
#include <type_traits>
#include <utility>

#include "zel/batch/block.h"
#include "zel/batch/fusion/fuser.h"
#include "zel/node/node_access.h"
#include "zel_platform/quern_core/position_loop.h"

// How nodes of the library take part in fusions: their stages, made of the formulas that their
// point forms use, and what each base tells a Fuser. Private to the sources of the library's nodes.
namespace zel {

namespace detail {

// The formulas of a stage are inlined into its loop over the tile, which becomes vector code. The
// eight vectors come and go as arguments, since only then they stay in registers between stages.

/// A stage of values: sets each float of the tile to `formula(node, v...)`. Input `inRegisters` is
/// the tile that the stage is called with, the other inputs are arrays of the block; -1 means that
/// all are.
template <class Node, class Formula, int inRegisters, int... input>
ZEL_WIDE_TARGET __attribute__((flatten)) void runStage(Stage const* stage, std::ptrdiff_t at,
                                                       Float8 v0, Float8 v1, Float8 v2, Float8 v3,
                                                       Float8 v4, Float8 v5, Float8 v6, Float8 v7) {
    Float8 v[] = {v0, v1, v2, v3, v4, v5, v6, v7};
    float tile[kTileSize];
    std::memcpy(tile, v, sizeof tile);
    auto const& node = *static_cast<Node const*>(stage->node);
    float const* const in[] = {(input == inRegisters ? tile : stage->in[input] + at)...};
    for (int i = 0; i < kTileSize; ++i) tile[i] = Formula()(node, in[input][i]...);
    std::memcpy(v, tile, sizeof tile);
    stage[1].run(stage + 1, at, v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]);
}

/// A value and its gradient.
struct Dual {
    using Value = float;
    using Gradient = float3;

    float value;
    float3 gradient;
};

/// Reads and writes number `i` of the duals in a tile.
ZEL_ALWAYS_INLINE inline Dual dualAt(float const* tile, int i) {
    constexpr int kSize = kDualTileSize;
    return {tile[i], {tile[kSize + i], tile[2 * kSize + i], tile[3 * kSize + i]}};
}
ZEL_ALWAYS_INLINE inline void setDual(float* tile, int i, Dual const& d) {
    constexpr int kSize = kDualTileSize;
    tile[i] = d.value;
    tile[kSize + i] = d.gradient.x;
    tile[2 * kSize + i] = d.gradient.y;
    tile[3 * kSize + i] = d.gradient.z;
}

/// The value and the gradient of a node from those of its children, by the form of the gradient
/// that the node has: see PointwiseNode.
template <class Node, std::same_as<Dual>... D>
ZEL_ALWAYS_INLINE inline Dual dualOf(Node const& node, D const&... d) {
    constexpr GradientForm kForm = gradientForm<Node, D...>;
    float const value = NodeAccess::valueOf(node, d.value...);
    if constexpr (kForm == GradientForm::kChoice) {
        int const choice = NodeAccess::gradientChoice(node, d.value...);
        float3 gradient{};
        int number = 0;
        auto const offer = [&](float3 const& g) ZEL_ALWAYS_INLINE {
            bool const isChosen = choice == number++;
            gradient = mapComponents([=](float other, float own) { return isChosen ? own : other; },
                                     gradient, g);
        };
        (offer(d.gradient), ...);
        return {value, gradient};
    } else {
        auto const own = [&]() ZEL_ALWAYS_INLINE { return std::tuple(value); };
        auto const values = [&]() ZEL_ALWAYS_INLINE { return std::tuple(d.value...); };
        auto const gradients = [&]() ZEL_ALWAYS_INLINE { return std::tuple(d.gradient...); };
        return {value, std::apply([&](auto const&... in)
                                      ZEL_ALWAYS_INLINE { return gradientBy<kForm>(node, in...); },
                                  gradientInputs<kForm>(own, values, gradients))};
    }
}

/// A stage of duals: sets the tile to the duals of a node. Child `inRegisters` is the tile that the
/// stage is called with, the other children are spill tiles; -1 means that all are.
template <class Node, int inRegisters, int... child>
ZEL_WIDE_TARGET __attribute__((flatten)) void
runDualStage(Stage const* stage, std::ptrdiff_t at, Float8 v0, Float8 v1, Float8 v2, Float8 v3,
             Float8 v4, Float8 v5, Float8 v6, Float8 v7) {
    Float8 v[] = {v0, v1, v2, v3, v4, v5, v6, v7};
    float tile[kTileSize];
    std::memcpy(tile, v, sizeof tile);
    auto const& node = *static_cast<Node const*>(stage->node);
    float const* const in[] = {(child == inRegisters ? tile : stage->in[child])...};
    for (int i = 0; i < kDualTileSize; ++i) setDual(tile, i, dualOf(node, dualAt(in[child], i)...));
    std::memcpy(v, tile, sizeof tile);
    stage[1].run(stage + 1, at, v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]);
}

/// A stage of duals of a leaf, whose inputs are the positions in the block.
template <class Node>
ZEL_WIDE_TARGET __attribute__((flatten)) void
runDualLeafStage(Stage const* stage, std::ptrdiff_t at, Float8 /*v0*/, Float8 /*v1*/, Float8 /*v2*/,
                 Float8 /*v3*/, Float8 /*v4*/, Float8 /*v5*/, Float8 /*v6*/, Float8 /*v7*/) {
    Float8 v[8];
    float tile[kTileSize];
    auto const& node = *static_cast<Node const*>(stage->node);
    float const *const x = stage->in[0] + at, *const y = stage->in[1] + at,
                       *const z = stage->in[2] + at;
    for (int i = 0; i < kDualTileSize; ++i) {
        float3 const p{x[i], y[i], z[i]};
        setDual(tile, i, {NodeAccess::valueAt(node, p, 0), NodeAccess::gradientAt(node, p, 0)});
    }
    std::memcpy(v, tile, sizeof tile);
    stage[1].run(stage + 1, at, v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]);
}

struct LeafFormula {
    template <class Node> float operator()(Node const& node, float x, float y, float z) const {
        return NodeAccess::valueAt(node, {x, y, z}, 0);
    }
};

struct ChildrenFormula {
    template <class Node, class... V> float operator()(Node const& node, V const&... v) const {
        return NodeAccess::valueOf(node, v...);
    }
};

/// Adds a node with its stages: one for all children in memory, and one for each child in the
/// registers. The children have the numbers `child`, from 0 on.
template <class Node, int... child, class... Child>
void describeFormula(Fuser& fuser, Node const& node,
                     std::integer_sequence<int, child...> /*numbers*/,
                     Quern::Ptr<Child> const&... children) {
    static_assert(sizeof...(child) <= std::tuple_size_v<decltype(Stage::in)>);
    static constexpr Stage::Run values[] = {
        runStage<Node, ChildrenFormula, -1, child...>,
        runStage<Node, ChildrenFormula, child, child...>...,
    };
    static constexpr Stage::Run duals[] = {
        runDualStage<Node, -1, child...>,
        runDualStage<Node, child, child...>...,
    };
    constexpr bool kChooses = gradientForm<Node, Child...> == GradientForm::kChoice;
    fuser.addFormula(node, &node, {values, duals, kChooses}, {&children...});
}

/// Describes a node to a Fuser, by the base that the node has.
template <class Node, class Interface> struct FusedForm {
    static void describe(Node const& node, Fuser& fuser) {
        using Hook = void (Node::*)() const;
        if constexpr (std::same_as<decltype(&Node::preSampleField), Hook> ||
                      std::same_as<decltype(&Node::postSampleField), Hook>)
            fuser.haveHooks();
        if constexpr (std::derived_from<Node, LeafNode<Node, Interface>>)
            describeLeaf(node, fuser);
        else if constexpr (std::derived_from<Node, HookedNode<Node, Interface>>)
            std::apply([&](auto const&... child) { describeOperator(node, fuser, child...); },
                       NodeAccess::children(node));
        else if constexpr (kIsScalar)  // other nodes of the library have no children
            if (NodeAccess::isExact(node)) fuser.offerGradients({});
    }

private:
    static constexpr bool kIsScalar = std::same_as<typename Interface::Value, float>;

    static void describeLeaf(Node const& node, Fuser& fuser) {
        if constexpr (!kFusesNodes || !kIsScalar || !NodeAccess::isLight<Node>) {
            return;
        } else if constexpr (NodeAccess::hasView<Node, Block>) {
            auto const view = [](void const* self, Block& block) {
                return NodeAccess::viewOf(*static_cast<Node const*>(self), block);
            };
            fuser.addView(&node, view, NodeAccess::gradientAt(node, {}, 0));
        } else if constexpr (NodeAccess::isOfPosition<Node>) {
            fuser.addLeaf(&node,
                          {runStage<Node, LeafFormula, -1, 0, 1, 2>, runDualLeafStage<Node>});
        }
    }

    template <class... Child>
    static void describeOperator(Node const& node, Fuser& fuser,
                                 Quern::Ptr<Child> const&... children) {
        if constexpr (kFusesNodes && isFusible<Node> &&
                      std::derived_from<Node, PointwiseNode<Node, Interface>>)
            describeFormula(fuser, node, std::make_integer_sequence<int, sizeof...(Child)>(),
                            children...);
        else {
            (fuser.queue(*children), ...);
            if constexpr (kIsScalar && (std::same_as<Child, Interface> && ...))
                if (NodeAccess::isExact(node)) fuser.offerGradients({&children...});
        }
    }
};

}  // namespace detail
}  // namespace zel
