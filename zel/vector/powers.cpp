#include "zel/vector/powers.h"

#include "zel/node/library_node_impl.h"

ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldPow, VectorField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldSquareRoot, VectorField);
