// Nodes and visitors of one's own. docs/extending.md explains each of them.

#include <cmath>
#include <iostream>
#include <typeinfo>

#include <zel/node/node_impl.h>
#include <zel/zel.h>

#include "output.h"

namespace {

using zel::float3;
using zel::ScalarPtr;

/// A leaf: the distance to a ring of radius `radius` around the z axis. The gradient is zero on the
/// ring.
class Ring : public zel::LeafNode<Ring, zel::ScalarField> {
public:
    explicit Ring(float radius) : radius(radius) {}

private:
    friend zel::NodeAccess;
    float valueOf(float3 const& p, long long /*i*/) const {
        return std::hypot(std::hypot(p.x, p.y) - radius, p.z);
    }
    float3 gradientOf(float3 const& p, long long i) const {
        float const r = std::hypot(p.x, p.y);
        float const w = valueOf(p, i);
        if (!(w > 0)) return {};
        float const radial = r > 0 ? (r - radius) / (r * w) : 0;  // no direction on the axis
        return {p.x * radial, p.y * radial, p.z / w};
    }

    float radius;
};

/// A pointwise operator: the square root of a * a + b * b.
class Hypotenuse : public zel::PointwiseNode<Hypotenuse, zel::ScalarField> {
public:
    Hypotenuse(ScalarPtr a, ScalarPtr b) : a(std::move(a)), b(std::move(b)) {}

private:
    friend zel::NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.a, node.b); }
    float valueOf(float av, float bv) const { return std::hypot(av, bv); }
    float3 gradientOf(float av, float bv, float3 const& ag, float3 const& bg) const {
        float const w = valueOf(av, bv);
        return w > 0 ? ag * (av / w) + bg * (bv / w) : float3{};
    }

    ScalarPtr a, b;
};

/// A transform: field on the side x >= 0, and its mirror image on the other.
class Mirror : public zel::FieldNode<Mirror, zel::ScalarField> {
public:
    explicit Mirror(ScalarPtr field) : field(std::move(field)) {}

    using zel::ScalarField::eval;
    float eval(float3 const& p, long long i) const override {
        return field->eval({std::fabs(p.x), p.y, p.z}, i);
    }
    float3 grad(float3 const& p, long long i) const override {
        float3 const g = field->grad({std::fabs(p.x), p.y, p.z}, i);
        return {p.x < 0 ? -g.x : g.x, g.y, g.z};
    }

private:
    friend zel::NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }

    void blockValues(zel::Block& block, zel::BlockResult<float>& out) const {
        zel::Block::Frame const frame(block);  // frees the arrays that are allocated below
        auto mirrored = block.result<float3>();
        zel::mapBlock(
            block, mirrored,
            [](float3 const& p) {
                return float3{std::fabs(p.x), p.y, p.z};
            },
            block.positions());
        block.withPositions(mirrored.columns,
                            [&](zel::Block& there) { there.writeValues(field, out); });
    }

    ScalarPtr field;
};

/// A transform that moves all positions by the same offset: field(p - speed * time).
class Drift : public zel::TransformNode<Drift, zel::ScalarField> {
public:
    Drift(ScalarPtr field, float3 const& speed) : field(std::move(field)), speed(speed) {}

    void setTime(float seconds) { time = seconds; }

private:
    friend zel::NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    float3 childPosition(float3 const& p) const { return p - speed * time; }
    float valueOf(float v) const { return v; }
    float3 gradientOf(float3 const& g) const { return g; }

    ScalarPtr field;
    float3 speed;
    float time = 0;
};

/// Prints a tree, a node a line.
class Printer : public zel::FieldConstVisitor {
public:
    void operator()(zel::Field const& node) override {
        std::cout << std::string(depth * 2, ' ') << zel::typeNameOf(typeid(node)) << '\n';
        ++depth;
        node.accept(*this);
        --depth;
    }

private:
    std::size_t depth = 0;
};

/// Sets the time of every Drift below the nodes that it visits.
class TimeSetter : public zel::FieldVisitor {
public:
    explicit TimeSetter(float seconds) : seconds(seconds) {}

    using zel::FieldVisitor::operator();
    void operator()(zel::Field& node) override {
        if (auto* const drift = dynamic_cast<Drift*>(&node)) drift->setTime(seconds);
        node.accept(*this);
    }

private:
    float seconds;
};

}  // namespace

int main() {
    using Quern::makePtr;
    ScalarPtr const ring = makePtr<Drift>(makePtr<Ring>(1.0F), float3{1, 0, 0});
    ScalarPtr const plane = makePtr<zel::ScalarFieldPlane>(float3{0.5F, 0, 0}, float3{1, 0, 0});
    ScalarPtr const tree = makePtr<Mirror>(makePtr<Hypotenuse>(ring, plane));
    Printer()(*tree);

    // `ring` has another owner outside the tree: the walk replaces it in the tree by a copy.
    TimeSetter advance(1.0F);
    advance(*tree);
    Quern::Array<float3> const positions{{2, 0, 0}, {-2, 0, 0}, {0.5F, 1, 0}};
    auto const values = tree->eval(positions);
    for (long long i = 0; i < positions.size(); ++i) {
        float3 const g = tree->grad(positions[i], i);
        std::cout << (*values)[i] << "  gradient " << g.x << ' ' << g.y << ' ' << g.z << '\n';
    }
    std::cout << "the ring outside the tree: " << ring->eval({2, 0, 0}, 0) << '\n';
    return examples::finish("own_nodes");
}
