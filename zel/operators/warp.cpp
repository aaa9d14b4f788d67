#include "zel/operators/warp.h"

#include <concepts>

#include "zel/field/node_impl.h"

namespace zel {

template <class Self, class Interface>
auto WarpNode<Self, Interface>::eval(float3 const& position, long long index) const -> Value {
    return field->eval(warp->eval(position, index), index);
}

template <class Self, class Interface>
auto WarpNode<Self, Interface>::grad(float3 const& position, long long index) const -> Gradient {
    Gradient const g = field->grad(warp->eval(position, index), index);
    return g * warp->grad(position, index);
}

template <class Self, class Interface>
float3 AdvectNode<Self, Interface>::origin(float3 const& position, long long index) const {
    return position - dt * velocity->eval(position, index);
}

template <class Self, class Interface>
float3x3 AdvectNode<Self, Interface>::originGradient(float3 const& position,
                                                     long long index) const {
    return Orvane::Math::identity() - velocity->grad(position, index) * dt;
}

template <class Self, class Interface>
auto AdvectNode<Self, Interface>::eval(float3 const& position, long long index) const -> Value {
    return field->eval(origin(position, index), index);
}

template <class Self, class Interface>
auto AdvectNode<Self, Interface>::grad(float3 const& position, long long index) const -> Gradient {
    // The scalar form asks for the derivative of the velocity last, the vector form first.
    if constexpr (std::same_as<Interface, ScalarField>) {
        Gradient const g = field->grad(origin(position, index), index);
        return g * originGradient(position, index);
    } else {
        float3x3 const map = originGradient(position, index);
        return field->grad(origin(position, index), index) * map;
    }
}

}  // namespace zel

ZEL_DEFINE_OPERATOR(WarpNode, zel::ScalarFieldWarp, ScalarField);
ZEL_DEFINE_OPERATOR(WarpNode, zel::VectorFieldWarp, VectorField);
ZEL_DEFINE_OPERATOR(AdvectNode, zel::ScalarFieldAdvect, ScalarField);
ZEL_DEFINE_OPERATOR(AdvectNode, zel::VectorFieldAdvect, VectorField);
