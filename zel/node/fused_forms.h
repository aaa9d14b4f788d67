#pragma once

#include <concepts>
#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>

#include "zel/batch/block.h"
#include "zel/batch/fusion/fuser.h"
#include "zel/batch/fusion/stage_forms.h"
#include "zel/node/node_access.h"
#include "zel_platform/quern_core/position_loop.h"

// How nodes of the library take part in fusions: their stages, made of the formulas that their
// point forms use, and what each base tells a Fuser. Private to the sources of the library's nodes.
namespace zel {

namespace detail {

// No other array overlaps a tile, and neither does a node: where tiles are in memory, loops are
// vectorised by that.

/// Values: sets each float of the tile to `formula(node, v...)`. Input `inRegisters` is the tile
/// that the stage is called with, the other inputs are arrays of the block; -1 means that all are.
template <class Node, class Formula, int inRegisters, int... input> struct ValueLoop {
    template <int kSize>
    ZEL_ALWAYS_INLINE static void run(Stage const& stage, std::ptrdiff_t at,
                                      float (&__restrict tile)[kSize]) {
        auto const& node = *static_cast<Node const*>(stage.node);
        float const* const in[] = {(input == inRegisters ? tile : stage.in[input] + at)...};
        for (int i = 0; i < kSize; ++i) tile[i] = Formula()(node, in[input][i]...);
    }
};

/// A value and its gradient. The gradient comes first: clang passes floats two by two, and then
/// splits no component from another.
struct Dual {
    using Value = float;
    using Gradient = float3;

    float3 gradient;
    float value;
};

/// Reads and writes number `i` of the `kSize` duals in a tile.
template <int kSize> ZEL_ALWAYS_INLINE inline Dual dualAt(float const* tile, int i) {
    return {{tile[kSize + i], tile[2 * kSize + i], tile[3 * kSize + i]}, tile[i]};
}
template <int kSize> ZEL_ALWAYS_INLINE inline void setDual(float* tile, int i, Dual const& d) {
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
        return {gradient, value};
    } else {
        auto const own = [&]() ZEL_ALWAYS_INLINE { return std::tuple(value); };
        auto const values = [&]() ZEL_ALWAYS_INLINE { return std::tuple(d.value...); };
        auto const gradients = [&]() ZEL_ALWAYS_INLINE { return std::tuple(d.gradient...); };
        return {std::apply([&](auto const&... in)
                               ZEL_ALWAYS_INLINE { return gradientBy<kForm>(node, in...); },
                           gradientInputs<kForm>(own, values, gradients)),
                value};
    }
}

/// Duals of a node. Child `inRegisters` is the tile that the stage is called with, the other
/// children are spill tiles; -1 means that all are.
template <class Node, int inRegisters, int... child> struct DualLoop {
    template <int kSize>
    ZEL_ALWAYS_INLINE static void run(Stage const& stage, std::ptrdiff_t /*at*/,
                                      float (&__restrict tile)[kSize]) {
        constexpr int kDuals = kSize / 4;
        auto const& node = *static_cast<Node const*>(stage.node);
        float const* const in[] = {(child == inRegisters ? tile : stage.in[child])...};
        for (int i = 0; i < kDuals; ++i)
            setDual<kDuals>(tile, i, dualOf(node, dualAt<kDuals>(in[child], i)...));
    }
};

/// Duals of a leaf, whose inputs are the positions in the block.
template <class Node> struct DualLeafLoop {
    template <int kSize>
    ZEL_ALWAYS_INLINE static void run(Stage const& stage, std::ptrdiff_t at,
                                      float (&__restrict tile)[kSize]) {
        constexpr int kDuals = kSize / 4;
        auto const& node = *static_cast<Node const*>(stage.node);
        float const *const x = stage.in[0] + at, *const y = stage.in[1] + at,
                           *const z = stage.in[2] + at;
        for (int i = 0; i < kDuals; ++i) {
            float3 const p{x[i], y[i], z[i]};
            setDual<kDuals>(tile, i,
                            {NodeAccess::gradientAt(node, p, 0), NodeAccess::valueAt(node, p, 0)});
        }
    }
};

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
    static constexpr StageForms values[] = {
        kStageForms<LoopStage<ValueLoop<Node, ChildrenFormula, -1, child...>>>,
        kStageForms<LoopStage<ValueLoop<Node, ChildrenFormula, child, child...>>>...,
    };
    static constexpr StageForms duals[] = {
        kStageForms<LoopStage<DualLoop<Node, -1, child...>>>,
        kStageForms<LoopStage<DualLoop<Node, child, child...>>>...,
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
            fuser.addLeaf(&node, {kStageForms<LoopStage<ValueLoop<Node, LeafFormula, -1, 0, 1, 2>>>,
                                  kStageForms<LoopStage<DualLeafLoop<Node>>>});
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
