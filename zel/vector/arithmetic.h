#pragma once

#include <cmath>

#include "zel/field/math.h"
#include "zel/node/node.h"
#include "zel_platform/quern_core/array.h"

// Vector nodes that compute, component by component unless the formula says otherwise. A division
// is not guarded unless the node says so. In a gradient, `M[r][c]` is the derivative of component
// `r` along coordinate `c`; row `r` of `ag` is the gradient of component `r` of `a`.
namespace zel {

/// The same vector everywhere.
class ZEL_API VectorFieldConstant : public LeafNode<VectorFieldConstant, VectorField> {
public:
    VectorFieldConstant() = default;
    explicit VectorFieldConstant(float3 const& value_) : value(value_) {}

private:
    friend NodeAccess;
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("value", &Node::value));
    }
    float3 valueOf(float3 const& /*p*/, long long /*i*/) const { return value; }
    float3x3 gradientOf(float3 const& /*p*/, long long /*i*/) const { return {}; }
    Columns<float3> viewOf(Block& block) const;

    float3 value;
};

/// An element of an array by the element index, which wraps around past the end: values[i % n],
/// with the index as an unsigned number. The zero vector if the array is empty.
class ZEL_API VectorFieldConstantArray : public LeafNode<VectorFieldConstantArray, VectorField> {
public:
    VectorFieldConstantArray() = default;
    explicit VectorFieldConstantArray(Quern::Array<float3> values_) : values(std::move(values_)) {}

private:
    friend NodeAccess;
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("values", &Node::values));
    }
    float3 valueOf(float3 const& /*p*/, long long i) const {
        if (values.empty()) return {};
        auto const size = static_cast<unsigned long long>(values.size());
        return values[static_cast<long long>(static_cast<unsigned long long>(i) % size)];
    }
    float3x3 gradientOf(float3 const& /*p*/, long long /*i*/) const { return {}; }

    Quern::Array<float3> values;
};

/// a + b
class ZEL_API VectorFieldAdd : public PointwiseNode<VectorFieldAdd, VectorField> {
public:
    VectorFieldAdd(VectorPtr a_, VectorPtr b_) : a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    static constexpr Chain kChain = Chain::kLeft;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b));
    }
    float3 valueOf(float3 const& av, float3 const& bv) const { return av + bv; }
    float3x3 gradientOf(float3x3 const& ag, float3x3 const& bg) const { return ag + bg; }

    VectorPtr a, b;
};

/// a - b
class ZEL_API VectorFieldSubtract : public PointwiseNode<VectorFieldSubtract, VectorField> {
public:
    VectorFieldSubtract(VectorPtr a_, VectorPtr b_) : a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b));
    }
    float3 valueOf(float3 const& av, float3 const& bv) const { return av - bv; }
    float3x3 gradientOf(float3x3 const& ag, float3x3 const& bg) const { return ag - bg; }

    VectorPtr a, b;
};

/// -field, by the sign bits.
class ZEL_API VectorFieldNegative : public PointwiseNode<VectorFieldNegative, VectorField> {
public:
    explicit VectorFieldNegative(VectorPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float3 valueOf(float3 const& v) const { return -v; }
    float3x3 gradientOf(float3x3 const& g) const { return -g; }

    VectorPtr field;
};

/// a[c] * b[c] for each component.
class ZEL_API VectorFieldMultiply : public PointwiseNode<VectorFieldMultiply, VectorField> {
public:
    VectorFieldMultiply(VectorPtr a_, VectorPtr b_) : a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    static constexpr Chain kChain = Chain::kLeft;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b));
    }
    float3 valueOf(float3 const& av, float3 const& bv) const { return multiplyComponents(av, bv); }
    float3x3 gradientOf(float3 const& av, float3 const& bv, float3x3 const& ag,
                        float3x3 const& bg) const {
        float3x3 m;
        for (int r = 0; r < 3; ++r) m[r] = ag[r] * bv[r] + bg[r] * av[r];
        return m;
    }

    VectorPtr a, b;
};

/// a[c] / b[c] for each component. No guard.
class ZEL_API VectorFieldDivide : public PointwiseNode<VectorFieldDivide, VectorField> {
public:
    VectorFieldDivide(VectorPtr a_, VectorPtr b_) : a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b));
    }
    float3 valueOf(float3 const& av, float3 const& bv) const { return divideComponents(av, bv); }
    float3x3 gradientOf(float3 const& av, float3 const& bv, float3x3 const& ag,
                        float3x3 const& bg) const {
        float3x3 m;
        for (int r = 0; r < 3; ++r) m[r] = ag[r] / bv[r] - (bg[r] * av[r]) / (bv[r] * bv[r]);
        return m;
    }

    VectorPtr a, b;
};

/// field * factor
class ZEL_API VectorFieldVSMultiply : public PointwiseNode<VectorFieldVSMultiply, VectorField> {
public:
    VectorFieldVSMultiply(VectorPtr field_, ScalarPtr factor_)
        : field(std::move(field_)), factor(std::move(factor_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) {
        return std::tie(node.field, node.factor);
    }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("factor", &Node::factor));
    }
    float3 valueOf(float3 const& v, float s) const { return v * s; }
    float3x3 gradientOf(float3 const& v, float s, float3x3 const& g, float3 const& sg) const {
        return g * s + outerProduct(v, sg);
    }

    VectorPtr field;
    ScalarPtr factor;
};

/// field / factor, by three divisions. No guard.
class ZEL_API VectorFieldVSDivide : public PointwiseNode<VectorFieldVSDivide, VectorField> {
public:
    VectorFieldVSDivide(VectorPtr field_, ScalarPtr factor_)
        : field(std::move(field_)), factor(std::move(factor_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) {
        return std::tie(node.field, node.factor);
    }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("factor", &Node::factor));
    }
    float3 valueOf(float3 const& v, float s) const { return v / s; }
    float3x3 gradientOf(float3 const& v, float s, float3x3 const& g, float3 const& sg) const {
        return g / s - outerProduct(v, sg / (s * s));
    }

    VectorPtr field;
    ScalarPtr factor;
};

/// a * (1 - t) + b * t. Not limited: a `t` outside 0..1 extrapolates.
class ZEL_API VectorFieldLerp : public PointwiseNode<VectorFieldLerp, VectorField> {
public:
    VectorFieldLerp(VectorPtr a_, VectorPtr b_, ScalarPtr t_)
        : a(std::move(a_)), b(std::move(b_)), t(std::move(t_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) {
        return std::tie(node.a, node.b, node.t);
    }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b), named("t", &Node::t));
    }
    float3 valueOf(float3 const& av, float3 const& bv, float tv) const {
        return av * (1 - tv) + bv * tv;
    }
    float3x3 gradientOf(float3 const& av, float3 const& bv, float tv, float3x3 const& ag,
                        float3x3 const& bg, float3 const& tg) const {
        return (ag * (1 - tv) + bg * tv) + outerProduct(bv - av, tg);
    }

    VectorPtr a, b;
    ScalarPtr t;
};

/// The cross product a × b.
class ZEL_API VectorFieldCross : public PointwiseNode<VectorFieldCross, VectorField> {
public:
    VectorFieldCross(VectorPtr a_, VectorPtr b_) : a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b));
    }
    float3 valueOf(float3 const& av, float3 const& bv) const { return cross(av, bv); }
    float3x3 gradientOf(float3 const& av, float3 const& bv, float3x3 const& ag,
                        float3x3 const& bg) const {
        return mapColumns([&](float3 const& column) { return cross(column, bv); }, ag) +
               mapColumns([&](float3 const& column) { return cross(av, column); }, bg);
    }

    VectorPtr a, b;
};

/// field / length(field), and field itself where its length is 0. The gradient is deliberately not
/// the derivative: it is the child's gradient without its part along the field,
/// `M[r][c] = G[r][c] - (sum over k of G[k][c]*v[k]) / dot(v,v) * v[r]`, and is not divided by the
/// length of the field. It has no guard: it is NaN where the field is zero. See
/// withExactGradients().
class ZEL_API VectorFieldUnitVector : public PointwiseNode<VectorFieldUnitVector, VectorField> {
public:
    explicit VectorFieldUnitVector(VectorPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float3 valueOf(float3 const& v) const {
        float const l = length(v);
        return choose(l == 0, v, v / l);
    }
    float3x3 gradientOf(float3 const& v, float3x3 const& g) const {
        return g - outerProduct(v, (v * g) / dot(v, v));
    }
    /// The child's where the value is.
    float3x3 exactGradientOf(float3 const& v, float3x3 const& g) const {
        float const l = length(v);
        return l == 0 ? g : gradientOf(v, g) / l;
    }

    VectorPtr field;
    bool usesExactGradient = false;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_LEAF(zel::VectorFieldConstant, VectorField);
ZEL_DECLARE_LIBRARY_LEAF(zel::VectorFieldConstantArray, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldAdd, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldSubtract, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldNegative, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldMultiply, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldDivide, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldVSMultiply, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldVSDivide, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldLerp, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldCross, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldUnitVector, VectorField);
