// A vector field: streaks along it, hue by direction.

#include "gallery/flow.h"
#include "gallery/gallery.h"
#include "scene_files.h"

namespace examples {

Image drawDirection(Meter& meter) {
    return plotFlow(meter, loadVector("vortex_street"), View{0, 0, 5.4F}, 800, 450);
}

}  // namespace examples
