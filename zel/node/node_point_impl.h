#pragma once

#include <tuple>
#include <utility>

#include "zel/node/node_access.h"

// The point operations of the bases in node.h, by the formulas of the node classes. A comma fold,
// and a braced list of values, evaluate from the first child to the last.
namespace zel {

template <class Self, class Interface>
auto LeafNode<Self, Interface>::eval(float3 const& position, long long index) const -> Value {
    static_assert(NodeAccess::hasValueAt<Self>,
                  "A LeafNode has a member: Value valueOf(float3 const& p, long long i) const, or "
                  "without i. If it is private, zel::NodeAccess is a friend.");
    return NodeAccess::valueAt(this->self(), position, index);
}

template <class Self, class Interface>
auto LeafNode<Self, Interface>::grad(float3 const& position, long long index) const -> Gradient {
    static_assert(NodeAccess::hasGradientAt<Self>,
                  "A LeafNode has a member: Gradient gradientOf(float3 const& p, long long i) "
                  "const, or without i. If it is private, zel::NodeAccess is a friend.");
    return NodeAccess::gradientAt(this->self(), position, index);
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
    auto const form = [&]<class... Child>(Quern::Ptr<Child> const&... child) -> Value {
        static_assert(
            !NodeAccess::hasChildren<Self const> ||
                NodeAccess::hasValue<Self, typename Child::Value...>,
            "A PointwiseNode has a member: Value valueOf(av, bv, ...) const, with a value "
            "of each child. If it is private, zel::NodeAccess is a friend.");
        return std::apply([&](auto const&... v) { return NodeAccess::valueOf(node, v...); },
                          detail::valuesOf(position, index, child...));
    };
    return std::apply(form, NodeAccess::children(node));
}

template <class Self, class Interface>
auto PointwiseNode<Self, Interface>::grad(float3 const& position, long long index) const
    -> Gradient {
    using detail::GradientForm;
    Self const& node = this->self();
    auto const form = [&]<class... Child>(Quern::Ptr<Child> const&... child) -> Gradient {
        constexpr GradientForm kForm = detail::gradientForm<Self, Child...>;
        static_assert(!NodeAccess::hasChildren<Self const> || kForm != GradientForm::kNone,
                      "A PointwiseNode has a member gradientOf, gradientFromValue or "
                      "gradientChoice, in a form that zel/node/node.h lists. If it is private, "
                      "zel::NodeAccess is a friend.");
        auto const values = [&] { return detail::valuesOf(position, index, child...); };
        auto const gradients = [&] { return detail::gradientsOf(position, index, child...); };
        auto const ownValue = [&] { return std::tuple(node.eval(position, index)); };

        if constexpr (NodeAccess::hasExactGradient<Self, typename Child::Value...,
                                                   typename Child::Gradient...>)
            if (NodeAccess::isExact(node))
                return std::apply(
                    [&](auto const&... in) { return NodeAccess::exactGradientOf(node, in...); },
                    detail::gradientInputs<GradientForm::kFromValuesAndGradients>(ownValue, values,
                                                                                  gradients));
        if constexpr (kForm == GradientForm::kChoice) {
            int const choice = std::apply(
                [&](auto const&... v) { return NodeAccess::gradientChoice(node, v...); }, values());
            return detail::gradientOfChild<Gradient>(choice, position, index, child...);
        } else if constexpr (kForm != GradientForm::kNone) {
            return std::apply(
                [&](auto const&... in) { return detail::gradientBy<kForm>(node, in...); },
                detail::gradientInputs<kForm>(ownValue, values, gradients));
        }
    };
    return std::apply(form, NodeAccess::children(node));
}

template <class Self, class Interface>
auto TransformNode<Self, Interface>::eval(float3 const& position, long long index) const -> Value {
    static_assert(NodeAccess::hasChildPosition<Self> && NodeAccess::hasValue<Self, Value>,
                  "A TransformNode has two members: float3 childPosition(float3 const& p) const, "
                  "and Value valueOf(v) const, with the child's value. If they are private, "
                  "zel::NodeAccess is a friend.");
    Self const& node = this->self();
    auto const& field = std::get<0>(NodeAccess::children(node));
    return NodeAccess::valueOf(node, field->eval(NodeAccess::childPosition(node, position), index));
}

template <class Self, class Interface>
auto TransformNode<Self, Interface>::grad(float3 const& position, long long index) const
    -> Gradient {
    static_assert(NodeAccess::hasGradient<Self, Gradient>,
                  "A TransformNode has a member: Gradient gradientOf(g) const, with the child's "
                  "gradient. If it is private, zel::NodeAccess is a friend.");
    Self const& node = this->self();
    auto const& field = std::get<0>(NodeAccess::children(node));
    Gradient const g = field->grad(NodeAccess::childPosition(node, position), index);
    if constexpr (NodeAccess::hasExactGradient<Self, Gradient>)
        if (NodeAccess::isExact(node)) return NodeAccess::exactGradientOf(node, g);
    return NodeAccess::gradientOf(node, g);
}

template <class Self, class Interface>
auto SwitchNode<Self, Interface>::eval(float3 const& position, long long index) const -> Value {
    static_assert(!NodeAccess::hasChildren<Self const> ||
                      NodeAccess::namesSwitch<Self const, Quern::Ptr<Interface>>,
                  "A SwitchNode names three children: its condition, of scalars, and the two "
                  "branches, of its own interface.");
    auto const& [condition, a, b] = NodeAccess::children(this->self());
    return (condition->eval(position, index) > 0 ? a : b)->eval(position, index);
}

template <class Self, class Interface>
auto SwitchNode<Self, Interface>::grad(float3 const& position, long long index) const -> Gradient {
    auto const& [condition, a, b] = NodeAccess::children(this->self());
    return (condition->eval(position, index) > 0 ? a : b)->grad(position, index);
}

}  // namespace zel
