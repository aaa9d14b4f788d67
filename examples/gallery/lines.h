#pragma once

#include "gallery/image.h"
#include "gallery/plot.h"

namespace examples {

/// How much of a pixel is covered by a line of that width, `distance` from its middle; all in
/// pixels.
float coverage(float distance, float width);

/// Where a position lies on an image of the view, in pixels from the top left corner.
zel::float3 toPixels(View const& view, Image const& image, zel::float3 const& position);

struct Pen {
    Color color;
    float width = 1;    ///< in pixels
    float opacity = 1;  ///< of the middle of the line
};

/// Draws a line with round ends between two places in pixels, a dot if they are one. What lies off
/// the image is left out; with a place that is not finite nothing is drawn.
void drawLine(Image& image, zel::float3 const& from, zel::float3 const& to, Pen const& pen);

}  // namespace examples
