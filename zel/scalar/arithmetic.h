#pragma once

#include "zel/field/math.h"
#include "zel/node/node.h"

namespace zel {

/// The same value everywhere.
class ZEL_API ScalarFieldConstant : public LeafNode<ScalarFieldConstant, ScalarField> {
public:
    ScalarFieldConstant() = default;
    explicit ScalarFieldConstant(float value_) : value(value_) {}

private:
    friend NodeAccess;
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("value", &Node::value));
    }
    float valueOf(float3 const& /*p*/, long long /*i*/) const { return value; }
    float3 gradientOf(float3 const& /*p*/, long long /*i*/) const { return {}; }
    Columns<float> viewOf(Block& block) const;

    float value = 0;
};

/// a + b
class ZEL_API ScalarFieldAdd : public PointwiseNode<ScalarFieldAdd, ScalarField> {
public:
    ScalarFieldAdd(ScalarPtr a_, ScalarPtr b_) : a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    static constexpr Chain kChain = Chain::kLeft;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b));
    }
    float valueOf(float av, float bv) const { return av + bv; }
    float3 gradientOf(float3 const& ag, float3 const& bg) const { return ag + bg; }

    ScalarPtr a, b;
};

/// a - b
class ZEL_API ScalarFieldSubtract : public PointwiseNode<ScalarFieldSubtract, ScalarField> {
public:
    ScalarFieldSubtract(ScalarPtr a_, ScalarPtr b_) : a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b));
    }
    float valueOf(float av, float bv) const { return av - bv; }
    float3 gradientOf(float3 const& ag, float3 const& bg) const { return ag - bg; }

    ScalarPtr a, b;
};

/// -field, by the sign bit: +0 gives -0.
class ZEL_API ScalarFieldNegative : public PointwiseNode<ScalarFieldNegative, ScalarField> {
public:
    explicit ScalarFieldNegative(ScalarPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float v) const { return -v; }
    float3 gradientOf(float3 const& g) const { return -g; }

    ScalarPtr field;
};

/// a * b
class ZEL_API ScalarFieldMultiply : public PointwiseNode<ScalarFieldMultiply, ScalarField> {
public:
    ScalarFieldMultiply(ScalarPtr a_, ScalarPtr b_) : a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    static constexpr Chain kChain = Chain::kLeft;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b));
    }
    float valueOf(float av, float bv) const { return av * bv; }
    float3 gradientOf(float av, float bv, float3 const& ag, float3 const& bg) const {
        return bg * av + ag * bv;
    }

    ScalarPtr a, b;
};

/// a / b. No guard: where b is 0 the value and the gradient are infinite or NaN.
class ZEL_API ScalarFieldDivide : public PointwiseNode<ScalarFieldDivide, ScalarField> {
public:
    ScalarFieldDivide(ScalarPtr a_, ScalarPtr b_) : a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b));
    }
    float valueOf(float av, float bv) const { return av / bv; }
    float3 gradientOf(float av, float bv, float3 const& ag, float3 const& bg) const {
        return ag / bv - bg * (av / (bv * bv));
    }

    ScalarPtr a, b;
};

/// b * t + a * (1 - t). Not limited: a `t` outside 0..1 extrapolates.
class ZEL_API ScalarFieldLerp : public PointwiseNode<ScalarFieldLerp, ScalarField> {
public:
    ScalarFieldLerp(ScalarPtr a_, ScalarPtr b_, ScalarPtr t_)
        : a(std::move(a_)), b(std::move(b_)), t(std::move(t_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) {
        return std::tie(node.a, node.b, node.t);
    }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b), named("t", &Node::t));
    }
    float valueOf(float av, float bv, float tv) const { return bv * tv + av * (1 - tv); }
    float3 gradientOf(float av, float bv, float tv, float3 const& ag, float3 const& bg,
                      float3 const& tg) const {
        return (ag * (1 - tv) + bg * tv) + tg * (bv - av);
    }

    ScalarPtr a, b, t;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_LEAF(zel::ScalarFieldConstant, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldAdd, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldSubtract, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldNegative, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldMultiply, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldDivide, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldLerp, ScalarField);
