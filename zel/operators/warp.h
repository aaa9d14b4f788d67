#pragma once

#include "zel/field/math.h"
#include "zel/node/node.h"

// Nodes that evaluate a child at another position. Their gradients follow the chain rule: the
// gradient of the child there, times the matrix of the map to that position, in this order.
namespace zel {

/// The base of the scalar and the vector warp.
template <class Self, class Interface> class ZEL_API WarpNode : public FieldNode<Self, Interface> {
public:
    using typename NamedNode<Self, Interface>::Value;
    using typename NamedNode<Self, Interface>::Gradient;
    WarpNode(Quern::Ptr<Interface> field_, VectorPtr warp_)
        : field(std::move(field_)), warp(std::move(warp_)) {}

    using Interface::eval;
    Value eval(float3 const& position, long long index) const override;
    Gradient grad(float3 const& position, long long index) const override;

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) {
        return std::tie(node.field, node.warp);
    }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("warp", &Node::warp));
    }
    void blockValues(Block& block, BlockResult<Value>& out) const;
    void blockGradients(Block& block, BlockResult<Gradient>& out) const;

    Quern::Ptr<Interface> field;
    VectorPtr warp;
};

/// field(warp(p)). `warp` gives the point to sample at, not a displacement.
class ZEL_API ScalarFieldWarp : public WarpNode<ScalarFieldWarp, ScalarField> {
public:
    using WarpNode::WarpNode;
};

/// field(warp(p)). `warp` gives the point to sample at, not a displacement.
class ZEL_API VectorFieldWarp : public WarpNode<VectorFieldWarp, VectorField> {
public:
    using WarpNode::WarpNode;
};

/// The base of the scalar and the vector advection.
template <class Self, class Interface>
class ZEL_API AdvectNode : public FieldNode<Self, Interface> {
public:
    using typename NamedNode<Self, Interface>::Value;
    using typename NamedNode<Self, Interface>::Gradient;
    AdvectNode(Quern::Ptr<Interface> field_, VectorPtr velocity_, float dt_)
        : field(std::move(field_)), velocity(std::move(velocity_)), dt(dt_) {}

    using Interface::eval;
    Value eval(float3 const& position, long long index) const override;
    Gradient grad(float3 const& position, long long index) const override;

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) {
        return std::tie(node.field, node.velocity);
    }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field), named("velocity", &Node::velocity),
                          named("dt", &Node::dt));
    }
    void blockValues(Block& block, BlockResult<Value>& out) const;
    void blockGradients(Block& block, BlockResult<Gradient>& out) const;
    float3 origin(float3 const& position, float3 const& v) const { return position - dt * v; }
    float3x3 originGradient(float3x3 const& g) const { return Orvane::Math::identity() - g * dt; }
    Columns<float3> origins(Block& block) const;

    Quern::Ptr<Interface> field;
    VectorPtr velocity;
    float dt;
};

/// field(p - dt * velocity(p)): one explicit Euler step back in time, in the manner of a
/// semi-Lagrangian step. `dt`, in the unit of time of the velocity, may be of either sign.
class ZEL_API ScalarFieldAdvect : public AdvectNode<ScalarFieldAdvect, ScalarField> {
public:
    using AdvectNode::AdvectNode;
};

/// field(p - dt * velocity(p)), as ScalarFieldAdvect.
class ZEL_API VectorFieldAdvect : public AdvectNode<VectorFieldAdvect, VectorField> {
public:
    using AdvectNode::AdvectNode;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_OPERATOR(WarpNode, zel::ScalarFieldWarp, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(WarpNode, zel::VectorFieldWarp, VectorField);
ZEL_DECLARE_LIBRARY_OPERATOR(AdvectNode, zel::ScalarFieldAdvect, ScalarField);
ZEL_DECLARE_LIBRARY_OPERATOR(AdvectNode, zel::VectorFieldAdvect, VectorField);
