// A scalar advected by a flow: each panel is some time steps after the panel before it.

#include "gallery/gallery.h"
#include "gallery/plot.h"
#include "scenes.h"

namespace examples {

Image drawAdvection(Meter& meter) {
    constexpr int kSize = 336;
    RampStyle const style{.ramp = pigment, .low = -1.3F, .high = 1.1F};
    std::vector<Image> panels;
    for (int const steps : {0, 2, 4, 6, 9, 13})
        panels.push_back(plotRamp(meter, *ink(steps), View{0, 0, 2.4F}, kSize, kSize, style));
    return contactSheet(panels, 3);
}

}  // namespace examples
