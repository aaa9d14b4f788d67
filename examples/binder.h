#pragma once

#include <stdexcept>
#include <utility>

#include <zel/zel.h>

/// Binds the triggerable nodes of a tree to an object. It visits the node with which it is called,
/// which must have no other owner, and all its descendants that a walk visits; the time of a noise
/// node is not among them. The walk replaces each descendant that has another owner by a copy, so
/// that no other tree is bound. A node that appears twice in the tree is copied for each place, so
/// that a tree that shares a subtree at every level doubles at every level.
class Binder : public zel::FieldVisitor {
public:
    /// `indices`, if given, maps each sampled index to an element of the object. The object must
    /// outlive the binder, but need not outlive the tree.
    explicit Binder(Orvane::Object const& object,
                    Quern::Ptr<Quern::Array<long long>> indices = nullptr)
        : object(object), indices(std::move(indices)) {}

    using zel::FieldVisitor::operator();
    void operator()(zel::Field& node) override;

    /// The number of nodes that were bound.
    int count() const { return bound; }

private:
    Orvane::Object const& object;
    Quern::Ptr<Quern::Array<long long>> indices;
    int bound = 0;
};

/// Returns the tree, bound to an object. All nodes that have another owner, the root too, are
/// copied first. Throws std::invalid_argument if `tree` is empty.
template <class Interface>
Quern::Ptr<Interface> bindTree(Quern::Ptr<Interface> tree, Orvane::Object const& object,
                               Quern::Ptr<Quern::Array<long long>> indices = nullptr) {
    if (!tree) throw std::invalid_argument("bindTree: no tree");
    if (tree.useCount() > 1) tree = tree.clone();
    Binder binder(object, std::move(indices));
    binder(*tree);
    return tree;
}
