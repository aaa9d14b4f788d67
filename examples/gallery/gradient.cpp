// A scalar field on the left, its gradient on the right: the hue is the direction uphill, the
// brightness the slope.

#include "drawing/plot.h"
#include "gallery/gallery.h"
#include "scene_files.h"

namespace examples {

Image drawGradient(Meter& meter) {
    constexpr int kSize = 512;
    View const view{0, 0, 4.4F};
    ScalarPtr const field = loadScalar("hills");
    PlotStyle const style{.scale = 0.45F, .spacing = 0.1F, .zeroWidth = 2.0F};
    return contactSheet({plot(meter, *field, view, kSize, kSize, style),
                         plotGradient(meter, *field, view, kSize, kSize)},
                        2);
}

}  // namespace examples
