#include "zel/scalar/transcendental.h"

#include "zel/node/library_node_impl.h"

ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldSine, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldCosine, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldTangent, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldArcSine, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldArcCosine, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldArcTangent, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldArcTangent_2D, ScalarField);
