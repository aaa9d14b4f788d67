#include "zel/operators/closest_point.h"

#include "zel/field/math.h"
#include "zel/field/node_impl.h"

namespace zel {

float3 VectorFieldClosestPointTransform::eval(float3 const& position, long long index) const {
    float3 const g = field->grad(position, index);
    float const d = field->eval(position, index);
    return position - d * g;
}

VectorFieldIteratedNearPointTransform::VectorFieldIteratedNearPointTransform(
    ScalarPtr field, float tolerance, std::int32_t iterations)
    : transform(Quern::makePtr<VectorFieldClosestPointTransform>(std::move(field))),
      tolerance(tolerance), iterations(iterations) {}

float3 VectorFieldIteratedNearPointTransform::eval(float3 const& position, long long index) const {
    float3 p = transform->eval(position, index);
    for (std::int32_t i = 0; i < iterations; ++i) {
        float3 const next = transform->eval(p, index);
        bool const atRest = tolerance > 0 && tolerance > Orvane::Math::length(next - p);
        p = next;
        if (atRest) break;
    }
    return p;
}

}  // namespace zel

ZEL_DEFINE_FIELD(zel::VectorFieldClosestPointTransform, VectorField);
ZEL_DEFINE_FIELD(zel::VectorFieldIteratedNearPointTransform, VectorField);
