#pragma once

#include <cmath>

#include "zel/field/math.h"
#include "zel/node/node.h"

namespace zel {

/// field to the power of `exponent`, computed in double precision; the gradient in single. No
/// guard: a negative base with a fractional exponent is NaN, and a base of 0 with an exponent below
/// 1 has an infinite gradient.
class ZEL_API ScalarFieldPow : public PointwiseNode<ScalarFieldPow, ScalarField> {
public:
    ScalarFieldPow(ScalarPtr field_, float exponent_)
        : field(std::move(field_)), exponent(exponent_) {}

private:
    friend NodeAccess;
    static constexpr bool kHeavy = true;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("exponent", &Node::exponent));
    }
    float valueOf(float v) const {
        return static_cast<float>(std::pow(static_cast<double>(v), static_cast<double>(exponent)));
    }
    float3 gradientOf(float v, float3 const& g) const {
        return g * (exponent * std::pow(v, exponent - 1));
    }

    ScalarPtr field;
    float exponent;
};

/// The square root of field, and 0 with a zero gradient where field is negative or NaN.
class ZEL_API ScalarFieldSquareRoot : public PointwiseNode<ScalarFieldSquareRoot, ScalarField> {
public:
    explicit ScalarFieldSquareRoot(ScalarPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float v) const { return std::sqrt(Orvane::Math::positivePart(v)); }
    float3 gradientFromValue(float w, float3 const& g) const {
        return w > 0 ? g / (2 * w) : float3{};
    }

    ScalarPtr field;
};

/// e to the power of field.
class ZEL_API ScalarFieldExp : public PointwiseNode<ScalarFieldExp, ScalarField> {
public:
    explicit ScalarFieldExp(ScalarPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    static constexpr bool kHeavy = true;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float v) const { return std::exp(v); }
    float3 gradientFromValue(float w, float3 const& g) const { return g * w; }

    ScalarPtr field;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldPow, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldSquareRoot, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldExp, ScalarField);
