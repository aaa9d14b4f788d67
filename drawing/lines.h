#pragma once

#include "drawing/image.h"
#include "drawing/plot.h"

namespace drawing {

/// The part of a pixel that a line covers, by the width of the line and the distance of the pixel
/// from its middle, in pixels.
float coverage(float distance, float width);

/// Converts a position to pixels from the top left corner of an image of the view.
zel::float3 toPixels(View const& view, Image const& image, zel::float3 const& position);

struct Pen {
    Color color;
    float width = 1;    ///< in pixels
    float opacity = 1;  ///< of the middle of the line
};

/// Draws a line with round ends between two places in pixels; a dot if they are equal. Parts
/// outside the image are clipped. A line with a place that is not finite is not drawn.
void drawLine(Image& image, zel::float3 const& from, zel::float3 const& to, Pen const& pen);

}  // namespace drawing
