// Divergence-free noise in a plane: one layer, and a fractal sum of layers.

#include "gallery/flow.h"
#include "gallery/gallery.h"
#include "trees.h"

namespace examples {

Image drawTurbulence(Meter& meter) {
    constexpr int kSize = 448;
    View const view{0, 0, 4};
    FlowStyle const style{.steps = 18, .speedScale = 0.5F, .contrast = 1.2F};
    VectorPtr const layer = make<zel::VectorFieldCurlNoise>(constant(0), true, 3);
    VectorPtr const sum = turbulence(3, 1, 3);
    return contactSheet({plotFlow(meter, layer, view, kSize, kSize, style),
                         plotFlow(meter, sum, view, kSize, kSize, style)},
                        2);
}

}  // namespace examples
