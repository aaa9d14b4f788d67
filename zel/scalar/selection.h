#pragma once

#include <cmath>

#include "zel/field/math.h"
#include "zel/node/node.h"

// Scalar nodes that compare. Tests against 0 and between children are exact, and a NaN makes each
// of them false.
namespace zel {

/// a if a > b, else b. On a tie the gradient is that of a.
class ZEL_API ScalarFieldMax : public PointwiseNode<ScalarFieldMax, ScalarField> {
public:
    ScalarFieldMax(ScalarPtr a_, ScalarPtr b_) : a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    static constexpr Chain kChain = Chain::kBalanced;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b));
    }
    float valueOf(float av, float bv) const { return av > bv ? av : bv; }
    int gradientChoice(float av, float bv) const { return av >= bv ? 0 : 1; }

    ScalarPtr a, b;
};

/// a if a < b, else b. On a tie the gradient is that of b.
class ZEL_API ScalarFieldMin : public PointwiseNode<ScalarFieldMin, ScalarField> {
public:
    ScalarFieldMin(ScalarPtr a_, ScalarPtr b_) : a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    static constexpr Chain kChain = Chain::kBalanced;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b));
    }
    float valueOf(float av, float bv) const { return av < bv ? av : bv; }
    int gradientChoice(float av, float bv) const { return av < bv ? 0 : 1; }

    ScalarPtr a, b;
};

/// 1 where field > 0, else 0. The gradient is zero everywhere.
class ZEL_API ScalarFieldMask : public PointwiseNode<ScalarFieldMask, ScalarField> {
public:
    explicit ScalarFieldMask(ScalarPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float v) const { return v > 0 ? 1.0F : 0.0F; }
    float3 gradientOf() const { return {}; }

    ScalarPtr field;
};

/// `min` where field <= min, else `max` where field >= max, else field. The bounds stay as they are
/// passed: where they cross, `min` wins. The gradient is the child's strictly between the bounds,
/// and zero on and beyond them. A NaN stays, with a zero gradient.
class ZEL_API ScalarFieldClamp : public PointwiseNode<ScalarFieldClamp, ScalarField> {
public:
    ScalarFieldClamp(ScalarPtr field_, float min_, float max_)
        : field(std::move(field_)), min(min_), max(max_) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("min", &Node::min),
                          named("max", &Node::max));
    }
    float valueOf(float v) const {
        float const below = v >= max ? max : v;  // two selections in a row are faster as SIMD code
        return v <= min ? min : below;
    }
    int gradientChoice(float v) const { return ((min < v) & (v < max)) ? 0 : -1; }  // no branch

    ScalarPtr field;
    float min, max;
};

/// a where condition > 0, else b. Only the branch taken is evaluated.
class ZEL_API ScalarFieldSwitch : public SwitchNode<ScalarFieldSwitch, ScalarField> {
public:
    ScalarFieldSwitch(ScalarPtr condition_, ScalarPtr a_, ScalarPtr b_)
        : condition(std::move(condition_)), a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) {
        return std::tie(node.condition, node.a, node.b);
    }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("condition", &Node::condition), named("a", &Node::a),
                          named("b", &Node::b));
    }

    ScalarPtr condition, a, b;
};

/// field with its sign bit cleared. The gradient is the child's where field >= 0, else its
/// negative.
class ZEL_API ScalarFieldAbsolute : public PointwiseNode<ScalarFieldAbsolute, ScalarField> {
public:
    explicit ScalarFieldAbsolute(ScalarPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float valueOf(float v) const { return std::fabs(v); }
    float3 gradientOf(float v, float3 const& g) const { return choose(v >= 0, g, -g); }

    ScalarPtr field;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldMax, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldMin, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldMask, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldClamp, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(SwitchNode, zel::ScalarFieldSwitch, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::ScalarFieldAbsolute, ScalarField);
