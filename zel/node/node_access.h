#pragma once

#include <concepts>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "zel/batch/block.h"
#include "zel/node/node.h"

// How the bases of nodes reach the formulas of a node, and what they may assume of its class.
namespace zel {

struct NodeAccess {
    template <class Node> static auto children(Node& node) {
        return std::remove_const_t<Node>::children(node);
    }
    template <class Node, class... In>
    ZEL_ALWAYS_INLINE static auto valueOf(Node const& node, In const&... in) {
        return node.valueOf(in...);
    }
    /// Whether both formulas of a leaf do without the index.
    template <class Node>
    static constexpr bool isOfPosition = requires(Node const& node, float3 const& p) {
        node.valueOf(p);
        node.gradientOf(p);
    };
    /// The formulas of a leaf.
    template <class Node>
    ZEL_ALWAYS_INLINE static auto valueAt(Node const& node, float3 const& p, long long i) {
        if constexpr (requires { node.valueOf(p); })
            return node.valueOf(p);
        else
            return node.valueOf(p, i);
    }
    template <class Node>
    ZEL_ALWAYS_INLINE static auto gradientAt(Node const& node, float3 const& p, long long i) {
        if constexpr (requires { node.gradientOf(p); })
            return node.gradientOf(p);
        else
            return node.gradientOf(p, i);
    }
    template <class Node>
    ZEL_ALWAYS_INLINE static float3 childPosition(Node const& node, float3 const& p) {
        return node.childPosition(p);
    }

    template <class Node, class... In>
    static constexpr bool hasGradient = requires(Node const& node, In const&... in) {
        node.gradientOf(in...);
    };
    template <class Node, class... In>
    ZEL_ALWAYS_INLINE static auto gradientOf(Node const& node, In const&... in) {
        return node.gradientOf(in...);
    }

    template <class Node, class... In>
    static constexpr bool hasGradientFromValue = requires(Node const& node, In const&... in) {
        node.gradientFromValue(in...);
    };
    template <class Node, class... In>
    static auto gradientFromValue(Node const& node, In const&... in) {
        return node.gradientFromValue(in...);
    }

    template <class Node, class... In>
    static constexpr bool hasGradientChoice = requires(Node const& node, In const&... in) {
        node.gradientChoice(in...);
    };
    template <class Node, class... In>
    static int gradientChoice(Node const& node, In const&... in) {
        return node.gradientChoice(in...);
    }

    template <class Node, class... In>
    static constexpr bool hasView = requires(Node const& node, In&... in) {
        node.viewOf(in...);
    };
    template <class Node, class... In> static auto viewOf(Node const& node, In&... in) {
        return node.viewOf(in...);
    }
    template <class Node>
    static constexpr bool movesOnly = [] {
        if constexpr (requires { Node::kMovesOnly; })
            return Node::kMovesOnly;
        else
            return false;
    }();

    /// Whether a node may be asked where it need not be: one of the library that is not heavy. The
    /// formulas of a user's may count their calls, or throw.
    template <class Node>
    static constexpr bool isLight = [] {
        if constexpr (requires { Node::kHeavy; })
            return detail::isLibraryNode<Node> && !Node::kHeavy;
        else
            return detail::isLibraryNode<Node>;
    }();

    template <class Node, class Value>
    static constexpr bool hasBlockValues = requires(Node const& node, Block& block,
                                                    BlockResult<Value>& out) {
        node.blockValues(block, out);
    };
    template <class Node, class Value>
    static void blockValues(Node const& node, Block& block, BlockResult<Value>& out) {
        node.blockValues(block, out);
    }
    template <class Node, class Gradient>
    static constexpr bool hasBlockGradients = requires(Node const& node, Block& block,
                                                       BlockResult<Gradient>& out) {
        node.blockGradients(block, out);
    };
    template <class Node, class Gradient>
    static void blockGradients(Node const& node, Block& block, BlockResult<Gradient>& out) {
        node.blockGradients(block, out);
    }
};

namespace detail {

/// Whether a node is of its class and of none derived from it, which could override point `eval`.
template <class Node> bool isExactly(Node const& node) {
    return typeid(node) == typeid(Node);
}

/// Whether a PointwiseNode is fused with others: a light formula of scalars, of the library.
template <class Node>
inline constexpr bool isFusible = [] {
    if constexpr (NodeAccess::isLight<Node> && std::same_as<typename Node::Value, float>)
        return []<class... Child>(std::type_identity<std::tuple<Child...>> /*children*/) {
            return (std::same_as<std::remove_cvref_t<Child>, ScalarPtr> && ...);
        }(std::type_identity<decltype(NodeAccess::children(std::declval<Node const&>()))>());
    else
        return false;
}();

}  // namespace detail
}  // namespace zel
