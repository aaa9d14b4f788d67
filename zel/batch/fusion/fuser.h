#pragma once

#include <initializer_list>

#include "zel/batch/fusion/operand.h"
#include "zel/batch/fusion/stage.h"
#include "zel/field/scalar_field.h"
#include "zel/field/vector_field.h"

namespace zel {

/// Receives the description that a node gives in its `fuse`: one call of addFormula, addLeaf,
/// addView or hideChildren; or of `queue` for each child; or none, for a leaf that is not fused.
/// A node
/// that is not fused may then call offerGradients. Each pass over a graph is a Fuser. A node may be
/// asked several times.
class Fuser {
public:
    using ScalarField = Core::Fields::ScalarField;
    using VectorField = Core::Fields::VectorField;
    using float3 = Orvane::Math::float3;

    /// A node that cannot be fused names each child by `queue`: the child is computed by itself, or
    /// as the root of a fusion of its own.
    virtual void queue(ScalarField const& child) = 0;
    virtual void queue(VectorField const& child) = 0;

    /// A scalar node that was not fused, but has derivatives for little beside its values: a fusion
    /// of duals may ask it for both. `children` are those whose gradients are asked for then.
    virtual void offerGradients(std::initializer_list<detail::ScalarChild const*> children) = 0;

    /// A node that may have children it does not name, such as one of a user's class.
    virtual void hideChildren() = 0;

    /// A node of the library whose hooks do more than to pass on calls says so beside its
    /// description.
    virtual void haveHooks() {}

    /// A formula of three scalar children at most. `self` is what its stages cast to the node
    /// class.
    virtual void addFormula(ScalarField const& node, void const* self,
                            detail::FormulaStages const& stages,
                            std::initializer_list<detail::ScalarChild const*> children) = 0;

    /// A formula of the position.
    virtual void addLeaf(void const* self, detail::LeafStages const& stages) = 0;

    /// A leaf whose values are in arrays already, and whose gradient is the same everywhere.
    virtual void addView(void const* self, detail::View view, float3 const& gradient) = 0;

protected:
    ~Fuser() = default;
};

}  // namespace zel
