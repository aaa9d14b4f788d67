#pragma once

#include <cmath>

#include "zel/field/math.h"
#include "zel/node/node.h"

// Trigonometric functions of scalar fields, in radians and single precision, by the functions of
// the C mathematics library. Outside a function's domain the value is what that library gives.
namespace zel {

/// sin(field), of an angle in radians.
class ZEL_API ScalarFieldSine : public PointwiseNode<ScalarFieldSine, ScalarField> {
public:
    explicit ScalarFieldSine(ScalarPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    static constexpr bool kHeavy = true;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float u) const { return std::sin(u); }
    float3 gradientOf(float u, float3 const& g) const { return g * std::cos(u); }

    ScalarPtr field;
};

/// cos(field), of an angle in radians.
class ZEL_API ScalarFieldCosine : public PointwiseNode<ScalarFieldCosine, ScalarField> {
public:
    explicit ScalarFieldCosine(ScalarPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    static constexpr bool kHeavy = true;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float u) const { return std::cos(u); }
    float3 gradientOf(float u, float3 const& g) const { return g * -std::sin(u); }

    ScalarPtr field;
};

/// tan(field), of an angle in radians. The gradient is the child's times w * w + 1, with w this
/// node's value.
class ZEL_API ScalarFieldTangent : public PointwiseNode<ScalarFieldTangent, ScalarField> {
public:
    explicit ScalarFieldTangent(ScalarPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    static constexpr bool kHeavy = true;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float u) const { return std::tan(u); }
    float3 gradientFromValue(float w, float3 const& g) const { return g * (w * w + 1); }

    ScalarPtr field;
};

/// asin(field), in radians, -pi/2..pi/2, and NaN where field is not in -1..1. The gradient is the
/// child's times 0 where field is 1 or above, -1, or NaN; NaN below -1.
class ZEL_API ScalarFieldArcSine : public PointwiseNode<ScalarFieldArcSine, ScalarField> {
public:
    explicit ScalarFieldArcSine(ScalarPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    static constexpr bool kHeavy = true;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float u) const { return std::asin(u); }
    float3 gradientOf(float u, float3 const& g) const { return g * inverseSlope(u, 1.0F); }

    friend class ScalarFieldArcCosine;

    /// `numerator` over the root of 1 - u * u, where that is not 0.
    static float inverseSlope(float u, float numerator) {
        if (!(u < 1)) return 0;
        float const d = std::sqrt(1 - u * u);
        return d == 0 ? 0 : numerator / d;
    }

    ScalarPtr field;
};

/// acos(field), in radians, 0..pi, and NaN where field is not in -1..1. The gradient is zero and
/// NaN where that of ScalarFieldArcSine is.
class ZEL_API ScalarFieldArcCosine : public PointwiseNode<ScalarFieldArcCosine, ScalarField> {
public:
    explicit ScalarFieldArcCosine(ScalarPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    static constexpr bool kHeavy = true;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float u) const { return std::acos(u); }
    float3 gradientOf(float u, float3 const& g) const {
        return g * ScalarFieldArcSine::inverseSlope(u, -1.0F);
    }

    ScalarPtr field;
};

/// atan(field), in radians, -pi/2..pi/2.
class ZEL_API ScalarFieldArcTangent : public PointwiseNode<ScalarFieldArcTangent, ScalarField> {
public:
    explicit ScalarFieldArcTangent(ScalarPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    static constexpr bool kHeavy = true;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float u) const { return std::atan(u); }
    float3 gradientOf(float u, float3 const& g) const { return g * (1 / (u * u + 1)); }

    ScalarPtr field;
};

/// The angle of the point with ordinate `a` and abscissa `b`, in radians, -pi..pi. In the gradient
/// an abscissa nearer to 0 than 0.0001 is taken as +0.0001. See withExactGradients().
class ZEL_API ScalarFieldArcTangent_2D
    : public PointwiseNode<ScalarFieldArcTangent_2D, ScalarField> {
public:
    ScalarFieldArcTangent_2D(ScalarPtr a_, ScalarPtr b_) : a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    static constexpr bool kHeavy = true;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b));
    }
    float valueOf(float y, float x) const { return std::atan2(y, x); }
    float3 gradientOf(float y, float x, float3 const& yg, float3 const& xg) const {
        constexpr float kLeast = 0.0001F;
        float const g = x <= -kLeast ? x : kLeast < x ? x : kLeast;
        float const s = y / (g * g);
        return (yg / g - xg * s) * (1 / (s * y + 1));
    }
    float3 exactGradientOf(float y, float x, float3 const& yg, float3 const& xg) const {
        return (yg * x - xg * y) / (x * x + y * y);
    }

    ScalarPtr a, b;
    bool usesExactGradient = false;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldSine, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldCosine, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldTangent, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldArcSine, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldArcCosine, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldArcTangent, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldArcTangent_2D, ScalarField);
