// Noise: one layer, and sums of layers; above as values with iso-lines, below as lit surfaces.

#include "drawing/plot.h"
#include "gallery/gallery.h"
#include "trees.h"

namespace examples {

namespace {

/// Sharp crests where the layers are 0: each layer is folded by its absolute value.
ScalarPtr ridges(int octaves, float frequency) {
    ScalarPtr sum;
    float weight = 1;
    for (int i = 0; i < octaves; ++i) {
        ScalarPtr const crest = constant(1) - absolute(fractalNoise(1, frequency, 40 + i)) * 1.6F;
        ScalarPtr const layer = make<zel::ScalarFieldPow>(clamp(crest, 0, 1), 2.0F) * weight;
        sum = sum ? sum + layer : layer;
        frequency *= 2;
        weight *= 0.5F;
    }
    return sum;
}

}  // namespace

Image drawNoise(Meter& meter) {
    constexpr int kSize = 336;
    View const view{0, 0, 4};
    std::vector<Image> panels;
    PlotStyle const lines{.scale = 0.45F, .spacing = 0.1F, .zeroWidth = 1.8F};
    ScalarPtr const layer = make<zel::ScalarFieldSimplexNoise>(constant(0), 7);
    for (ScalarPtr const& field : {layer, fractalNoise(2, 1, 7), fractalNoise(3.5F, 1, 7)})
        panels.push_back(plot(meter, *field, view, kSize, kSize, lines));

    RampStyle const relief{.low = -0.8F, .high = 0.8F, .relief = 0.5F};
    for (float const roughness : {0.35F, 0.5F})
        panels.push_back(
            plotRamp(meter, *fractalNoise(7, 0.8F, 7, roughness), view, kSize, kSize, relief));
    panels.push_back(plotRamp(meter, *ridges(6, 0.7F), view, kSize, kSize,
                              {.low = 0.5F, .high = 1.95F, .relief = 0.3F}));
    return contactSheet(panels, 3);
}

}  // namespace examples
