#pragma once

#include <functional>
#include <vector>

#include "drawing/image.h"
#include "drawing/meter.h"

namespace drawing {

/// The camera of a picture of solids. The y axis points up.
struct Camera {
    zel::float3 eye, target;
    float halfWidth;  ///< of the picture, at distance 1
};

/// The albedo at each position.
using Albedo = std::function<std::vector<Color>(Quern::Array<zel::float3> const& positions)>;

/// Draws the solids where the field is negative, in sunlight, by sphere tracing (J. C. Hart, 1996):
/// the value of the field at a point, times `safety`, must be a step that does not pass the
/// surface. Each step evaluates the field for all active rays of a band of rows in one batch. Sizes
/// are those of a scene some 8 units from the eye: the surface begins at 0.0004 of a distance, and
/// is lost in haze at 20 units. `albedo` is asked, and `progress` told, band by band.
Image traceSolids(Meter& meter, zel::ScalarField const& field, Camera const& camera, int width,
                  int height, float safety, Albedo const& albedo, Progress const& progress = {});

/// A solid, and its albedo, which applies where its field is less than those of all other solids.
struct Part {
    zel::ScalarPtr field;
    Color color;
};
std::vector<Color> albedoOfLeast(Meter& meter, std::vector<Part> const& parts,
                                 Quern::Array<zel::float3> const& positions);

}  // namespace drawing
