#pragma once

#include <zel/zel.h>

#include <cstdint>
#include <utility>

// Short names for building trees of fields. Operators on field pointers make nodes: `a + b` is a
// field that adds, not the sum of two numbers.
namespace examples {

using zel::float3;
using zel::ScalarPtr;
using zel::VectorPtr;

template <class Node, class... Args> Quern::Ptr<Node> make(Args&&... args) {
    return Quern::makePtr<Node>(std::forward<Args>(args)...);
}

inline ScalarPtr constant(float value) {
    return make<zel::ScalarFieldConstant>(value);
}
inline ScalarPtr xPosition() {
    return make<zel::ScalarFieldXPosition>();
}
inline ScalarPtr yPosition() {
    return make<zel::ScalarFieldYPosition>();
}
inline ScalarPtr zPosition() {
    return make<zel::ScalarFieldZPosition>();
}

inline ScalarPtr operator+(ScalarPtr const& a, ScalarPtr const& b) {
    return make<zel::ScalarFieldAdd>(a, b);
}
inline ScalarPtr operator-(ScalarPtr const& a, ScalarPtr const& b) {
    return make<zel::ScalarFieldSubtract>(a, b);
}
inline ScalarPtr operator*(ScalarPtr const& a, ScalarPtr const& b) {
    return make<zel::ScalarFieldMultiply>(a, b);
}
inline ScalarPtr operator/(ScalarPtr const& a, ScalarPtr const& b) {
    return make<zel::ScalarFieldDivide>(a, b);
}
inline ScalarPtr operator-(ScalarPtr const& a) {
    return make<zel::ScalarFieldNegative>(a);
}
inline ScalarPtr operator+(ScalarPtr const& a, float b) {
    return a + constant(b);
}
inline ScalarPtr operator-(ScalarPtr const& a, float b) {
    return a - constant(b);
}
inline ScalarPtr operator*(ScalarPtr const& a, float b) {
    return a * constant(b);
}
inline VectorPtr operator+(VectorPtr const& a, VectorPtr const& b) {
    return make<zel::VectorFieldAdd>(a, b);
}
inline VectorPtr operator*(VectorPtr const& a, ScalarPtr const& b) {
    return make<zel::VectorFieldVSMultiply>(a, b);
}
inline VectorPtr operator*(VectorPtr const& a, float b) {
    return a * constant(b);
}

inline ScalarPtr sine(ScalarPtr const& a) {
    return make<zel::ScalarFieldSine>(a);
}
inline ScalarPtr cosine(ScalarPtr const& a) {
    return make<zel::ScalarFieldCosine>(a);
}
inline ScalarPtr absolute(ScalarPtr const& a) {
    return make<zel::ScalarFieldAbsolute>(a);
}
inline ScalarPtr clamp(ScalarPtr const& a, float min, float max) {
    return make<zel::ScalarFieldClamp>(a, min, max);
}

// Noise at time 0. Features have a size of about 1 / frequency; each octave is half as large as the
// one before and `roughness` times as strong.

inline ScalarPtr fractalNoise(float octaves, float frequency, std::int64_t seed,
                              float roughness = 0.5F) {
    return make<zel::ScalarFieldFractalNoise>(1.0F, octaves, frequency, roughness, 0.5F,
                                              constant(0), 1.0F, seed);
}
inline VectorPtr turbulence(float octaves, float frequency, std::int64_t seed,
                            float roughness = 0.5F) {
    return make<zel::VectorFieldFractalTurbulence>(1.0F, octaves, frequency, roughness, 0.5F,
                                                   constant(0), 1.0F, true, seed);
}

/// `a` evaluated at the position plus `displacement`.
inline ScalarPtr displaced(ScalarPtr const& a, VectorPtr const& displacement) {
    return make<zel::ScalarFieldWarp>(a, make<zel::VectorFieldPosition>() + displacement);
}

// Solids are negative inside. These operators make distances, or lower bounds of distances, from
// distances.

inline ScalarPtr unite(ScalarPtr const& a, ScalarPtr const& b) {
    return make<zel::ScalarFieldMin>(a, b);
}
inline ScalarPtr intersect(ScalarPtr const& a, ScalarPtr const& b) {
    return make<zel::ScalarFieldMax>(a, b);
}
/// `a` without `b`.
inline ScalarPtr carve(ScalarPtr const& a, ScalarPtr const& b) {
    return intersect(a, -b);
}
inline ScalarPtr moved(ScalarPtr const& a, float3 const& offset) {
    return make<zel::ScalarFieldTranslate>(a, offset);
}
/// `a` rotated by a rotation vector: its length is the angle in radians, counter-clockwise as seen
/// from its tip.
inline ScalarPtr turned(ScalarPtr const& a, float3 const& rotation) {
    return make<zel::ScalarFieldRotate>(a, -rotation);
}

/// The union of `a` and `b`, with the seam rounded where their values differ by less than `radius`.
ScalarPtr blend(ScalarPtr const& a, ScalarPtr const& b, float radius);

/// The solid near a ball that contains it; farther away the distance to the ball, which costs less.
ScalarPtr bounded(ScalarPtr const& solid, float3 const& center, float radius);

/// An infinite cylinder around the z axis.
ScalarPtr cylinder(float radius);

/// A superellipsoid around the origin: an exponent of 2 gives an ellipsoid, a large one a box.
ScalarPtr roundedBox(float3 const& halfWidths, float exponent);

/// A box around the origin with sharp edges.
ScalarPtr sharpBox(float3 const& halfWidths);

}  // namespace examples
