// Sums and products of transcendental functions.

#include <algorithm>

#include "gallery/gallery.h"
#include "gallery/palette.h"
#include "gallery/plot.h"
#include "scenes.h"

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

Image plotHeat(Meter& meter, zel::ScalarField const& field, View const& view, int size,
               float range) {
    Image fine(size * kSamples, size * kSamples);
    auto const values = meter.values(field, pixelPositions(view, fine.width(), fine.height()));
    for (int y = 0; y < fine.height(); ++y)
        for (int x = 0; x < fine.width(); ++x) {
            float const value = (*values)[static_cast<long long>(y) * fine.width() + x];
            fine.at(x, y) = heat(0.5F + 0.5F * value / range);
        }
    return fine.reduced(kSamples);
}

}  // namespace

Image drawWaves(Meter& meter) {
    return contactSheet({plotHeat(meter, *interference(), View{0, 0, 3.2F}, 512, 1.4F),
                         plotHeat(meter, *spiral(), View{0, 0, 3.2F}, 512, 1.0F)},
                        2);
}

}  // namespace examples
