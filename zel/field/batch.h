#pragma once

#include "zel/api.h"
#include "zel/field/scalar_field.h"
#include "zel/field/vector_field.h"
#include "zel_platform/orvane_math/float3x3.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/array.h"
#include "zel_platform/quern_core/ptr.h"

// The gradients at arrays of positions. Hooks, threads, element indices and exceptions are as in
// the batch `eval` of a field. A gradient has the bits of the point `grad`, but for the sign and
// the payload of a NaN. At each position a node of the library computes its values once, however
// many gradients above it need them, or twice if it is light.
namespace Core::Fields {

/// The gradients at all positions.
ZEL_API Quern::Ptr<Quern::Array<Orvane::Math::float3>>
grad(ScalarField const& field, Quern::Array<Orvane::Math::float3> const& positions);
ZEL_API Quern::Ptr<Quern::Array<Orvane::Math::float3x3>>
grad(VectorField const& field, Quern::Array<Orvane::Math::float3> const& positions);

template <class Interface> struct ValuesAndGradients {
    Quern::Ptr<Quern::Array<typename Interface::Value>> values;
    Quern::Ptr<Quern::Array<typename Interface::Gradient>> gradients;
};

/// The values and the gradients at all positions, by one batch.
ZEL_API ValuesAndGradients<ScalarField>
evalAndGrad(ScalarField const& field, Quern::Array<Orvane::Math::float3> const& positions);
ZEL_API ValuesAndGradients<VectorField>
evalAndGrad(VectorField const& field, Quern::Array<Orvane::Math::float3> const& positions);

}  // namespace Core::Fields
