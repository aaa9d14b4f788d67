// Implicit shapes as signed distances: orange inside, blue outside, iso-lines at equal steps.

#include "drawing/plot.h"
#include "gallery/gallery.h"
#include "scene_files.h"

namespace examples {

Image drawShapes(Meter& meter) {
    ScalarPtr const disc = make<zel::ScalarFieldSphere>(float3{-0.3F, 0.15F, 0}, 0.62F);
    ScalarPtr const box = moved(roundedBox({0.55F, 0.42F, 0.5F}, 6.0F), float3{0.35F, -0.25F, 0});
    ScalarPtr const plane =
        make<zel::ScalarFieldPlane>(float3{0.1F, -0.1F, 0}, float3{-0.5F, 1, 0});

    View const view{0, 0, 2.6F};
    std::vector<Image> panels;
    for (ScalarPtr const& field : {disc, box, plane,  //
                                   unite(disc, box), carve(disc, box), blend(disc, box, 0.3F)})
        panels.push_back(plot(meter, *field, view, 336, 336));
    return contactSheet(panels, 3);
}

Image drawGear(Meter& meter) {
    PlotStyle const style{.scale = 0.28F, .spacing = 0.05F, .lineWidth = 1.1F, .zeroWidth = 3.0F};
    return plot(meter, *loadScalar("gear_profile"), View{0, 0, 3.8F}, 960, 600, style);
}

}  // namespace examples
