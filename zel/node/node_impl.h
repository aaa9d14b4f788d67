#pragma once

#include <cassert>
#include <utility>

#include "zel/node/node_access.h"
#include "zel/node/type_name.h"

// The definitions of the bases in node.h, for the source files of nodes.
namespace zel {

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

namespace detail {

/// How a node of the library takes part in fusions. Sources of the library, which instantiate its
/// nodes, include library_node_impl.h for the definition.
template <class Node, class Interface> struct FusedForm;

}  // namespace detail

template <class Self, class Interface> void NamedNode<Self, Interface>::fuse(Fuser& fuser) const {
    if constexpr (detail::isLibraryNode<Self>)
        if (detail::isExactly(this->self()))
            return detail::FusedForm<Self, Interface>::describe(this->self(), fuser);
    Interface::fuse(fuser);
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
