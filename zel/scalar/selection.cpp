#include "zel/scalar/selection.h"

#include "zel/node/library_node_impl.h"

ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldMax, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldMin, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldMask, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldClamp, ScalarField);
ZEL_DEFINE_OPERATOR(SwitchNode, zel::ScalarFieldSwitch, ScalarField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::ScalarFieldAbsolute, ScalarField);
