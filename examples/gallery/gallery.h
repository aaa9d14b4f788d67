#pragma once

#include "drawing/image.h"
#include "drawing/lines.h"
#include "drawing/meter.h"
#include "drawing/palette.h"
#include "drawing/plot.h"
#include "drawing/tracer.h"

// The pictures of the gallery, one function each. To add a picture, declare its function here and
// name it in the table in main.cpp.
namespace examples {

using drawing::albedoOfLeast;
using drawing::Camera;
using drawing::Color;
using drawing::contactSheet;
using drawing::coverage;
using drawing::drawLine;
using drawing::fromHex;
using drawing::fromHue;
using drawing::heat;
using drawing::Image;
using drawing::kSamples;
using drawing::marble;
using drawing::Meter;
using drawing::mix;
using drawing::Part;
using drawing::Pen;
using drawing::pigment;
using drawing::pixelPositions;
using drawing::plot;
using drawing::plotGradient;
using drawing::plotRamp;
using drawing::PlotStyle;
using drawing::RampStyle;
using drawing::terrain;
using drawing::toPixels;
using drawing::traceSolids;
using drawing::twoSided;
using drawing::View;
using drawing::wood;

Image drawShapes(Meter& meter);
Image drawGear(Meter& meter);
Image drawTransforms(Meter& meter);
Image drawSelection(Meter& meter);
Image drawDirection(Meter& meter);
Image drawGradient(Meter& meter);
Image drawSolids(Meter& meter);
Image drawWaves(Meter& meter);
Image drawNoise(Meter& meter);
Image drawTurbulence(Meter& meter);
Image drawPlume(Meter& meter);
Image drawWarp(Meter& meter);
Image drawAdvection(Meter& meter);
Image drawClosest(Meter& meter);
Image drawRemap(Meter& meter);
Image drawVolume(Meter& meter);
Image drawVolumeSolids(Meter& meter);
Image drawSamplers(Meter& meter);
Image drawDiscs(Meter& meter);

}  // namespace examples
