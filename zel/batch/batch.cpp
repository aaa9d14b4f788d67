#include "zel/field/batch.h"

#include <concepts>

#include "zel/batch/run_batch.h"
#include "zel_platform/orvane_geometry_volume/array_pool.h"

namespace Core::Fields {

using Orvane::Math::float3;
using Orvane::Math::float3x3;

namespace {

/// An uninitialised array of `count` values, from the pool of arrays if that is enabled and holds
/// arrays of this type.
template <class T> Quern::Ptr<Quern::Array<T>> makeResult(long long count) {
    if constexpr (std::same_as<T, float3x3>)
        return Quern::makePtr<Quern::Array<T>>(Quern::Array<T>::forOverwrite(count));
    else
        return ORV::TileTree3D::ArrayPool::allocateForOverwrite<T>(
            static_cast<unsigned long long>(count));
}

template <class Interface>
ValuesAndGradients<Interface> evaluate(Interface const& field,
                                       Quern::Array<float3> const& positions, bool values,
                                       bool gradients) {
    ValuesAndGradients<Interface> out;
    if (values) out.values = makeResult<typename Interface::Value>(positions.size());
    if (gradients) out.gradients = makeResult<typename Interface::Gradient>(positions.size());
    zel::detail::Batch<Interface> batch;
    batch.points =
        zel::PointView::of({positions.data(), static_cast<std::size_t>(positions.size())});
    if (values) batch.values = out.values->data();
    if (gradients) batch.gradients = out.gradients->data();
    if (!zel::detail::callPoints(field, batch.points, batch.values, batch.gradients, 0))
        zel::detail::runBatch(field, batch);
    return out;
}

}  // namespace

Quern::Ptr<Quern::Array<float>> ScalarField::eval(Quern::Array<float3> const& positions) const {
    return evaluate(*this, positions, true, false).values;
}

Quern::Ptr<Quern::Array<float3>> VectorField::eval(Quern::Array<float3> const& positions) const {
    return evaluate(*this, positions, true, false).values;
}

Quern::Ptr<Quern::Array<float3>> grad(ScalarField const& field,
                                      Quern::Array<float3> const& positions) {
    return evaluate(field, positions, false, true).gradients;
}

Quern::Ptr<Quern::Array<float3x3>> grad(VectorField const& field,
                                        Quern::Array<float3> const& positions) {
    return evaluate(field, positions, false, true).gradients;
}

ValuesAndGradients<ScalarField> evalAndGrad(ScalarField const& field,
                                            Quern::Array<float3> const& positions) {
    return evaluate(field, positions, true, true);
}

ValuesAndGradients<VectorField> evalAndGrad(VectorField const& field,
                                            Quern::Array<float3> const& positions) {
    return evaluate(field, positions, true, true);
}

}  // namespace Core::Fields
