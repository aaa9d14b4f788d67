#pragma once

#include "zel/api.h"
#include "zel_platform/quern_core/array.h"
#include "zel_platform/quern_core/ptr.h"

namespace Orvane {
class Object;
}  // namespace Orvane

namespace Core::Fields {
class ScalarField;
class VectorField;
}  // namespace Core::Fields

namespace zel {

class Field;

/// Receives the nodes of a walk that only reads. Derive from it and override the operator; to go
/// deeper, call `accept` on the node received.
class ZEL_API FieldConstVisitor {
public:
    FieldConstVisitor();
    FieldConstVisitor(FieldConstVisitor const&);
    virtual ~FieldConstVisitor();
    FieldConstVisitor& operator=(FieldConstVisitor const&);

    virtual void operator()(Field const& node);  ///< does nothing
};

/// Receives the nodes of a walk that may change them. Each node received has no other user, so a
/// change shows in the walked tree alone.
class ZEL_API FieldVisitor : public FieldConstVisitor {
public:
    FieldVisitor();
    FieldVisitor(FieldVisitor const&);
    ~FieldVisitor() override;
    FieldVisitor& operator=(FieldVisitor const&);

    void operator()(Field const& node) override;  ///< does nothing
    virtual void operator()(Field& node);         ///< does nothing
};

/// Receives the children of a node to put others in their place: see Field::replaceChildren.
class ZEL_API ChildReplacer {
public:
    virtual void operator()(Quern::Ptr<Core::Fields::ScalarField>& child) = 0;
    virtual void operator()(Quern::Ptr<Core::Fields::VectorField>& child) = 0;
    /// A child that can be changed, but not replaced. No other node owns it.
    virtual void operator()(Field& child) = 0;

protected:
    ~ChildReplacer() = default;
};

/// The base of all nodes, of scalar and of vector fields. It holds no data. Its operations concern
/// this node alone, not its descendants.
class ZEL_API Field {
public:
    Field();
    Field(Field const&);
    virtual ~Field();
    Field& operator=(Field const&);

    /// Hands each direct child to the visitor, in the order of the children; a leaf has none. Any
    /// number of threads may walk one tree.
    virtual void accept(FieldConstVisitor& visitor) const;

    /// The same for a visitor that may change the children. A child that has another owner is first
    /// replaced by a copy of that one node, so other trees never see a change. If the visitor
    /// throws, the child is back in its parent. While it is visited, a child is out of its parent,
    /// which cannot be evaluated then. One thread owns the tree meanwhile.
    virtual void accept(FieldVisitor& visitor);

    /// Whether the node waits for an object. False for every operator, whatever its children say:
    /// to bind a whole tree, walk it.
    virtual bool is_triggerable() const;

    /// Binds the node to an object. Belongs to the set-up of a tree, before it is sampled.
    virtual void apply_object(Orvane::Object const& object);

    /// Sets the index that the node reads for each element index. Belongs to the set-up of a tree.
    virtual void use_property_indices(Quern::Ptr<Quern::Array<long long>> indices);

    /// Hands each direct child to the visitor, also a child that `accept` does not show, such as
    /// the time of a noise. By `accept` here.
    virtual void listChildren(FieldConstVisitor& visitor) const;

    /// Hands the pointers of the same children to `replacer`, which may set them. Here the children
    /// that `accept` shows, which cannot be replaced. Throws std::invalid_argument if the node
    /// holds the child as a pointer to a class that the new one is not of. Belongs to the set-up of
    /// a tree.
    virtual void replaceChildren(ChildReplacer& replacer);

    /// Whether `grad` is the derivative of the value, provided that the gradients of the children
    /// are. False for a node whose gradients are differences, and for a class derived from a node
    /// of the library. True for a user's class made with the bases in zel/node/node.h if it has a
    /// gradient of its own; such a class overrides this if that is not the derivative, and a class
    /// that derives from an interface itself if it is.
    virtual bool hasExactGradient() const;

    /// Makes `grad` the derivative of the value from now on, in a class that can have both, and
    /// hands the children to `replacer`: see withExactGradients(), which calls it. A class whose
    /// value takes the gradient of a child leaves that child out, so that values stay the same:
    /// with the bases in zel/node/node.h it has a member `static constexpr bool kTakesGradients =
    /// true`. Belongs to the set-up of a tree.
    virtual void useExactGradient(ChildReplacer& replacer);

    /// The const walk, for a caller whose node is not const.
    void caccept(FieldConstVisitor& visitor) const;
};

}  // namespace zel
