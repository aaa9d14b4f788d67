#pragma once

#include <tuple>
#include <type_traits>

#include "zel/batch/columns.h"
#include "zel/batch/hook_walk.h"
#include "zel/field/scalar_field.h"
#include "zel/field/vector_field.h"
#include "zel/node/parameter.h"
#include "zel_platform/orvane_math/float3x3.h"
#include "zel_platform/orvane_math/vectors.h"

// The bases of node classes. They implement what nodes have in common: a node class has its members
// and its formulas, and overrides none of the operations that its base makes of them. `Self` is the
// node class, `Interface` ScalarField or VectorField.
//
// A node names its children, in the order of its members, for the walks and the hooks:
//
//     template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
//
// and makes `friend zel::NodeAccess` so that `children` and the formulas may stay private. Declare
// no destructor, copy or move operation in a node: the implicit ones share the children on a copy,
// take them on a move, and release them last to first.
//
// Beside the children it may name its parameters, by which libzel_scene describes, saves and
// compares it: see parameter.h.
//
// The definitions are in node_impl.h, which the source file of a node includes. So that the users
// of a node do not compile them, its header has ZEL_DECLARE_OPERATOR (or the like) after the class,
// and its source ZEL_DEFINE_OPERATOR, both outside any namespace.

namespace zel {

/// The child pointers of nodes.
using ScalarPtr = Quern::Ptr<Core::Fields::ScalarField>;
using VectorPtr = Quern::Ptr<Core::Fields::VectorField>;

using Core::Fields::ScalarField;
using Core::Fields::VectorField;
using Orvane::Math::float3;
using Orvane::Math::float3x3;
using Orvane::Math::float4;

/// Calls the private formulas of a node, which declares it a friend.
struct NodeAccess;

namespace detail {

/// Whether a node class belongs to the library: see ZEL_LIBRARY_NODE.
template <class Node> inline constexpr bool isLibraryNode = false;

}  // namespace detail

/// Supplies the type name of a node, and its block forms. A node that writes `eval` itself may have
///
///     void blockValues(Block& block, BlockResult<Value>& out) const;
///     void blockGradients(Block& block, BlockResult<Gradient>& out) const;
///
/// which must give the bits of its point operations. A node without them is evaluated by its point
/// operations. A node with `blockValues` alone, and with the default `grad`, has its gradients by
/// differences of the values of blocks.
///
/// A node whose `grad` is not the derivative of its value can have that too. It has a member `bool
/// usesExactGradient = false`, which withExactGradients() sets, and answers accordingly. A
/// PointwiseNode then leaves `gradientOf` as it is and states the derivative beside it:
///
///     Gradient exactGradientOf(av, bv, ag, bg) const;   from the children's values and gradients
///
/// and a TransformNode
///
///     Gradient exactGradientOf(g) const;                from the child's gradient
///
/// A node whose value takes the gradients of its children has `static constexpr bool
/// kTakesGradients = true`: their gradients, and so its value, then stay what they are.
template <class Self, class Interface> class ZEL_API NamedNode : public Interface {
public:
    using Value = typename Interface::Value;
    using Gradient = typename Interface::Gradient;

    using Interface::eval;

    void evalBlock(Block& block, BlockResult<Value>& out) const override;
    void gradBlock(Block& block, BlockResult<Gradient>& out) const override;
    void fuse(Fuser& fuser) const override;
    void listChildren(FieldConstVisitor& visitor) const override;
    void replaceChildren(ChildReplacer& replacer) override;
    /// True, of a node that is exactly of its class, if the class has a formula for its gradient.
    bool hasExactGradient() const override;
    void useExactGradient(ChildReplacer& replacer) override;

protected:
    NamedNode();

    Self const& self() const { return static_cast<Self const&>(*this); }
    Self& self() { return static_cast<Self&>(*this); }
};

/// A leaf with two formulas of the position and the element index:
///
///     Value valueOf(float3 const& p, long long i) const;
///     Gradient gradientOf(float3 const& p, long long i) const;
///
/// Both may leave out the index. A leaf whose values in a block are in columns already, such as a
/// coordinate, may have a view, which names the columns:
///
///     Columns<Value> viewOf(Block& block) const;
///
/// One that can do better in a block than its formula position by position may have `blockValues`.
template <class Self, class Interface> class ZEL_API LeafNode : public NamedNode<Self, Interface> {
public:
    using typename NamedNode<Self, Interface>::Value;
    using typename NamedNode<Self, Interface>::Gradient;
    using Interface::eval;

    Value eval(float3 const& position, long long index) const override;
    Gradient grad(float3 const& position, long long index) const override;
    void evalBlock(Block& block, BlockResult<Value>& out) const override;
    void gradBlock(Block& block, BlockResult<Gradient>& out) const override;
};

/// A node that passes the sampling hooks on to its children, in their order, and does not show them
/// to a walk. It writes `eval`, and `grad` if it has a formula, itself, beside
/// `using Interface::eval;`.
template <class Self, class Interface>
class ZEL_API HookedNode : public NamedNode<Self, Interface> {
public:
    void preSampleField() const override;
    void postSampleField() const override;

private:
    [[no_unique_address]] detail::HookTarget hookTarget;
};

/// An operator: walks and hooks over its children. Never triggerable itself. A null child is a
/// broken precondition, asserted in a debug build.
template <class Self, class Interface>
class ZEL_API FieldNode : public HookedNode<Self, Interface> {
public:
    void accept(FieldConstVisitor& visitor) const override;
    void accept(FieldVisitor& visitor) override;
    bool is_triggerable() const override;
};

/// An operator whose value is a formula of its children's values at the same position and index.
/// The children are asked in their order: each for its value, then each for its gradient.
///
///     Value valueOf(av, bv, ...) const;             from the children's values
///
/// and for the gradient one of
///
///     Gradient gradientOf(ag, bg, ...) const;           from the children's gradients
///     Gradient gradientOf(av, bv, ag, bg) const;        from values and gradients
///     Gradient gradientFromValue(w, ag, ...) const;     from this node's own value, asked through
///                                                     its virtual `eval`, and the gradients
///     int gradientChoice(av, bv, ...) const;          the gradient of the child of that number;
///                                                     zero if negative. At a point no other
///                                                     child is asked
///     Gradient gradientOf() const;                      from nothing, no child is asked
///
/// and, if its values are in the columns of its children, a view:
///
///     Columns<Value> viewOf(ac, bc, ...) const;           from the children's columns
///
/// A class of the library with `static constexpr bool kHeavy = true` is heavy: its formula takes as
/// long as dozens of others. The other classes of the library are light. A node such as
/// ScalarFieldMin may ask a light child for gradients at all positions. A heavy child, or one of a
/// user's class, is asked only at the positions where its gradient is needed.
template <class Self, class Interface>
class ZEL_API PointwiseNode : public FieldNode<Self, Interface> {
public:
    using typename NamedNode<Self, Interface>::Value;
    using typename NamedNode<Self, Interface>::Gradient;
    using Interface::eval;

    Value eval(float3 const& position, long long index) const override;
    Gradient grad(float3 const& position, long long index) const override;
    void evalBlock(Block& block, BlockResult<Value>& out) const override;
    void gradBlock(Block& block, BlockResult<Gradient>& out) const override;
};

/// An operator that asks its one child, `field`, at another position and with the same index:
///
///     float3 childPosition(float3 const& p) const;
///     Value valueOf(v) const;           from the child's value there
///     Gradient gradientOf(g) const;     from the child's gradient there
///
/// With `static constexpr bool kMovesOnly = true`, `valueOf` returns its argument, and a block
/// takes over the child's values without calling it. The gradient may still change.
template <class Self, class Interface>
class ZEL_API TransformNode : public FieldNode<Self, Interface> {
public:
    using typename NamedNode<Self, Interface>::Value;
    using typename NamedNode<Self, Interface>::Gradient;
    using Interface::eval;

    Value eval(float3 const& position, long long index) const override;
    Gradient grad(float3 const& position, long long index) const override;
    void evalBlock(Block& block, BlockResult<Value>& out) const override;
    void gradBlock(Block& block, BlockResult<Gradient>& out) const override;
};

/// An operator with three children, `condition`, `a` and `b`: it is `a` where the condition is
/// above 0, else `b`. Only the branch taken is asked.
template <class Self, class Interface>
class ZEL_API SwitchNode : public FieldNode<Self, Interface> {
public:
    using typename NamedNode<Self, Interface>::Value;
    using typename NamedNode<Self, Interface>::Gradient;
    using Interface::eval;

    Value eval(float3 const& position, long long index) const override;
    Gradient grad(float3 const& position, long long index) const override;
    void evalBlock(Block& block, BlockResult<Value>& out) const override;
    void gradBlock(Block& block, BlockResult<Gradient>& out) const override;
};

}  // namespace zel

/// The DECLARE forms stand after the class of a node: its bases are instantiated in a source file,
/// by the DEFINE forms. `Base` is the base that the class names, such as PointwiseNode. `Node` is
/// qualified; `Interface` is not.
#define ZEL_DECLARE_LEAF(Node, Interface) ZEL_DETAIL_LEAF(extern template, Node, Interface)
#define ZEL_DEFINE_LEAF(Node, Interface) ZEL_DETAIL_LEAF(template, Node, Interface)
#define ZEL_DECLARE_HOOKED(Node, Interface) ZEL_DETAIL_HOOKED(extern template, Node, Interface)
#define ZEL_DEFINE_HOOKED(Node, Interface) ZEL_DETAIL_HOOKED(template, Node, Interface)
#define ZEL_DECLARE_FIELD(Node, Interface) ZEL_DETAIL_FIELD(extern template, Node, Interface)
#define ZEL_DEFINE_FIELD(Node, Interface) ZEL_DETAIL_FIELD(template, Node, Interface)
#define ZEL_DECLARE_OPERATOR(Base, Node, Interface)                                                \
    ZEL_DETAIL_FIELD(extern template, Node, Interface);                                            \
    extern template class zel::Base<Node, Core::Fields::Interface>
#define ZEL_DEFINE_OPERATOR(Base, Node, Interface)                                                 \
    ZEL_DETAIL_FIELD(template, Node, Interface);                                                   \
    template class zel::Base<Node, Core::Fields::Interface>

/// The DECLARE forms for nodes of the library itself. Their formulas have no side effects, so that
/// a batch may evaluate them at more positions than point evaluation would, and may fuse several
/// nodes. They are in the header of the node, so that all sources that instantiate a base agree.
#define ZEL_DECLARE_LIBRARY_LEAF(Node, Interface)                                                  \
    ZEL_LIBRARY_NODE(Node);                                                                        \
    ZEL_DECLARE_LEAF(Node, Interface)
#define ZEL_DECLARE_LIBRARY_HOOKED(Node, Interface)                                                \
    ZEL_LIBRARY_NODE(Node);                                                                        \
    ZEL_DECLARE_HOOKED(Node, Interface)
#define ZEL_DECLARE_LIBRARY_FIELD(Node, Interface)                                                 \
    ZEL_LIBRARY_NODE(Node);                                                                        \
    ZEL_DECLARE_FIELD(Node, Interface)
#define ZEL_DECLARE_LIBRARY_OPERATOR(Base, Node, Interface)                                        \
    ZEL_LIBRARY_NODE(Node);                                                                        \
    ZEL_DECLARE_OPERATOR(Base, Node, Interface)
#define ZEL_LIBRARY_NODE(Node)                                                                     \
    template <> inline constexpr bool zel::detail::isLibraryNode<Node> = true

#define ZEL_DETAIL_LEAF(Template, Node, Interface)                                                 \
    Template class zel::NamedNode<Node, Core::Fields::Interface>;                                  \
    Template class zel::LeafNode<Node, Core::Fields::Interface>
#define ZEL_DETAIL_HOOKED(Template, Node, Interface)                                               \
    Template class zel::NamedNode<Node, Core::Fields::Interface>;                                  \
    Template class zel::HookedNode<Node, Core::Fields::Interface>
#define ZEL_DETAIL_FIELD(Template, Node, Interface)                                                \
    ZEL_DETAIL_HOOKED(Template, Node, Interface);                                                  \
    Template class zel::FieldNode<Node, Core::Fields::Interface>
