#pragma once

#include <cstdint>

#include "zel/field/math.h"
#include "zel/node/node.h"

// Projection of the position onto the surface where a scalar field, read as a signed distance, is
// 0. The values are positions; the gradients are the default ones, by differences.
namespace zel {

/// One step to the surface: p - field(p) * grad field(p). The step ends on the surface if the field
/// is a true distance. The gradient is not normalised; a zero gradient leaves the position as it
/// is.
class ZEL_API VectorFieldClosestPointTransform
    : public FieldNode<VectorFieldClosestPointTransform, VectorField> {
public:
    explicit VectorFieldClosestPointTransform(ScalarPtr field_) : field(std::move(field_)) {}

    using VectorField::eval;
    float3 eval(float3 const& position, long long index) const override;

private:
    friend NodeAccess;
    friend class VectorFieldIteratedNearPointTransform;
    static constexpr bool kTakesGradients = true;
    template <class Node> static auto children(Node& node) { return std::tie(node.field); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::field));
    }
    void blockValues(Block& block, BlockResult<float3>& out) const;

    ScalarPtr field;
};

/// Steps to the surface: one, and then up to `iterations` more, until a step is shorter than
/// `tolerance`. With a tolerance that is not above 0 all steps are taken. The value is the last
/// point computed, whether or not the last step was short.
class ZEL_API VectorFieldIteratedNearPointTransform
    : public FieldNode<VectorFieldIteratedNearPointTransform, VectorField> {
public:
    VectorFieldIteratedNearPointTransform(ScalarPtr field, float tolerance,
                                          std::int32_t iterations);

    using VectorField::eval;
    float3 eval(float3 const& position, long long index) const override;

private:
    friend NodeAccess;
    template <class Node> static auto children(Node& node) { return std::tie(node.transform); }
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("field", &Node::projectedField),
                          named("tolerance", &Node::tolerance),
                          named("iterations", &Node::iterations));
    }
    void blockValues(Block& block, BlockResult<float3>& out) const;
    /// The field of `transform`; empty if a ChildReplacer has set another class in its place.
    ScalarPtr projectedField() const;
    bool atRest(float3 const& p, float3 const& next) const {
        return tolerance > 0 && tolerance > Orvane::Math::length(next - p);
    }

    VectorPtr transform;
    float tolerance;
    std::int32_t iterations;
};

}  // namespace zel

ZEL_DECLARE_LIBRARY_FIELD(zel::VectorFieldClosestPointTransform, VectorField);
ZEL_DECLARE_LIBRARY_FIELD(zel::VectorFieldIteratedNearPointTransform, VectorField);
