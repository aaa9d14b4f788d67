#include "zel/scalar/spatial.h"

#include "zel/node/library_node_impl.h"

namespace zel {

Columns<float> ScalarFieldXPosition::viewOf(Block& block) const {
    return block.positions().part(0);
}

Columns<float> ScalarFieldYPosition::viewOf(Block& block) const {
    return block.positions().part(1);
}

Columns<float> ScalarFieldZPosition::viewOf(Block& block) const {
    return block.positions().part(2);
}

}  // namespace zel

ZEL_DEFINE_LEAF(zel::ScalarFieldXPosition, ScalarField);
ZEL_DEFINE_LEAF(zel::ScalarFieldYPosition, ScalarField);
ZEL_DEFINE_LEAF(zel::ScalarFieldZPosition, ScalarField);
ZEL_DEFINE_OPERATOR(TransformNode, zel::ScalarFieldTranslate, ScalarField);
ZEL_DEFINE_OPERATOR(TransformNode, zel::ScalarFieldScale, ScalarField);
ZEL_DEFINE_OPERATOR(TransformNode, zel::ScalarFieldRotate, ScalarField);
