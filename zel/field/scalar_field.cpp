#include "zel/field/scalar_field.h"

#include <typeinfo>

#include "zel/field/differences.h"

namespace Core::Fields {

using Orvane::Math::float3;

float const ScalarField::q = zel::detail::kUpperStep;
float const ScalarField::qinv = zel::detail::kLowerStep;
float const ScalarField::qdenom = zel::detail::kStepDifference;

ScalarField::ScalarField() = default;
ScalarField::ScalarField(ScalarField const&) = default;
ScalarField::~ScalarField() = default;
ScalarField& ScalarField::operator=(ScalarField const&) = default;

float ScalarField::eval(float3 const& /*position*/, long long /*index*/) const {
    return 0.0F;
}

float3 ScalarField::grad(float3 const& position, long long index) const {
    return zel::detail::gradientByDifferences<float3>(*this, position, index);
}

Quern::String ScalarField::getType() const {
    return typeName;
}

bool ScalarField::hasExactGradient() const {
    return typeid(*this) == typeid(ScalarField);
}

void ScalarField::preSampleField() const {}
void ScalarField::postSampleField() const {}

}  // namespace Core::Fields

template <> Quern::Ptr<Core::Fields::ScalarField> const& Quern::Internal::getDefaultClass() {
    static auto const instance = Quern::makePtr<Core::Fields::ScalarField>();
    return instance;
}
