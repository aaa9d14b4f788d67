#pragma once

#include "zel/api.h"
#include "zel_platform/quern_core/array.h"
#include "zel_platform/quern_core/ptr.h"

namespace Orvane {
class Object;
}  // namespace Orvane

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

    /// The const walk, for a caller whose node is not const.
    void caccept(FieldConstVisitor& visitor) const;
};

}  // namespace zel
