// A scalar field on the left, its gradient on the right: the hue is the direction uphill, the
// brightness the slope.

#include <cmath>

#include "gallery/gallery.h"
#include "gallery/palette.h"
#include "gallery/plot.h"
#include "scenes.h"

namespace examples {

namespace {

Image plotGradient(Meter& meter, zel::ScalarField const& field, View const& view, int size) {
    Image fine(size * kSamples, size * kSamples);
    auto const positions = pixelPositions(view, fine.width(), fine.height());
    auto const gradients = meter.gradients(field, positions);
    for (int y = 0; y < fine.height(); ++y)
        for (int x = 0; x < fine.width(); ++x) {
            float3 const g = gradients[static_cast<long long>(y) * fine.width() + x];
            float const slope = 1 - std::exp(-1.1F * std::hypot(g.x, g.y));
            fine.at(x, y) = fromHue(0.12F + 0.72F * slope, 0.15F * std::sqrt(slope),
                                    std::atan2(g.y, g.x) + 0.5F);
        }
    return fine.reduced(kSamples);
}

}  // namespace

Image drawGradient(Meter& meter) {
    constexpr int kSize = 512;
    View const view{0, 0, 4.4F};
    ScalarPtr const field = hills();
    PlotStyle const style{.scale = 0.45F, .spacing = 0.1F, .zeroWidth = 2.0F};
    return contactSheet(
        {plot(meter, *field, view, kSize, kSize, style), plotGradient(meter, *field, view, kSize)},
        2);
}

}  // namespace examples
