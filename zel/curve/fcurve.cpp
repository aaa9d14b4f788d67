#include "zel/curve/fcurve.h"

#include "zel/field/node_impl.h"

namespace zel {

namespace {

float remap(Orvane::Math::FCurve const& curve, float v) {
    return static_cast<float>(curve.evalFCurve(v));
}

}  // namespace

float ScalarFieldFCurve::eval(float3 const& position, long long index) const {
    return remap(*curve, field->eval(position, index));
}

float3 VectorFieldFCurve::eval(float3 const& position, long long index) const {
    float3 const v = field->eval(position, index);
    return {remap(*curve, v.x), remap(*curve, v.y), remap(*curve, v.z)};
}

}  // namespace zel

ZEL_DEFINE_FIELD(zel::ScalarFieldFCurve, ScalarField);
ZEL_DEFINE_FIELD(zel::VectorFieldFCurve, VectorField);
