#include "zel/procedural/shapes.h"

#include "zel/node/library_node_impl.h"

namespace zel {

ScalarFieldImplicitBox::ScalarFieldImplicitBox(float3 const& center, float const& size,
                                               float const& exponent)
    : center(center), level(std::pow(std::fabs(size), exponent)), exponent(exponent), size(size) {}

ScalarFieldPlane::ScalarFieldPlane(float3 const& point, float3 const& normal)
    : point(point), normal(normal / length(normal)) {}

ScalarFieldPlane::ScalarFieldPlane(float3 const& point, UnitVector const& normal)
    : point(point), normal(normal.value) {}

}  // namespace zel

ZEL_DEFINE_LEAF(zel::ScalarFieldSphere, ScalarField);
ZEL_DEFINE_LEAF(zel::ScalarFieldImplicitBox, ScalarField);
ZEL_DEFINE_LEAF(zel::ScalarFieldPlane, ScalarField);
