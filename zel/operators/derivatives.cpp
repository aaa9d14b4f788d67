#include "zel/operators/derivatives.h"

#include "zel/node/library_node_impl.h"

namespace zel {

float3 ScalarFieldGradient::eval(float3 const& position, long long index) const {
    return field->grad(position, index);
}

void ScalarFieldGradient::blockValues(Block& block, BlockResult<float3>& out) const {
    out.set(block.gradients(field));
}

namespace {

float divergence(float3x3 const& m) {
    return m[1][1] + m[0][0] + m[2][2];
}

float3 curl(float3x3 const& m) {
    return {m[2][1] - m[1][2], m[0][2] - m[2][0], m[1][0] - m[0][1]};
}

}  // namespace

float ScalarFieldDivergence::eval(float3 const& position, long long index) const {
    return divergence(field->grad(position, index));
}

void ScalarFieldDivergence::blockValues(Block& block, BlockResult<float>& out) const {
    Block::Frame const frame(block);
    mapBlock(block, out, divergence, block.gradients(field));
}

float3 VectorFieldCurl::eval(float3 const& position, long long index) const {
    return curl(field->grad(position, index));
}

void VectorFieldCurl::blockValues(Block& block, BlockResult<float3>& out) const {
    Block::Frame const frame(block);
    mapBlock(block, out, curl, block.gradients(field));
}

}  // namespace zel

ZEL_DEFINE_FIELD(zel::ScalarFieldGradient, VectorField);
ZEL_DEFINE_FIELD(zel::ScalarFieldDivergence, ScalarField);
ZEL_DEFINE_FIELD(zel::VectorFieldCurl, VectorField);
