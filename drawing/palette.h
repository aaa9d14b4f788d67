#pragma once

#include <cstdint>

#include "drawing/image.h"

namespace drawing {

/// The colour of 0xRRGGBB in the sRGB encoding.
Color fromHex(std::uint32_t rgb);

/// `a` at t = 0, `b` at t = 1.
Color mix(Color const& a, Color const& b, float t);

/// The colour with a perceived lightness, 0 to 1, and a chroma at a hue in radians, clipped to the
/// colours of a screen. A chroma of 0.12 needs no clipping at most hues.
Color fromHue(float lightness, float chroma, float hue);

/// Orange below 0, blue above; deeper with the distance from 0, by 63 % at `scale`. Grey for a NaN.
Color twoSided(float value, float scale);

// Colour ramps from t = 0 to t = 1, constant beyond.

/// From dark violet through green to yellow.
Color heat(float t);

/// The colours of heights on a map: water, shore, woods, rock, snow.
Color terrain(float t);

/// From dark veins to white stone.
Color marble(float t);

/// From pale early wood to dark late wood.
Color wood(float t);

/// Pigments on paper, with sharp edges between them.
Color pigment(float t);

}  // namespace drawing
