// Four solids on a floor.

#include "drawing/palette.h"
#include "drawing/tracer.h"
#include "gallery/gallery.h"
#include "scene_files.h"

namespace examples {

Image drawSolids(Meter& meter) {
    std::vector<Part> const parts{{loadScalar("solids", "/root", "floor"), fromHex(0xC9C3B8)},
                                  {loadScalar("solids", "/root", "gear"), fromHex(0xD97A1F)},
                                  {loadScalar("solids", "/root", "die"), fromHex(0x2F6FB5)},
                                  {loadScalar("solids", "/root", "ball"), fromHex(0x3C9A68)},
                                  {loadScalar("solids", "/root", "stone"), fromHex(0x8D7F73)}};
    Camera const camera{{0.5F, 2.35F, 7.6F}, {0.08F, 0.72F, 0}, 0.47F};
    zel::ScalarPtr const all = zel::withExactGradients(loadScalar("solids"));
    return traceSolids(meter, *all, camera, 960, 480, 0.95F,
                       [&](auto const& at) { return albedoOfLeast(meter, parts, at); });
}

}  // namespace examples
