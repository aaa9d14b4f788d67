#pragma once

#include <cmath>

#include "zel/field/math.h"
#include "zel/node/node.h"

namespace zel {

/// field[c] to the power of exponent[c] for each component, in single precision. No guard, as for
/// ScalarFieldPow.
class ZEL_API VectorFieldPow : public PointwiseNode<VectorFieldPow, VectorField> {
public:
    VectorFieldPow(VectorPtr field_, float3 exponent_)
        : field(std::move(field_)), exponent(exponent_) {}

private:
    friend NodeAccess;
    static constexpr bool kHeavy = true;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("exponent", &Node::exponent));
    }
    float3 valueOf(float3 const& v) const {
        return mapComponents([](float c, float e) { return std::pow(c, e); }, v, exponent);
    }
    float3x3 gradientOf(float3 const& v, float3x3 const& g) const {
        float3x3 m;
        for (int r = 0; r < 3; ++r) m[r] = g[r] * (exponent[r] * std::pow(v[r], exponent[r] - 1));
        return m;
    }

    VectorPtr field;
    float3 exponent;
};

/// The square root of each component, and 0 with a zero gradient row where it is negative or NaN.
class ZEL_API VectorFieldSquareRoot : public PointwiseNode<VectorFieldSquareRoot, VectorField> {
public:
    explicit VectorFieldSquareRoot(VectorPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float3 valueOf(float3 const& v) const {
        return mapComponents([](float c) { return std::sqrt(Orvane::Math::positivePart(c)); }, v);
    }
    float3x3 gradientFromValue(float3 const& w, float3x3 const& g) const {
        float3x3 m;
        for (int r = 0; r < 3; ++r) m[r] = w[r] > 0 ? g[r] / (2 * w[r]) : float3{};
        return m;
    }

    VectorPtr field;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldPow, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldSquareRoot, VectorField);
