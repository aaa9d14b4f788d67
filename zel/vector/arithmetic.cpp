#include "zel/vector/arithmetic.h"

#include "zel/node/library_node_impl.h"

namespace zel {

Columns<float3> VectorFieldConstant::viewOf(Block& block) const {
    return joined(block.constant(value.x), block.constant(value.y), block.constant(value.z));
}

}  // namespace zel

ZEL_DEFINE_LEAF(zel::VectorFieldConstant, VectorField);
ZEL_DEFINE_LEAF(zel::VectorFieldConstantArray, VectorField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldAdd, VectorField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldSubtract, VectorField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldNegative, VectorField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldMultiply, VectorField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldDivide, VectorField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldVSMultiply, VectorField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldVSDivide, VectorField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldLerp, VectorField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldCross, VectorField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldUnitVector, VectorField);
