#include "zel/vector/spatial.h"

#include "zel/node/library_node_impl.h"

namespace zel {

Columns<float3> VectorFieldPosition::viewOf(Block& block) const {
    return {block.positions().component, true, true};
}

}  // namespace zel

ZEL_DEFINE_LEAF(zel::VectorFieldPosition, VectorField);
ZEL_DEFINE_OPERATOR(TransformNode, zel::VectorFieldTranslate, VectorField);
ZEL_DEFINE_OPERATOR(TransformNode, zel::VectorFieldScale, VectorField);
ZEL_DEFINE_OPERATOR(TransformNode, zel::VectorFieldRotate, VectorField);
