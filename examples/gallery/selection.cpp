// Nodes that clamp, interpolate and select.

#include "drawing/plot.h"
#include "gallery/gallery.h"
#include "trees.h"

namespace examples {

Image drawSelection(Meter& meter) {
    ScalarPtr const ripples =
        sine(make<zel::ScalarFieldSphere>(float3{-0.2F, 0.1F, 0}, 0.0F) * 11.0F) * 0.5F;
    ScalarPtr const disc = make<zel::ScalarFieldSphere>(float3{}, 0.75F);
    ScalarPtr const star =
        turned(unite(sharpBox({0.9F, 0.2F, 1}), sharpBox({0.2F, 0.9F, 1})), {0, 0, 0.4F});
    ScalarPtr const squares = sine(xPosition() * 7.0F) * sine(yPosition() * 7.0F);
    ScalarPtr const ramp = clamp(xPosition() * 0.6F + 0.5F, 0, 1);

    ScalarPtr const panels[] = {
        clamp(ripples, -0.2F, 0.3F),
        make<zel::ScalarFieldLerp>(disc, star, ramp),
        make<zel::ScalarFieldSwitch>(squares, ripples, disc),
        ScalarPtr(make<zel::ScalarFieldMask>(-star)) * ripples,
        intersect(ripples, disc),
        absolute(absolute(disc) - 0.3F) - 0.12F,
    };
    PlotStyle const style{.scale = 0.35F, .spacing = 0.1F, .zeroWidth = 2.2F};
    std::vector<Image> images;
    for (ScalarPtr const& field : panels)
        images.push_back(plot(meter, *field, View{0, 0, 2.4F}, 336, 336, style));
    return contactSheet(images, 3);
}

}  // namespace examples
