#pragma once

#include "drawing/plot.h"

namespace examples {

/// The style of a drawn flow.
struct FlowStyle {
    int steps = 26;           ///< of half a pixel, along the stream line in either direction
    float speedScale = 1.8F;  ///< brighter with the speed, by 63 % at 1 / speedScale
    float contrast = 1;       ///< of the streaks
};

/// Draws the flow in the plane z = 0 by line integral convolution (B. Cabral and L. Leedom, 1993):
/// white noise is averaged along the stream line through each sample. The hue is the direction. The
/// component across the plane is ignored.
drawing::Image plotFlow(drawing::Meter& meter, zel::VectorPtr const& flow,
                        drawing::View const& view, int width, int height,
                        FlowStyle const& style = {});

}  // namespace examples
