#pragma once

#include "zel/node/node.h"
#include "zel_platform/orvane_math/fcurve.h"

// A child's value sent through a curve, which the node shares and does not change. The curve is
// evaluated in double precision. The gradients are the default ones, by differences; after
// withExactGradients() they are the child's times the slope of the curve.
namespace zel {

/// curve(field)
class ZEL_API ScalarFieldFCurve : public FieldNode<ScalarFieldFCurve, ScalarField> {
public:
    ScalarFieldFCurve(ScalarPtr field_, Quern::Ptr<Orvane::Math::FCurve> curve_)
        : field(std::move(field_)), curve(std::move(curve_)) {}

    using ScalarField::eval;
    float eval(float3 const& position, long long index) const override;
    float3 grad(float3 const& position, long long index) const override;

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("curve", &Node::curve));
    }
    void blockValues(Block& block, BlockResult<float>& out) const;
    void blockGradients(Block& block, BlockResult<float3>& out) const;

    ScalarPtr field;
    Quern::Ptr<Orvane::Math::FCurve> curve;
    bool usesExactGradient = false;
};

/// curve(field[c]) for each component, by one curve for all three.
class ZEL_API VectorFieldFCurve : public FieldNode<VectorFieldFCurve, VectorField> {
public:
    VectorFieldFCurve(VectorPtr field_, Quern::Ptr<Orvane::Math::FCurve> curve_)
        : field(std::move(field_)), curve(std::move(curve_)) {}

    using VectorField::eval;
    float3 eval(float3 const& position, long long index) const override;
    float3x3 grad(float3 const& position, long long index) const override;

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("curve", &Node::curve));
    }
    void blockValues(Block& block, BlockResult<float3>& out) const;
    void blockGradients(Block& block, BlockResult<float3x3>& out) const;

    VectorPtr field;
    Quern::Ptr<Orvane::Math::FCurve> curve;
    bool usesExactGradient = false;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_FIELD(zel::ScalarFieldFCurve, ScalarField);
ZEL_DECLARE_LIBRARY_FIELD(zel::VectorFieldFCurve, VectorField);
