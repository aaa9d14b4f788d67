#pragma once

#include <concepts>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "zel/field/graph_version.h"
#include "zel/node/node_access.h"
#include "zel/node/node_block_impl.h"  // IWYU pragma: export
#include "zel/node/node_point_impl.h"  // IWYU pragma: export
#include "zel/node/type_name.h"
#include "zel_platform/quern_core/expect.h"

// The definitions of the bases in node.h, for the source files of nodes: names, walks and hooks
// here, the point operations and the block forms in the two headers above.
namespace zel {

namespace detail {

/// Holds a child for the length of a visit that may change it, out of its parent's member, and puts
/// it back when the visit ends, by an exception too. A child with another owner is held as a copy.
template <class Interface> class HeldChild {
public:
    explicit HeldChild(Quern::Ptr<Interface>& parentsMember) : member(parentsMember) {
        ZEL_EXPECT(member);
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
    GraphChange const change;
    Quern::Ptr<Interface>& member;
    Quern::Ptr<Interface> held;
};

/// A null child is left out.
template <class Child> void visit(FieldConstVisitor& visitor, Quern::Ptr<Child> const& child) {
    if (child) visitor(static_cast<Field const&>(*child));
}

/// A pointer to some class of nodes can only be set to a node of that class.
template <class Child> void replace(ChildReplacer& replacer, Quern::Ptr<Child>& child) {
    if constexpr (std::same_as<Child, ScalarField> || std::same_as<Child, VectorField>) {
        replacer(child);
    } else if (child) {
        using Interface =
            std::conditional_t<std::derived_from<Child, ScalarField>, ScalarField, VectorField>;
        Quern::Ptr<Interface> other = child;
        replacer(other);
        auto node = Quern::dynamicPtrCast<Child>(other);
        if (other && !node)
            throw std::invalid_argument("zel::Field::replaceChildren: a child of class " +
                                        std::string(typeNameOf(typeid(Child)).c_str()) +
                                        " cannot be replaced by one of class " +
                                        typeNameOf(typeid(*other)).c_str());
        child = std::move(node);
    }
}

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
void NamedNode<Self, Interface>::listChildren(FieldConstVisitor& visitor) const {
    if constexpr (NodeAccess::hasChildren<Self const>)
        std::apply([&](auto const&... child) { (detail::visit(visitor, child), ...); },
                   NodeAccess::children(this->self()));
    else
        Interface::listChildren(visitor);
}

template <class Self, class Interface>
void NamedNode<Self, Interface>::replaceChildren(ChildReplacer& replacer) {
    detail::GraphChange const change;
    if constexpr (NodeAccess::hasChildren<Self>)
        std::apply([&](auto&... child) { (detail::replace(replacer, child), ...); },
                   NodeAccess::children(this->self()));
    else
        Interface::replaceChildren(replacer);
}

template <class Self, class Interface> bool NamedNode<Self, Interface>::hasExactGradient() const {
    if (!detail::isExactly(this->self())) return false;
    if constexpr (NodeAccess::hasExactSwitch<Self>)
        return NodeAccess::isExact(this->self());
    else
        return !detail::hasDefaultGradient<Self, Interface>;
}

template <class Self, class Interface>
void NamedNode<Self, Interface>::useExactGradient(ChildReplacer& replacer) {
    detail::GraphChange const change;
    if constexpr (!NodeAccess::takesGradients<Self>) this->replaceChildren(replacer);
    if constexpr (NodeAccess::hasExactSwitch<Self>)
        if (detail::isExactly(this->self())) NodeAccess::setExact(this->self());
}

// A comma fold runs from the first child to the last.

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
    static_assert(NodeAccess::hasChildren<Self const>,
                  "An operator names its children: template <class Node> static auto "
                  "children(Node& node) { return std::tie(node.a, node.b); } "
                  "If it is private, zel::NodeAccess is a friend.");
    static_assert(!NodeAccess::hasNoEval<Self, Interface>,
                  "A FieldNode or HookedNode overrides eval(float3 const& p, long long i) const.");
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

}  // namespace zel
