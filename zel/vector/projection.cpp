#include "zel/vector/projection.h"

#include "zel/node/library_node_impl.h"

ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldXComponent, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldYComponent, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldZComponent, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldComponent, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldFromComponents, VectorField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldDotProduct, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldLength, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldLengthSquared, ScalarField);
