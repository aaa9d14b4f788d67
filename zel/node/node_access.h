#pragma once

#include <concepts>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "zel/batch/block.h"
#include "zel/node/node.h"

// How the bases of nodes reach the formulas of a node class, and what they may assume of the class.
namespace zel {

namespace detail {

/// Stands for the result of a formula that a node class lacks. A static_assert in the point
/// operation of the base reports the class; without this type the compiler would also report each
/// use of the formula.
struct MissingResult {
    template <class T> operator T() const;
};

}  // namespace detail

struct NodeAccess {
    template <class Node> static constexpr bool hasChildren = requires(Node& node) {
        std::remove_const_t<Node>::children(node);
    };
    template <class Node> static auto children(Node& node) {
        if constexpr (hasChildren<Node>) {
            return std::remove_const_t<Node>::children(node);
        } else {
            static ScalarPtr missing;
            return std::tie(missing, missing, missing);
        }
    }

    /// The parameters of a class, as a tuple of Parameter; a class that names none has none.
    template <class Node> static constexpr auto parameters() {
        if constexpr (requires { Node::template parameters<Node>(); })
            return Node::template parameters<Node>();
        else
            return std::tuple();
    }
    template <class Node>
    static constexpr Chain chain = [] {
        if constexpr (requires { Node::kChain; })
            return Node::kChain;
        else
            return Chain::kNone;
    }();

    /// Whether the children are those of a SwitchNode.
    template <class Node, class Branch>
    static constexpr bool namesSwitch =
        std::same_as<decltype(children(std::declval<Node&>())),
                     std::tuple<ScalarPtr const&, Branch const&, Branch const&>>;

    template <class Value, class Class>
    static Class classOf(Value (Class::*)(float3 const&, long long) const);
    /// Whether a node takes the point `eval` from its interface, where it is zero everywhere.
    template <class Node, class Interface> static constexpr bool hasNoEval = requires {
        { classOf<typename Interface::Value>(&Node::eval) } -> std::same_as<Interface>;
    };

    // The formulas of an operator.

    template <class Node, class... In>
    static constexpr bool hasValue = requires(Node const& node, In const&... in) {
        node.valueOf(in...);
    };
    template <class Node, class... In>
    ZEL_ALWAYS_INLINE static auto valueOf(Node const& node, In const&... in) {
        if constexpr (hasValue<Node, In...>)
            return node.valueOf(in...);
        else
            return detail::MissingResult();
    }

    template <class Node, class... In>
    static constexpr bool hasGradient = requires(Node const& node, In const&... in) {
        node.gradientOf(in...);
    };
    template <class Node, class... In>
    ZEL_ALWAYS_INLINE static auto gradientOf(Node const& node, In const&... in) {
        if constexpr (hasGradient<Node, In...>)
            return node.gradientOf(in...);
        else
            return detail::MissingResult();
    }

    template <class Node, class... In>
    static constexpr bool hasGradientFromValue = requires(Node const& node, In const&... in) {
        node.gradientFromValue(in...);
    };
    template <class Node, class... In>
    ZEL_ALWAYS_INLINE static auto gradientFromValue(Node const& node, In const&... in) {
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

    // The derivative of a class whose gradient may be another. Its formula is one of the children's
    // values and gradients, or of a transformed child's gradient.

    template <class Node> static constexpr bool hasExactSwitch = requires(Node& node) {
        { (node.usesExactGradient) } -> std::same_as<bool&>;
    };
    template <class Node> static bool isExact(Node const& node) {
        if constexpr (hasExactSwitch<Node>)
            return node.usesExactGradient;
        else
            return false;
    }
    template <class Node> static void setExact(Node& node) { node.usesExactGradient = true; }

    template <class Node, class... In>
    static constexpr bool hasExactGradient = requires(Node const& node, In const&... in) {
        node.exactGradientOf(in...);
    };
    template <class Node, class... In>
    ZEL_ALWAYS_INLINE static auto exactGradientOf(Node const& node, In const&... in) {
        return node.exactGradientOf(in...);
    }

    template <class Node>
    static constexpr bool takesGradients = [] {
        if constexpr (requires { Node::kTakesGradients; })
            return Node::kTakesGradients;
        else
            return false;
    }();

    template <class Node>
    static constexpr bool hasChildPosition = requires(Node const& node, float3 const& p) {
        node.childPosition(p);
    };
    template <class Node>
    ZEL_ALWAYS_INLINE static float3 childPosition(Node const& node, float3 const& p) {
        if constexpr (hasChildPosition<Node>)
            return node.childPosition(p);
        else
            return detail::MissingResult();
    }
    template <class Node>
    static constexpr bool movesOnly = [] {
        if constexpr (requires { Node::kMovesOnly; })
            return Node::kMovesOnly;
        else
            return false;
    }();

    // The formulas of a leaf, with or without the element index.

    template <class Node>
    static constexpr bool hasValueAt = hasValue<Node, float3> || hasValue<Node, float3, long long>;
    template <class Node>
    ZEL_ALWAYS_INLINE static auto valueAt(Node const& node, float3 const& p, long long i) {
        if constexpr (hasValue<Node, float3>)
            return node.valueOf(p);
        else
            return valueOf(node, p, i);
    }
    template <class Node>
    static constexpr bool hasGradientAt =
        hasGradient<Node, float3> || hasGradient<Node, float3, long long>;
    template <class Node>
    ZEL_ALWAYS_INLINE static auto gradientAt(Node const& node, float3 const& p, long long i) {
        if constexpr (hasGradient<Node, float3>)
            return node.gradientOf(p);
        else
            return gradientOf(node, p, i);
    }
    /// Whether both formulas of a leaf do without the index.
    template <class Node>
    static constexpr bool isOfPosition = hasValue<Node, float3>&& hasGradient<Node, float3>;

    // The block forms of a node.

    /// A view is a result that names columns which exist already: those of the positions, of a
    /// child or of a constant. The arguments are a block for a leaf, and the columns of the
    /// children for a PointwiseNode.
    template <class Node, class... In>
    static constexpr bool hasView = requires(Node const& node, In&... in) {
        node.viewOf(in...);
    };
    template <class Node, class... In> static auto viewOf(Node const& node, In&... in) {
        return node.viewOf(in...);
    }

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

    /// Whether a node class is light: one of the library that is not marked `kHeavy`. A light node
    /// may be evaluated at more positions than needed. A node of a user's is never light, since its
    /// formula may count its calls, or throw.
    template <class Node>
    static constexpr bool isLight = [] {
        if constexpr (requires { Node::kHeavy; })
            return detail::isLibraryNode<Node> && !Node::kHeavy;
        else
            return detail::isLibraryNode<Node>;
    }();
};

namespace detail {

/// The forms in which a PointwiseNode may state its gradient. A class with several of them is taken
/// at the first.
enum class GradientForm {
    kSame,                    ///< gradientOf()
    kFromGradients,           ///< gradientOf(ag, ...)
    kFromOwnValue,            ///< gradientFromValue(w, ag, ...)
    kChoice,                  ///< gradientChoice(av, ...)
    kFromValuesAndGradients,  ///< gradientOf(av, ..., ag, ...)
    kNone
};

/// The form of a node class whose children have the interfaces `Child`.
template <class Node, class... Child>
inline constexpr GradientForm gradientForm = [] {
    if (NodeAccess::hasGradient<Node>) return GradientForm::kSame;
    if (NodeAccess::hasGradient<Node, typename Child::Gradient...>)
        return GradientForm::kFromGradients;
    if (NodeAccess::hasGradientFromValue<Node, typename Node::Value, typename Child::Gradient...>)
        return GradientForm::kFromOwnValue;
    if (NodeAccess::hasGradientChoice<Node, typename Child::Value...>) return GradientForm::kChoice;
    if (NodeAccess::hasGradient<Node, typename Child::Value..., typename Child::Gradient...>)
        return GradientForm::kFromValuesAndGradients;
    return GradientForm::kNone;
}();

/// What the formula of a form takes, as a tuple: asked for by the functions, which return tuples,
/// in the order of the children, values before gradients.
template <GradientForm form>
ZEL_ALWAYS_INLINE inline auto gradientInputs(auto const& ownValue, auto const& values,
                                             auto const& gradients) {
    if constexpr (form == GradientForm::kSame) {
        return std::tuple();
    } else if constexpr (form == GradientForm::kFromGradients) {
        return gradients();
    } else if constexpr (form == GradientForm::kFromOwnValue) {
        auto const own = ownValue();
        return std::tuple_cat(own, gradients());
    } else {
        static_assert(form == GradientForm::kFromValuesAndGradients);
        auto const v = values();
        return std::tuple_cat(v, gradients());
    }
}

/// The gradient by the formula of a form, from the elements of gradientInputs().
template <GradientForm form, class Node, class... In>
ZEL_ALWAYS_INLINE inline auto gradientBy(Node const& node, In const&... in) {
    if constexpr (form == GradientForm::kFromOwnValue)
        return NodeAccess::gradientFromValue(node, in...);
    else
        return NodeAccess::gradientOf(node, in...);
}

/// Whether a node is of its class and of none derived from it, which could override point `eval`.
template <class Node> bool isExactly(Node const& node) {
    return typeid(node) == typeid(Node);
}

/// Whether a PointwiseNode is fused with others: a light formula of scalars, of the library, with
/// one gradient.
template <class Node>
inline constexpr bool isFusible = [] {
    if constexpr (NodeAccess::isLight<Node> && std::same_as<typename Node::Value, float> &&
                  !NodeAccess::hasExactSwitch<Node>)
        return []<class... Child>(std::type_identity<std::tuple<Child...>> /*children*/) {
            return (std::same_as<std::remove_cvref_t<Child>, ScalarPtr> && ...);
        }(std::type_identity<decltype(NodeAccess::children(std::declval<Node const&>()))>());
    else
        return false;
}();

}  // namespace detail
}  // namespace zel
