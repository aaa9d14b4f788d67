#pragma once

#include <stdexcept>
#include <utility>

#include <zel/zel.h>

/// Binds the nodes of a tree that wait for an object, as far as a walk reaches: the time of a noise
/// node is not shown to walks. It walks down from the node that it is called
/// with, which must have no other user; below it, the walk puts a copy in the place of each node
/// that somebody else holds too, so that no other tree is bound along. A node that the tree holds
/// in two places becomes two nodes, so that a tree that shares at every level multiplies at each.
class Binder : public zel::FieldVisitor {
public:
    /// `indices`, if any, gives the element of the object that is meant by each sampled index. The
    /// object must outlive the binder, but need not outlive the tree.
    explicit Binder(Orvane::Object const& object,
                    Quern::Ptr<Quern::Array<long long>> indices = nullptr)
        : object(object), indices(std::move(indices)) {}

    using zel::FieldVisitor::operator();
    void operator()(zel::Field& node) override;

    /// How many nodes it has bound.
    int count() const { return bound; }

private:
    Orvane::Object const& object;
    Quern::Ptr<Quern::Array<long long>> indices;
    int bound = 0;
};

/// The tree bound to an object. Whatever of it has another user, the root too, is copied first.
/// Throws std::invalid_argument if there is no tree.
template <class Interface>
Quern::Ptr<Interface> bindTree(Quern::Ptr<Interface> tree, Orvane::Object const& object,
                               Quern::Ptr<Quern::Array<long long>> indices = nullptr) {
    if (!tree) throw std::invalid_argument("bindTree: no tree");
    if (tree.useCount() > 1) tree = tree.clone();
    Binder binder(object, std::move(indices));
    binder(*tree);
    return tree;
}
