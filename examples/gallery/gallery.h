#pragma once

#include "gallery/image.h"
#include "gallery/meter.h"

// The pictures of the gallery, one function each. To add a picture, declare its function here and
// name it in the table in main.cpp.
namespace examples {

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
