#include "zel/procedural/shapes.h"

#include "zel/field/node_impl.h"

ZEL_DEFINE_LEAF(zel::ScalarFieldSphere, ScalarField);
ZEL_DEFINE_LEAF(zel::ScalarFieldImplicitBox, ScalarField);
ZEL_DEFINE_LEAF(zel::ScalarFieldPlane, ScalarField);
