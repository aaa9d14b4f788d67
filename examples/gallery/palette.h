#pragma once

#include <cstdint>

#include "gallery/image.h"

namespace examples {

/// The colour of 0xRRGGBB in the sRGB encoding.
Color fromHex(std::uint32_t rgb);

/// `a` at t = 0, `b` at t = 1.
Color mix(Color const& a, Color const& b, float t);

/// The colour of even perceived lightness and chroma at a hue in radians, cut to what a screen
/// shows. Lightness runs from 0 to 1; a chroma of 0.12 fits at most hues.
Color fromHue(float lightness, float chroma, float hue);

/// Orange below 0, blue above; deeper with the distance from 0, by 63 % at `scale`. Grey for a NaN.
Color twoSided(float value, float scale);

// Ramps from t = 0 to t = 1, and the colours at their ends beyond.

/// From dark violet through green to yellow.
Color heat(float t);

/// A map's colours of height: water, shore, woods, rock, snow.
Color terrain(float t);

/// From dark veins to white stone.
Color marble(float t);

/// From pale early wood to dark late wood.
Color wood(float t);

/// Pigments on paper, that change at sharp edges.
Color pigment(float t);

}  // namespace examples
