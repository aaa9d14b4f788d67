#pragma once

#include "zel/field/math.h"
#include "zel/node/node.h"
#include "zel/node/transform.h"

// The position as a field, and vector fields moved as a whole: the sample point by the inverse of
// the motion, and the value by the motion where its formula says so.
namespace zel {

/// The position itself.
class ZEL_API VectorFieldPosition : public LeafNode<VectorFieldPosition, VectorField> {
private:
    friend NodeAccess;
    float3 valueOf(float3 const& p, long long /*i*/) const { return p; }
    Columns<float3> viewOf(Block& block) const;
    float3x3 gradientOf(float3 const& /*p*/, long long /*i*/) const {
        return Orvane::Math::identity();
    }
};

/// field(p - offset); the value is not shifted.
class ZEL_API VectorFieldTranslate : public TransformNode<VectorFieldTranslate, VectorField> {
public:
    VectorFieldTranslate(VectorPtr field_, float3 const& offset_)
        : field(std::move(field_)), offset(offset_) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("offset", &Node::offset));
    }
    float3 childPosition(float3 const& p) const { return p - offset; }
    static constexpr bool kMovesOnly = true;
    float3 valueOf(float3 const& v) const { return v; }
    float3x3 gradientOf(float3x3 const& g) const { return g; }

    VectorPtr field;
    float3 offset;
};

/// scale * field(p / scale), by components. A component of `scale` nearer to 0 than 2^-23 is taken
/// as +2^-23. The gradient is the child's, unscaled, which is the derivative only where all
/// components of `scale` are equal. See withExactGradients().
class ZEL_API VectorFieldScale : public TransformNode<VectorFieldScale, VectorField> {
public:
    VectorFieldScale(VectorPtr field_, float3 const& scale_)
        : field(std::move(field_)), scale(detail::limitedScale(scale_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("scale", &Node::scale));
    }
    float3 childPosition(float3 const& p) const { return divideComponents(p, scale); }
    float3 valueOf(float3 const& v) const { return multiplyComponents(scale, v); }
    float3x3 gradientOf(float3x3 const& g) const { return g; }
    float3x3 exactGradientOf(float3x3 const& g) const {
        return Orvane::Math::rowsOf(
            [&](int r) { return divideComponents(g[r] * scale[r], scale); });
    }

    VectorPtr field;
    float3 scale;
    bool usesExactGradient = false;
};

/// field turned by the quaternion `rotation`: rotate(rotation, field(rotate(conjugate(rotation),
/// p))). The gradient is deliberately not the derivative: each column of the child's is turned, but
/// not the coordinate. See withExactGradients().
class ZEL_API VectorFieldRotate : public TransformNode<VectorFieldRotate, VectorField> {
public:
    /// Turns by the negative of a rotation vector, as ScalarFieldRotate does.
    VectorFieldRotate(VectorPtr field_, float3 const& rotation_)
        : field(std::move(field_)), rotation(detail::rotationOf(rotation_)) {}
    VectorFieldRotate(VectorPtr field_, float4 const& rotation_)
        : field(std::move(field_)), rotation(rotation_) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("rotation", &Node::rotation));
    }
    float3 childPosition(float3 const& p) const { return rotate(conjugate(rotation), p); }
    float3 valueOf(float3 const& v) const { return rotate(rotation, v); }
    float3x3 gradientOf(float3x3 const& g) const {
        return mapColumns([&](float3 const& column) { return rotate(rotation, column); }, g);
    }
    /// Turning back is the transpose of turning, so the rows are turned for the coordinate.
    float3x3 exactGradientOf(float3x3 const& g) const {
        return gradientOf(Orvane::Math::rowsOf([&](int r) { return rotate(rotation, g[r]); }));
    }

    VectorPtr field;
    float4 rotation;
    bool usesExactGradient = false;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_LEAF(zel::VectorFieldPosition, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(TransformNode, zel::VectorFieldTranslate, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(TransformNode, zel::VectorFieldScale, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(TransformNode, zel::VectorFieldRotate, VectorField);
