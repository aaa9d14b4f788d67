#pragma once

#include <cmath>

#include "zel/field/math.h"
#include "zel/node/node.h"

// Vector nodes that compare. Values are selected component by component, but a gradient as a whole
// matrix, by one lexicographic comparison of vectors; row by row as the values after
// withExactGradients(). A NaN makes a comparison false.
namespace zel {

/// For each component a[c] if a[c] > b[c], else b[c]. The gradient is that of a where a > b, else
/// that of b.
class ZEL_API VectorFieldMax : public PointwiseNode<VectorFieldMax, VectorField> {
public:
    VectorFieldMax(VectorPtr a_, VectorPtr b_) : a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    static constexpr Chain kChain = Chain::kBalanced;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b));
    }
    float3 valueOf(float3 const& av, float3 const& bv) const {
        return mapComponents([](float ac, float bc) { return ac > bc ? ac : bc; }, av, bv);
    }
    int gradientChoice(float3 const& av, float3 const& bv) const { return av > bv ? 0 : 1; }
    float3x3 exactGradientOf(float3 const& av, float3 const& bv, float3x3 const& ag,
                             float3x3 const& bg) const {
        return Orvane::Math::rowsOf([&](int r) { return av[r] > bv[r] ? ag[r] : bg[r]; });
    }

    VectorPtr a, b;
    bool usesExactGradient = false;
};

/// For each component a[c] if a[c] < b[c], else b[c]. The gradient is that of a where a < b, else
/// that of b.
class ZEL_API VectorFieldMin : public PointwiseNode<VectorFieldMin, VectorField> {
public:
    VectorFieldMin(VectorPtr a_, VectorPtr b_) : a(std::move(a_)), b(std::move(b_)) {}

private:
    friend NodeAccess;
    static constexpr Chain kChain = Chain::kBalanced;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a), named("b", &Node::b));
    }
    float3 valueOf(float3 const& av, float3 const& bv) const {
        return mapComponents([](float ac, float bc) { return ac < bc ? ac : bc; }, av, bv);
    }
    int gradientChoice(float3 const& av, float3 const& bv) const { return av < bv ? 0 : 1; }
    float3x3 exactGradientOf(float3 const& av, float3 const& bv, float3x3 const& ag,
                             float3x3 const& bg) const {
        return Orvane::Math::rowsOf([&](int r) { return av[r] < bv[r] ? ag[r] : bg[r]; });
    }

    VectorPtr a, b;
    bool usesExactGradient = false;
};

/// Each component with its sign bit cleared. The gradient is the negative of the child's where the
/// field is below the zero vector, else the child's.
class ZEL_API VectorFieldAbsolute : public PointwiseNode<VectorFieldAbsolute, VectorField> {
public:
    explicit VectorFieldAbsolute(VectorPtr field_) : field(std::move(field_)) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    float3 valueOf(float3 const& v) const {
        return mapComponents([](float c) { return std::fabs(c); }, v);
    }
    float3x3 gradientOf(float3 const& v, float3x3 const& g) const { return v < float3{} ? -g : g; }
    float3x3 exactGradientOf(float3 const& v, float3x3 const& g) const {
        return Orvane::Math::rowsOf([&](int r) { return v[r] < 0 ? -g[r] : g[r]; });
    }

    VectorPtr field;
    bool usesExactGradient = false;
};

/// Each component limited to the range between `min[c]` and `max[c]`, whichever is the smaller. A
/// NaN stays. The gradient is the child's where min < field < max, both tested on whole vectors and
/// against the bounds as passed, else zero.
class ZEL_API VectorFieldClamp : public PointwiseNode<VectorFieldClamp, VectorField> {
public:
    VectorFieldClamp(VectorPtr field_, float3 min_, float3 max_)
        : field(std::move(field_)), min(min_), max(max_) {}

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("min", &Node::min),
                          named("max", &Node::max));
    }
    float3 valueOf(float3 const& v) const {
        auto const limited = [](float c, float first, float second) {
            bool const crossed = second < first;
            float const lo = crossed ? second : first;
            float const hi = crossed ? first : second;
            float const u = lo > c ? lo : c;
            return u > hi ? hi : u;
        };
        return mapComponents(limited, v, min, max);
    }
    int gradientChoice(float3 const& v) const { return v > min && max > v ? 0 : -1; }
    float3x3 exactGradientOf(float3 const& v, float3x3 const& g) const {
        float3 const value = valueOf(v);
        return Orvane::Math::rowsOf([&](int r) { return value[r] == v[r] ? g[r] : float3{}; });
    }

    VectorPtr field;
    float3 min, max;
    bool usesExactGradient = false;
};

/// a where condition > 0, else b. Only the branch taken is evaluated.
class ZEL_API VectorFieldSwitch : public SwitchNode<VectorFieldSwitch, VectorField> {
public:
    VectorFieldSwitch(ScalarPtr condition_, VectorPtr a_, VectorPtr b_)
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

    ScalarPtr condition;
    VectorPtr a, b;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldMax, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldMin, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldAbsolute, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(PointwiseNode, zel::VectorFieldClamp, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(SwitchNode, zel::VectorFieldSwitch, VectorField);
