#include "zel/scalar/spatial.h"

#include "zel/field/node_impl.h"

ZEL_DEFINE_LEAF(zel::ScalarFieldXPosition, ScalarField);
ZEL_DEFINE_LEAF(zel::ScalarFieldYPosition, ScalarField);
ZEL_DEFINE_LEAF(zel::ScalarFieldZPosition, ScalarField);
ZEL_DEFINE_OPERATOR(TransformNode, zel::ScalarFieldTranslate, ScalarField);
ZEL_DEFINE_OPERATOR(TransformNode, zel::ScalarFieldScale, ScalarField);
ZEL_DEFINE_OPERATOR(TransformNode, zel::ScalarFieldRotate, ScalarField);
