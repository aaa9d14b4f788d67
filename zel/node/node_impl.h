#pragma once

#include <cassert>
#include <utility>

#include "zel/batch/block.h"
#include "zel/node/node.h"
#include "zel/node/type_name.h"

// The definitions of the bases in node.h, for the source files of nodes.
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

/// Holds a child for the length of a visit that may change it, out of its parent's member, and puts
/// it back when the visit ends, by an exception too. A child with another owner is held as a copy.
template <class Interface> class HeldChild {
public:
    explicit HeldChild(Quern::Ptr<Interface>& parentsMember) : member(parentsMember) {
        assert(member);
        if (member.useCount() == 1) {
            held = std::move(member);
        } else {
            held = member.clone();
            member.reset();
        }
    }
    ~HeldChild() { member = std::move(held); }
    HeldChild(HeldChild const&) = delete;
    HeldChild& operator=(HeldChild const&) = delete;

    Field& operator*() const { return *held; }

private:
    Quern::Ptr<Interface>& member;
    Quern::Ptr<Interface> held;
};

template <class Interface> void visitMutably(FieldVisitor& visitor, Quern::Ptr<Interface>& child) {
    HeldChild const held(child);
    visitor(*held);
}

}  // namespace detail

template <class Self, class Interface> NamedNode<Self, Interface>::NamedNode() {
    static Quern::String const name = typeNameOf(typeid(Self));
    this->typeName = name;
}

template <class Self, class Interface>
auto LeafNode<Self, Interface>::eval(float3 const& position, long long index) const -> Value {
    return NodeAccess::valueAt(this->self(), position, index);
}

template <class Self, class Interface>
auto LeafNode<Self, Interface>::grad(float3 const& position, long long index) const -> Gradient {
    return NodeAccess::gradientAt(this->self(), position, index);
}

// In what follows a comma fold, and a braced list of values, run from the first child to the last.

template <class Self, class Interface>
void FieldNode<Self, Interface>::accept(FieldConstVisitor& visitor) const {
    std::apply([&](auto const&... child) { (visitor(static_cast<Field const&>(*child)), ...); },
               NodeAccess::children(this->self()));
}

template <class Self, class Interface>
void FieldNode<Self, Interface>::accept(FieldVisitor& visitor) {
    std::apply([&](auto&... child) { (detail::visitMutably(visitor, child), ...); },
               NodeAccess::children(this->self()));
}

template <class Self, class Interface> bool FieldNode<Self, Interface>::is_triggerable() const {
    return false;
}

template <class Self, class Interface> void HookedNode<Self, Interface>::preSampleField() const {
    detail::HookWalk const walk(hookTarget, detail::HookWalk::Hook::kPre);
    if (!walk.passesOn()) return;
    std::apply([](auto const&... child) { (child->preSampleField(), ...); },
               NodeAccess::children(this->self()));
}

template <class Self, class Interface> void HookedNode<Self, Interface>::postSampleField() const {
    detail::HookWalk const walk(hookTarget, detail::HookWalk::Hook::kPost);
    if (!walk.passesOn()) return;
    std::apply([](auto const&... child) { (child->postSampleField(), ...); },
               NodeAccess::children(this->self()));
}

namespace detail {

template <class... Child>
auto valuesOf(float3 const& position, long long index, Quern::Ptr<Child> const&... child) {
    return std::tuple<typename Child::Value...>{child->eval(position, index)...};
}

template <class... Child>
auto gradientsOf(float3 const& position, long long index, Quern::Ptr<Child> const&... child) {
    return std::tuple<typename Child::Gradient...>{child->grad(position, index)...};
}

/// The gradient of child number `choice`, or zero if there is none. The children that could be
/// chosen are of the node's own interface.
template <class Gradient, class... Child>
Gradient gradientOfChild(int choice, float3 const& position, long long index,
                         Quern::Ptr<Child> const&... child) {
    Gradient result{};
    int number = 0;
    ((number++ == choice ? void(result = child->grad(position, index)) : void()), ...);
    return result;
}

}  // namespace detail

template <class Self, class Interface>
auto PointwiseNode<Self, Interface>::eval(float3 const& position, long long index) const -> Value {
    Self const& node = this->self();
    return std::apply(
        [&](auto const&... child) {
            return std::apply([&](auto const&... v) { return NodeAccess::valueOf(node, v...); },
                              detail::valuesOf(position, index, child...));
        },
        NodeAccess::children(node));
}

template <class Self, class Interface>
auto PointwiseNode<Self, Interface>::grad(float3 const& position, long long index) const
    -> Gradient {
    Self const& node = this->self();
    auto const form = [&]<class... Child>(Quern::Ptr<Child> const&... child) -> Gradient {
        auto const values = [&] { return detail::valuesOf(position, index, child...); };
        auto const gradients = [&] { return detail::gradientsOf(position, index, child...); };

        if constexpr (NodeAccess::hasGradient<Self>) {
            return NodeAccess::gradientOf(node);
        } else if constexpr (NodeAccess::hasGradient<Self, typename Child::Gradient...>) {
            return std::apply([&](auto const&... g) { return NodeAccess::gradientOf(node, g...); },
                              gradients());
        } else if constexpr (NodeAccess::hasGradientFromValue<Self, Value,
                                                              typename Child::Gradient...>) {
            Value const own = node.eval(position, index);
            return std::apply(
                [&](auto const&... g) { return NodeAccess::gradientFromValue(node, own, g...); },
                gradients());
        } else if constexpr (NodeAccess::hasGradientChoice<Self, typename Child::Value...>) {
            int const choice = std::apply(
                [&](auto const&... v) { return NodeAccess::gradientChoice(node, v...); }, values());
            return detail::gradientOfChild<Gradient>(choice, position, index, child...);
        } else {
            auto const v = values();
            return std::apply(
                [&](auto const&... in) { return NodeAccess::gradientOf(node, in...); },
                std::tuple_cat(v, gradients()));
        }
    };
    return std::apply(form, NodeAccess::children(node));
}

template <class Self, class Interface>
auto TransformNode<Self, Interface>::eval(float3 const& position, long long index) const -> Value {
    Self const& node = this->self();
    auto const& field = std::get<0>(NodeAccess::children(node));
    return NodeAccess::valueOf(node, field->eval(NodeAccess::childPosition(node, position), index));
}

template <class Self, class Interface>
auto TransformNode<Self, Interface>::grad(float3 const& position, long long index) const
    -> Gradient {
    Self const& node = this->self();
    auto const& field = std::get<0>(NodeAccess::children(node));
    return NodeAccess::gradientOf(node,
                                  field->grad(NodeAccess::childPosition(node, position), index));
}

template <class Self, class Interface>
auto SwitchNode<Self, Interface>::eval(float3 const& position, long long index) const -> Value {
    auto const& [condition, a, b] = NodeAccess::children(this->self());
    return (condition->eval(position, index) > 0 ? a : b)->eval(position, index);
}

template <class Self, class Interface>
auto SwitchNode<Self, Interface>::grad(float3 const& position, long long index) const -> Gradient {
    auto const& [condition, a, b] = NodeAccess::children(this->self());
    return (condition->eval(position, index) > 0 ? a : b)->grad(position, index);
}

}  // namespace zel

#include "zel/node/node_block_impl.h"  // IWYU pragma: export
