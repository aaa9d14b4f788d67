// A scalar advected by a flow: each panel is some time steps after the panel before it.

#include <limits>

#include "drawing/plot.h"
#include "gallery/gallery.h"
#include "trees.h"

namespace examples {

namespace {

/// A drop of rings, -1 to 1 inside it and -2 outside, advected by noise for a number of time steps.
ScalarPtr ink(int steps) {
    constexpr float kStep = 0.03F;
    ScalarPtr const radius =
        make<zel::ScalarFieldScale>(make<zel::ScalarFieldSphere>(float3{}, 0.0F),
                                    float3{1, 1, std::numeric_limits<float>::infinity()});
    ScalarPtr const rings = cosine(radius * 22.0F);
    ScalarPtr field = make<zel::ScalarFieldSwitch>(radius - 0.75F, constant(-2), rings);
    VectorPtr const flow = turbulence(1, 1, 5);
    for (int i = 0; i < steps; ++i) field = make<zel::ScalarFieldAdvect>(field, flow, kStep);
    return field;
}

}  // namespace

Image drawAdvection(Meter& meter) {
    constexpr int kSize = 336;
    RampStyle const style{.ramp = pigment, .low = -1.3F, .high = 1.1F};
    std::vector<Image> panels;
    for (int const steps : {0, 2, 4, 6, 9, 13})
        panels.push_back(plotRamp(meter, *ink(steps), View{0, 0, 2.4F}, kSize, kSize, style));
    return contactSheet(panels, 3);
}

}  // namespace examples
