#include "zel/scalar/powers.h"

#include "zel/node/library_node_impl.h"

ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldPow, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldSquareRoot, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldExp, ScalarField);
