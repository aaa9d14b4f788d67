#include "zel/operators/derivatives.h"

#include "zel/field/node_impl.h"

namespace zel {

float3 ScalarFieldGradient::eval(float3 const& position, long long index) const {
    return field->grad(position, index);
}

float ScalarFieldDivergence::eval(float3 const& position, long long index) const {
    float3x3 const m = field->grad(position, index);
    return m[1][1] + m[0][0] + m[2][2];
}

float3 VectorFieldCurl::eval(float3 const& position, long long index) const {
    float3x3 const m = field->grad(position, index);
    return {m[2][1] - m[1][2], m[0][2] - m[2][0], m[1][0] - m[0][1]};
}

}  // namespace zel

ZEL_DEFINE_FIELD(zel::ScalarFieldGradient, VectorField);
ZEL_DEFINE_FIELD(zel::ScalarFieldDivergence, ScalarField);
ZEL_DEFINE_FIELD(zel::VectorFieldCurl, VectorField);
