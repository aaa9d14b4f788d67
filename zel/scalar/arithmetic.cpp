#include "zel/scalar/arithmetic.h"

#include "zel/node/library_node_impl.h"

namespace zel {

Columns<float> ScalarFieldConstant::viewOf(Block& block) const {
    return block.constant(value);
}

}  // namespace zel

ZEL_DEFINE_LEAF(zel::ScalarFieldConstant, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldAdd, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldSubtract, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldNegative, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldMultiply, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldDivide, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldLerp, ScalarField);
