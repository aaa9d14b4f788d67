#pragma once

#include <cmath>

#include "zel/field/math.h"
#include "zel/node/node.h"

// Implicit shapes: negative inside or behind, 0 on the surface, positive outside. Parameters are
// not tested; the results for numbers that are not finite are those of the formulas.
namespace zel {

/// The signed distance to a sphere. The radius may be negative. The gradient at the centre is zero.
class ZEL_API ScalarFieldSphere : public LeafNode<ScalarFieldSphere, ScalarField> {
public:
    ScalarFieldSphere(float3 const& center_, float const& radius_)
        : center(center_), radius(radius_) {}

private:
    friend NodeAccess;
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("center", &Node::center, float3{}),
                          named("radius", &Node::radius, 1.0F));
    }
    float valueOf(float3 const& p) const { return length(p - center) - radius; }
    float3 gradientOf(float3 const& p) const {
        float3 const d = p - center;
        float const l = length(d);
        return choose(l > 0, d / l, d);
    }

    float3 center;
    float radius;
};

/// A superellipsoid: the norm (|x|^e + |y|^e + |z|^e)^(1/e) of the offset from the centre, with `e`
/// the exponent, less |size|^e. An exponent of 2 gives a sphere, a large one approaches a cube.
/// Note that `size` is the half width only for a size of 1: the surface lies at the norm |size|^e.
/// The gradient is not finite at the centre and, for an exponent below 2, where an offset component
/// is 0.
class ZEL_API ScalarFieldImplicitBox : public LeafNode<ScalarFieldImplicitBox, ScalarField> {
public:
    ScalarFieldImplicitBox(float3 const& center, float const& size, float const& exponent);

private:
    friend NodeAccess;
    static constexpr bool kHeavy = true;
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("center", &Node::center, float3{}),
                          named("size", &Node::size, 1.0F), named("exponent", &Node::exponent));
    }
    float valueOf(float3 const& p) const {
        return std::pow(powerSum(p - center), 1 / exponent) - level;
    }
    float3 gradientOf(float3 const& p) const {
        float3 const d = p - center;
        float const factor = std::pow(powerSum(d), 1 / exponent - 1);
        return mapComponents(
            [&](float c) { return std::pow(std::fabs(c), exponent - 2) * factor * c; }, d);
    }
    float powerSum(float3 const& d) const {
        return std::pow(std::fabs(d.y), exponent) + std::pow(std::fabs(d.x), exponent) +
               std::pow(std::fabs(d.z), exponent);
    }

    float3 center;
    float level;
    float exponent;
    float size;
};

/// The signed distance to a plane. The normal is divided by its length at construction: of a
/// node whose normal is zero, the results are not finite.
class ZEL_API ScalarFieldPlane : public LeafNode<ScalarFieldPlane, ScalarField> {
public:
    ScalarFieldPlane(float3 const& point, float3 const& normal);
    /// Takes the normal as it is.
    ScalarFieldPlane(float3 const& point, UnitVector const& normal);

private:
    friend NodeAccess;
    template <class Node> static constexpr auto parameters() {
        return std::tuple(
            named("point", &Node::point, float3{}),
            named("normal", [](Node const& node) { return UnitVector(node.normal); }));
    }
    float valueOf(float3 const& p) const { return dot(p - point, normal); }
    // By components, since clang vectorises no loop that copies a whole vector.
    float3 gradientOf(float3 const& /*p*/) const { return {normal.x, normal.y, normal.z}; }

    float3 point;
    float3 normal;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_LEAF(zel::ScalarFieldSphere, ScalarField);
ZEL_DECLARE_LIBRARY_LEAF(zel::ScalarFieldImplicitBox, ScalarField);
ZEL_DECLARE_LIBRARY_LEAF(zel::ScalarFieldPlane, ScalarField);
