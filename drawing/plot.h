#pragma once

#include "drawing/image.h"
#include "drawing/meter.h"
#include "drawing/palette.h"

namespace drawing {

/// A part of the plane z = 0: its centre and its width. The height follows from the image.
struct View {
    float x = 0, y = 0;
    float width = 2;
};

/// The positions of the centres of all pixels, row after row from the top; y points upwards.
Quern::Array<zel::float3> pixelPositions(View const& view, int width, int height);
/// The same for `rows` rows from `first` on, of an image of `height` rows.
Quern::Array<zel::float3> pixelPositions(View const& view, int width, int height, int first,
                                         int rows);

/// The style of a scalar field drawn in two-sided colours.
struct PlotStyle {
    float scale = 0.5F;      ///< value at which the colour is most of the way to its deepest
    float spacing = 0.1F;    ///< between iso-lines; 0 draws none
    float lineWidth = 1.0F;  ///< of iso-lines, in pixels
    float zeroWidth = 2.6F;  ///< of the line of value 0, in pixels; 0 draws none
    bool axes = false;       ///< the lines x = 0 and y = 0, in white
};

/// Draws the field in two-sided colours with iso-lines, in bands of rows.
Image plot(Meter& meter, zel::ScalarField const& field, View const& view, int width, int height,
           PlotStyle const& style = {}, Progress const& progress = {});

/// The style of a scalar field drawn in the colours of a ramp.
struct RampStyle {
    Color (*ramp)(float t) = heat;
    float low = -1, high = 1;  ///< values at t = 0 and t = 1
    float relief = 0;  ///< if above 0, lit from the top left as a surface of height relief * value
};

/// Draws the field in the colours of a ramp.
Image plotRamp(Meter& meter, zel::ScalarField const& field, View const& view, int width, int height,
               RampStyle const& style);

/// Draws the direction of the field's gradient as the hue, and its slope as the brightness: 63 % at
/// 1 / steepness.
Image plotGradient(Meter& meter, zel::ScalarField const& field, View const& view, int width,
                   int height, float steepness = 1.1F);

/// The number of samples of a pixel along each axis, in all flat pictures.
inline constexpr int kSamples = 3;

}  // namespace drawing
