#pragma once

#include <functional>
#include <vector>

#include "gallery/image.h"
#include "gallery/meter.h"

namespace examples {

/// The camera of a picture of solids. The y axis points up.
struct Camera {
    zel::float3 eye, target;
    float halfWidth;  ///< of the picture, at distance 1
};

/// The albedo at each position.
using Albedo = std::function<std::vector<Color>(Quern::Array<zel::float3> const& positions)>;

/// Draws the solids where the field is negative, in sunlight, by sphere tracing (J. C. Hart, 1996):
/// the value of the field at a point, times `safety`, must be a step that does not pass the
/// surface. Each step evaluates the field for all active rays in one batch.
Image traceSolids(Meter& meter, zel::ScalarField const& field, Camera const& camera, int width,
                  int height, float safety, Albedo const& albedo);

/// A solid, and its albedo, which applies where its field is less than those of all other solids.
struct Part {
    zel::ScalarPtr field;
    Color color;
};
std::vector<Color> albedoOfLeast(Meter& meter, std::vector<Part> const& parts,
                                 Quern::Array<zel::float3> const& positions);

}  // namespace examples
