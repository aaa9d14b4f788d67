#include "zel/curve/fcurve.h"

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

}  // namespace

float ScalarFieldFCurve::eval(float3 const& position, long long index) const {
    return remap(*curve, field->eval(position, index));
}

void ScalarFieldFCurve::blockValues(Block& block, BlockResult<float>& out) const {
    Block::Frame const frame(block);
    remap(*curve, block, block.values(field), out);
}

float3 VectorFieldFCurve::eval(float3 const& position, long long index) const {
    return remap(*curve, field->eval(position, index));
}

void VectorFieldFCurve::blockValues(Block& block, BlockResult<float3>& out) const {
    Block::Frame const frame(block);
    remap(*curve, block, block.values(field), out);
}

}  // namespace zel

ZEL_DEFINE_FIELD(zel::ScalarFieldFCurve, ScalarField);
ZEL_DEFINE_FIELD(zel::VectorFieldFCurve, VectorField);
