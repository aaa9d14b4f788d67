// Sums and products of transcendental functions.

#include "drawing/plot.h"
#include "gallery/gallery.h"
#include "scene_files.h"

namespace examples {

namespace {

/// Spiral arms that rise and fall with the polar angle.
ScalarPtr spiral() {
    ScalarPtr const angle = make<zel::ScalarFieldArcTangent_2D>(yPosition(), xPosition());
    ScalarPtr const radius = make<zel::ScalarFieldSphere>(float3{}, 0.0F);
    ScalarPtr const arms = sine(angle * 5.0F + make<zel::ScalarFieldSquareRoot>(radius) * 20.0F);
    ScalarPtr const petals = cosine(angle * 10.0F - radius * 9.0F) * 0.35F;
    ScalarPtr const fall = make<zel::ScalarFieldExp>(radius * radius * -0.35F);
    return (arms + petals) * fall;
}

}  // namespace

Image drawWaves(Meter& meter) {
    constexpr int kSize = 512;
    View const view{0, 0, 3.2F};
    return contactSheet({plotRamp(meter, *loadScalar("interference"), view, kSize, kSize,
                                  {.low = -1.4F, .high = 1.4F}),
                         plotRamp(meter, *spiral(), view, kSize, kSize, {})},
                        2);
}

}  // namespace examples
