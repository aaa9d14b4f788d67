#include "zel/field/vector_field.h"

#include "zel/batch/block.h"
#include "zel/field/differences.h"

namespace Core::Fields {

using Orvane::Math::float3;
using Orvane::Math::float3x3;

float const VectorField::q = zel::detail::kUpperStep;
float const VectorField::qinv = zel::detail::kLowerStep;
float const VectorField::qdenom = zel::detail::kStepDifference;

VectorField::VectorField() = default;
VectorField::VectorField(VectorField const&) = default;
VectorField::~VectorField() = default;
VectorField& VectorField::operator=(VectorField const&) = default;

float3 VectorField::eval(float3 const& /*position*/, long long /*index*/) const {
    return {};
}

float3x3 VectorField::grad(float3 const& position, long long index) const {
    float3x3 gradient;
    zel::detail::differences(*this, position, index,
                             [&](int axis, float3 const& f1, float3 const& f2, float divisor) {
                                 for (int i = 0; i < 3; ++i)
                                     gradient[i][axis] = (f1[i] - f2[i]) / divisor;
                             });
    return gradient;
}

Quern::String VectorField::getType() const {
    return typeName;
}

void VectorField::preSampleField() const {}
void VectorField::postSampleField() const {}

void VectorField::evalBlock(zel::Block& block, zel::BlockResult<Value>& out) const {
    zel::detail::evalByPoints(*this, block, out);
}

void VectorField::gradBlock(zel::Block& block, zel::BlockResult<Gradient>& out) const {
    zel::detail::gradByPoints(*this, block, out);
}

}  // namespace Core::Fields

template <> Quern::Ptr<Core::Fields::VectorField> const& Quern::Internal::getDefaultClass() {
    static auto const instance = Quern::makePtr<Core::Fields::VectorField>();
    return instance;
}
