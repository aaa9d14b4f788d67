#include "zel/field/vector_field.h"

#include <typeinfo>

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
    return zel::detail::gradientByDifferences<float3x3>(*this, position, index);
}

Quern::String VectorField::getType() const {
    return typeName;
}

bool VectorField::hasExactGradient() const {
    return typeid(*this) == typeid(VectorField);
}

void VectorField::preSampleField() const {}
void VectorField::postSampleField() const {}

}  // namespace Core::Fields

template <> Quern::Ptr<Core::Fields::VectorField> const& Quern::Internal::getDefaultClass() {
    static auto const instance = Quern::makePtr<Core::Fields::VectorField>();
    return instance;
}
