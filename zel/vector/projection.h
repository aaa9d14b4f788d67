#pragma once

#include <cmath>

#include "zel/field/math.h"
#include "zel/node/node.h"

// Nodes that cross between scalar and vector fields. Their names go by the child: a
// VectorFieldXComponent is a scalar field.
namespace zel {

/// The x component of a vector field.
class ZEL_API VectorFieldXComponent : public PointwiseNode<VectorFieldXComponent, ScalarField> {
public:
    explicit VectorFieldXComponent(VectorPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float3 const& v) const { return v.x; }
    Columns<float> viewOf(Columns<float3> const& v) const { return v.part(0); }
    float3 gradientOf(float3x3 const& g) const { return g[0]; }

    VectorPtr field;
};

/// The y component of a vector field.
class ZEL_API VectorFieldYComponent : public PointwiseNode<VectorFieldYComponent, ScalarField> {
public:
    explicit VectorFieldYComponent(VectorPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float3 const& v) const { return v.y; }
    Columns<float> viewOf(Columns<float3> const& v) const { return v.part(1); }
    float3 gradientOf(float3x3 const& g) const { return g[1]; }

    VectorPtr field;
};

/// The z component of a vector field.
class ZEL_API VectorFieldZComponent : public PointwiseNode<VectorFieldZComponent, ScalarField> {
public:
    explicit VectorFieldZComponent(VectorPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float3 const& v) const { return v.z; }
    Columns<float> viewOf(Columns<float3> const& v) const { return v.part(2); }
    float3 gradientOf(float3x3 const& g) const { return g[2]; }

    VectorPtr field;
};

/// Component 0, 1 or 2 of a vector field; 0 for any other number.
class ZEL_API VectorFieldComponent : public PointwiseNode<VectorFieldComponent, ScalarField> {
public:
    VectorFieldComponent(VectorPtr field_, int component_)
        : field(std::move(field_)), component(component_) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("component", &Node::component));
    }
    bool isComponent() const { return 0 <= component && component < 3; }
    float valueOf(float3 const& v) const { return isComponent() ? v[component] : 0; }
    float3 gradientOf(float3x3 const& g) const { return isComponent() ? g[component] : float3{}; }

    VectorPtr field;
    int component;
};

/// The vector (x, y, z) of three scalar fields.
class ZEL_API VectorFieldFromComponents
    : public PointwiseNode<VectorFieldFromComponents, VectorField> {
public:
    VectorFieldFromComponents(ScalarPtr x_, ScalarPtr y_, ScalarPtr z_)
        : x(std::move(x_)), y(std::move(y_)), z(std::move(z_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) {
        return std::tie(node.x, node.y, node.z);
    }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("x", &Node::x), named("y", &Node::y), named("z", &Node::z));
    }
    float3 valueOf(float xv, float yv, float zv) const { return {xv, yv, zv}; }
    Columns<float3> viewOf(Columns<float> const& xl, Columns<float> const& yl,
                           Columns<float> const& zl) const {
        return joined(xl, yl, zl);
    }
    float3x3 gradientOf(float3 const& xg, float3 const& yg, float3 const& zg) const {
        return {{xg, yg, zg}};
    }

    ScalarPtr x, y, z;
};

/// (a.y*b.y + a.x*b.x) + a.z*b.z
class ZEL_API VectorFieldDotProduct : public PointwiseNode<VectorFieldDotProduct, ScalarField> {
public:
    VectorFieldDotProduct(VectorPtr a_, VectorPtr b_) : a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b));
    }
    float valueOf(float3 const& av, float3 const& bv) const { return dot(av, bv); }
    float3 gradientOf(float3 const& av, float3 const& bv, float3x3 const& ag,
                      float3x3 const& bg) const {
        return bv * ag + av * bg;
    }

    VectorPtr a, b;
};

/// The Euclidean length of a vector field. The gradient is NaN where it is 0.
class ZEL_API VectorFieldLength : public PointwiseNode<VectorFieldLength, ScalarField> {
public:
    explicit VectorFieldLength(VectorPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float3 const& v) const { return length(v); }
    float3 gradientOf(float3 const& v, float3x3 const& g) const { return (v * g) / length(v); }

    VectorPtr field;
};

/// The square of the length of a vector field.
class ZEL_API VectorFieldLengthSquared
    : public PointwiseNode<VectorFieldLengthSquared, ScalarField> {
public:
    explicit VectorFieldLengthSquared(VectorPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float3 const& v) const { return dot(v, v); }
    float3 gradientOf(float3 const& v, float3x3 const& g) const { return (v * g) * 2; }

    VectorPtr field;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldXComponent, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldYComponent, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldZComponent, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldComponent, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldFromComponents, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldDotProduct, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldLength, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldLengthSquared, ScalarField);
