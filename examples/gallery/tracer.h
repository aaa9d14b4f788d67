#pragma once

#include <functional>
#include <vector>

#include "gallery/image.h"
#include "gallery/meter.h"

namespace examples {

/// From where a picture of solids is seen. The y axis points up.
struct Camera {
    zel::float3 eye, target;
    float halfWidth;  ///< of the picture, at distance 1
};

/// The albedo at each position.
using Albedo = std::function<std::vector<Color>(Quern::Array<zel::float3> const& positions)>;

/// The solids where the field is negative, in the sun, by sphere tracing (J. C. Hart, 1996): the
/// value of the field at a point, times `safety`, is a step that must not pass the surface. All
/// rays that are still under way go into one batch for each step.
Image traceSolids(Meter& meter, zel::ScalarField const& field, Camera const& camera, int width,
                  int height, float safety, Albedo const& albedo);

/// A solid, and the albedo where its field is the least of all.
struct Part {
    zel::ScalarPtr field;
    Color color;
};
std::vector<Color> albedoOfLeast(Meter& meter, std::vector<Part> const& parts,
                                 Quern::Array<zel::float3> const& positions);

}  // namespace examples
