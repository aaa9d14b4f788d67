#include "zel/vector/selection.h"

#include "zel/node/library_node_impl.h"

ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldMax, VectorField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldMin, VectorField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldAbsolute, VectorField);
ZEL_DEFINE_OPERATOR(PointwiseNode, zel::VectorFieldClamp, VectorField);
ZEL_DEFINE_OPERATOR(SwitchNode, zel::VectorFieldSwitch, VectorField);
