#pragma once

#include "zel/field/math.h"
#include "zel/node/node.h"
#include "zel/node/transform.h"

namespace zel {

/// The x coordinate of the position.
class ZEL_API ScalarFieldXPosition : public LeafNode<ScalarFieldXPosition, ScalarField> {
private:
    friend NodeAccess;
    float valueOf(float3 const& p, long long /*i*/) const { return p.x; }
    Columns<float> viewOf(Block& block) const;
    float3 gradientOf(float3 const& /*p*/, long long /*i*/) const { return {1, 0, 0}; }
};

/// The y coordinate of the position.
class ZEL_API ScalarFieldYPosition : public LeafNode<ScalarFieldYPosition, ScalarField> {
private:
    friend NodeAccess;
    float valueOf(float3 const& p, long long /*i*/) const { return p.y; }
    Columns<float> viewOf(Block& block) const;
    float3 gradientOf(float3 const& /*p*/, long long /*i*/) const { return {0, 1, 0}; }
};

/// The z coordinate of the position.
class ZEL_API ScalarFieldZPosition : public LeafNode<ScalarFieldZPosition, ScalarField> {
private:
    friend NodeAccess;
    float valueOf(float3 const& p, long long /*i*/) const { return p.z; }
    Columns<float> viewOf(Block& block) const;
    float3 gradientOf(float3 const& /*p*/, long long /*i*/) const { return {0, 0, 1}; }
};

/// field moved by `offset`: field(p - offset).
class ZEL_API ScalarFieldTranslate : public TransformNode<ScalarFieldTranslate, ScalarField> {
public:
    ScalarFieldTranslate(ScalarPtr field_, float3 const& offset_)
        : field(std::move(field_)), offset(offset_) {}

private:
    friend NodeAccess;
    static constexpr bool kMovesOnly = true;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("offset", &Node::offset));
    }
    float3 childPosition(float3 const& p) const { return p - offset; }
    float valueOf(float v) const { return v; }
    float3 gradientOf(float3 const& g) const { return g; }

    ScalarPtr field;
    float3 offset;
};

/// field stretched by `scale` along each axis: field(p / scale). A negative component mirrors. A
/// component nearer to 0 than 2^-23 is taken as +2^-23.
class ZEL_API ScalarFieldScale : public TransformNode<ScalarFieldScale, ScalarField> {
public:
    ScalarFieldScale(ScalarPtr field_, float3 const& scale_)
        : field(std::move(field_)), scale(detail::limitedScale(scale_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("scale", &Node::scale));
    }
    float3 childPosition(float3 const& p) const { return divideComponents(p, scale); }
    static constexpr bool kMovesOnly = true;
    float valueOf(float v) const { return v; }
    float3 gradientOf(float3 const& g) const { return divideComponents(g, scale); }

    ScalarPtr field;
    float3 scale;
};

/// field turned by the quaternion `rotation`: field(rotate(conjugate(rotation), p)). A quaternion
/// of length m also scales positions and gradients by m * m.
class ZEL_API ScalarFieldRotate : public TransformNode<ScalarFieldRotate, ScalarField> {
public:
    /// Turns by the negative of a rotation vector, whose length is an angle in radians. A vector of
    /// length 0, or with a NaN in it, does not turn.
    ScalarFieldRotate(ScalarPtr field_, float3 const& rotation_)
        : field(std::move(field_)), rotation(detail::rotationOf(rotation_)) {}
    ScalarFieldRotate(ScalarPtr field_, float4 const& rotation_)
        : field(std::move(field_)), rotation(rotation_) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("rotation", &Node::rotation));
    }
    float3 childPosition(float3 const& p) const { return rotate(conjugate(rotation), p); }
    static constexpr bool kMovesOnly = true;
    float valueOf(float v) const { return v; }
    float3 gradientOf(float3 const& g) const { return rotate(rotation, g); }

    ScalarPtr field;
    float4 rotation;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_LEAF(zel::ScalarFieldXPosition, ScalarField);
ZEL_DECLARE_LIBRARY_LEAF(zel::ScalarFieldYPosition, ScalarField);
ZEL_DECLARE_LIBRARY_LEAF(zel::ScalarFieldZPosition, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(TransformNode, zel::ScalarFieldTranslate, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(TransformNode, zel::ScalarFieldScale, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(TransformNode, zel::ScalarFieldRotate, ScalarField);
