#include "zel/field/scalar_field.h"

#include "zel/batch/block.h"
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
    float3 gradient;
    zel::detail::differences(
        *this, position, index,
        [&](int axis, float f1, float f2, float divisor) { gradient[axis] = (f1 - f2) / divisor; });
    return gradient;
}

Quern::String ScalarField::getType() const {
    return typeName;
}

void ScalarField::preSampleField() const {}
void ScalarField::postSampleField() const {}

void ScalarField::evalBlock(zel::Block& block, zel::BlockResult<Value>& out) const {
    zel::detail::evalByPoints(*this, block, out);
}

void ScalarField::gradBlock(zel::Block& block, zel::BlockResult<Gradient>& out) const {
    zel::detail::gradByPoints(*this, block, out);
}

}  // namespace Core::Fields

template <> Quern::Ptr<Core::Fields::ScalarField> const& Quern::Internal::getDefaultClass() {
    static auto const instance = Quern::makePtr<Core::Fields::ScalarField>();
    return instance;
}
