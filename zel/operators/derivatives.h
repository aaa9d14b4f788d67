#pragma once

#include "zel/node/node.h"

// A child's first derivative as a field, as accurate as the child's `grad`. Their own gradients are
// the default ones, by differences of the first derivative.
namespace zel {

/// The gradient of a scalar field, a vector field.
class ZEL_API ScalarFieldGradient : public FieldNode<ScalarFieldGradient, VectorField> {
public:
    explicit ScalarFieldGradient(ScalarPtr field_) : field(std::move(field_)) {}

    using VectorField::eval;
    float3 eval(float3 const& position, long long index) const override;

private:
    friend NodeAccess;
    static constexpr bool kTakesGradients = true;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    void blockValues(Block& block, BlockResult<float3>& out) const;

    ScalarPtr field;
};

/// The divergence of a vector field, a scalar field: the trace of its gradient.
class ZEL_API ScalarFieldDivergence : public FieldNode<ScalarFieldDivergence, ScalarField> {
public:
    explicit ScalarFieldDivergence(VectorPtr field_) : field(std::move(field_)) {}

    using ScalarField::eval;
    float eval(float3 const& position, long long index) const override;

private:
    friend NodeAccess;
    static constexpr bool kTakesGradients = true;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    void blockValues(Block& block, BlockResult<float>& out) const;

    VectorPtr field;
};

/// The curl of a vector field: (dz/dy - dy/dz, dx/dz - dz/dx, dy/dx - dx/dy).
class ZEL_API VectorFieldCurl : public FieldNode<VectorFieldCurl, VectorField> {
public:
    explicit VectorFieldCurl(VectorPtr field_) : field(std::move(field_)) {}

    using VectorField::eval;
    float3 eval(float3 const& position, long long index) const override;

private:
    friend NodeAccess;
    static constexpr bool kTakesGradients = true;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    void blockValues(Block& block, BlockResult<float3>& out) const;

    VectorPtr field;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_FIELD(zel::ScalarFieldGradient, VectorField);
ZEL_DECLARE_LIBRARY_FIELD(zel::ScalarFieldDivergence, ScalarField);
ZEL_DECLARE_LIBRARY_FIELD(zel::VectorFieldCurl, VectorField);
