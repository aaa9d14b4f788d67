#pragma once

#include "zel/field/field.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/string.h"

namespace zel {
class Block;
class Fuser;
template <class T> class BlockResult;
}  // namespace zel

namespace Core::Fields {

/// A function over space that yields a float, and the field that is zero everywhere.
///
/// The point operations are const, and safe to call from any number of threads at once. A node
/// overrides the point `eval`, and `grad` where it has a formula. A class that overrides one `eval`
/// hides the other: write `using ScalarField::eval;` beside it.
class ZEL_API ScalarField : public zel::Field {
public:
    using Value = float;
    using Gradient = Orvane::Math::float3;

    ScalarField();
    ScalarField(ScalarField const&);
    ~ScalarField() override;
    ScalarField& operator=(ScalarField const&);

    /// The values at all positions, computed in parallel; the element index of a position is its
    /// place in the array. `preSampleField` runs before and `postSampleField` after it, on the
    /// calling thread. An exception of a point `eval` ends the batch, keeps its type, and leaves
    /// `postSampleField` uncalled. Floats are rounded to nearest and subnormal numbers kept,
    /// whatever the calling thread has set.
    virtual Quern::Ptr<Quern::Array<float>>
    eval(Quern::Array<Orvane::Math::float3> const& positions) const;

    /// The value at `position` for the element `index`. The two are independent: only nodes that
    /// hold data for each element look at the index. 0 here.
    virtual float eval(Orvane::Math::float3 const& position, long long index) const;

    /// The derivatives of the value along x, y and z. Here they are differences between six calls
    /// of the point `eval`, whose distance is about 2 % of the coordinate, or 2e-6 at 0. They are
    /// NaN or infinite where that distance underflows or overflows.
    virtual Orvane::Math::float3 grad(Orvane::Math::float3 const& position, long long index) const;

    /// The class name, such as "zel::ScalarFieldAdd"; empty for a plain ScalarField. A class
    /// derived from a node has the node's name unless it sets `typeName` itself.
    virtual Quern::String getType() const;

    /// True for a plain field, which is zero everywhere.
    bool hasExactGradient() const override;

    /// Called before and after a batch. Operators pass both on to all their children, but once a
    /// batch: a leaf is called once for each operator's pointer to it. Nothing here.
    virtual void preSampleField() const;
    virtual void postSampleField() const;

    /// The values, and the gradients, at the positions of a block, of which a batch consists. Here
    /// by the point `eval` and `grad`, once a position in rising order. Nodes of the library
    /// compute the block as a whole, to the same bits but for those of a NaN. A class derived from
    /// such a node is evaluated by its point operations again, which it may override. See
    /// zel::Block.
    virtual void evalBlock(zel::Block& block, zel::BlockResult<Value>& out) const;
    virtual void gradBlock(zel::Block& block, zel::BlockResult<Gradient>& out) const;

    /// Describes to a Fuser how this node and its children can be fused. Here, that nothing is
    /// known about them. See zel::Fuser.
    virtual void fuse(zel::Fuser& fuser) const;

protected:
    Quern::String typeName;

private:
    // The step factors of the default gradient, for programs that look them up in the binary. The
    // library itself uses the constants of differences.h.
    static float const q;       // upper step factor of the default gradient
    static float const qinv;    // lower step factor
    static float const qdenom;  // their difference
};

}  // namespace Core::Fields

namespace Quern::Internal {

/// The field that is zero everywhere, one for the whole process. Safe to call from any thread.
template <> ZEL_API Ptr<Core::Fields::ScalarField> const& getDefaultClass();

}  // namespace Quern::Internal
