// One motif without symmetry, and copies of it moved, stretched, mirrored and turned. The iso-lines
// show that a stretched field keeps its values: they move with the shape.

#include "drawing/plot.h"
#include "gallery/gallery.h"
#include "trees.h"

namespace examples {

namespace {

/// A flag on a pole, with a knob: it has no symmetry.
ScalarPtr motif() {
    ScalarPtr const pole = moved(sharpBox({0.07F, 0.5F, 0.5F}), {-0.25F, 0, 0});
    ScalarPtr const bar = moved(sharpBox({0.3F, 0.16F, 0.5F}), {0.05F, 0.3F, 0});
    ScalarPtr const notch = make<zel::ScalarFieldSphere>(float3{0.4F, 0.3F, 0}, 0.14F);
    ScalarPtr const knob = make<zel::ScalarFieldSphere>(float3{0.02F, -0.32F, 0}, 0.13F);
    return unite(unite(pole, carve(bar, notch)), knob);
}

ScalarPtr stretched(ScalarPtr const& field, float3 const& scale) {
    return make<zel::ScalarFieldScale>(field, scale);
}

}  // namespace

Image drawTransforms(Meter& meter) {
    ScalarPtr const flag = motif();
    ScalarPtr ring;
    for (int i = 0; i < 5; ++i) {
        ScalarPtr const copy = moved(stretched(flag, {0.45F, 0.45F, 0.45F}), {0, 0.62F, 0});
        ScalarPtr const placed = turned(copy, {0, 0, 1.2566371F * static_cast<float>(i)});
        ring = ring ? unite(ring, placed) : placed;
    }
    ScalarPtr const panels[] = {
        flag,
        moved(flag, {0.3F, 0.2F, 0}),
        stretched(flag, {0.6F, 0.6F, 0.6F}),
        stretched(flag, {1.7F, 0.7F, 1}),
        stretched(flag, {-1, 1, 1}),
        turned(flag, {0, 0, 0.6F}),
        stretched(turned(flag, {0, 0, 0.6F}), {1.6F, 0.8F, 1}),
        ring,
    };
    PlotStyle const style{.scale = 0.3F, .spacing = 0.08F, .axes = true};
    std::vector<Image> images;
    for (ScalarPtr const& field : panels)
        images.push_back(plot(meter, *field, View{0, 0, 2}, 256, 256, style));
    return contactSheet(images, 4);
}

}  // namespace examples
