#include "trees.h"

#include <algorithm>
#include <limits>

namespace examples {

ScalarPtr blend(ScalarPtr const& a, ScalarPtr const& b, float radius) {
    // The quadratic smooth minimum. A child that appears twice is evaluated twice at a point, so
    // that the form in which children appear least often is the fastest.
    ScalarPtr const near =
        make<zel::ScalarFieldMax>(constant(radius) - absolute(a - b), constant(0));
    ScalarPtr const square = make<zel::ScalarFieldPow>(near, 2.0F);
    return unite(a, b) - square * (0.25F / radius);
}

ScalarPtr bounded(ScalarPtr const& solid, float3 const& center, float radius) {
    // A switch evaluates only the branch that it takes.
    constexpr float kMargin = 0.15F;
    ScalarPtr const bound = make<zel::ScalarFieldSphere>(center, radius);
    return make<zel::ScalarFieldSwitch>(bound - kMargin, bound, solid);
}

ScalarPtr cylinder(float radius) {
    // A sphere that is stretched infinitely along z.
    constexpr float kEndless = std::numeric_limits<float>::infinity();
    ScalarPtr const sphere = make<zel::ScalarFieldSphere>(float3{}, radius);
    return make<zel::ScalarFieldScale>(sphere, float3{1, 1, kEndless});
}

ScalarPtr roundedBox(float3 const& halfWidths, float exponent) {
    // For a box of size 1 the size is the half width. Scaled to its half widths it has a slope of
    // at most 1 / least.
    ScalarPtr const unit = make<zel::ScalarFieldImplicitBox>(float3{}, 1.0F, exponent);
    float const least = std::min({halfWidths.x, halfWidths.y, halfWidths.z});
    return make<zel::ScalarFieldScale>(unit, halfWidths) * least;
}

ScalarPtr sharpBox(float3 const& halfWidths) {
    return intersect(intersect(absolute(xPosition()) - halfWidths.x,  //
                               absolute(yPosition()) - halfWidths.y),
                     absolute(zPosition()) - halfWidths.z);
}

}  // namespace examples
