#include "zel/curve/fcurve.h"

#include "zel/field/math.h"
#include "zel/node/library_node_impl.h"

namespace zel {

namespace {

float remap(Orvane::Math::FCurve const& curve, float v) {
    return static_cast<float>(curve.evalFCurve(v));
}

float3 remap(Orvane::Math::FCurve const& curve, float3 const& v) {
    return {remap(curve, v.x), remap(curve, v.y), remap(curve, v.z)};
}

/// A plain loop: the curve is a call in double precision, which SIMD code does not speed up.
template <class T>
void remap(Orvane::Math::FCurve const& curve, Block& block, Columns<T> const& v,
           BlockResult<T>& out) {
    auto const write = out.writer();
    for (int i = 0; i < block.count(); ++i) write.set(i, remap(curve, v[i]));
}

float3 chain(Orvane::Math::FCurve const& curve, float v, float3 const& g) {
    return g * static_cast<float>(curve.slope(v));
}

float3x3 chain(Orvane::Math::FCurve const& curve, float3 const& v, float3x3 const& g) {
    return Orvane::Math::rowsOf([&](int r) { return chain(curve, v[r], g[r]); });
}

template <class Interface>
void chain(Orvane::Math::FCurve const& curve, Block& block, Quern::Ptr<Interface> const& field,
           BlockResult<typename Interface::Gradient>& out) {
    Block::Frame const frame(block);
    auto const v = block.values(field);
    auto const g = block.gradients(field);
    auto const write = out.writer();
    for (int i = 0; i < block.count(); ++i) write.set(i, chain(curve, v[i], g[i]));
}

}  // namespace

float ScalarFieldFCurve::eval(float3 const& position, long long index) const {
    return remap(*curve, field->eval(position, index));
}

float3 ScalarFieldFCurve::grad(float3 const& position, long long index) const {
    if (!usesExactGradient) return ScalarField::grad(position, index);
    auto const v = field->eval(position, index);
    return chain(*curve, v, field->grad(position, index));
}

void ScalarFieldFCurve::blockGradients(Block& block, BlockResult<float3>& out) const {
    if (!usesExactGradient) return detail::differencesInBlock<ScalarField>(*this, block, out);
    chain(*curve, block, field, out);
}

void ScalarFieldFCurve::blockValues(Block& block, BlockResult<float>& out) const {
    Block::Frame const frame(block);
    remap(*curve, block, block.values(field), out);
}

float3 VectorFieldFCurve::eval(float3 const& position, long long index) const {
    return remap(*curve, field->eval(position, index));
}

float3x3 VectorFieldFCurve::grad(float3 const& position, long long index) const {
    if (!usesExactGradient) return VectorField::grad(position, index);
    auto const v = field->eval(position, index);
    return chain(*curve, v, field->grad(position, index));
}

void VectorFieldFCurve::blockGradients(Block& block, BlockResult<float3x3>& out) const {
    if (!usesExactGradient) return detail::differencesInBlock<VectorField>(*this, block, out);
    chain(*curve, block, field, out);
}

void VectorFieldFCurve::blockValues(Block& block, BlockResult<float3>& out) const {
    Block::Frame const frame(block);
    remap(*curve, block, block.values(field), out);
}

}  // namespace zel

ZEL_DEFINE_FIELD(zel::ScalarFieldFCurve, ScalarField);
ZEL_DEFINE_FIELD(zel::VectorFieldFCurve, VectorField);
