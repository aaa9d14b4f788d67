#pragma once

#include "zel/field/field.h"
#include "zel_platform/orvane_math/float3x3.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/string.h"

namespace zel {
class Block;
class Fuser;
template <class T> class BlockResult;
}  // namespace zel

namespace Core::Fields {

/// A function over space that yields a vector, and the field that is the zero vector everywhere.
/// The contract is that of ScalarField.
class ZEL_API VectorField : public zel::Field {
public:
    using Value = Orvane::Math::float3;
    using Gradient = Orvane::Math::float3x3;

    VectorField();
    VectorField(VectorField const&);
    ~VectorField() override;
    VectorField& operator=(VectorField const&);

    /// The values at all positions: see ScalarField.
    virtual Quern::Ptr<Quern::Array<Orvane::Math::float3>>
    eval(Quern::Array<Orvane::Math::float3> const& positions) const;

    /// The value at `position` for the element `index`. The zero vector here.
    virtual Orvane::Math::float3 eval(Orvane::Math::float3 const& position, long long index) const;

    /// The derivative of component `r` along coordinate `c`, as entry `[r][c]`. Here by the six
    /// evaluations of ScalarField's default.
    virtual Orvane::Math::float3x3 grad(Orvane::Math::float3 const& position,
                                        long long index) const;

    virtual Quern::String getType() const;

    /// True for a plain field, which is zero everywhere.
    bool hasExactGradient() const override;
    virtual void preSampleField() const;
    virtual void postSampleField() const;

    virtual void evalBlock(zel::Block& block, zel::BlockResult<Value>& out) const;
    virtual void gradBlock(zel::Block& block, zel::BlockResult<Gradient>& out) const;
    virtual void fuse(zel::Fuser& fuser) const;

protected:
    Quern::String typeName;

private:
    // As in ScalarField.
    static float const q;
    static float const qinv;
    static float const qdenom;
};

}  // namespace Core::Fields

namespace Quern::Internal {

template <> ZEL_API Ptr<Core::Fields::VectorField> const& getDefaultClass();

}  // namespace Quern::Internal
